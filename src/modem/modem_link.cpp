// SPDX-License-Identifier: MIT
#include "modem/modem_link.h"

#include "base/diag.h"
#include "base/files.h"
#include "base/paths.h"
#include "common/unique_fd.h"
#include "state/server_config.h"

#include <dirent.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <memory>

namespace
{

constexpr char kUnit[] = "src/third_generation.cpp";
constexpr char kLink[] = "ppp0";
constexpr char kDialCommand[] = "pppd call 3g";

// Whether a process of this name runs. Reads /proc as "pidof" does: this is asked every second, too often to
// start a command for it.
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

DialFacts ModemLink::Look(bool registered)
{
    DialFacts facts;
    facts.ended = command_.Ended();
    facts.always = ModemDialsAlways();
    // Without eth0, and while it is down, the file is missing or cannot be read: there is no carrier either.
    facts.carrier = ReadFileStart(paths::kEth0Carrier, 1) == "1";
    facts.linkThere = if_nametoindex(kLink) != 0;
    if (facts.linkThere)
        return facts;
    facts.ready = registered && access(paths::kModemPeer, F_OK) == 0;
    // The plan asks for it in these two cases only, and reading all of /proc costs time.
    facts.pppdRuns = (facts.ready || plan_.Started()) && Runs("pppd");
    return facts;
}

void ModemLink::EndPppd()
{
    command_.End();
    // A pppd that went to the background has a group of its own and is no child of the daemon.
    RunShell("killall pppd");
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
        EndPppd();
        break;
    case DialAction::kHangUp:
        Diag(kUnit, "ModemLink", __LINE__, "modem hangs up, eth0 has a carrier.");
        EndPppd();
        break;
    case DialAction::kNone:
        break;
    }
    std::string failure = plan_.TakeFailure();
    if (!failure.empty())
        Diag(kUnit, "ModemLink", __LINE__, "modem link: %s.", failure.c_str());
    return failure;
}
