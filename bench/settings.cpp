// SPDX-License-Identifier: MIT
// bench_settings [RUNS]: a settings file of 256 records on its way to the FPGA, in turn with a bare loop that
// writes the same frames to the same line and, where the file is saved, runs the same commands first; and
// what one computation of the highest luminance takes. Status 1 when a limit is missed.
#include "base/paths.h"
#include "bench_report.h"
#include "board/virtual_board.h"
#include "common/unique_fd.h"
#include "machine/pc_side.h"
#include "records/fpga_frame.h"
#include "records/setting_records.h"
#include "settings/serial_thread.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>

namespace
{

using Clock = std::chrono::steady_clock;
using ledboard::UniqueFd;

constexpr std::uint16_t kRecords = 256;
constexpr std::size_t kFrames = kRecords + 3; // opened, begun, ended
constexpr int kCalls = 2000;

void Append(std::string *bytes, wire::Bytes more)
{
    bytes->append(reinterpret_cast<const char *>(more.data()), more.size());
}

// The ten parameters that the luminance needs stand at the end, so that all of the file has to be read.
std::vector<wire::SettingRecord> Records()
{
    const std::vector<wire::SettingRecord> panel = {{18U, 9U}, {4U, 16U}, {3U, 128U + 64U * 65536U},
                                                    {12U, 0U}, {14U, 8U}, {26U, 0U},
                                                    {37U, 1U}, {40U, 0U}, {70U, 0U},
                                                    {74U, 0U}};
    std::vector<wire::SettingRecord> records(kRecords - panel.size(), {77U, 1U});
    records.insert(records.end(), panel.begin(), panel.end());
    return records;
}

std::string File()
{
    std::string file;
    Append(&file,
           wire::BytesOf(wire::SettingFileHeader{.headId = wire::kSettingHeadId,
                                                 .count = kRecords,
                                                 .dataLength = kRecords * sizeof(wire::SettingRecord)}));
    for (const wire::SettingRecord &record : Records())
        Append(&file, wire::BytesOf(record));
    return file;
}

std::string Frames()
{
    std::string frames;
    const auto add = [&](std::uint32_t command, std::uint32_t value) {
        Append(&frames, wire::BytesOf(wire::FpgaFrame{.head = wire::kFpgaMark,
                                                      .command = static_cast<std::uint8_t>(command),
                                                      .value = value,
                                                      .tail = wire::kFpgaMark}));
    };
    add(1, 0);
    add(2, 0);
    for (const wire::SettingRecord &record : Records())
        add(record.id, record.value);
    add(2, 1);
    return frames;
}

std::string Packet(wire::SettingPacketType type, const std::string &payload)
{
    return std::string{static_cast<char>(payload.size() + 1), static_cast<char>(type)} + payload;
}

std::string Command(wire::SettingCode code)
{
    std::string payload;
    Append(&payload, wire::BytesOf(wire::U32(code)));
    return Packet(wire::kPacketCommand, payload);
}

UniqueFd Connect(const board::VirtualBoard &board)
{
    UniqueFd fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(wire::kSettingPort);
    inet_pton(AF_INET, board.Network().BoardAddress().c_str(), &to.sin_addr);
    const int on = 1;
    setsockopt(fd.Get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    if (connect(fd.Get(), reinterpret_cast<const sockaddr *>(&to), sizeof to) != 0)
        throw std::runtime_error("the setting service is not there");
    return fd;
}

void Send(int fd, const std::string &bytes)
{
    if (send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(bytes.size()))
        throw std::runtime_error("the setting service takes nothing");
}

// Returns when everything sent before has been handled.
void Settle(int fd)
{
    wire::SettingTime time;
    Send(fd, Command(wire::kSettingGetClock));
    if (recv(fd, &time, sizeof time, MSG_WAITALL) != sizeof time)
        throw std::runtime_error("the setting service does not answer");
}

void Stage(int fd)
{
    constexpr std::size_t kPiece = 254;
    std::string bytes = Command(wire::kSettingStart);
    const std::string file = File();
    for (std::size_t at = 0; at < file.size(); at += kPiece)
        bytes += Packet(wire::kPacketData, file.substr(at, kPiece));
    Send(fd, bytes);
    Settle(fd);
}

// Milliseconds from `work`'s beginning to the last frame.
double UntilLastFrame(board::VirtualBoard &board, const std::function<void()> &work)
{
    board.Forget();
    const Clock::time_point begin = Clock::now();
    work();
    if (!board.Fpga().WaitForFrames(kFrames))
        throw std::runtime_error("frames are missing");
    return std::chrono::duration<double, std::milli>(board.Fpga().Frames()[kFrames - 1].at - begin).count();
}

// The median of several, since a single one is over before the processor has warmed up.
double UntilLastFrameOften(board::VirtualBoard &board, const std::function<void()> &work)
{
    constexpr int kTimes = 25;
    bench::Samples samples;
    for (int time = 0; time < kTimes; ++time)
        samples.push_back(UntilLastFrame(board, work));
    return bench::Median(samples);
}

void WriteFrames(int line, const std::string &frames)
{
    for (std::size_t at = 0; at < frames.size(); at += sizeof(wire::FpgaFrame)) {
        if (write(line, frames.data() + at, sizeof(wire::FpgaFrame)) != sizeof(wire::FpgaFrame))
            throw std::runtime_error("the line takes nothing");
    }
}

// The commands that saving lays down, as a bare program would run them.
void RunCommands(board::VirtualBoard &board)
{
    board.Root().Write("/home/root/bare.bak", File());
    board.Run("sh -c 'mv /home/root/bare.bak /home/root/plexa_data/bare.ss'; sh -c sync; sh -c sync");
}

// Microseconds per call, from a child with a /home of its own.
bench::Samples TimeLuminance(int runs)
{
    int ends[2];
    if (pipe(ends) != 0)
        throw std::runtime_error("there is no pipe");
    const pid_t child = fork();
    if (child == 0) {
        if (unshare(CLONE_NEWNS) != 0 || mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            mount("bench", "/home", "tmpfs", 0, nullptr) != 0 ||
            std::freopen("/dev/null", "w", stderr) == nullptr)
            _exit(1);
        std::filesystem::create_directories(std::filesystem::path(paths::kSetting).parent_path());
        std::ofstream(paths::kSetting, std::ios::binary) << File();
        KSerialThread service;
        for (int run = 0; run < runs; ++run) {
            unsigned passed = 0;
            const Clock::time_point begin = Clock::now();
            for (int call = 0; call < kCalls; ++call)
                passed += service.ComputeMaxLuminance() > 0 ? 1 : 0;
            const double each =
                std::chrono::duration<double, std::micro>(Clock::now() - begin).count() / kCalls;
            if (passed != kCalls || write(ends[1], &each, sizeof each) != sizeof each)
                _exit(1);
        }
        _exit(0);
    }
    close(ends[1]);
    bench::Samples samples;
    double each = 0;
    while (read(ends[0], &each, sizeof each) == sizeof each)
        samples.push_back(each);
    close(ends[0]);
    waitpid(child, nullptr, 0);
    return samples;
}

} // namespace

int main(int count, char **arguments)
{
    const int runs = std::max(count > 1 ? std::atoi(arguments[1]) : 0, 21);
    board::EnterPcSide();
    bench::Row luminance{"ComputeMaxLuminance, us", TimeLuminance(runs), {}, bench::Limit::kAtMostValue, 200};
    if (luminance.subject.empty())
        throw std::runtime_error("the luminance could not be computed");

    board::Options options;
    // Its log goes to a file, as on the board, and not to a reader that shares the clients' processor.
    options.prefix = {"busybox", "sh", "-c", "exec \"$0\" >/tmp/ledboardd.log 2>&1"};
    board::VirtualBoard board(options);
    board.Boot();
    const UniqueFd line(
        open((board.Root().Folder() + "/dev/ttyO0").c_str(), O_WRONLY | O_NOCTTY | O_CLOEXEC));
    if (line.Get() < 0)
        throw std::runtime_error("there is no serial line");
    const UniqueFd client = Connect(board);
    const std::string frames = Frames();
    bench::Settle(board.Daemon().Pid(), true);

    bench::Row sent{"259 frames sent, ms", {}, {}, bench::Limit::kAtMostRatio, 3};
    bench::Row saved{"saved and sent, ms", {}, {}, bench::Limit::kAtMostRatio, 2};
    for (int run = 0; run < runs; ++run) {
        Stage(client.Get());
        saved.subject.push_back(UntilLastFrame(board, [&] {
            Send(client.Get(), Command(wire::kSettingSave) + Command(wire::kSettingSendToFpga));
        }));
        saved.baseline.push_back(UntilLastFrame(board, [&] {
            RunCommands(board);
            WriteFrames(line.Get(), frames);
        }));
        sent.subject.push_back(
            UntilLastFrameOften(board, [&] { Send(client.Get(), Command(wire::kSettingSendToFpga)); }));
        sent.baseline.push_back(UntilLastFrameOften(board, [&] { WriteFrames(line.Get(), frames); }));
    }
    return bench::Report("settings file of 256 records", {sent, saved, luminance});
}
