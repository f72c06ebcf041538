// SPDX-License-Identifier: MIT
// The connect threads of the remote server's client. The test answers their name look-ups.
#include "listener.h"
#include "remote/device_context.h"
#include "state/monitor_slots.h"
#include "test_files.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <functional>
#include <future>
#include <string>
#include <vector>

namespace
{

constexpr char kConfigFile[] = "/home/root/plexa_data/remote_server";
constexpr std::uint32_t kLogin = 2;
constexpr std::size_t kIdSize = 14;

std::string Le32(std::uint32_t value)
{
    std::string text;
    for (int shift = 0; shift < 32; shift += 8)
        text += static_cast<char>(value >> shift & 0xFF);
    return text;
}

// What a look-up yields: 0 with a list of these addresses, or an error of getaddrinfo.
struct Found {
    int error = 0;
    std::vector<int> families; // of addresses of this machine's loopback
};

std::function<Found(const std::string &name)> lookUp;

addrinfo *LoopbackEntry(int family, addrinfo *next)
{
    auto *const entry = new addrinfo{};
    auto *const address = new sockaddr_in{};
    address->sin_family = static_cast<sa_family_t>(family);
    address->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    entry->ai_family = family;
    entry->ai_addrlen = sizeof *address;
    entry->ai_addr = reinterpret_cast<sockaddr *>(address);
    entry->ai_next = next;
    return entry;
}

// While it exists, no descriptor can be opened.
class NoDescriptors
{
public:
    NoDescriptors()
    {
        getrlimit(RLIMIT_NOFILE, &before_);
        const rlimit none{.rlim_cur = 0, .rlim_max = before_.rlim_max};
        setrlimit(RLIMIT_NOFILE, &none);
    }
    ~NoDescriptors() { setrlimit(RLIMIT_NOFILE, &before_); }

private:
    rlimit before_{};
};

bool Soon(const std::function<bool()> &happens)
{
    for (int patience = 5000; !happens(); --patience) {
        if (patience == 0)
            return false;
        usleep(1000);
    }
    return true;
}

long Threads()
{
    const std::filesystem::directory_iterator tasks("/proc/self/task");
    return std::distance(begin(tasks), end(tasks));
}

} // namespace

// In place of the system's, for the whole program: a kernel without IPv6 has no list of IPv6 addresses only.
extern "C" int getaddrinfo(const char *name, const char *, const addrinfo *, addrinfo **list)
{
    const Found found = lookUp(name);
    *list = nullptr;
    for (auto family = found.families.rbegin(); family != found.families.rend(); ++family)
        *list = LoopbackEntry(*family, *list);
    return found.error;
}

extern "C" void freeaddrinfo(addrinfo *list) noexcept
{
    while (list != nullptr) {
        addrinfo *const next = list->ai_next;
        delete reinterpret_cast<sockaddr_in *>(list->ai_addr);
        delete list;
        list = next;
    }
}

TEST(RemoteConnection, OnlyTheNewestLogsInAndOnlyWithAMonitor)
{
    RemoveTestFile(kConfigFile);
    auto *const context = new DeviceContext{};
    InitDeviceContext(context);
    const Listener old;
    const Listener newer;
    MonitorSession slot;
    context->SetAddrParam(context, "127.0.0.1", 0, old.port, "first");
    context->ConnectToServer(context);      // waits for the loop's SetMonitor, which never comes for it
    context->DisconnectFromServer(context); // and the next connect need not wait
    context->SetAddrParam(context, "127.0.0.1", 0, newer.port, "second");
    context->ConnectToServer(context);
    context->SetMonitor(context, &slot);
    const ledboard::UniqueFd peer(newer.Accept());
    const std::string greeting = "\3";
    const std::string username = "second" + std::string(14, 0);
    const std::string noIdentifier(kIdSize, 0);
    const std::string expected = greeting + Le32(42) + Le32(kLogin) + username + noIdentifier;
    std::string login(expected.size(), 0);
    EXPECT_EQ(recv(peer.Get(), login.data(), login.size(), MSG_WAITALL),
              static_cast<ssize_t>(expected.size()));
    EXPECT_EQ(login, expected);
    EXPECT_TRUE(Soon([&] { return CopyMonitor(slot).valid == 1; }));
    EXPECT_EQ(CopyMonitor(slot).fd, context->GetSocketFD(context));

    // Without a monitor the board logs in as well, but then closes the socket.
    context->SetMonitor(context, nullptr);
    EXPECT_EQ(context->GetSocketFD(context), -1);
    EXPECT_EQ(slot.valid, 0);
    EXPECT_EQ(ReceiveAll(peer.Get()), "");
    context->DisconnectFromServer(context); // forgets that the last connection brought no answer
    context->SetAddrParam(context, "127.0.0.1", 0, newer.port, "third");
    context->ConnectToServer(context);
    const ledboard::UniqueFd again(newer.Accept());
    EXPECT_EQ(ReceiveAll(again.Get()).size(), expected.size());
    EXPECT_EQ(context->GetSocketFD(context), -1);
    DestroyDeviceContext(context);
}

TEST(RemoteConnection, LooksUpAgainWhileThereIsNoIpv4Address)
{
    RemoveTestFile(kConfigFile);
    auto *const context = new DeviceContext{};
    InitDeviceContext(context);
    const Listener listener;
    MonitorSession slot;
    std::atomic<int> lookUps = 0;
    lookUp = [&](const std::string &name) -> Found {
        EXPECT_EQ(name, "server.example");
        const Found results[] = {{EAI_AGAIN, {}}, {0, {AF_INET6}}, {0, {AF_INET6, AF_INET}}};
        return results[lookUps++];
    };
    context->SetAddrParam(context, "server.example", 1, listener.port, "");
    context->SetMonitor(context, &slot);
    context->ConnectToServer(context);
    EXPECT_TRUE(ledboard::UniqueFd(listener.Accept()).Valid());
    EXPECT_EQ(lookUps, 3);
    DestroyDeviceContext(context);
}

TEST(RemoteConnection, ThreadsDoNotPileUpAtASilentLookUp)
{
    RemoveTestFile(kConfigFile);
    auto *const context = new DeviceContext{};
    InitDeviceContext(context);
    const Listener listener;
    MonitorSession slot;
    context->SetMonitor(context, &slot);
    const auto before = Threads();
    std::promise<void> answer;
    std::atomic<int> lookUps = 0;
    lookUp = [&, answered = answer.get_future().share()](const std::string &) -> Found {
        ++lookUps;
        answered.wait();
        return {0, {AF_INET}};
    };
    const auto ask = [&](const char *address, int domainFlag, const char *username) {
        context->SetAddrParam(context, address, domainFlag, listener.port, username);
        context->ConnectToServer(context);
    };
    const auto askOften = [&](int number) {
        for (const int end = number + 100; number < end; ++number)
            ask("server.example", 1, std::to_string(number).c_str());
        EXPECT_TRUE(Soon([&] { return lookUps == 1 && Threads() <= before + 2; })) << Threads();
    };
    const auto user = [&](const ledboard::UniqueFd &peer) {
        std::string login(43, 0);
        EXPECT_EQ(recv(peer.Get(), login.data(), login.size(), MSG_WAITALL), 43);
        return login.substr(9, 3);
    };
    askOften(100);
    context->DisconnectFromServer(context);
    ask("127.0.0.1", 0, "dot"); // waits for no look-up
    EXPECT_EQ(user(ledboard::UniqueFd(listener.Accept())), "dot");
    context->DisconnectFromServer(context); // the next one need not keep its distance
    askOften(200);
    answer.set_value();
    EXPECT_EQ(user(ledboard::UniqueFd(listener.Accept())), "299");
    DestroyDeviceContext(context);
    EXPECT_EQ(lookUps, 2);
}

TEST(RemoteConnection, StartsAgainAfterFailuresThatPass)
{
    auto *const context = new DeviceContext{};
    InitDeviceContext(context);
    const Listener listener;
    MonitorSession slot;
    context->SetMonitor(context, &slot);
    WriteTestFile(kConfigFile, "ip=127.0.0.1\nport=" + std::to_string(listener.port) + "\nusername=\n");
    context->SetAddrParam(context, "127.0.0.1", 0, listener.port, "");
    {
        const NoDescriptors none;
        context->ConnectToServer(context); // has no socket
        usleep(6'500'000);                 // nor has the retry a configuration file
    }
    // The next one is connected, and the connection is reset before the login.
    flockfile(stdout); // holds the thread up at the line that says that it is connected
    {
        const ledboard::UniqueFd peer(listener.Accept());
        EXPECT_TRUE(peer.Valid());
        usleep(100'000); // until it is held up
        const linger reset{.l_onoff = 1, .l_linger = 0};
        setsockopt(peer.Get(), SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
    }
    funlockfile(stdout);
    const ledboard::UniqueFd peer(listener.Accept());
    std::string login(43, 0);
    EXPECT_EQ(recv(peer.Get(), login.data(), login.size(), MSG_WAITALL), 43);
    EXPECT_TRUE(Soon([&] { return CopyMonitor(slot).valid == 1; }));
    DestroyDeviceContext(context);
}
