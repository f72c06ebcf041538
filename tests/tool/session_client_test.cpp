// SPDX-License-Identifier: MIT
// A session with a listener of the test, which can send what a real board sends only when it is full,
// upgrading or broken.
#include "sessions/session_client.h"

#include "common/address.h"
#include "common/pc/verb_error.h"
#include "example_board.h"
#include "sessions/keep_alive.h"
#include "sessions/upload_session.h"

#include <gtest/gtest.h>

#include <poll.h>
#include <sys/socket.h>

#include <atomic>
#include <optional>
#include <thread>

namespace ledboard
{

namespace
{

using std::chrono::milliseconds;

// A socket of `type` on a free port of 127.0.0.1.
class LocalSocket
{
public:
    explicit LocalSocket(int type) : fd_(socket(AF_INET, type | SOCK_CLOEXEC, 0))
    {
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_addr = Address("127.0.0.1");
        socklen_t size = sizeof address;
        EXPECT_EQ(bind(fd_.Get(), reinterpret_cast<sockaddr *>(&address), size), 0);
        EXPECT_EQ(getsockname(fd_.Get(), reinterpret_cast<sockaddr *>(&address), &size), 0);
        if (type == SOCK_STREAM) {
            EXPECT_EQ(listen(fd_.Get(), 4), 0);
        }
        where_ = {address.sin_addr, ntohs(address.sin_port)};
    }
    int Fd() const { return fd_.Get(); }
    const Endpoint &Where() const { return where_; }

private:
    UniqueFd fd_;
    Endpoint where_;
};

const std::string kLoginLength("\x08\0\0\0", 4);

std::string LoginBytes(char subType)
{
    return kLoginLength + subType + std::string(3, '\0');
}

std::string LoginReply(char status)
{
    return kLoginLength + status + std::string(3, '\0');
}

// Logs in to a board that sends this answer. The status word, and the login's bytes.
std::string LogInResult(const std::string &answer, std::string *login = nullptr)
{
    const LocalSocket board(SOCK_STREAM);
    std::jthread thread([&] {
        const UniqueFd client(accept(board.Fd(), nullptr, nullptr));
        char bytes[64];
        const ssize_t size = recv(client.Get(), bytes, sizeof bytes, 0);
        if (login != nullptr && size > 0)
            login->assign(bytes, static_cast<std::size_t>(size));
        for (const char byte : answer) // one at a time: the client must collect them
            send(client.Get(), &byte, 1, MSG_NOSIGNAL);
        if (answer.empty())
            recv(client.Get(), bytes, sizeof bytes, 0); // silent until the client leaves
    });
    try {
        SessionClient session(board.Where(), "", milliseconds(300));
        session.LogIn(wire::kSessionFirmware);
        return "accepted";
    } catch (const VerbError &error) {
        return StatusWord(error.Status());
    }
}

} // namespace

TEST(SessionClient, LoginAnswers)
{
    constexpr char kFirmware = 2;
    constexpr char kRefused = 0, kAccepted = 1, kUpgrading = 2, kModemAccepted = 4, kUnknown = 9;
    std::string login;
    EXPECT_EQ(LogInResult(LoginReply(kAccepted), &login), "accepted");
    EXPECT_EQ(login, LoginBytes(kFirmware));
    EXPECT_EQ(LogInResult(LoginReply(kModemAccepted)), "accepted");
    EXPECT_EQ(LogInResult(LoginReply(kRefused)), "refused");
    EXPECT_EQ(LogInResult(LoginReply(kUpgrading)), "refused");
    EXPECT_EQ(LogInResult(LoginReply(kUnknown)), "refused");
    EXPECT_EQ(LogInResult("\x09" + LoginReply(kAccepted).substr(1)), "failed") << "a length of 9";
    EXPECT_EQ(LogInResult("HTTP"), "failed"); // and closes
    EXPECT_EQ(LogInResult(""), "time-out");
}

TEST(UploadSession, ALoginWithoutAnswerMayHaveBeenTaken)
{
    const LocalSocket listener(SOCK_STREAM); // accepts the connection, sends nothing
    Board board = ExampleBoard();
    board.record.ipaddr = static_cast<std::int32_t>(listener.Where().address.s_addr);
    board.source = listener.Where();
    UploadSession session({milliseconds(100), milliseconds(100)});
    EXPECT_EQ(session.State(), BoardState::kUntouched);
    EXPECT_THROW(session.Open(board, "", "program", 1), VerbError);
    EXPECT_EQ(session.State(), BoardState::kMayBeEmptied);
}

TEST(SessionClient, NobodyThere)
{
    Endpoint closed;
    {
        const LocalSocket board(SOCK_STREAM);
        closed = board.Where();
    }
    try {
        const SessionClient session(closed, "", milliseconds(300));
        ADD_FAILURE();
    } catch (const VerbError &error) {
        EXPECT_EQ(error.Status(), ExitStatus::kRefused);
    }
}

// A listener that closes resets who is in its queue: that is a closed port as well.
TEST(SessionClient, AListenerThatClosesMeanwhileRefuses)
{
    for (int round = 0; round < 300; ++round) {
        std::optional<LocalSocket> board(SOCK_STREAM);
        const Endpoint where = board->Where();
        std::atomic<bool> started = false;
        std::jthread closes([&] {
            started = true;
            board.reset();
        });
        while (!started) {
        }
        try {
            const SessionClient session(where, "", milliseconds(300));
        } catch (const VerbError &error) {
            EXPECT_EQ(error.Status(), ExitStatus::kRefused) << error.what();
        }
    }
}

TEST(SessionClient, GoesToTheCustomPortOfABoardAskedThere)
{
    Board board = ExampleBoard();
    EXPECT_EQ(SessionEndpoint(board), (Endpoint{Address("192.168.1.7"), 8870}));
    board.source.port = 12000;
    EXPECT_EQ(SessionEndpoint(board), (Endpoint{Address("192.168.1.7"), 12000}));
}

TEST(KeepAlive, SearchesAgainAndAgainFromTheSessionsAddress)
{
    const LocalSocket board(SOCK_DGRAM);
    const auto began = Clock::now();
    const KeepAlive keepAlive(Address("127.0.0.5"), board.Where(), "", milliseconds(50));
    for (int i = 0; i < 4; ++i) {
        ASSERT_TRUE(WaitFor(board.Fd(), POLLIN, Clock::now() + std::chrono::seconds(5)));
        char datagram[64];
        sockaddr_in from = {};
        socklen_t size = sizeof from;
        EXPECT_EQ(recvfrom(board.Fd(), datagram, sizeof datagram, 0, reinterpret_cast<sockaddr *>(&from),
                           &size),
                  30);
        EXPECT_EQ(Dotted(from.sin_addr), "127.0.0.5");
    }
    EXPECT_GE(Clock::now() - began, milliseconds(3 * 50)); // not all at once
    EXPECT_THROW(KeepAlive(Address("127.0.0.5"), board.Where(), "none0"), VerbError);
}

} // namespace ledboard
