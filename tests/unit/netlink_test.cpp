// SPDX-License-Identifier: MIT
#include "addressing/netlink.h"

#include <gtest/gtest.h>

#include <linux/rtnetlink.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <string>

namespace
{

constexpr std::uint32_t kLowerUp = 0x10000;
constexpr std::size_t kWhole = 32;

// A message of `length` bytes by its own account, of which `size` are there.
std::string Message(std::uint16_t type, std::uint32_t flags, std::uint32_t length = kWhole,
                    std::size_t size = kWhole)
{
    std::string bytes(size < kWhole ? kWhole : size, '\0');
    std::memcpy(bytes.data(), &length, sizeof length);
    std::memcpy(bytes.data() + 4, &type, sizeof type);
    std::memcpy(bytes.data() + 24, &flags, sizeof flags); // after the header: family, type, index, flags
    bytes.resize(size);
    return bytes;
}

std::string Repeated(const std::string &text, int times)
{
    std::string all;
    while (times-- > 0)
        all += text;
    return all;
}

// Splits like the daemon does: 'u' up, 'd' down, '?' a link message that does not say, 'o' another type.
std::string Walk(const std::string &bytes)
{
    std::string seen;
    wire::Bytes left = wire::BytesAt(bytes.data(), bytes.size());
    while (const auto message = TakeNetlinkMessage(&left)) {
        const auto up = LinkIsUp(*message);
        seen += message->header.nlmsg_type != RTM_NEWLINK ? 'o' : !up ? '?' : *up ? 'u' : 'd';
    }
    return seen;
}

// An attribute of `length` bytes by its own account, header included, with a value of `size` bytes.
std::string Attribute(std::uint16_t type, std::uint16_t length, std::size_t size)
{
    std::string bytes(4 + size, 'v');
    std::memcpy(bytes.data(), &length, sizeof length);
    std::memcpy(bytes.data() + 2, &type, sizeof type);
    return bytes;
}

TEST(LinkMessages, AreTakenOneByOneAndTheLastDecides)
{
    const std::string up = Message(RTM_NEWLINK, kLowerUp | 1);
    const std::string down = Message(RTM_NEWLINK, 1);
    const std::string other = Message(RTM_NEWADDR, kLowerUp);
    const struct {
        const char *name;
        std::string bytes;
        std::string walk;
        int result;
    } rows[] = {
        {"up", up, "u", 1},
        {"down", down, "d", 0},
        {"down, then up", down + up, "du", 1},
        {"up, then down", up + down, "ud", 0},
        {"others change nothing", up + other, "uo", 1},
        {"other alone", other, "o", -1},
        {"odd length is rounded up", Message(RTM_NEWLINK, kLowerUp, 33, 36) + down, "ud", 0},
        {"odd length at the end", Message(RTM_NEWLINK, kLowerUp, 33, 33), "u", 1},
        {"too short to say", Message(RTM_NEWLINK, kLowerUp, 28, 28), "?", -1},
        {"rest shorter than a header", up + down.substr(0, 15), "u", 1},
        {"second cut off", up + down.substr(0, 31), "u", 1},
        {"length below a header", up + Message(RTM_NEWLINK, 0, 15) + down, "u", 1},
        {"length 0 first", Message(RTM_NEWLINK, kLowerUp, 0), "", -1},
        {"length beyond the end first", Message(RTM_NEWLINK, kLowerUp, 33), "", -1},
        {"largest length", Message(RTM_NEWLINK, kLowerUp, 0xFFFFFFFF), "", -1},
        {"15 bytes", up.substr(0, 15), "", -1},
        {"done ends it", up + Message(NLMSG_DONE, 0) + up, "uou", -1},
        {"error ends it", up + Message(NLMSG_ERROR, 0) + up, "uou", -1},
        {"burst", Repeated(down, 40) + up, Repeated("d", 40) + "u", 1},
    };
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends), 0);
    for (const auto &row : rows) {
        EXPECT_EQ(Walk(row.bytes), row.walk) << row.name;
        ASSERT_EQ(send(ends[1], row.bytes.data(), row.bytes.size(), 0),
                  static_cast<ssize_t>(row.bytes.size()));
        EXPECT_EQ(ParseNetlinkEvent(ends[0]), row.result) << row.name;
    }
    EXPECT_EQ(Walk(Repeated(up, 2000)), Repeated("u", 2000));
    EXPECT_EQ(ParseNetlinkEvent(ends[0]), -1) << "nothing there";
    EXPECT_EQ(ParseNetlinkEvent(-1), -1);
    close(ends[0]);
    close(ends[1]);
}

TEST(NetlinkAttributes, AreTakenOneByOneWithTheirPadding)
{
    const std::string whole = Attribute(7, 8, 4);
    const struct {
        const char *name;
        std::string bytes;
        std::string walk; // type:size of the value
        std::size_t left;
    } rows[] = {
        {"none", "", "", 0},
        {"two", whole + Attribute(8, 8, 4), "7:4 8:4 ", 0},
        {"no value", Attribute(1, 4, 0) + whole, "1:0 7:4 ", 0},
        {"padding is skipped", Attribute(1, 5, 4) + whole, "1:1 7:4 ", 0},
        {"the last without padding", whole + Attribute(1, 5, 1), "7:4 1:1 ", 0},
        {"rest shorter than a header", whole + "xyz", "7:4 ", 3},
        {"length below a header", whole + Attribute(1, 3, 4), "7:4 ", 8},
        {"length 0", Attribute(1, 0, 4), "", 8},
        {"length beyond the end", Attribute(1, 9, 4), "", 8},
        {"largest length", Attribute(1, 0xFFFF, 4), "", 8},
    };
    for (const auto &row : rows) {
        std::string walk;
        wire::Bytes left = wire::BytesAt(row.bytes.data(), row.bytes.size());
        while (const auto attribute = TakeNetlinkAttribute(&left))
            walk += std::to_string(attribute->type) + ":" + std::to_string(attribute->value.size()) + " ";
        EXPECT_EQ(walk, row.walk) << row.name;
        EXPECT_EQ(left.size(), row.left) << row.name;
    }
}

} // namespace
