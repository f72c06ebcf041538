// SPDX-License-Identifier: MIT
// The program virtual-board, as a shell script on the PC side uses it.
#include <gtest/gtest.h>

#include <array>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <sys/wait.h>

// What `script` prints on both outputs; its status behind it. The program is at hand as "vb".
static std::string Shell(const std::string &script)
{
    const std::string folder = std::filesystem::read_symlink("/proc/self/exe").parent_path();
    const std::string prologue = "exec 2>&1; PATH=" + folder + ":$PATH; vb() { virtual-board \"$@\"; }\n";
    FILE *pipe = popen((prologue + script).c_str(), "r");
    std::string output;
    std::array<char, 4096> piece;
    while (pipe != nullptr && fgets(piece.data(), piece.size(), pipe) != nullptr)
        output += piece.data();
    const int status = pclose(pipe);
    return output + "[" + std::to_string(WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status)) +
           "]";
}

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
        virtual-board cable out; virtual-board run -- ethtool eth0 | grep Link
        virtual-board cable sideways; virtual-board cable in
        virtual-board run -- sh -c "hwclock -w"
        virtual-board commands | grep hwclock; virtual-board calls --json
        virtual-board kill; virtual-board state | grep daemon; virtual-board restart
        virtual-board reboot; virtual-board state | grep -o "booted.*"
        virtual-board forget; virtual-board commands')";
    EXPECT_EQ(Shell(script), "1\n"
                             "usb in\n1\nboard\nstatus 6\n"
                             "cable out\n\tLink detected: no\n"
                             "virtual-board: cable wants in or out\ncable in\n"
                             "hwclock -w\n[[\"hwclock\",\"-w\"]]\n"
                             "the daemon is killed\ndaemon  ended, status 137\nthe daemon is started\n"
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
    const std::string output =
        Shell("{ echo frames; echo kill; sleep 1; } | timeout -s TERM 2 virtual-board");
    EXPECT_NE(output.find("answer   the daemon is killed\n"), std::string::npos) << output;
    EXPECT_NE(output.find("state    daemon  ended, status 137\n"), std::string::npos) << output;
    EXPECT_NE(output.find("log      [---init tcp 8870 port success.---]\n"), std::string::npos) << output;
    EXPECT_TRUE(output.ends_with("[124]")) << output; // timeout's own; it has ended the program
}
