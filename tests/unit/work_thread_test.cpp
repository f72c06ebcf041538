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

// Marker, version, length, type and the two checksums, which nobody looks at.
std::string Packet(char type, const std::string &tail, int length)
{
    return std::string("ft\x00\x01", 4) + static_cast<char>(length) + static_cast<char>(length >> 8) + type +
           "\xaa\xbb\xcc\xdd\xee\xff\x11\x22" + tail;
}

std::string Command(char code, const std::string &payload = {})
{
    return Packet(1, code + payload, static_cast<int>(16 + payload.size()));
}

std::string Data(const std::string &bytes)
{
    return Packet(0, "seq." + bytes, static_cast<int>(19 + bytes.size()));
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

    // As it comes out of the session layer: length word, four bytes that are not read, the packet.
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
    void Begin(const std::string &name) { ASSERT_EQ(Dispose(Command(21, name + '\0')), 0) << name; }

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
    const std::string ready = Command(5);
    const Row rows[] = {
        {"marker", "tf" + ready.substr(2)},
        {"version", "ft\x01" + std::string(1, '\0') + ready.substr(4)},
        {"type 2", Packet(2, "\x05", 16)},
        {"frame shorter than its own header", ready, 7},
        {"frame without a whole packet header", ready.substr(0, 14)},
        {"frame longer than what is held", ready, 100},
        {"command that claims more than it brought", Packet(1, "\x05", 17)},
        {"no code", Packet(1, "", 15)},
        {"data shorter than its head", Packet(0, "seq.", 18)},
        {"data of length 0", Packet(0, "seq.", 0)},
        {"data that claims more than it brought", Packet(0, "seq.abc", 23)},
        {"data with most of it claimed", Packet(0, "seq.abc", 65535)},
        {"data behind the frame's end", Data("abc"), 8 + 19 + 2},
    };
    for (const Row &row : rows)
        EXPECT_EQ(Dispose(row.packet, row.frameLength), -1) << row.what;
    EXPECT_EQ(Dispose(Data("")), 0);
    EXPECT_EQ(Dispose(Data("!")), 1); // the file is still open
    EXPECT_EQ(Dispose(Command(22)), 0);
    EXPECT_EQ(ReadTestFile(kFolder + std::string("a")), "good!");
    EXPECT_EQ(Dispose(Data("late")), -1);
    EXPECT_EQ(Received(), "");
}

TEST_F(UploadService, RepliesByteForByte)
{
    const std::string head = std::string("ft\x00\x01", 4);
    const std::string zeros(8, '\0');
    const std::string identifier = "0123456789abcdef";
    struct Row {
        std::string request;
        std::string reply; // behind marker and version
    };
    const Row rows[] = {
        {Command(11), std::string("\x25\0\1", 3) + zeros + '\7' + std::string(21, '\0')},
        {Command(3, identifier + std::string(30, 'x')), std::string("\x11\0\1", 3) + zeros + "\4\1"},
        {Command(3), std::string("\x11\0\1", 3) + zeros + "\4\1"}, // nothing behind the code: zeros
        {Command(3, identifier), std::string("\x11\0\1", 3) + zeros + "\4\1"},
        {Command(11), std::string("\x25\0\1", 3) + zeros + '\7' + identifier + std::string(5, '\0')},
        {Command(5), std::string("\x11\0\1", 3) + zeros + "\6\1"},
        {Command(9), std::string("\x11\0\1", 3) + zeros + "\n\1"},
        {Command(12), std::string("\x11\0\1", 3) + zeros + std::string("\r\0", 2)},
        {Command(24, "a.mp4"), std::string("\x10\0\1", 3) + zeros + "\x1a"},
        {Command(4), std::string("\x0f\0\1", 3) + zeros}, // unknown: without the code
        {Command('\xff'), std::string("\x0f\0\1", 3) + zeros},
    };
    for (const Row &row : rows) {
        EXPECT_EQ(Dispose(row.request), 0);
        EXPECT_EQ(Received(), head + row.reply) << static_cast<int>(row.request[15]);
    }
    shutdown(session_.fd, SHUT_WR);
    EXPECT_EQ(Dispose(Command(5)), -1); // the reply cannot be sent
}

TEST_F(UploadService, BarePacketsAndTheirHeader)
{
    std::string packet = Command(5);
    EXPECT_EQ(service_.IsPacket(packet.data(), 1), packet.data());
    EXPECT_EQ(service_.IsPacket(packet.data(), 27), packet.data());
    EXPECT_EQ(service_.IsPacket(packet.data(), 0), nullptr);
    EXPECT_EQ(service_.IsPacket(packet.data(), 28), nullptr);
    EXPECT_EQ(service_.IsPacket(nullptr, 1), nullptr);
    std::string other = Packet(2, "\5", 16);
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
    std::thread writer([&] { // fills the pipe and stays in a write, with the mutex
        const std::string data = Data(block);
        const KDataPacket packet = PacketOf(data);
        for (int sent = 0; sent < 10; ++sent) {
            while (service_.DisposeData(&packet) != static_cast<int>(block.size()))
                std::this_thread::yield();
        }
    });
    const std::string malformed = Packet(0, "seq.", 18);
    const KDataPacket unread = PacketOf(malformed);
    while (service_.DisposeData(&unread) != 0) // -1 until the other thread has the file
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
    // What a shorter message left behind in the buffer reads as a reboot.
    char buffer[wire::kSessionBufferSize] = {};
    const std::string reboot = Word(12) + Word(3) + Word(13);
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

TEST(PlayerLiaison, TestModesAreToldNegated)
{
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    SmartSettingFlag(true); // nobody there
    SocketSession player;
    player.fd = ends[0];
    player.subType = 3;
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
              Word(16) + Word(3) + Word(8) + Word(0) + Word(16) + Word(3) + Word(8) + Word(1) + Word(16) +
                  Word(3) + Word(10) + Word(0) + Word(16) + Word(3) + Word(10) + Word(1) + Word(12) +
                  Word(3) + Word(9));
    close(ends[0]);
    close(ends[1]);
}
