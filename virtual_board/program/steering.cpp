// SPDX-License-Identifier: MIT
#include "program/steering.h"

#include "common/unique_fd.h"
#include "devices/framebuffer.h"
#include "machine/errors.h"
#include "machine/pc_side.h"
#include "program/board_state.h"

#include <fmt/core.h>
#include <fmt/ranges.h>

#include <fcntl.h>
#include <linux/capability.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <map>

namespace board
{

using ledboard::UniqueFd;

using nlohmann::json;
using Words = std::vector<std::string>;

static Answer Failure(const std::string &text)
{
    return {false, {text}, {{"error", text}}};
}

static Answer Done(const std::string &text)
{
    return {true, {text}, {{"done", text}}};
}

// From the line numbered by the last word on, when there is one; "log --follow" asks that way. A list that is
// shorter than that was emptied meanwhile, and all of it is new.
static Answer List(const std::vector<std::string> &lines, const json &items, const Words &words)
{
    std::size_t from = 0;
    if (words.size() > 1)
        std::from_chars(words[1].data(), words[1].data() + words[1].size(), from);
    if (from > lines.size())
        from = 0;
    const auto offset = static_cast<std::ptrdiff_t>(from);
    return {true,
            {lines.begin() + offset, lines.end()},
            json(json::array_t(items.begin() + offset, items.end())),
            from};
}

template <typename Item, typename Line, typename Json>
static Answer ListOf(const std::vector<Item> &items, const Words &words, Line line, Json toJson)
{
    std::vector<std::string> lines;
    json all = json::array();
    for (const Item &item : items) {
        lines.push_back(line(item));
        all.push_back(toJson(item));
    }
    return List(lines, all, words);
}

// Bytes of the daemon need not be UTF-8, which JSON wants.
static std::string Dump(const json &document)
{
    return document.dump(-1, ' ', false, json::error_handler_t::replace);
}

static json Text(const std::string &text)
{
    return json::parse(Dump(text));
}

static Answer Switch(const Words &words, const char *on, const char *off,
                     const std::function<void(bool)> &turn)
{
    if (words.size() < 2 || (words[1] != on && words[1] != off))
        return Failure(fmt::format("{} wants {} or {}", words[0], on, off));
    turn(words[1] == on);
    return Done(words[0] + " " + words[1]);
}

static Answer Usb(VirtualBoard &board, const Words &words)
{
    unsigned mebibytes = 0; // the last one's
    if (words.size() > 2) {
        const char *const end = words[2].data() + words[2].size();
        const auto number = std::from_chars(words[2].data(), end, mebibytes);
        if (number.ec != std::errc() || number.ptr != end || mebibytes == 0)
            return Failure("the size of a USB disk is a number of MiB");
    }
    return Switch(words, "in", "out", [&](bool in) {
        board.UsbDisk().Plug(in, mebibytes);
        board.Player().Send(7, in ? 1 : 0); // the player is who tells the daemon
    });
}

static void ConnectPlayer(VirtualBoard &board, bool on)
{
    board.Player().Connect(on);
    if (on && !board.Player().WaitForLogin())
        throw std::runtime_error("virtual board: the player could not log in");
}

// What is done to the modem, for words without an argument.
static const std::map<std::string, void (*)(VirtualBoard &)> &ModemActions()
{
    static const std::map<std::string, void (*)(VirtualBoard &)> actions = {
        {"in", [](auto &board) { board.Modem().Plug(true); }},
        {"out", [](auto &board) { board.Modem().Plug(false); }},
        {"sim", [](auto &board) { board.Modem().SetSim(ModemSim::kReady); }},
        {"no-sim", [](auto &board) { board.Modem().SetSim(ModemSim::kNone); }},
        {"pin", [](auto &board) { board.Modem().SetSim(ModemSim::kPin); }},
        {"searching", [](auto &board) { board.Modem().SetNetwork(ModemNetwork::kSearching); }},
        {"registered", [](auto &board) { board.Modem().SetNetwork(ModemNetwork::kHome); }},
        {"roaming", [](auto &board) { board.Modem().SetNetwork(ModemNetwork::kRoaming); }},
        {"denied", [](auto &board) { board.Modem().SetNetwork(ModemNetwork::kDenied); }},
        {"hang", [](auto &board) { board.Modem().Hang(true); }},
        {"answer", [](auto &board) { board.Modem().Hang(false); }},
        {"no-ucs2", [](auto &board) { board.Modem().KnowUcs2(false); }},
        {"ucs2", [](auto &board) { board.Modem().KnowUcs2(true); }},
    };
    return actions;
}

static Answer ModemSignal(VirtualBoard &board, const std::string &text)
{
    unsigned steps = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), steps);
    if (error != std::errc() || end != text.data() + text.size() || (steps > 31 && steps != 99))
        return Failure("the signal is a number from 0 to 31, or 99");
    board.Modem().SetSignal(steps);
    return Done("modem signal " + text);
}

static Answer ModemDoes(VirtualBoard &board, const Words &words)
{
    if (words.size() == 3 && words[1] == "signal")
        return ModemSignal(board, words[2]);
    if (words.size() > 3 && words[1] == "sms") {
        const Words text(words.begin() + 3, words.end());
        board.Modem().Deliver(words[2], fmt::format("{}", fmt::join(text, " ")));
        return Done("the modem has an SMS");
    }
    const auto action = ModemActions().find(words.size() == 2 ? words[1] : "");
    if (action == ModemActions().end())
        return Failure("modem wants in, out, sim, no-sim, pin, searching, registered, roaming, denied, "
                       "signal STEPS, sms SENDER TEXT, hang, answer, no-ucs2 or ucs2");
    action->second(board);
    return Done("modem " + words[1]);
}

static Answer Screenshot(VirtualBoard &board, const Words &words)
{
    if (words.size() < 2)
        return Failure("screenshot wants a file");
    unsigned device = 0;
    if (words.size() > 2 &&
        std::from_chars(words[2].data(), words[2].data() + words[2].size(), device).ec != std::errc())
        return Failure("the number of a screen is 0, 1 or 2");
    const auto picture = ReadFramebuffer(board.Root(), device);
    if (!picture)
        return Failure(fmt::format("the board has no /dev/fb{}; boot it with --screen", device));
    std::ofstream file(words[1], std::ios::binary);
    if (!(file << picture->Png()).flush())
        return Failure("cannot write " + words[1]);
    return Done(fmt::format("{} x {} pixels in {}", picture->width, picture->height, words[1]));
}

using Verb = std::function<Answer(VirtualBoard &, const Words &)>;

static Answer Do(const std::function<void()> &action, const char *done)
{
    action();
    return Done(done);
}

static Answer Kill(VirtualBoard &board)
{
    if (!board.Daemon().Running())
        return Failure("the daemon is not running");
    return board.Daemon().Kill() ? Done("the daemon is killed") : Failure("the daemon does not end");
}

static Answer Restart(VirtualBoard &board)
{
    board.Daemon().Restart();
    if (const auto exit = board.Daemon().Exit())
        return Failure(fmt::format("the daemon ended at once, status {}; see its log", *exit));
    return Done("the daemon is started");
}

static const std::map<std::string, Verb> &Actions()
{
    static const std::map<std::string, Verb> actions = {
        {"cable",
         [](auto &board, auto &words) {
             return Switch(words, "in", "out", [&](bool in) { board.Network().Cable(in); });
         }},
        {"usb", Usb},
        {"screenshot", Screenshot},
        {"modem", ModemDoes},
        {"kill", [](auto &board, auto &) { return Kill(board); }},
        {"restart", [](auto &board, auto &) { return Restart(board); }},
        {"reboot", [](auto &board, auto &) { return Do([&] { board.Reboot(); }, "the board is up again"); }},
        {"forget", [](auto &board, auto &) { return Do([&] { board.Forget(); }, "records are empty"); }},
        {"player",
         [](auto &board, auto &words) {
             return Switch(words, "on", "off", [&](bool on) { ConnectPlayer(board, on); });
         }},
        {"supervisor",
         [](auto &board, auto &words) {
             return Switch(words, "on", "off", [&](bool on) { board.Supervisor().Listen(on); });
         }},
        {"dhcp",
         [](auto &board, auto &words) {
             return Switch(words, "on", "off", [&](bool on) { board.Network().DhcpServer(on); });
         }},
        {"serial",
         [](auto &board, auto &words) {
             return Switch(words, "in", "out", [&](bool in) { board.Fpga().Connect(in); });
         }},
    };
    return actions;
}

static json FrameJson(const Frame &frame)
{
    return {{"command", frame.command}, {"value", frame.value}, {"meaning", frame.meaning}};
}

static json MessageJson(const PlayerMessage &message)
{
    return {{"code", message.code},
            {"name", message.name},
            {"value", message.value ? json(*message.value) : json()}};
}

static const std::map<std::string, Verb> &Reports()
{
    static const std::map<std::string, Verb> reports = {
        {"state",
         [](auto &board, auto &) {
             return Answer{true, StateLines(board), StateJson(board)};
         }},
        {"sessions",
         [](auto &board, auto &words) {
             return ListOf(
                 Connections(board), words,
                 [](auto &one) { return fmt::format("{} on port {}", one.peer, one.port); },
                 [](auto &one) {
                     return json{{"peer", one.peer}, {"port", one.port}};
                 });
         }},
        {"log",
         [](auto &board, auto &words) {
             return ListOf(
                 board.Record().Log(), words, [](auto &line) { return line; }, Text);
         }},
        {"frames",
         [](auto &board, auto &words) { return ListOf(board.Fpga().Frames(), words, FrameLine, FrameJson); }},
        {"at",
         [](auto &board, auto &words) { return ListOf(board.Modem().Commands(), words, CleanLine, Text); }},
        {"messages",
         [](auto &board, auto &words) {
             return ListOf(board.Player().Messages(), words, MessageLine, MessageJson);
         }},
        {"commands",
         [](auto &board, auto &words) { return ListOf(board.Record().Commands(), words, CleanLine, Text); }},
        {"calls",
         [](auto &board, auto &words) {
             return ListOf(board.Record().StandInCalls(), words, WordsLine, [](auto &call) {
                 json all = json::array();
                 for (const std::string &word : call)
                     all.push_back(Text(word));
                 return all;
             });
         }},
    };
    return reports;
}

Answer Steer(VirtualBoard &board, const Words &words)
{
    if (words.empty())
        return Failure("no command");
    for (const auto *verbs : {&Actions(), &Reports()}) {
        const auto found = verbs->find(words.front());
        if (found == verbs->end())
            continue;
        try {
            return found->second(board, words);
        } catch (const std::exception &error) {
            return Failure(error.what());
        }
    }
    return Failure("no such command: " + words.front());
}

static sockaddr_un SocketAddress()
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::string path = std::string(kPcFolder) + "/control";
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    return address;
}

SteeringSocket::SteeringSocket(VirtualBoard &board)
    : board_(board), listener_(Checked(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0), "control socket"))
{
    const sockaddr_un address = SocketAddress();
    unlink(address.sun_path);
    Checked(bind(listener_.Get(), reinterpret_cast<const sockaddr *>(&address), sizeof address),
            "control socket");
    Checked(listen(listener_.Get(), 8), "control socket");
    thread_ = std::thread([this] { Serve(); });
}

SteeringSocket::~SteeringSocket()
{
    stop_ = true;
    shutdown(listener_.Get(), SHUT_RDWR);
    thread_.join();
    unlink(SocketAddress().sun_path);
}

void SteeringSocket::Serve()
{
    while (!stop_) {
        const int fd = accept4(listener_.Get(), nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0 && errno != EINTR && errno != ECONNABORTED)
            break;
        handlers_.remove_if([](Handler &handler) { // "log --follow" comes five times a second, for days
            const bool ended = handler.ended;
            if (ended)
                handler.thread.join();
            return ended;
        });
        if (fd < 0)
            continue;
        Handler &handler = handlers_.emplace_back();
        handler.thread = std::thread([this, fd, &handler] {
            Handle(fd);
            handler.ended = true;
        });
    }
    for (Handler &handler : handlers_)
        handler.thread.join();
}

static constexpr std::size_t kLargestPacket = 65536;
static constexpr timeval kPatience{.tv_sec = 5, .tv_usec = 0};

void SteeringSocket::Handle(int fd)
{
    const UniqueFd connection(fd);
    for (const int direction : {SO_RCVTIMEO, SO_SNDTIMEO}) // a client that was stopped keeps nobody waiting
        setsockopt(fd, SOL_SOCKET, direction, &kPatience, sizeof kPatience);
    std::vector<char> bytes(kLargestPacket);
    const ssize_t got = recv(fd, bytes.data(), bytes.size(), 0);
    const json request = json::parse(bytes.data(), bytes.data() + std::max<ssize_t>(got, 0), nullptr, false);
    if (!request.is_array() ||
        !std::ranges::all_of(request, [](const json &word) { return word.is_string(); }))
        return;
    const Answer answer = Steer(board_, request.get<Words>());
    const json reply = {{"ok", answer.ok},
                        {"lines", answer.lines},
                        {"json", answer.json},
                        {"from", answer.from}};
    const std::string text = Dump(reply);
    // A packet has room for so much; the end of the connection is the end.
    for (std::size_t at = 0; at < text.size(); at += kLargestPacket) {
        if (send(fd, text.data() + at, std::min(kLargestPacket, text.size() - at), MSG_NOSIGNAL) < 0)
            return;
    }
}

Answer AskRunningBoard(const Words &words)
{
    const UniqueFd fd(Checked(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0), "socket"));
    const sockaddr_un address = SocketAddress();
    if (connect(fd.Get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0)
        return Failure(
            "no board is running here; \"virtual-board shell\" boots one and opens a shell beside it");
    const std::string request = Dump(words);
    if (send(fd.Get(), request.data(), request.size(), MSG_NOSIGNAL) < 0)
        return Failure("the board does not listen");
    std::string reply;
    std::vector<char> bytes(kLargestPacket);
    for (ssize_t got = 0; (got = recv(fd.Get(), bytes.data(), bytes.size(), 0)) > 0;)
        reply.append(bytes.data(), static_cast<std::size_t>(got));
    const json answer = json::parse(reply, nullptr, false);
    if (!answer.is_object())
        return Failure("the board went away");
    return {answer.value("ok", false), answer.value("lines", Words()), answer.value("json", json()),
            answer.value("from", std::size_t{0})};
}

static int Refuse(const std::string &why)
{
    fmt::print(stderr, "virtual-board: {}\n", why);
    return 1;
}

static int WaitForChild(pid_t child)
{
    signal(SIGINT, SIG_IGN); // the command decides what they mean
    signal(SIGQUIT, SIG_IGN);
    int status = 0;
    waitpid(child, &status, 0);
    return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

[[noreturn]] static void BecomeCommand(Words words)
{
    std::vector<char *> arguments;
    for (std::string &word : words)
        arguments.push_back(word.data());
    arguments.push_back(nullptr);
    for (const int capability : {CAP_SYS_TIME, CAP_SYS_MODULE, CAP_SYS_RAWIO, CAP_SYSLOG})
        prctl(PR_CAPBSET_DROP, capability, 0, 0, 0);
    setenv("PATH", "/usr/sbin:/usr/bin:/sbin:/bin", 1);
    setenv("HOME", "/home/root", 1);
    if (chdir("/home/root") == 0)
        execvp(arguments.front(), arguments.data());
    const int status = errno == ENOENT ? 127 : 126;
    Refuse(fmt::format("{}: {}", words.front(), std::strerror(errno)));
    _exit(status);
}

int RunInRunningBoard(const Words &arguments)
{
    const Answer state = AskRunningBoard({"state"});
    const pid_t init = state.json.value("init", -1);
    if (!state.ok || init <= 0)
        return Refuse(state.ok ? "the board is off" : state.lines.front());
    const pid_t visitor = fork();
    if (visitor != 0)
        return WaitForChild(visitor);
    const int process = static_cast<int>(syscall(SYS_pidfd_open, init, 0));
    // The root that comes with the name space is not the board's where this machine's own root was changed.
    const int root = open(fmt::format("/proc/{}/root", init).c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
    if (setns(process, CLONE_NEWNS | CLONE_NEWPID | CLONE_NEWNET | CLONE_NEWIPC | CLONE_NEWUTS) != 0 ||
        fchdir(root) != 0 || chroot(".") != 0)
        _exit(Refuse(std::string("cannot enter the board: ") + std::strerror(errno)));
    const pid_t child = fork(); // only a child of the visitor is one of the board's processes
    if (child == 0)
        BecomeCommand(arguments);
    _exit(WaitForChild(child));
}

} // namespace board
