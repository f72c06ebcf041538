// SPDX-License-Identifier: MIT
// bench_upload [RUNS [MEBIBYTES]]: one big file over the board's loopback through the real daemon, in turn
// with a bare loop of recv and write, and what it costs. Status 1 when a limit is missed.
#include "bench_report.h"
#include "board/virtual_board.h"
#include "common/unique_fd.h"
#include "machine/pc_side.h"
#include "records/upload_records.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <thread>

namespace
{

using ledboard::UniqueFd;
using Clock = std::chrono::steady_clock;

constexpr char kFolder[] = "/home/root/plexa_data/factory";
constexpr std::uint16_t kBarePort = 7001;
constexpr std::uint64_t kCountedPackets = 20000; // while allocations are counted

struct Settings {
    unsigned runs;
    unsigned mebibytes;
    std::uint64_t Packets() const { return (std::uint64_t{mebibytes} << 20U) / wire::kUploadDataRoom + 1; }
};

struct Sample {
    double seconds = 0;
    double cpu = 0; // seconds
};

struct DaemonSample : Sample {
    double writeCalls = 0; // per data packet
    double growth = 0;     // KiB resident
};

[[noreturn]] void Fail(const std::string &what)
{
    throw std::runtime_error(what);
}

sockaddr_in Loopback(std::uint16_t port)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

UniqueFd ConnectInside(const board::VirtualBoard &board, std::uint16_t port)
{
    UniqueFd fd(board.Network().Socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC));
    const sockaddr_in address = Loopback(port);
    if (connect(fd.Get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0)
        Fail("cannot connect inside the board");
    return fd;
}

void SendAll(int fd, wire::Bytes bytes)
{
    while (!bytes.empty()) {
        const ssize_t sent = send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (sent <= 0)
            Fail("the receiver closed the connection");
        bytes = bytes.subspan(static_cast<std::size_t>(sent));
    }
}

template <typename T> void Append(std::vector<std::byte> *bytes, const T &record)
{
    const wire::Bytes added = wire::BytesOf(record);
    bytes->insert(bytes->end(), added.begin(), added.end());
}

std::vector<std::byte> Framed(wire::UploadType type, wire::Bytes tail)
{
    wire::FrameHeader frame{};
    wire::KProtocolHeader header{};
    frame.length = static_cast<std::uint32_t>(sizeof frame + sizeof header + tail.size());
    header.ph_descrite = wire::kUploadDescrite;
    header.ph_version = wire::kUploadVersion;
    header.ph_length = static_cast<std::uint16_t>(sizeof header + tail.size());
    header.ph_types = type;
    std::vector<std::byte> bytes;
    Append(&bytes, frame);
    Append(&bytes, header);
    bytes.insert(bytes.end(), tail.begin(), tail.end());
    return bytes;
}

std::vector<std::byte> Command(wire::UploadCode code, const std::string &text = "")
{
    const std::string tail = static_cast<char>(code) + text;
    return Framed(wire::kUploadCommand, wire::BytesAt(tail.data(), tail.size()));
}

// Both receivers get the same bytes: full frames of file data.
void SendFrames(int fd, std::uint64_t count)
{
    constexpr std::uint64_t kBatch = 64;
    const std::vector<std::byte> tail(4 + wire::kUploadDataRoom, std::byte{0x5a});
    const std::vector<std::byte> frame = Framed(wire::kUploadFileData, tail);
    std::vector<std::byte> batch;
    for (std::uint64_t i = 0; i < kBatch; ++i)
        batch.insert(batch.end(), frame.begin(), frame.end());
    while (count > 0) {
        const std::uint64_t now = std::min(count, kBatch);
        SendAll(fd, wire::Bytes(batch).first(static_cast<std::size_t>(now) * frame.size()));
        count -= now;
    }
}

void AwaitBytes(int fd, std::size_t count)
{
    std::array<char, 64> bytes;
    if (recv(fd, bytes.data(), count, MSG_WAITALL) != static_cast<ssize_t>(count))
        Fail("the daemon closed the session");
}

// A number behind `name` in a file of /proc.
long ProcNumber(pid_t pid, const char *file, const std::string &name)
{
    std::ifstream stream("/proc/" + std::to_string(pid) + "/" + file);
    for (std::string line; std::getline(stream, line);) {
        if (line.rfind(name, 0) == 0)
            return std::stol(line.substr(name.size()));
    }
    Fail("no " + name + " in /proc");
}

double CpuSeconds(pid_t pid) // of the main thread
{
    return static_cast<double>(ProcNumber(pid, "schedstat", "")) / 1e9;
}

class Session
{
public:
    explicit Session(const board::VirtualBoard &board) : fd_(ConnectInside(board, wire::kSessionPort))
    {
        SendAll(fd_.Get(), wire::BytesOf(wire::LoginPacket{8U, 0U}));
        AwaitBytes(fd_.Get(), sizeof(wire::LoginReply));
        Ask(wire::kUploadAskReady);
        Send(Command(wire::kUploadFileBegin, std::string("big") + '\0'));
        Ask(wire::kUploadAskReady);
    }
    void Send(const std::vector<std::byte> &bytes) const { SendAll(fd_.Get(), bytes); }
    void Ask(wire::UploadCode code) const
    {
        Send(Command(code));
        AwaitBytes(fd_.Get(), sizeof(wire::UploadResultReply));
    }
    int Get() const { return fd_.Get(); }

private:
    UniqueFd fd_;
};

void RemoveFile(const board::VirtualBoard &board)
{
    std::filesystem::remove(board.Root().Folder() + kFolder + "/big");
}

DaemonSample RunDaemon(const board::VirtualBoard &board, std::uint64_t packets)
{
    RemoveFile(board);
    const pid_t pid = board.Daemon().Pid();
    const Session session(board);
    DaemonSample sample;
    const long resident = ProcNumber(pid, "status", "VmRSS:");
    const long writes = ProcNumber(pid, "io", "syscw:");
    const double cpu = CpuSeconds(pid);
    const auto start = Clock::now();
    SendFrames(session.Get(), packets);
    session.Ask(wire::kUploadAskReady);
    // The last command's own line of the log is one more.
    sample.writeCalls =
        static_cast<double>(ProcNumber(pid, "io", "syscw:") - writes - 1) / static_cast<double>(packets);
    if (sample.writeCalls < 1)
        Fail("fewer write calls than data packets");
    session.Send(Command(wire::kUploadFileEnd));
    session.Ask(wire::kUploadAskTransComplete);
    sample.seconds = std::chrono::duration<double>(Clock::now() - start).count();
    sample.cpu = CpuSeconds(pid) - cpu;
    sample.growth = static_cast<double>(ProcNumber(pid, "status", "VmRSS:") - resident);
    return sample;
}

// The bare loop, in a process of its own.
[[noreturn]] void ReceiveBare(int listener, const std::string &path)
{
    static char buffer[wire::kSessionBufferSize];
    bench::Settle(getpid(), true);
    const int peer = accept(listener, nullptr, nullptr);
    const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    for (;;) {
        const ssize_t count = recv(peer, buffer, sizeof buffer, 0);
        if (count <= 0)
            _exit(count == 0 ? 0 : 1);
        if (write(file, buffer, static_cast<std::size_t>(count)) != count)
            _exit(1);
    }
}

Sample RunBare(const board::VirtualBoard &board, std::uint64_t packets)
{
    RemoveFile(board);
    const std::string path = board.Root().Folder() + kFolder + "/big";
    UniqueFd listener(board.Network().Socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC));
    const int on = 1;
    setsockopt(listener.Get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    const sockaddr_in address = Loopback(kBarePort);
    if (bind(listener.Get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0 ||
        listen(listener.Get(), 1) != 0)
        Fail("cannot listen inside the board");
    const pid_t child = fork();
    if (child == 0)
        ReceiveBare(listener.Get(), path);
    const UniqueFd sender = ConnectInside(board, kBarePort);
    const auto start = Clock::now();
    SendFrames(sender.Get(), packets);
    shutdown(sender.Get(), SHUT_WR);
    rusage usage{};
    int status = 0;
    wait4(child, &status, 0, &usage);
    if (status != 0)
        Fail("the bare loop failed");
    const auto seconds = [](const timeval &time) {
        return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
    };
    return {std::chrono::duration<double>(Clock::now() - start).count(),
            seconds(usage.ru_utime) + seconds(usage.ru_stime)};
}

// Asks the board for its record again and again while it lives.
class Searcher
{
public:
    explicit Searcher(const board::VirtualBoard &board) : fd_(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0))
    {
        board_.sin_family = AF_INET;
        board_.sin_port = htons(wire::kDiscoveryPort);
        inet_pton(AF_INET, board.Network().BoardAddress().c_str(), &board_.sin_addr);
        thread_ = std::jthread([this](const std::stop_token &stop) { Run(stop); });
    }
    bench::Samples Stop() // microseconds
    {
        thread_.request_stop();
        thread_.join();
        return times_;
    }

private:
    void Run(const std::stop_token &stop)
    {
        // The asker's own waiting for a processor is not the daemon's.
        const sched_param urgent{.sched_priority = 1};
        pthread_setschedparam(pthread_self(), SCHED_FIFO, &urgent);
        while (!stop.stop_requested()) {
            wire::SearchRequest search{};
            search.header.ph_descrite = wire::kUploadDescrite;
            search.header.ph_version = wire::kUploadVersion;
            search.header.ph_length = sizeof search;
            const auto start = Clock::now();
            sendto(fd_.Get(), &search, sizeof search, 0, reinterpret_cast<const sockaddr *>(&board_),
                   sizeof board_);
            pollfd waiting{.fd = fd_.Get(), .events = POLLIN, .revents = 0};
            std::array<char, 1500> answer;
            if (poll(&waiting, 1, 1000) == 1)
                recv(fd_.Get(), answer.data(), answer.size(), 0);
            times_.push_back(std::chrono::duration<double, std::micro>(Clock::now() - start).count());
            poll(nullptr, 0, 3);
        }
    }

    UniqueFd fd_; // not connected: the answer is a broadcast
    sockaddr_in board_{};
    bench::Samples times_;
    std::jthread thread_;
};

board::Options BoardOptions(unsigned mebibytes)
{
    board::Options options;
    options.dataMebibytes = mebibytes + 64;
    options.folders = {kFolder};
    return options;
}

// Heap allocations of the daemon's main thread per data packet.
double CountAllocations()
{
    board::Options options = BoardOptions(200);
    options.number = 1;
    options.environment.emplace_back("LD_PRELOAD=/usr/lib/malloc_counter.so");
    board::VirtualBoard board(options);
    board.Root().CopyIn(MALLOC_COUNTER, "/usr/lib/malloc_counter.so");
    board.Boot();
    const auto count = [&] {
        const std::string bytes = board.Root().Read("/home/root/malloc_count");
        return static_cast<std::uint64_t>(
            wire::Read<wire::I64>(wire::BytesAt(bytes.data(), bytes.size())).value());
    };
    const Session session(board);
    const std::uint64_t before = count();
    SendFrames(session.Get(), kCountedPackets);
    session.Ask(wire::kUploadAskReady);
    return static_cast<double>(count() - before) / static_cast<double>(kCountedPackets);
}

// What `curl` reaches with a PUT to nginx on the same disk, in MiB/s; nothing when nginx is not installed.
std::optional<double> RunNginx(board::VirtualBoard &board, unsigned mebibytes)
{
    const std::string data = "/home/root/plexa_data/";
    RemoveFile(board);
    board.Root().Write("/home/root/nginx.conf",
                       "user root; events {} http { access_log off; server { listen 127.0.0.1:7002; root " +
                           data +
                           "; location / { dav_methods PUT; client_max_body_size 0; client_body_temp_path " +
                           data + "body; } } }");
    if (board.Run("command -v nginx && nginx -c /home/root/nginx.conf").status != 0)
        return std::nullopt;
    const std::string source = data + "source"; // a hole takes no room
    const board::RunResult result =
        board.Run("truncate -s " + std::to_string(mebibytes) + "M " + source +
                      "; curl -sS -o /dev/null -w '%{speed_upload}' -T " + source +
                      " http://127.0.0.1:7002/big; status=$?; kill $(cat /run/nginx.pid); rm -f " + source +
                      " " + data + "big; exit $status",
                  std::chrono::seconds(300));
    if (result.status == 0)
        return std::stod(result.output) / (1 << 20);
    std::printf("curl: status %d, %s\n", result.status, result.output.c_str());
    return std::nullopt;
}

int Measure(const Settings &settings)
{
    using bench::Limit;
    bench::Row speed{"MiB/s", {}, {}, Limit::kAtLeastRatio, 0.80};
    bench::Row cpu{"CPU, ms", {}, {}, Limit::kAtMostRatio, 1.25};
    bench::Row writes{"write calls per data packet", {}, {}, Limit::kAtMostValue, 1.0001};
    bench::Row growth{"growth of resident memory, KiB", {}, {}, Limit::kAtMostValue, 64};
    bench::Row answer{"search meanwhile, 99th perc., us", {}, {}, Limit::kAtMostValue, 1000};
    bench::Row allocations{"allocations per data packet", {}, {}, Limit::kAtMostValue, 0.01};

    board::VirtualBoard board(BoardOptions(settings.mebibytes));
    board.Boot();
    bench::Settle(board.Daemon().Pid(), true);
    bench::Settle(getpid(), false);
    const std::uint64_t packets = settings.Packets();
    const double mebibytes = static_cast<double>(packets * wire::kUploadDataRoom) / (1 << 20);
    RunDaemon(board, packets / 8); // warms up
    for (unsigned run = 0; run < settings.runs; ++run) {
        const Sample bare = RunBare(board, packets);
        Searcher searcher(board);
        const DaemonSample own = RunDaemon(board, packets);
        answer.subject.push_back(bench::Percentile(searcher.Stop(), 0.99));
        speed.subject.push_back(mebibytes / own.seconds);
        speed.baseline.push_back(mebibytes / bare.seconds);
        cpu.subject.push_back(own.cpu * 1000);
        cpu.baseline.push_back(bare.cpu * 1000);
        writes.subject.push_back(own.writeCalls);
        growth.subject.push_back(own.growth);
    }
    allocations.subject.push_back(CountAllocations());
    const std::optional<double> nginx = RunNginx(board, settings.mebibytes);
    const int status = bench::Report("upload", {speed, cpu, writes, growth, answer, allocations});
    if (nginx)
        std::printf("for information: curl to nginx (PUT) %.0f MiB/s\n", *nginx);
    else
        std::printf("for information: curl to nginx (PUT) not measured\n");
    return status;
}

} // namespace

int main(int count, char **arguments)
{
    const auto argument = [&](int index, int least, int otherwise) {
        return static_cast<unsigned>(count > index ? std::max(std::atoi(arguments[index]), least)
                                                   : otherwise);
    };
    const Settings settings{argument(1, 1, 7), argument(2, 1, 1024)};
    board::EnterPcSide();
    try {
        return Measure(settings);
    } catch (const std::exception &error) {
        std::fprintf(stderr, "bench_upload: %s\n", error.what());
        return 1;
    }
}
