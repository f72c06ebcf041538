// SPDX-License-Identifier: MIT
// Where a reply goes, and what is obeyed whose identifier it carries.
#include "base/listeners.h"
#include "base/sockets.h"
#include "common/unique_fd.h"
#include "discovery/search_services.h"
#include "remote/device_context.h"
#include "state/device_record.h"
#include "state/services.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <memory>
#include <string>

namespace
{

constexpr std::uint16_t kBoardPort = 18878;

std::string s_calls; // operations of the remote-server client, as they are called

// The board's socket and a PC's, both on the loopback interface.
class Discovery : public testing::Test
{
protected:
    void SetUp() override
    {
        g_device.setID("C3-0123456789");
        boardFd_ = ledboard::UniqueFd(InitUdpSocket("0.0.0.0", kBoardPort));
        pcFd_ = ledboard::UniqueFd(InitUdpSocket("0.0.0.0", 0));
        ASSERT_TRUE(boardFd_.Valid() && pcFd_.Valid());
    }

    void TearDown() override { g_device.setID(""); }

    // Lets the board handle one datagram from 127.0.0.1. The handler's result.
    int Ask(const std::string &request, int (*handler)(int))
    {
        sockaddr_in board{};
        board.sin_family = AF_INET;
        board.sin_port = htons(kBoardPort);
        board.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        EXPECT_EQ(sendto(pcFd_.Get(), request.data(), request.size(), 0,
                         reinterpret_cast<const sockaddr *>(&board), sizeof board),
                  static_cast<ssize_t>(request.size()));
        return handler(boardFd_.Get());
    }

    // The reply, and the address it was sent to; empty without a reply.
    std::string Reply(std::uint32_t *destination = nullptr)
    {
        pollfd waiting{.fd = pcFd_.Get(), .events = POLLIN, .revents = 0};
        if (poll(&waiting, 1, 200) != 1)
            return {};
        char bytes[1500];
        alignas(cmsghdr) char control[256];
        iovec part{.iov_base = bytes, .iov_len = sizeof bytes};
        msghdr message{};
        message.msg_iov = &part;
        message.msg_iovlen = 1;
        message.msg_control = control;
        message.msg_controllen = sizeof control;
        const ssize_t count = recvmsg(pcFd_.Get(), &message, 0);
        in_pktinfo information{};
        std::memcpy(&information, CMSG_DATA(CMSG_FIRSTHDR(&message)), sizeof information);
        if (destination != nullptr)
            *destination = ntohl(information.ipi_addr.s_addr);
        return {bytes, static_cast<std::size_t>(count)};
    }

private:
    ledboard::UniqueFd boardFd_;
    ledboard::UniqueFd pcFd_;
};

} // namespace

TEST_F(Discovery, ReplyAddressComparesDifferentByteOrders)
{
    constexpr std::uint32_t kEverybody = 0xFFFFFFFF;
    constexpr std::uint32_t kSender = 0x7F000001; // 127.0.0.1
    struct Row {
        std::uint32_t address, mask; // as the record holds them
        std::uint32_t replyTo;
    };
    const Row rows[] = {
        {0x0100007F, 0xFF000000, kEverybody}, // 127.0.0.1 after start, although it is the same subnet
        {0x0100007F, 0xFFFFFFFF, kEverybody},
        {0x0100007F, 0x00FFFF00, kSender}, // the masked bytes are equal in both orders
        {0x7F0000FE, 0xFFFFFF00, kSender}, // after a change to a fixed address
        {0x0A000001, 0xFFFFFF00, kEverybody},
        {0x0A000001, 0, kSender},
    };
    for (const Row &row : rows) {
        g_device.setIp(static_cast<std::int32_t>(row.address));
        g_device.setMask(static_cast<std::int32_t>(row.mask));
        std::uint32_t destination = 0;
        EXPECT_EQ(Ask(std::string(30, 'q'), DisposeUdpPacket), 1);
        EXPECT_EQ(Reply(&destination).size(), 409U);
        EXPECT_EQ(destination, row.replyTo) << std::hex << row.address << "/" << row.mask;
        // The custom port always answers the sender.
        EXPECT_EQ(Ask(std::string(30, 'q'), DisposeUdpPacketInFixed), 1);
        EXPECT_EQ(Reply(&destination).size(), 409U);
        EXPECT_EQ(destination, kSender);
    }
}

TEST_F(Discovery, SetsTheRemoteServerWhateverTheIdentifier)
{
    const std::unique_ptr<DeviceContext, decltype(&DestroyDeviceContext)> context(new DeviceContext{},
                                                                                  DestroyDeviceContext);
    InitDeviceContext(context.get());
    context->DisconnectFromServer = [](DeviceContext *) { s_calls += "disconnect "; };
    context->SetAddrParam = [](DeviceContext *, const char *addr, int flag, int port, const char *user) {
        s_calls += std::to_string(std::strlen(addr)) + addr[0] + " " + std::to_string(flag) + " " +
                   std::to_string(port) + " " + user + " ";
    };
    context->ConnectToServer = [](DeviceContext *) { s_calls += "connect"; };
    DeviceContext *const before = g_deviceContext;
    g_deviceContext = context.get();

    // Texts that fill their fields are not read on into the next field.
    const std::string header(15, 'h');
    const std::string command(4, 'h');
    const std::string identifier = "of another one";
    const std::string domainFlag("\x01\0", 2);
    const std::string addr(256, 'a');
    const std::string port("\x10\x27\0\0", 4); // 10000
    const std::string username(20, 'u');
    const std::string request = header + command + identifier + domainFlag + addr + port + username;
    ASSERT_EQ(request.size(), 315U);
    s_calls.clear();
    EXPECT_EQ(Ask(request, DisposeUdpPacketInFixed), 0); // not on the custom port
    EXPECT_EQ(s_calls, "");
    EXPECT_EQ(Ask(request, DisposeUdpPacket), 1);
    EXPECT_EQ(s_calls, "disconnect 256a 1 10000 " + username + " connect");
    const std::string length("\x22\0", 2); // 34
    const std::string setServer("\x04\0\0\0", 4);
    const std::string ownIdentifier("C3-0123456789\0", 14);
    EXPECT_EQ(Reply(), header.substr(0, 4) + length + header.substr(6) + setServer + ownIdentifier + '\1');
    g_deviceContext = before;
}
