// SPDX-License-Identifier: MIT
#include "modem/dial_plan.h"

#include "base/diag.h"
#include "base/files.h"
#include "base/paths.h"
#include "base/sockets.h"
#include "common/unique_fd.h"

#include <dirent.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <utility>

namespace
{

constexpr char kUnit[] = "src/third_generation.cpp";
constexpr char kLink[] = "ppp0";
constexpr char kDialCommand[] = "pppd call 3g";

// A process of this name, as "pidof" finds it.
bool Runs(const char *name)
{
    struct CloseFolder {
        void operator()(DIR *folder) const { closedir(folder); }
    };
    const std::unique_ptr<DIR, CloseFolder> processes(opendir("/proc"));
    const std::string line = std::string(name) + "\n";
    while (const dirent *const entry = processes ? readdir(processes.get()) : nullptr) {
        if (entry->d_name[0] < '1' || entry->d_name[0] > '9')
            continue;
        if (ReadFileStart("/proc/" + std::string(entry->d_name) + "/comm", line.size() + 1) == line)
            return true;
    }
    return false;
}

// Killed by a signal, told so by the shell, or, in pppd's own words, ended by one that it caught.
bool EndedBySignal(int status)
{
    constexpr int kShellSignal = 128;
    constexpr int kPppdSignal = 5;
    return WIFSIGNALED(status) || WEXITSTATUS(status) > kShellSignal || WEXITSTATUS(status) == kPppdSignal;
}

} // namespace

std::array<std::uint8_t, 4> PppAddress()
{
    std::array<std::uint8_t, 4> bytes{};
    ifreq request{};
    std::strncpy(request.ifr_name, kLink, sizeof request.ifr_name - 1);
    const ledboard::UniqueFd fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!fd.Valid() || ioctl(fd.Get(), SIOCGIFADDR, &request) == -1)
        return bytes;
    sockaddr_in address{};
    std::memcpy(&address, &request.ifr_addr, sizeof address);
    std::memcpy(bytes.data(), &address.sin_addr, bytes.size());
    return bytes;
}

void DialPlan::Fail(const std::string &why, Time now)
{
    failure_ = why;
    dialling_ = false;
    earliest_ = now + pause_;
    pause_ = std::min(2 * pause_, kLongestPause);
}

DialAction DialPlan::NextWhileDialling(const DialFacts &facts, Time now)
{
    if (facts.ended) {
        commandRuns_ = false;
        if (EndedBySignal(*facts.ended)) {
            // Whoever ended it, the link monitor mostly, does not mean that the network refused.
            dialling_ = false;
            earliest_ = now + kShortestPause;
            return DialAction::kNone;
        }
        if (*facts.ended != 0) {
            Fail("pppd ended with status " + std::to_string(WEXITSTATUS(*facts.ended)), now);
            return DialAction::kNone;
        }
    }
    if (!commandRuns_ && !facts.pppdRuns) { // it went to the background and ended there
        Fail("pppd ended without a link", now);
        return DialAction::kNone;
    }
    if (now - began_ < kDialLimit)
        return DialAction::kNone;
    Fail("pppd made no link in time", now);
    return DialAction::kGiveUp;
}

DialAction DialPlan::Next(const DialFacts &facts, Time now)
{
    if (facts.linkThere) {
        dialling_ = false;
        pause_ = kShortestPause;
        earliest_ = now + kShortestPause;
        return DialAction::kNone;
    }
    if (dialling_)
        return NextWhileDialling(facts, now);
    if (!facts.ready || facts.pppdRuns || now < earliest_)
        return DialAction::kNone;
    dialling_ = true;
    commandRuns_ = true;
    began_ = now;
    return DialAction::kDial;
}

std::string DialPlan::TakeFailure()
{
    return std::exchange(failure_, {});
}

DialFacts ModemLink::Look(bool registered)
{
    DialFacts facts;
    facts.ended = command_.Ended();
    facts.linkThere = if_nametoindex(kLink) != 0;
    if (facts.linkThere)
        return facts;
    facts.ready = registered && access(paths::kModemPeer, F_OK) == 0;
    facts.pppdRuns = (facts.ready || plan_.Dialling()) && Runs("pppd");
    return facts;
}

std::string ModemLink::Step(bool registered)
{
    const DialFacts facts = Look(registered);
    if (facts.linkThere != linkThere_)
        Diag(kUnit, "ModemLink", __LINE__, facts.linkThere ? "modem link is up." : "modem link is down.");
    linkThere_ = facts.linkThere;
    switch (plan_.Next(facts, std::chrono::steady_clock::now())) {
    case DialAction::kDial:
        Diag(kUnit, "ModemLink", __LINE__, "modem dials.");
        command_.Start(kDialCommand);
        break;
    case DialAction::kGiveUp:
        RunShell("killall pppd");
        break;
    case DialAction::kNone:
        break;
    }
    std::string failure = plan_.TakeFailure();
    if (!failure.empty())
        Diag(kUnit, "ModemLink", __LINE__, "modem link: %s.", failure.c_str());
    return failure;
}
