// SPDX-License-Identifier: MIT
#include "machine/process_tree.h"

#include "common/unique_fd.h"
#include "inside/channel_format.h"
#include "machine/errors.h"
#include "machine/inside_image.h"

#include <fmt/core.h>

#include <fcntl.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstring>
#include <fstream>
#include <stdexcept>

namespace board
{

using ledboard::UniqueFd;

namespace
{

constexpr Milliseconds kStartLimit{20000};

// The process number as this side sees it; the number inside the board is another one.
pid_t PidOf(int descriptor)
{
    std::ifstream info(fmt::format("/proc/self/fdinfo/{}", descriptor));
    for (std::string word; info >> word;) {
        pid_t pid = -1;
        if (word == "Pid:" && info >> pid)
            return pid;
    }
    return -1;
}

int ImageDescriptor()
{
    static const int descriptor = [] {
        const std::string_view image = InsideImage();
        const int fd = memfd_create("board-init", MFD_CLOEXEC);
        if (fd < 0 || write(fd, image.data(), image.size()) != static_cast<ssize_t>(image.size()))
            return -1;
        return fd;
    }();
    return Checked(descriptor, "the board's init");
}

// Between the clone and the new program only system calls: another thread may hold any lock.
[[noreturn]] void BecomeInit(int image, int networkSpace, int nothing, char *const *arguments)
{
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    char *environment[] = {nullptr};
    if (syscall(SYS_setns, networkSpace, CLONE_NEWNET) == 0) {
        syscall(SYS_dup3, nothing, 0, 0);
        syscall(SYS_execveat, image, "", arguments, environment, AT_EMPTY_PATH);
    }
    syscall(SYS_exit_group, 1);
    __builtin_unreachable();
}

void Append(std::string &bytes, const std::string &text)
{
    bytes.append(text.c_str(), text.size() + 1);
}

std::vector<std::string> WholeEnvironment(const std::vector<std::string> &further)
{
    std::vector<std::string> all = {"PATH=/usr/sbin:/usr/bin:/sbin:/bin", "HOME=/home/root", "USER=root"};
    all.insert(all.end(), further.begin(), further.end());
    return all;
}

// As recvmsg; `descriptor` is the one that came with the report.
ssize_t ReceiveReport(int channel, inside::ProcessReport &report, UniqueFd &descriptor)
{
    iovec part{&report, sizeof report};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
    msghdr message{};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof control;
    const ssize_t got = recvmsg(channel, &message, MSG_CMSG_CLOEXEC | MSG_DONTWAIT);
    const cmsghdr *header = got > 0 ? CMSG_FIRSTHDR(&message) : nullptr;
    if (header != nullptr && header->cmsg_type == SCM_RIGHTS) {
        int fd = -1;
        std::memcpy(&fd, CMSG_DATA(header), sizeof fd);
        descriptor.Reset(fd);
    }
    return got;
}

// The request's texts, as they follow the header.
std::string TextsOf(const ProcessRequest &request)
{
    std::string texts;
    Append(texts, request.folder);
    for (const std::string &argument : request.arguments)
        Append(texts, argument);
    for (const std::string &variable : request.environment)
        Append(texts, variable);
    return texts;
}

// In one packet. False and errno if it could not be sent.
bool SendRequest(int channel, inside::SpawnHeader header, const ProcessRequest &request)
{
    const UniqueFd nothing(Checked(open("/dev/null", O_RDWR | O_CLOEXEC), "/dev/null"));
    int descriptors[3];
    for (int i = 0; i < 3; ++i)
        descriptors[i] = request.descriptors[i] < 0 ? nothing.Get() : request.descriptors[i];
    std::string texts = TextsOf(request);
    iovec parts[] = {{&header, sizeof header}, {texts.data(), texts.size()}};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof descriptors)] = {};
    msghdr message{};
    message.msg_iov = parts;
    message.msg_iovlen = 2;
    message.msg_control = control;
    message.msg_controllen = sizeof control;
    cmsghdr *rights = CMSG_FIRSTHDR(&message);
    rights->cmsg_level = SOL_SOCKET;
    rights->cmsg_type = SCM_RIGHTS;
    rights->cmsg_len = CMSG_LEN(sizeof descriptors);
    std::memcpy(CMSG_DATA(rights), descriptors, sizeof descriptors);
    return sendmsg(channel, &message, MSG_NOSIGNAL) >= 0;
}

} // namespace

int ExitStatus(int waitStatus)
{
    if (waitStatus < 0)
        return -1;
    return WIFSIGNALED(waitStatus) ? 128 + WTERMSIG(waitStatus) : WEXITSTATUS(waitStatus);
}

bool InsideProcess::Running() const
{
    const std::lock_guard guard(lock_);
    return started_ && !ended_;
}

bool InsideProcess::Ended() const
{
    const std::lock_guard guard(lock_);
    return ended_;
}

int InsideProcess::Status() const
{
    const std::lock_guard guard(lock_);
    return status_;
}

pid_t InsideProcess::Pid() const
{
    const std::lock_guard guard(lock_);
    return started_ && !ended_ ? pid_ : -1;
}

bool InsideProcess::Signal(int number) const
{
    const std::lock_guard guard(lock_);
    return descriptor_.Valid() && syscall(SYS_pidfd_send_signal, descriptor_.Get(), number, nullptr, 0) == 0;
}

ProcessTree::ProcessTree(Watcher &watcher, const std::vector<std::string> &environment,
                         std::function<void(BoardEnd)> onEnd)
    : watcher_(watcher), environment_(WholeEnvironment(environment)), onEnd_(std::move(onEnd))
{
}

void ProcessTree::Boot(const std::string &root, int networkSpace)
{
    int ends[2];
    Checked(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends), "channel");
    UniqueFd ours(ends[0]), theirs(ends[1]);
    const int room = static_cast<int>(inside::kMaxMessage);
    setsockopt(ours.Get(), SOL_SOCKET, SO_SNDBUFFORCE, &room, sizeof room);
    const UniqueFd passed(Checked(fcntl(theirs.Get(), F_DUPFD, 10), "channel")); // survives the new program
    const UniqueFd nothing(Checked(open("/dev/null", O_RDWR | O_CLOEXEC), "/dev/null"));
    const int image = ImageDescriptor();
    std::string name = "board-init", folder = root, channel = std::to_string(passed.Get());
    char *arguments[] = {name.data(), folder.data(), channel.data(), nullptr};

    constexpr unsigned long kFlags = CLONE_NEWNS | CLONE_NEWPID | CLONE_NEWIPC | CLONE_NEWUTS | SIGCHLD;
    const long pid = syscall(SYS_clone, kFlags, nullptr, nullptr, nullptr, nullptr);
    if (pid == 0)
        BecomeInit(image, networkSpace, nothing.Get(), arguments);
    if (pid < 0)
        ThrowErrno("the board's processes");
    {
        const std::lock_guard guard(lock_);
        channel_ = std::move(ours);
        init_ = static_cast<pid_t>(pid);
    }
    watcher_.Add(channel_.Get(), [this] { Receive(); });
}

bool ProcessTree::Running() const
{
    const std::lock_guard guard(lock_);
    return channel_.Valid();
}

pid_t ProcessTree::InitPid() const
{
    const std::lock_guard guard(lock_);
    return init_;
}

// Whoever still waits for a process of the board learns that it is gone.
void ProcessTree::Close()
{
    const std::lock_guard guard(lock_);
    channel_.Reset();
    init_ = -1;
    for (const auto &[id, process] : processes_) {
        const std::lock_guard one(process->lock_);
        process->ended_ = true;
        process->descriptor_.Reset();
    }
    processes_.clear();
}

void ProcessTree::Stop()
{
    int channel = -1;
    {
        const std::lock_guard guard(lock_);
        channel = channel_.Get();
    }
    if (channel < 0)
        return;
    watcher_.Remove(channel);
    pid_t init = -1;
    {
        const std::lock_guard guard(lock_);
        init = init_;
    }
    if (init > 0) {
        kill(init, SIGKILL);
        waitpid(init, nullptr, 0);
    }
    Close();
    watcher_.Notify();
}

void ProcessTree::Gone()
{
    int status = 0;
    pid_t init = -1;
    {
        const std::lock_guard guard(lock_);
        watcher_.Remove(channel_.Get());
        init = init_;
    }
    waitpid(init, &status, 0);
    Close();
    BoardEnd end = BoardEnd::kCrashed;
    if (WIFSIGNALED(status) && WTERMSIG(status) == SIGHUP)
        end = BoardEnd::kRebooted;
    else if (WIFSIGNALED(status) && WTERMSIG(status) == SIGINT)
        end = BoardEnd::kPoweredOff;
    onEnd_(end);
}

void ProcessTree::Receive()
{
    inside::ProcessReport report{};
    UniqueFd descriptor;
    const ssize_t got = ReceiveReport(channel_.Get(), report, descriptor);
    if (got < 0 && (errno == EAGAIN || errno == EINTR))
        return;
    if (got != static_cast<ssize_t>(sizeof report)) {
        Gone();
        return;
    }
    const std::lock_guard guard(lock_);
    const auto found = processes_.find(report.id);
    if (found == processes_.end())
        return;
    const std::shared_ptr<InsideProcess> process = found->second; // perhaps the last reference
    const std::lock_guard one(process->lock_);
    if (report.kind == inside::kStarted) {
        process->started_ = true;
        process->pid_ = PidOf(descriptor.Get());
        process->descriptor_ = std::move(descriptor);
        return;
    }
    process->ended_ = true;
    if (report.kind == inside::kEnded)
        process->status_ = report.value;
    processes_.erase(found);
}

std::shared_ptr<InsideProcess> ProcessTree::Start(const ProcessRequest &request)
{
    inside::SpawnHeader header{.kind = inside::kSpawn,
                               .id = 0,
                               .softFileLimit = request.softFileLimit,
                               .newSession = request.newSession ? 1U : 0U,
                               .arguments = static_cast<std::uint32_t>(request.arguments.size()),
                               .environment = static_cast<std::uint32_t>(request.environment.size())};
    auto process = std::make_shared<InsideProcess>();
    {
        const std::lock_guard guard(lock_);
        if (!channel_.Valid())
            throw std::runtime_error("virtual board: the board is not running");
        header.id = ++lastId_;
        processes_[header.id] = process;
        if (!SendRequest(channel_.Get(), header, request)) {
            processes_.erase(header.id);
            ThrowErrno("start " + request.arguments.front());
        }
    }
    const auto known = [&] {
        const std::lock_guard guard(process->lock_);
        return process->started_ || process->ended_;
    };
    watcher_.WaitFor(known, kStartLimit);
    const std::lock_guard guard(process->lock_);
    if (!process->started_)
        throw std::runtime_error("virtual board: could not start " + request.arguments.front());
    return process;
}

RunResult ProcessTree::Run(const std::string &command, Milliseconds limit)
{
    int ends[2];
    Checked(pipe2(ends, O_CLOEXEC), "pipe");
    const UniqueFd reader(ends[0]);
    UniqueFd writer(ends[1]);
    ProcessRequest request;
    request.arguments = {"/usr/bin/busybox", "sh", "-c", command};
    request.environment = environment_;
    request.descriptors[1] = request.descriptors[2] = writer.Get();
    fcntl(reader.Get(), F_SETFL, O_NONBLOCK);
    const auto process = Start(request);
    writer.Reset();

    RunResult result;
    const auto drain = [&] {
        std::array<char, 65536> bytes;
        for (ssize_t got = 0; (got = read(reader.Get(), bytes.data(), bytes.size())) > 0;)
            result.output.append(bytes.data(), static_cast<std::size_t>(got));
        return process->Ended();
    };
    if (watcher_.WaitFor(drain, limit))
        result.status = ExitStatus(process->Status());
    else
        process->Signal(SIGKILL);
    drain();
    return result;
}

int ProcessTree::RunForeground(const ProcessRequest &request)
{
    constexpr std::chrono::hours kNoLimit(24 * 365);
    const auto process = Start(request);
    watcher_.WaitFor([&] { return process->Ended(); }, kNoLimit);
    return ExitStatus(process->Status());
}

} // namespace board
