// SPDX-License-Identifier: MIT
#include "firmware/version_thread.h"
#include "listener.h"
#include "remote/answer.h"
#include "remote/config.h"
#include "remote/framing.h"
#include "remote/program_list.h"
#include "test_files.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>

namespace
{

std::string Le32(std::uint32_t value)
{
    std::string text;
    for (int shift = 0; shift < 32; shift += 8)
        text += static_cast<char>(value >> shift & 0xFF);
    return text;
}

enum OuterCommand : std::uint32_t { kLoginAnswer = 10, kSession = 13 };

// Codes of inner packets.
enum InnerCommand : std::uint32_t {
    kLock = 14,
    kFilesReply = 21,
    kCreate = 24,
    kRemove = 28,
    kData = 32,
    kRemoveNotVideo = 38,
    kUnknown = 99,
};

constexpr std::size_t kIdSize = 14;
constexpr std::size_t kHeaderSize = 22; // length, command, identifier

// An inner packet in its outer one, both with the length that they have.
std::string Inner(std::uint32_t command, const std::string &data, std::size_t idSize = kIdSize)
{
    const std::string inner = Le32(static_cast<std::uint32_t>(8 + idSize + data.size())) + Le32(command) +
                              std::string(idSize, 'i') + data;
    return Le32(static_cast<std::uint32_t>(kHeaderSize + inner.size())) + Le32(kSession) +
           std::string(kIdSize, 'o') + inner;
}

// The data of kData: their announced size, four bytes that are not read, the bytes.
std::string ChunkOf(std::uint32_t size, const std::string &bytes)
{
    return Le32(size) + "unus" + bytes;
}

wire::Bytes BytesOfText(const std::string &text)
{
    return wire::BytesAt(text.data(), text.size());
}

// The data of a listing's packets, whose lengths and codes are checked here.
std::vector<std::string> ListedData(const std::vector<std::string> &names)
{
    std::vector<std::string> listed;
    const RemoteAnswer answer = ListingAnswer(names, wire::kRemoteFilesReply);
    for (std::string packet = answer.packet; !packet.empty(); packet = answer.next()) {
        const auto size = static_cast<std::uint32_t>(packet.size());
        EXPECT_LE(size, 9216U);
        EXPECT_EQ(packet.substr(0, 8), Le32(size) + Le32(kSession));
        EXPECT_EQ(packet.substr(kHeaderSize, 8), Le32(size - 22) + Le32(kFilesReply));
        listed.push_back(packet.substr(2 * kHeaderSize));
    }
    return listed;
}

} // namespace

TEST(RemoteConfig, Reading)
{
    struct Row {
        const char *text;
        const char *ip;
        const char *domain;
        int port;
        const char *username;
    };
    const Row rows[] = {
        {"ip=10.0.0.9\nport=7000\nusername=user\n", "10.0.0.9", "", 7000, "user"},
        {"username=user\nport=7000\ndomain=host.example", "", "host.example", 7000, "user"},
        {"port=-25536\n", "", "", -25536, ""},
        {"# ours\nip=10.0.0.9\n", "", "", 0, ""},                    // the first unknown line ends it
        {"port=1\nIP=10.0.0.9\nusername=user\n", "", "", 1, ""},     // keys are case-sensitive
        {"ip=123456789012345678901\nport=12345678901\nusername=u\n", // limits of the values
         "12345678901234567890", "", 1234567890, "u"},
        {"port=7000x\nusername=\n\nip=10.0.0.9\n", "", "", 7000, ""}, // an empty line is unknown
        {"", "", "", 0, ""},
    };
    for (const Row &row : rows) {
        WriteTestFile("/tmp/config", row.text);
        const RemoteConfig config = ReadRemoteConfig(OpenFile("/tmp/config", "r").get());
        EXPECT_EQ(config.ip, row.ip) << row.text;
        EXPECT_EQ(config.domain, row.domain) << row.text;
        EXPECT_EQ(config.port, row.port) << row.text;
        EXPECT_EQ(config.username, row.username) << row.text;
    }
}

TEST(RemoteConfig, WritingTruncatesThePort)
{
    struct Row {
        std::int16_t domainFlag;
        std::string addr;
        std::int32_t port;
        std::string username;
        std::string text;
    };
    const Row rows[] = {
        {0, "10.0.0.9", 7000, "user", "ip=10.0.0.9\nport=7000\nusername=user\n"},
        {1, "host.example", 70000, "", "domain=host.example\nport=4464\nusername=\n"},
        {1, std::string(256, 'd'), 40000, std::string(20, 'u'),
         "domain=" + std::string(256, 'd') + "\nport=-25536\nusername=" + std::string(20, 'u') + "\n"},
    };
    for (const Row &row : rows) {
        wire::AddrParam server{};
        server.domainFlag = row.domainFlag;
        server.port = row.port;
        std::memcpy(server.addr, row.addr.data(), row.addr.size());
        std::memcpy(server.username, row.username.data(), row.username.size());
        EXPECT_EQ(RemoteConfigText(server), row.text);
    }
}

TEST(RemoteFraming, CompleteIncompleteBroken)
{
    const auto complete = RemoteFrame::kComplete;
    const auto broken = RemoteFrame::kBroken;
    const auto incomplete = RemoteFrame::kIncomplete;
    const struct {
        std::string held;
        RemoteFrame::Result result;
    } rows[] = {
        {"", incomplete},
        {std::string("\x08\0\0", 3), incomplete},
        {Le32(0), broken},
        {Le32(7) + Le32(kUnknown), broken},
        {Le32(9217), broken},
        {Le32(0xFFFFFFFF), broken},
        {Le32(9216) + std::string(9211, 'x'), incomplete},
        {Le32(9216) + Le32(kUnknown) + std::string(9208, 'x'), complete},
        {Le32(8) + Le32(kUnknown), complete},
        {Le32(11) + Le32(kLoginAnswer) + "abc", broken},
        {Le32(12) + Le32(kLoginAnswer) + Le32(0), complete},
        {Inner(kLock, "", 0), complete},
        {Le32(29) + Le32(kSession) + std::string(21, 0), broken},
        {Inner(kData, "", kIdSize - 1), broken},
        {Inner(kData, "", kIdSize), complete},
        {Inner(kCreate, "", 0), broken},
        {Inner(kRemoveNotVideo, "", 0), complete},
        {Inner(kUnknown, "", 0), complete},
    };
    for (std::size_t index = 0; index < std::size(rows); ++index) {
        const RemoteFrame frame = NextRemoteFrame(BytesOfText(rows[index].held));
        EXPECT_EQ(frame.result, rows[index].result) << index;
        EXPECT_EQ(frame.packet.size(), frame.result == complete ? rows[index].held.size() : 0) << index;
    }
}

TEST(RemoteFraming, NamesAndChunksStayInsideThePacket)
{
    const std::string longName(300, 'n');
    const std::pair<std::string, std::string> names[] = {
        {Inner(kCreate, ""), ""},
        {Inner(kCreate, "a"), "a"},
        {Inner(kCreate, std::string("a\0b", 3)), "a"},
        {Inner(kCreate, longName), longName.substr(0, 255)},
    };
    for (const auto &[packet, name] : names)
        EXPECT_EQ(RequestName(RequestData(BytesOfText(packet))), name);

    const struct {
        std::string packet;
        std::optional<std::size_t> size;
    } chunks[] = {
        {Inner(kData, ""), std::nullopt},
        {Inner(kData, ChunkOf(0, "")), 0},
        {Inner(kData, ChunkOf(3, "abc")), 3},
        {Inner(kData, ChunkOf(2, "abc")), 2},
        {Inner(kData, ChunkOf(4, "abc")), std::nullopt},
        {Inner(kData, ChunkOf(0xFFFFFFFF, "abc")), std::nullopt},
    };
    for (const auto &row : chunks) {
        const auto data = ChunkData(BytesOfText(row.packet));
        ASSERT_EQ(data.has_value(), row.size.has_value());
        EXPECT_EQ(data.value_or(wire::Bytes{}).size(), row.size.value_or(0));
    }

    std::string removal = Inner(kRemove, std::string("a\0b\0", 4));
    EXPECT_EQ(RemovalNames(BytesOfText(removal)).size(), 4U);
    constexpr std::size_t kInnerLengthAt = 22;
    for (const auto &[innerLength, size] : {std::pair{24U, 2U}, {21U, 0U}, {0U, 0U}, {0xFFFFFFFFU, 4U}}) {
        removal.replace(kInnerLengthAt, 4, Le32(innerLength));
        EXPECT_EQ(RemovalNames(BytesOfText(removal)).size(), size);
    }
}

TEST(RemoteAnswer, ListingsHoldWholeNamesAndEndWithAZero)
{
    const std::string zero(1, 0);
    const std::string half(4585, 'h');    // two of them with their zeros fill a packet
    const std::string shorter(4584, 's'); // leaves room for the last zero
    const struct {
        std::vector<std::string> names;
        std::vector<std::string> listed;
    } rows[] = {
        {{}, {zero}},
        {{"a", "b"}, {"a" + zero + "b" + zero + zero}},
        {{half, shorter}, {half + zero + shorter + zero + zero}},
        {{half, half}, {half + zero + half + zero, zero}},
        {{half, half, "c"}, {half + zero + half + zero, "c" + zero + zero}},
        {{half, half + "h", "c"}, {half + zero, half + "h" + zero + "c" + zero + zero}},
        {{"a", std::string(9172, 'l'), "b"}, {"a" + zero + "b" + zero + zero}}, // fits into no packet
    };
    for (std::size_t index = 0; index < std::size(rows); ++index)
        EXPECT_EQ(ListedData(rows[index].names), rows[index].listed) << index;
}

TEST(ProgramList, HoldsNamesOfAnyBytes)
{
    const std::string folder = "/tmp/programs/";
    RemoveTestFile(folder);
    for (const char *const name :
         {"a.txt", "b.mp4", "z.mp4", "plain", "caf\xE9.mp4", "\xFF.zip", "d\xE9/in",
          "d\xE9/x\xE9.mp4.tarvo.bak", "d\xE9/d\xE9p/n", ".hid\xE9", "e\xE9/f/g", "e\xE9/.hid/h"})
        WriteTestFile(folder + name, "");
    std::filesystem::create_symlink("nothing", folder + "l\xE9");
    std::filesystem::create_symlink("..", folder + "d\xE9/up");
    const ProgramList list = ListPrograms(folder);
    // By suffix, then by name, the last first.
    EXPECT_EQ(list.s_programFileList,
              (std::vector<std::string>{"\xFF.zip", "a.txt", "z.mp4", "caf\xE9.mp4", "b.mp4", "plain",
                                        "e\xE9/f/g", "d\xE9/in", "d\xE9/d\xE9p/n"}));
    EXPECT_EQ(list.s_videoFileList, (std::vector<std::string>{"z.mp4", "caf\xE9.mp4", "b.mp4"}));
    EXPECT_EQ(list.s_lastRecvFile, "d\xE9/x\xE9.mp4");

    for (const char *const name : {"d\xE9/d\xE9p/n", "e\xE9/f/g"})
        RemoveTestFile(folder + name);
    RemoveEmptyFolders(folder);
    EXPECT_FALSE(std::filesystem::exists(folder + "d\xE9/d\xE9p"));
    EXPECT_TRUE(std::filesystem::exists(folder + "d\xE9/in"));
    EXPECT_FALSE(std::filesystem::exists(folder + "e\xE9/f"));
    EXPECT_TRUE(std::filesystem::exists(folder + "e\xE9/.hid/h"));
}

TEST(FirmwareListener, ServesOneClientAfterAnother)
{
    static KVersionThread &service = *new KVersionThread([] {}); // its thread does not end
    int port;
    {
        const Listener freePort;
        port = freePort.port;
    }
    service.SetAddress(static_cast<int>(htonl(INADDR_LOOPBACK)), port);
    ASSERT_EQ(service.Init(), 1);
    ASSERT_EQ(service.Init(), 1);
    service.Start();
    const std::string magic("\x76\x71\0\0", 4);
    constexpr char kCommand = 0;
    constexpr char kArchiveData = 1;
    const auto packet = [&](std::uint32_t length, char kind, const std::string &rest) {
        return magic + Le32(length) + kind + rest;
    };
    const std::string version(16, 0); // code 0, and fields of a version request
    const std::string state("\3\0\0", 3);
    const std::string ask = packet(25, kCommand, version);
    const struct {
        std::string sent;
        std::size_t received;
    } rows[] = {
        {ask, 25},
        {packet(1125, kCommand, version), 0},         // longer than its buffer
        {"\x77" + ask.substr(1), 0},                  // another magic
        {packet(24, kCommand, version.substr(1)), 0}, // a version request has 25 bytes
        {ask + ask, 0},                               // more than one packet at a time
        {packet(13, kArchiveData, "data"), 0},        // data without an archive
        {packet(30, kCommand, state), 25},            // closed before its end, but the command is there
        {ask, 25},
    };
    for (std::size_t index = 0; index < std::size(rows); ++index) {
        const ledboard::UniqueFd client(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        address.sin_port = htons(static_cast<std::uint16_t>(port));
        while (connect(client.Get(), reinterpret_cast<sockaddr *>(&address), sizeof address) != 0)
            usleep(1000); // between two clients it does not listen
        send(client.Get(), rows[index].sent.data(), rows[index].sent.size(), MSG_NOSIGNAL);
        shutdown(client.Get(), SHUT_WR);
        EXPECT_EQ(ReceiveAll(client.Get()).size(), rows[index].received) << index;
    }
}
