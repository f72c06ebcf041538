// SPDX-License-Identifier: MIT
// tests/board/remote_server.h: the remote management server as the test plays it.
#pragma once

#include "board_test.h"
#include "common/unique_fd.h"
#include "discovery_packets.h"
#include "remote_packets.h"

#include <chrono>
#include <cstring>
#include <string>

inline constexpr char kConfigFile[] = "/home/root/plexa_data/remote_server";
inline constexpr char kFolder[] = "/home/root/plexa_data/factory/";
inline const std::string kHeartbeat = RemoteHeartbeat();
inline const std::string kAccepted = RemoteLoginAnswer(0);

inline std::string StatusRequest(std::uint32_t command)
{
    return ProtocolHeader(0, 0, 0) + Le32(command) + kRemoteId;
}

inline std::string Search()
{
    return ProtocolHeader(0, 0, 0) + Zeros(kSearchSize - kHeaderSize);
}

// What AskByUdp gets for kStatusServerConnected, kStatusSetServer and kStatusForgetServer.
inline std::string ServerReply(std::uint32_t command, char connected)
{
    return Le32(command) + kRemoteId + connected;
}

class RemoteServer : public BoardTest
{
protected:
    void SetUp() override
    {
        listener_ = ledboard::UniqueFd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
        const sockaddr_in any = At("0.0.0.0", 7001);
        const int on = 1;
        setsockopt(listener_.Get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
        ASSERT_EQ(bind(listener_.Get(), reinterpret_cast<const sockaddr *>(&any), sizeof any), 0);
        ASSERT_EQ(listen(listener_.Get(), 8), 0);
        options.files["/usr/share/id/config"] = "K3-0012345678";
        options.files[kConfigFile] = "ip=10.20.30.1\nport=7001\nusername=" + std::string(20, 'u') + "\n";
        options.folders.push_back(kFolder);
    }

    // The next connection, after its greeting and login.
    Peer Accept(int limit = 5000)
    {
        pollfd waiting{.fd = listener_.Get(), .events = POLLIN, .revents = 0};
        if (poll(&waiting, 1, limit) != 1)
            return {};
        Peer peer(accept4(listener_.Get(), nullptr, nullptr, SOCK_CLOEXEC));
        EXPECT_EQ(peer.Take(kRemoteLoginSize), RemoteLogin(user_, kRemoteId));
        return peer;
    }

    // An accepted connection, after the device's parameters.
    Peer AcceptAndWelcome(int limit = 5000)
    {
        Peer peer = Accept(limit);
        EXPECT_TRUE(peer.Send(kAccepted));
        EXPECT_EQ(peer.Take(kDeviceParamSize).size(), kDeviceParamSize);
        return peer;
    }

    // The same, and the device is locked.
    Peer Begin()
    {
        Boot();
        Peer peer = AcceptAndWelcome();
        EXPECT_EQ(Ask(peer, Request(kRemoteLock), kLockReplySize), LockReply(kLocked));
        board->Forget();
        return peer;
    }

    // Packets of `size` bytes in all; heartbeats between them are skipped.
    static std::string TakeReplies(const Peer &peer, std::size_t size, int limit = 5000)
    {
        std::string replies;
        while (replies.size() < size) {
            std::string packet = peer.Take(8, limit);
            if (packet.size() < 8)
                break;
            std::uint32_t length;
            std::memcpy(&length, packet.data(), sizeof length);
            packet += peer.Take(length - 8, limit);
            if (packet != kHeartbeat)
                replies += packet;
        }
        return replies;
    }

    static std::string Ask(const Peer &peer, const std::string &request, std::size_t size)
    {
        EXPECT_TRUE(peer.Send(request));
        return TakeReplies(peer, size);
    }

    // What the board sends for a request that gets exactly this reply.
    static void Expect(const Peer &peer, const std::string &request, const std::string &reply)
    {
        EXPECT_EQ(Ask(peer, request, reply.size()), reply);
    }

    std::string AskByUdp(const std::string &datagram)
    {
        const ledboard::UniqueFd fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
        const sockaddr_in to = At(board->Network().BoardAddress(), 8878);
        sendto(fd.Get(), datagram.data(), datagram.size(), 0, reinterpret_cast<const sockaddr *>(&to),
               sizeof to);
        pollfd waiting{.fd = fd.Get(), .events = POLLIN, .revents = 0};
        char reply[1024];
        const ssize_t size = poll(&waiting, 1, 2000) == 1 ? recv(fd.Get(), reply, sizeof reply, 0) : 0;
        return size < 15 ? "" : std::string(reply + 15, static_cast<std::size_t>(size) - 15);
    }

    std::string SetServer(const std::string &address, std::uint32_t port, const std::string &user)
    {
        const std::string unread = Zeros(4 + kIdSize); // places of a command and of an identifier
        const std::string isNoHostName = Le16(0);
        return AskByUdp(ProtocolHeader(0, 0, 0) + unread + isNoHostName + Field(address, 256) + Le32(port) +
                        Field(user, 20));
    }

    std::string user_ = std::string(20, 'u');
    ledboard::UniqueFd listener_;
};
