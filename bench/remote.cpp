// SPDX-License-Identifier: MIT
// bench_remote [MEBIBYTES [BOARDS]]: what ledboard-server does. A file is pushed to a virtual board, in turn
// with the same file uploaded by ledboard; then many boards, played by this program, stay connected and get a
// program of one MiB all at once. Rates, the server's processor time and its memory. Status 1 when a transfer
// failed.
#include "bench_report.h"
#include "board/virtual_board.h"
#include "common/unique_fd.h"
#include "machine/pc_side.h"
#include "records/remote_crc.h"
#include "records/remote_records.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>

namespace
{

using Clock = std::chrono::steady_clock;
using ledboard::UniqueFd;
namespace fs = std::filesystem;

constexpr char kControl[] = "/run/bench-server.sock";
constexpr std::uint16_t kPort = 7001;

pid_t Start(const char *name, const std::vector<std::string> &words, const char *output)
{
    std::string program = board::ProgramFolder() + "/" + name;
    const pid_t child = fork();
    if (child != 0)
        return child;
    std::vector<std::string> all = words;
    std::vector<char *> arguments{program.data()};
    for (std::string &word : all)
        arguments.push_back(word.data());
    arguments.push_back(nullptr);
    if (std::freopen(output, "w", stdout) != nullptr && std::freopen("/dev/null", "w", stderr) != nullptr)
        execv(program.c_str(), arguments.data());
    _exit(127);
}

pid_t StartPush(const std::string &folder)
{
    return Start("ledboard-server",
                 {"push", folder, "--to", "all", "--control", kControl, "--json", "--quiet"}, "/dev/null");
}

bool Done(pid_t push)
{
    int status = -1;
    waitpid(push, &status, 0);
    return status == 0;
}

double ProcessorSeconds(pid_t pid)
{
    std::ifstream file("/proc/" + std::to_string(pid) + "/stat");
    std::string word;
    double ticks = 0;
    for (int field = 1; field <= 15 && file >> word; ++field)
        ticks += field >= 14 ? std::stod(word) : 0;
    return ticks / static_cast<double>(sysconf(_SC_CLK_TCK));
}

long ResidentKib(pid_t pid)
{
    std::ifstream file("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(file, line);) {
        if (line.rfind("VmRSS:", 0) == 0)
            return std::atol(line.c_str() + 6);
    }
    return 0;
}

void WriteFile(const std::string &path, std::size_t mebibytes)
{
    fs::create_directories(fs::path(path).parent_path());
    std::ofstream file(path, std::ios::binary);
    std::string block(1U << 20U, '\0');
    for (std::size_t written = 0; written < mebibytes; ++written) {
        for (std::size_t at = 0; at < block.size(); at += 8)
            std::memcpy(block.data() + at, &at, sizeof at);
        block[0] = static_cast<char>(written);
        file << block;
    }
}

// A board that has no files and takes all.
class PlayedBoard
{
public:
    explicit PlayedBoard(int number) : fd_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
    {
        sockaddr_in to{};
        to.sin_family = AF_INET;
        to.sin_port = htons(kPort);
        to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        std::snprintf(id_, sizeof id_, "B%012d", number);
        wire::RemoteLoginPacket login{};
        login.prefix = {.length = sizeof login, .command = wire::kRemoteLogin};
        std::memcpy(login.id, id_, sizeof login.id);
        if (connect(fd_.Get(), reinterpret_cast<const sockaddr *>(&to), sizeof to) != 0)
            throw std::runtime_error("a board cannot connect");
        Send(wire::kRemoteGreeting);
        Send(login);
    }
    int Get() const { return fd_.Get(); }

    void Beat()
    {
        Send(wire::RemoteWord{.prefix = {.length = sizeof(wire::RemoteWord),
                                         .command = wire::kRemoteHeartbeat},
                              .value = 0});
    }

    void Receive()
    {
        char block[wire::kRemoteBufferSize];
        const ssize_t count = recv(fd_.Get(), block, sizeof block, MSG_DONTWAIT);
        if (count <= 0)
            return;
        held_.append(block, static_cast<std::size_t>(count));
        std::size_t at = 0;
        for (;;) {
            const wire::Bytes bytes = wire::BytesAt(held_.data() + at, held_.size() - at);
            const auto length = wire::Read<wire::U32>(bytes);
            if (!length || *length > bytes.size())
                break;
            Answer(bytes.first(*length));
            at += *length;
        }
        held_.erase(0, at);
    }

private:
    template <wire::Record T> void Send(const T &record) const
    {
        send(fd_.Get(), &record, sizeof record, MSG_NOSIGNAL);
    }

    template <wire::Record T> void Reply(T reply, wire::RemoteReply code) const
    {
        wire::RemoteSessionHeader header{};
        header.outer.prefix = {.length = sizeof reply, .command = wire::kRemoteSession};
        header.inner.prefix = {.length = sizeof reply - sizeof(wire::RemoteHeader),
                               .command = static_cast<std::uint32_t>(code)};
        std::memcpy(&reply, &header, sizeof header);
        Send(reply);
    }

    void Answer(wire::Bytes packet)
    {
        const auto inner = wire::Read<wire::RemotePrefix>(packet, sizeof(wire::RemoteHeader));
        if (!inner || wire::Read<wire::RemotePrefix>(packet)->command != wire::kRemoteSession)
            return;
        const wire::RemoteResultReply success{.header = {}, .result = wire::kRemoteSuccess};
        switch (inner->command) {
        case wire::kRemoteLock:
            return Reply(success, wire::kRemoteLockReply);
        case wire::kRemoteListFiles: {
            struct Empty {
                wire::RemoteSessionHeader header;
                wire::U8 end;
            };
            return Reply(Empty{}, wire::kRemoteFilesReply);
        }
        case wire::kRemoteGetMd5:
            return Reply(wire::RemoteMd5Reply{}, wire::kRemoteMd5Reply); // there is no such file
        case wire::kRemoteCreate:
            crc_ = wire::kCrcStart;
            return Reply(wire::RemoteNameReply{.named = {}, .result = wire::kRemoteSuccess},
                         wire::kRemoteOpenReply);
        case wire::kRemoteData:
            crc_ = wire::AdvanceCrc(crc_, packet.subspan(sizeof(wire::RemoteChunkRequest)));
            return Reply(wire::RemoteChunkReply{.header = {}, .zero = 0, .result = wire::kRemoteSuccess},
                         wire::kRemoteDataReply);
        case wire::kRemoteClose:
            return Reply(wire::RemoteNameReply{.named = {}, .result = crc_}, wire::kRemoteCloseReply);
        case wire::kRemoteFinish:
            return Reply(wire::RemoteNamePacket{}, wire::kRemoteFinishReply);
        default:
            return;
        }
    }

    UniqueFd fd_;
    char id_[wire::kDeviceIdSize] = {};
    std::string held_;
    std::uint32_t crc_ = 0;
};

// Plays the boards until `done` says so.
void Play(std::vector<PlayedBoard> &boards, const std::function<bool()> &done)
{
    std::vector<pollfd> waiting;
    waiting.reserve(boards.size());
    for (const PlayedBoard &one : boards)
        waiting.push_back({.fd = one.Get(), .events = POLLIN, .revents = 0});
    while (!done()) {
        poll(waiting.data(), waiting.size(), 100);
        for (std::size_t index = 0; index < boards.size(); ++index) {
            if (waiting[index].revents != 0)
                boards[index].Receive();
        }
    }
}

// Seconds until the program ends; throws when it failed.
double Time(pid_t child, const char *what)
{
    const Clock::time_point begin = Clock::now();
    if (!Done(child))
        throw std::runtime_error(std::string(what) + " FAILED");
    return std::chrono::duration<double>(Clock::now() - begin).count();
}

int PushToVirtualBoard(pid_t server, std::size_t mebibytes)
{
    using bench::Limit;
    bench::Row rate{"MiB/s, beside ledboard upload", {}, {}, Limit::kAtLeastRatio, 0};
    bench::Row boardTime{"the daemon's processor time, s", {}, {}, Limit::kAtLeastRatio, 0};
    bench::Row serverTime{"the server's processor time, s", {}, {}, Limit::kAtMostValue, 60};
    board::Options options;
    options.files["/usr/share/id/config"] = "K3-0000000000";
    options.files["/home/root/plexa_data/remote_server"] = "ip=10.20.30.1\nport=7001\nusername=bench\n";
    options.folders.push_back("/home/root/plexa_data/factory");
    options.rootMebibytes = static_cast<unsigned>(mebibytes) + 128;
    options.prefix = {"busybox", "sh", "-c", "exec \"$0\" >/tmp/ledboardd.log 2>&1"};
    board::VirtualBoard board(options);
    board.Boot();
    board.WaitFor([&] {
        const std::string log = board.Root().TryRead("/tmp/ledboardd.log").value_or("");
        return log.find("login server success!") != std::string::npos;
    });
    WriteFile("/run/film/film.mp4", mebibytes);
    const auto size = static_cast<double>(mebibytes);
    for (int run = 0; run < 7; ++run) {
        board.Run("rm -f /home/root/plexa_data/factory/*");
        const double serverBefore = ProcessorSeconds(server);
        double before = ProcessorSeconds(board.Daemon().Pid());
        rate.subject.push_back(size / Time(StartPush("/run/film"), "push"));
        serverTime.subject.push_back(ProcessorSeconds(server) - serverBefore);
        boardTime.subject.push_back(ProcessorSeconds(board.Daemon().Pid()) - before);
        before = ProcessorSeconds(board.Daemon().Pid());
        const pid_t upload =
            Start("ledboard",
                  {"upload", "--all", "--yes", "--quiet", board.Network().BoardAddress(), "/run/film"},
                  "/dev/null");
        rate.baseline.push_back(size / Time(upload, "upload"));
        boardTime.baseline.push_back(ProcessorSeconds(board.Daemon().Pid()) - before);
    }
    fs::remove_all("/run/film");
    std::printf("%zu MiB to one board\n", mebibytes);
    return bench::Report("push", {rate, boardTime, serverTime});
}

int ManyBoards(pid_t server, int count)
{
    const long before = ResidentKib(server);
    std::vector<PlayedBoard> boards;
    boards.reserve(static_cast<std::size_t>(count));
    for (int number = 0; number < count; ++number)
        boards.emplace_back(number);
    constexpr std::chrono::seconds kIdleTime(14);
    double processor = ProcessorSeconds(server);
    Clock::time_point begin = Clock::now();
    Clock::time_point beat = begin;
    Play(boards, [&] {
        if (Clock::now() >= beat) {
            for (PlayedBoard &one : boards)
                one.Beat();
            beat += std::chrono::seconds(7);
        }
        return Clock::now() - begin > kIdleTime;
    });
    std::printf("%d boards idle for %lld s: server %.2f processor seconds, %ld KiB, %.1f KiB a board\n",
                count, static_cast<long long>(kIdleTime.count()), ProcessorSeconds(server) - processor,
                ResidentKib(server), static_cast<double>(ResidentKib(server) - before) / count);
    WriteFile("/run/small/film.mp4", 1);
    processor = ProcessorSeconds(server);
    begin = Clock::now();
    const pid_t push = StartPush("/run/small");
    int status = -1;
    Play(boards, [&] { return waitpid(push, &status, WNOHANG) == push; });
    const double seconds = std::chrono::duration<double>(Clock::now() - begin).count();
    std::printf("push of 1 MiB to each of %d boards: %s, %.2f s, %.1f MiB/s; server %.2f processor seconds, "
                "%ld KiB\n",
                count, status == 0 ? "done" : "FAILED", seconds, count / seconds,
                ProcessorSeconds(server) - processor, ResidentKib(server));
    return status == 0 ? 0 : 1;
}

} // namespace

int main(int count, char **arguments)
{
    const int mebibytes = count > 1 ? std::atoi(arguments[1]) : 256;
    const int boards = count > 2 ? std::atoi(arguments[2]) : 200;
    std::setvbuf(stdout, nullptr, _IOLBF, 0); // programs that are forked print nothing of it again
    board::EnterPcSide();
    const pid_t server =
        Start("ledboard-server",
              {"run", "--listen", "0.0.0.0:" + std::to_string(kPort), "--control", kControl, "--quiet"},
              "/dev/null");
    while (!fs::exists(kControl))
        usleep(10000);
    int result = 1;
    try {
        result = PushToVirtualBoard(server, static_cast<std::size_t>(mebibytes)) | ManyBoards(server, boards);
    } catch (const std::exception &error) {
        std::fprintf(stderr, "bench_remote: %s\n", error.what());
    }
    kill(server, SIGTERM);
    waitpid(server, nullptr, 0);
    return result;
}
