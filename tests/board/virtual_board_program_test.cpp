// SPDX-License-Identifier: MIT
// The program virtual-board, as a shell script on the PC side uses it.
#include <gtest/gtest.h>

#include <poll.h>
#include <pty.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace
{

std::string ProgramFolder()
{
    return std::getenv("LEDBOARD_BIN_DIR");
}

// What `script` prints on both outputs, then its status in brackets. "vb" stands for the program.
std::string Shell(const std::string &script)
{
    const std::string prologue =
        "exec 2>&1; PATH=" + ProgramFolder() + ":$PATH; vb() { virtual-board \"$@\"; }\n";
    FILE *pipe = popen((prologue + script).c_str(), "r");
    std::string output;
    std::array<char, 4096> piece;
    while (pipe != nullptr && fgets(piece.data(), piece.size(), pipe) != nullptr)
        output += piece.data();
    const int status = pclose(pipe);
    return output + "[" + std::to_string(WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status)) +
           "]";
}

} // namespace

TEST(VirtualBoardProgram, PassesExitStatusAndOutput)
{
    struct Row {
        const char *script, *expected;
    };
    const Row rows[] = {
        {"vb root -- sh -c 'echo $PWD; test -e /boot -a ! -e /boot/*; exit 9'", "/home/root\n[9]"},
        {"cp $(which cat) /tmp/own-cat; echo through | vb root -- /tmp/own-cat; rm /tmp/own-cat",
         "through\n[0]"},
        {"vb root -- no-such-program", "no-such-program: No such file or directory\n[127]"},
        {"vb exec --no-daemon -- sh -c 'echo $BOARD; hostname; exit 3'", "10.20.30.2\npc\n[3]"},
        {"vb exec --no-daemon --number 5 --no-address -- sh -c 'echo \"[$BOARD]\"; kill -TERM $$'",
         "[]\nTerminated\n[143]"},
        {"vb exec --daemon /no/daemon -- true", "virtual board: no daemon at /no/daemon\n[1]"},
        {"vb root 2> /dev/null", "[2]"},
        {"vb cable out", "virtual-board: no board is running here; \"virtual-board shell\" boots one and "
                         "opens a shell beside it\n[1]"},
    };
    for (const Row &row : rows)
        EXPECT_EQ(Shell(row.script), row.expected) << row.script;
}

TEST(VirtualBoardProgram, SteersARunningBoard)
{
    const std::string script = R"(vb exec --file /usr/share/id/name=/etc/hostname -- sh -c '
        virtual-board state --json | grep -c "\"listens\":true"
        virtual-board usb in 800; virtual-board run -- sh -c "df -m /home/root/usb_dev | grep -c 800; hostname; exit 6"
        echo status $?
        virtual-board usb out; virtual-board usb in; virtual-board run -- sh -c "df -m /home/root/usb_dev | grep -c 800"
        virtual-board usb in 8x
        virtual-board cable out; virtual-board run -- ethtool eth0 | grep Link
        virtual-board cable sideways; virtual-board cable in
        virtual-board run -- sh -c "hwclock -w"
        virtual-board commands | grep hwclock; virtual-board calls --json
        virtual-board kill; virtual-board state | grep daemon; virtual-board kill
        virtual-board serial out; virtual-board restart; virtual-board serial in; virtual-board restart
        virtual-board reboot; virtual-board state | grep -o "booted.*"
        virtual-board forget; virtual-board commands')";
    EXPECT_EQ(Shell(script), "1\n"
                             "usb in\n1\nboard\nstatus 6\n"
                             "usb out\nusb in\n1\nvirtual-board: the size of a USB disk is a number of MiB\n"
                             "cable out\n\tLink detected: no\n"
                             "virtual-board: cable wants in or out\ncable in\n"
                             "hwclock -w\n[[\"hwclock\",\"-w\"]]\n"
                             "the daemon is killed\ndaemon  ended, status 137\n"
                             "virtual-board: the daemon is not running\n"
                             "serial out\nvirtual-board: the daemon ended at once, status 0; see its log\n"
                             "serial in\nthe daemon is started\n"
                             "the board is up again\nbooted 2 times\n"
                             "records are empty\n[0]");
}

TEST(VirtualBoardProgram, ScreenshotsAreFilesWhereTheyWereAskedFor)
{
    const std::string script = R"(vb exec --no-daemon --screen 40x24x16,bgr,pad=6 --screen 16x8 -- sh -c '
        cd /dev/shm; virtual-board screenshot a.png; virtual-board screenshot b.png 1; virtual-board screenshot c.png 2
        virtual-board screenshot c.png x; virtual-board screenshot no/a.png
        for file in a b; do od -A n -t x1 -j 1 -N 3 $file.png; od -A n -t x1 -j 16 -N 8 $file.png; done
        virtual-board run -- sh -c "wc -c < /dev/fb0"; rm a.png b.png'
        vb exec --screen 40x24,bright -- true)";
    EXPECT_EQ(Shell(script),
              "40 x 24 pixels in /dev/shm/a.png\n16 x 8 pixels in /dev/shm/b.png\n"
              "virtual-board: the board has no /dev/fb2; boot it with --screen\n"
              "virtual-board: the number of a screen is 0, 1 or 2\n"
              "virtual-board: cannot write /dev/shm/no/a.png\n"
              " 50 4e 47\n 00 00 00 28 00 00 00 18\n 50 4e 47\n 00 00 00 10 00 00 00 08\n"
              "7968\n" // two pages of 24 rows, each with room for 32 bits
              "virtual-board: --screen wants WIDTHxHEIGHT[xBITS][,bgr][,pad=BYTES], not 40x24,bright\n[1]");
}

TEST(VirtualBoardProgram, PrintsLinesAndTakesCommandsOnAPipe)
{
    const std::string output = Shell(R"(cd $(mktemp -d); mkfifo keys; virtual-board < keys > lines 2>&1 &
        exec 3> keys; echo frames >&3; echo kill >&3
        for try in $(seq 200); do grep -q "ended, status 137" lines && break; sleep 0.1; done
        kill $!; wait $!; status=$?; cat lines; rm -r $PWD; exit $status)");
    EXPECT_NE(output.find("answer   the daemon is killed\n"), std::string::npos) << output;
    EXPECT_NE(output.find("state    daemon  ended, status 137\n"), std::string::npos) << output;
    EXPECT_NE(output.find("log      [---init tcp 8870 port success.---]\n"), std::string::npos) << output;
    EXPECT_TRUE(output.ends_with("[0]")) << output;
}

// Requests that go on for days, such as those of "log --follow", must not fill the board's process.
TEST(VirtualBoardProgram, RequestsLeaveNothingBehind)
{
#ifdef __SANITIZE_THREAD__
    GTEST_SKIP() << "the thread sanitizer keeps memory of every thread that was";
#endif
    const std::string script = R"(vb exec --no-daemon -- sh -c '
        before=$(wc -l < /proc/$PPID/maps)
        for i in $(seq 60); do virtual-board cable in > /dev/null; done
        [ $(wc -l < /proc/$PPID/maps) -lt $((before + 60)) ] && echo few')";
    EXPECT_EQ(Shell(script), "few\n[0]");
}

namespace
{

// The program on a terminal.
class LiveView : public testing::Test
{
protected:
    void SetUp() override
    {
        const winsize size{.ws_row = 40, .ws_col = 160, .ws_xpixel = 0, .ws_ypixel = 0};
        const std::string program = ProgramFolder() + "/virtual-board";
        pid_ = forkpty(&terminal_, nullptr, nullptr, &size);
        if (pid_ != 0)
            return;
        setenv("TERM", "xterm", 1);
        setenv("SHELL", "/bin/sh", 1);
        execl(program.c_str(), program.c_str(), nullptr);
        _exit(127);
    }
    void TearDown() override
    {
        if (pid_ > 0)
            kill(pid_, SIGKILL);
        close(terminal_);
    }
    void Type(const std::string &keys)
    {
        screen_.clear();
        EXPECT_EQ(write(terminal_, keys.data(), keys.size()), static_cast<ssize_t>(keys.size()));
    }
    // Since the last keys. A text comes as a whole if it has nothing in common with what it replaces.
    bool Shows(const std::string &text)
    {
        while (screen_.find(text) == std::string::npos) {
            if (!Receive())
                return false;
        }
        return true;
    }
    int End()
    {
        while (Receive()) {
        }
        int status = -1;
        waitpid(pid_, &status, 0);
        pid_ = -1;
        return status;
    }

private:
    bool Receive()
    {
        std::array<char, 4096> piece;
        pollfd waiting{.fd = terminal_, .events = POLLIN, .revents = 0};
        const ssize_t got = poll(&waiting, 1, 20'000) == 1 ? read(terminal_, piece.data(), piece.size()) : -1;
        screen_.append(piece.data(), static_cast<std::size_t>(std::max<ssize_t>(got, 0)));
        EXPECT_LT(screen_.size(), 1'000'000U) << screen_.substr(0, 20'000);
        return got > 0 && screen_.size() < 1'000'000;
    }

    int terminal_ = -1;
    pid_t pid_ = -1;
    std::string screen_;
};

} // namespace

TEST_F(LiveView, ShowsTheBoardAndTakesCommands)
{
    for (const char *const pane :
         {"booted 1 time", "listening", "10.20.30.2", "sessions (", "frames to the FPGA (",
          "messages to the player (", "commands (", "log of the daemon ("})
        ASSERT_TRUE(Shows(pane)) << pane;
    struct Row {
        const char *key, *shown;
    };
    for (const Row &row :
         {Row{"c", "cable out"}, Row{"u", "usb in"}, Row{"k", "the daemon is killed"}, Row{"u", "usb out"},
          Row{"d", "the daemon is started"}, Row{"c", "cable in"}, Row{"r", "the board is up again"},
          Row{"f", "records are empty"}, Row{"s", "exit leads back to the board."},
          Row{"echo $((40 + 2)) here\n", "42 here"}, Row{"exit\n", "log of the daemon ("}}) {
        Type(row.key);
        ASSERT_TRUE(Shows(row.shown)) << row.key;
    }
    Type("q");
    EXPECT_EQ(End(), 0);
}
