// SPDX-License-Identifier: MIT
// Sends to peers that read slowly or not at all, while signals arrive.
#include "base/sockets.h"

#include "common/unique_fd.h"

#include <gtest/gtest.h>

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <string>
#include <thread>

using namespace std::chrono_literals;

namespace
{

// A session's socket and its peer; a signal every 20 ms to the thread that made this.
class Sends : public testing::Test
{
protected:
    void SetUp() override
    {
        struct sigaction nothing = {};
        nothing.sa_handler = [](int) {};
        nothing.sa_flags = SA_RESTART;
        ASSERT_EQ(sigaction(SIGUSR1, &nothing, &before_), 0);
        int ends[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
        session_ = ledboard::UniqueFd(ends[0]);
        peer_ = ledboard::UniqueFd(ends[1]);
        SetSessionSendLimit(session_.Get());
        signals_ = std::thread([this, sender = pthread_self()] {
            while (!stop_) {
                pthread_kill(sender, SIGUSR1);
                poll(nullptr, 0, 20);
            }
        });
    }
    void TearDown() override
    {
        stop_ = true;
        signals_.join();
        sigaction(SIGUSR1, &before_, nullptr);
    }
    long Send() const { return SendBytes(session_.Get(), wire::BytesAt(text_.data(), text_.size())); }

    const std::string text_ = std::string(4 << 20, 'x'); // far more than the kernel holds
    ledboard::UniqueFd session_;
    ledboard::UniqueFd peer_;

private:
    struct sigaction before_ = {};
    std::atomic<bool> stop_ = false;
    std::thread signals_;
};

} // namespace

TEST_F(Sends, ReachASlowPeerWhole)
{
    std::string received;
    std::thread reader([&] {
        std::string block(1 << 16, '\0');
        while (received.size() < text_.size()) {
            const ssize_t count = read(peer_.Get(), block.data(), block.size());
            if (count <= 0)
                return;
            received.append(block, 0, static_cast<std::size_t>(count));
            poll(nullptr, 0, 5); // 64 blocks: some 0.3 s, many signals
        }
    });
    EXPECT_EQ(Send(), static_cast<long>(text_.size()));
    reader.join();
    EXPECT_EQ(received, text_);
}

TEST_F(Sends, GiveUpOnAPeerThatNeverReads)
{
    const auto begin = std::chrono::steady_clock::now();
    const long sent = Send();
    const auto took = std::chrono::steady_clock::now() - begin;
    EXPECT_GT(sent, 0);
    EXPECT_LT(sent, static_cast<long>(text_.size()));
    EXPECT_GE(took, 1800ms);
    EXPECT_LT(took, 10s);
    EXPECT_EQ(Send(), -1); // nothing more goes in
    peer_.Reset();
    errno = 0;
    EXPECT_EQ(Send(), -1);
    EXPECT_EQ(errno, EPIPE);
}
