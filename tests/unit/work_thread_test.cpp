// SPDX-License-Identifier: MIT
// What the upload service makes of single packets.
#include "upload/work_thread.h"

#include "player/server_witch_plexa.h"
#include "sessions/client_session.h"
#include "test_files.h"

#include <QMetaMethod>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <linux/netlink.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <thread>

namespace
{

constexpr char kFolder[] = "/home/root/plexa_data/factory/";

std::string Word(std::uint32_t value)
{
    return {reinterpret_cast<const char *>(&value), sizeof value};
}

enum PacketType : char { kFileData = 0, kCommand = 1 };

enum UploadCode : char {
    kRequest = 3,
    kAnswer = 4,
    kAskReady = 5,
    kAnswerReady = 6,
    kAnswerRetrans = 7,
    kAskComplete = 9,
    kAnswerComplete = 10,
    kAskRetrans = 11,
    kAskDisconnect = 12,
    kAnswerDisconnect = 13,
    kFileBegin = 21,
    kFileEnd = 22,
    kVideoList = 24,
    kAnswerVideoList = 26,
};

constexpr int kHeadSize = 15;      // of every packet
constexpr int kCommandSize = 16;   // without a payload
constexpr int kDataHeadSize = 19;  // of a packet with file data
constexpr char kUnread[] = "seq."; // between the head and the file data
const std::string kMarker = "ft";
const std::string kVersion("\0\1", 2);

std::string Le16(int value)
{
    return {static_cast<char>(value), static_cast<char>(value >> 8)};
}

// A packet with that length.
std::string Packet(char type, const std::string &tail, int length)
{
    const std::string unreadChecksums = "\xaa\xbb\xcc\xdd\xee\xff\x11\x22";
    return kMarker + kVersion + Le16(length) + type + unreadChecksums + tail;
}

std::string Command(char code, const std::string &payload = {})
{
    return Packet(kCommand, code + payload, kCommandSize + static_cast<int>(payload.size()));
}

std::string Data(const std::string &bytes)
{
    return Packet(kFileData, kUnread + bytes, kDataHeadSize + static_cast<int>(bytes.size()));
}

std::string Reply(const std::string &tail)
{
    const std::string noChecksums(8, '\0');
    return kMarker + kVersion + Le16(kHeadSize + static_cast<int>(tail.size())) +
           static_cast<char>(kCommand) + noChecksums + tail;
}

std::string Result(char code, char result)
{
    return Reply({code, result});
}

enum PlayerCode : std::uint32_t {
    kPlayerSmartSetting = 8,
    kPlayerNetworkError = 9,
    kPlayerSlantLine = 10,
    kPlayerReboot = 13,
};

constexpr std::uint32_t kPlayerKind = 3;
constexpr std::int32_t kPlayerSubType = 3;

std::string PlayerMessage(std::uint32_t code)
{
    constexpr std::uint32_t kLength = 12;
    return Word(kLength) + Word(kPlayerKind) + Word(code);
}

std::string PlayerMessage(std::uint32_t code, std::uint32_t value)
{
    constexpr std::uint32_t kLength = 16;
    return Word(kLength) + Word(kPlayerKind) + Word(code) + Word(value);
}

KDataPacket PacketOf(const std::string &packet)
{
    const wire::Bytes bytes = wire::BytesAt(packet.data(), packet.size());
    return {*wire::Read<wire::KProtocolHeader>(bytes), bytes.subspan(15)};
}

class UploadService : public testing::Test
{
protected:
    void SetUp() override
    {
        RemoveTestFile("/home/root/plexa_data");
        int ends[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends), 0);
        session_.fd = ends[0];
        client_ = ends[1];
        session_.buff = buffer_;
        service_.LogIn();
    }
    void TearDown() override
    {
        close(session_.fd);
        close(client_);
    }

    // As the session layer passes it on: length, four bytes that are not read, the packet.
    int Dispose(const std::string &packet, int frameLength = -1)
    {
        const auto length = frameLength >= 0 ? static_cast<std::uint32_t>(frameLength)
                                             : static_cast<std::uint32_t>(8 + packet.size());
        const std::string frame = Word(length) + "****" + packet;
        std::memset(buffer_, '#', sizeof buffer_);
        std::memcpy(buffer_, frame.data(), frame.size());
        session_.remain = static_cast<std::int32_t>(frame.size());
        return service_.DisposePacket(&session_);
    }
    std::string Received() const
    {
        char bytes[20000];
        const ssize_t count = recv(client_, bytes, sizeof bytes, 0);
        return {bytes, static_cast<std::size_t>(std::max<ssize_t>(count, 0))};
    }
    void Begin(const std::string &name) { ASSERT_EQ(Dispose(Command(kFileBegin, name + '\0')), 0) << name; }

    KWorkThread service_{nullptr, -1};
    SocketSession session_;
    char buffer_[wire::kSessionBufferSize];
    int client_ = -1;
};

class Owner : public KSession
{
public:
    void Destroyes(void *p, int t) override
    {
        pointer = p;
        type = t;
    }
    void *pointer = nullptr;
    int type = 0;
};

} // namespace

TEST_F(UploadService, MalformedPacketsChangeNothing)
{
    Begin("a");
    EXPECT_EQ(Dispose(Data("good")), 4);
    struct Row {
        const char *what;
        std::string packet;
        int frameLength = -1;
    };
    const std::string ready = Command(kAskReady);
    const std::string abc = "abc";
    const Row rows[] = {
        {"marker", "tf" + ready.substr(2)},
        {"version", kMarker + std::string("\1\0", 2) + ready.substr(4)},
        {"type 2", Packet(2, {kAskReady}, kCommandSize)},
        {"frame shorter than its own header", ready, 7},
        {"frame without a whole packet header", ready.substr(0, 14)},
        {"frame longer than what is held", ready, 100},
        {"command that claims more than it brought", Packet(kCommand, {kAskReady}, kCommandSize + 1)},
        {"no code", Packet(kCommand, "", kHeadSize)},
        {"data shorter than its head", Packet(kFileData, kUnread, kDataHeadSize - 1)},
        {"data of length 0", Packet(kFileData, kUnread, 0)},
        {"data that claims one byte more than it brought",
         Packet(kFileData, kUnread + abc, kDataHeadSize + 4)},
        {"data that claims the largest length", Packet(kFileData, kUnread + abc, 65535)},
        {"data after the frame's end", Data(abc), 8 + kDataHeadSize + 2},
    };
    for (const Row &row : rows)
        EXPECT_EQ(Dispose(row.packet, row.frameLength), -1) << row.what;
    EXPECT_EQ(Dispose(Data("")), 0);
    EXPECT_EQ(Dispose(Data("!")), 1); // the file is still open
    EXPECT_EQ(Dispose(Command(kFileEnd)), 0);
    EXPECT_EQ(ReadTestFile(kFolder + std::string("a")), "good!");
    EXPECT_EQ(Dispose(Data("late")), -1);
    EXPECT_EQ(Received(), "");
}

TEST_F(UploadService, RepliesByteForByte)
{
    const std::string identifier = "0123456789abcdef";
    const std::string noIdentifier(16, '\0');
    const std::string zeroAndCount(5, '\0');
    const std::string retrans(1, kAnswerRetrans);
    struct Row {
        std::string request;
        std::string reply;
    };
    const Row rows[] = {
        {Command(kAskRetrans), Reply(retrans + noIdentifier + zeroAndCount)},
        {Command(kRequest, identifier + std::string(30, 'x')), Result(kAnswer, 1)},
        {Command(kRequest), Result(kAnswer, 1)}, // nothing after the code reads as zeros
        {Command(kRequest, identifier), Result(kAnswer, 1)},
        {Command(kAskRetrans), Reply(retrans + identifier + zeroAndCount)},
        {Command(kAskReady), Result(kAnswerReady, 1)},
        {Command(kAskComplete), Result(kAnswerComplete, 1)},
        {Command(kAskDisconnect), Result(kAnswerDisconnect, 0)},
        {Command(kVideoList, "a.mp4"), Reply({kAnswerVideoList})},
        {Command(kAnswer), Reply("")}, // not a request: a reply without a code
        {Command('\xff'), Reply("")},
    };
    for (const Row &row : rows) {
        EXPECT_EQ(Dispose(row.request), 0);
        EXPECT_EQ(Received(), row.reply) << static_cast<int>(row.request[15]);
    }
    shutdown(session_.fd, SHUT_WR);
    EXPECT_EQ(Dispose(Command(kAskReady)), -1); // the reply cannot be sent
}

TEST_F(UploadService, BarePacketsAndTheirHeader)
{
    std::string packet = Command(kAskReady);
    EXPECT_EQ(service_.IsPacket(packet.data(), 1), packet.data());
    EXPECT_EQ(service_.IsPacket(packet.data(), 27), packet.data());
    EXPECT_EQ(service_.IsPacket(packet.data(), 0), nullptr);
    EXPECT_EQ(service_.IsPacket(packet.data(), 28), nullptr);
    EXPECT_EQ(service_.IsPacket(nullptr, 1), nullptr);
    std::string other = Packet(2, {kAskReady}, kCommandSize);
    EXPECT_EQ(service_.IsPacket(other.data(), 1), nullptr);

    Begin("bare");
    std::string data = Data("bytes");
    EXPECT_EQ(service_.DisposePacket(data.data(), 0), 5);
    EXPECT_EQ(service_.DisposePacket(other.data(), 16), -1);
    EXPECT_EQ(service_.DisposePacket(nullptr, 0), -1);
    EXPECT_EQ(ReadTestFile(kFolder + std::string("bare")), "bytes");
}

TEST_F(UploadService, DataIsDroppedWhileTheFileIsInUse)
{
    const std::string fifo = kFolder + std::string("fifo");
    WriteTestFile(fifo, "");
    RemoveTestFile(fifo);
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    const int reader = open(fifo.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    Begin("fifo");
    const std::string block(9000, 'x');
    std::thread writer([&] { // fills the pipe and blocks in a write, with the mutex
        const std::string data = Data(block);
        const KDataPacket packet = PacketOf(data);
        for (int sent = 0; sent < 10; ++sent) {
            while (service_.DisposeData(&packet) != static_cast<int>(block.size()))
                std::this_thread::yield();
        }
    });
    const std::string malformed = Packet(kFileData, kUnread, kDataHeadSize - 1);
    const KDataPacket unread = PacketOf(malformed);
    while (service_.DisposeData(&unread) != 0) // -1 until the other thread uses the file
        std::this_thread::yield();
    std::string got;
    while (got.size() < 10 * block.size()) {
        char bytes[65536];
        const ssize_t count = read(reader, bytes, sizeof bytes);
        if (count > 0)
            got.append(bytes, static_cast<std::size_t>(count));
        else
            std::this_thread::yield();
    }
    writer.join();
    EXPECT_EQ(got, std::string(90000, 'x'));
    EXPECT_EQ(Dispose(Data("now")), 3);
    close(reader);
}

TEST_F(UploadService, ABackslashEndsTheFolder)
{
    Begin("a\\b.mp4");
    EXPECT_TRUE(std::filesystem::is_directory(kFolder + std::string("a")));
    EXPECT_TRUE(std::filesystem::is_regular_file(kFolder + std::string("a\\b.mp4")));
}

TEST_F(UploadService, InterfaceOfTheThread)
{
    const QMetaObject &meta = KWorkThread::staticMetaObject;
    for (const char *const signature :
         {"Destroyes(void*,int)", "Finished()", "InitTcp(int)", "Finish()", "UdpRecved()", "TcpRecved()",
          "DisplayError(QAbstractSocket::SocketError)"}) {
        EXPECT_NE(meta.indexOfMethod(signature), -1) << signature;
    }
    Owner owner;
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    {
        KWorkThread thread(&owner, ends[0]);
        Q_EMIT thread.Destroyes(&ends, 7);
    }
    EXPECT_EQ(owner.pointer, &ends);
    EXPECT_EQ(owner.type, 7);
    char byte;
    EXPECT_EQ(recv(ends[1], &byte, 1, MSG_DONTWAIT), 0); // the end shut its socket down
    close(ends[0]);
    close(ends[1]);

    for (const int events : {service_.InitNetlink(), service_.InitUDiskMoniter()}) {
        ASSERT_NE(events, -1);
        sockaddr_nl address{};
        socklen_t size = sizeof address;
        getsockname(events, reinterpret_cast<sockaddr *>(&address), &size);
        EXPECT_EQ(address.nl_groups, 1U);
        close(events);
    }
}

TEST(PlayerLiaison, ShortMessagesAreNotRead)
{
    // The bytes after a shorter message are left from a longer one and would be read as a reboot.
    char buffer[wire::kSessionBufferSize] = {};
    const std::string reboot = PlayerMessage(kPlayerReboot);
    std::copy(reboot.begin(), reboot.end(), buffer);
    SocketSession session;
    EXPECT_EQ(DisposePlexaMessage(&session), 0); // no buffer
    session.buff = buffer;
    testing::internal::CaptureStdout();
    for (const auto &[length, held] : {std::pair{12, 11}, {8, 8}, {4, 4}}) {
        buffer[0] = static_cast<char>(length);
        session.remain = held;
        EXPECT_EQ(DisposePlexaMessage(&session), 1);
    }
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
}

TEST(PlayerLiaison, TestModesAreSentNegated)
{
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    SmartSettingFlag(true); // without a player
    SocketSession player;
    player.fd = ends[0];
    player.subType = kPlayerSubType;
    player.session = kPlayerChannel;
    RegisterClientConnect(&player);
    SmartSettingFlag(true);
    SmartSettingFlag(false);
    PaintSlantLine(true);
    PaintSlantLine(false);
    NetworkError();
    UnregisterClientConnect(&player);
    char bytes[200];
    const ssize_t count = recv(ends[1], bytes, sizeof bytes, MSG_DONTWAIT);
    EXPECT_EQ(std::string(bytes, static_cast<std::size_t>(std::max<ssize_t>(count, 0))),
              PlayerMessage(kPlayerSmartSetting, 0) + PlayerMessage(kPlayerSmartSetting, 1) +
                  PlayerMessage(kPlayerSlantLine, 0) + PlayerMessage(kPlayerSlantLine, 1) +
                  PlayerMessage(kPlayerNetworkError));
    close(ends[0]);
    close(ends[1]);
}
