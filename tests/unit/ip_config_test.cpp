// SPDX-License-Identifier: MIT
#include "addressing/interfaces_file.h"
#include "base/command_worker.h"
#include "common/unique_fd.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/file.h>

#include <chrono>
#include <cstdio>
#include <memory>

namespace
{

constexpr char kPreUp[] = "        pre-up /bin/grep -v -e \"ip=[0-9]\\+\\.[0-9]\\+\\.[0-9]\\+\\.[0-9]\\+\" "
                          "/proc/cmdline > /dev/null\n";
constexpr char kFour[] = "        address 10.0.0.7\n        netmask 255.255.255.0\n"
                         "        network 10.0.0.0\n        gateway 10.0.0.1\n";

// `{}` stands for the lines that the new addressing brings.
struct RewriteRow {
    const char *name;
    std::string before;
    std::string dhcp;
    std::string fixed;
    int eth0Lines;
};

std::string Filled(std::string text, const std::string &lines)
{
    for (std::size_t at; (at = text.find("{}")) != std::string::npos;)
        text.replace(at, 2, lines);
    return text;
}

std::string Rewritten(const std::string &text, InterfacesRewriter rewriter, int *eth0Lines)
{
    std::string copy = text;
    const std::unique_ptr<std::FILE, int (*)(std::FILE *)> file(fmemopen(copy.data(),
                                                                         copy.empty() ? 1 : copy.size(), "r"),
                                                                std::fclose);
    std::string out;
    std::string line;
    *eth0Lines = 0;
    while (!text.empty() && ReadInterfacesLine(file.get(), &line)) {
        EXPECT_LE(line.size(), kMaxInterfacesLine);
        *eth0Lines += rewriter.Take(line, &out) ? 1 : 0;
    }
    return out;
}

TEST(InterfacesFile, IsRewrittenLineByLine)
{
    const std::string four = "  address 1\n  netmask 2\n  network 3\n  gateway 4\n";
    const std::string fixed = "iface eth0 inet static\n";
    const std::string dhcp = "iface eth0 inet dhcp\n";
    const std::string longest = "#" + std::string(254, 'x') + "\n"; // 256 bytes
    const RewriteRow rows[] = {
        {"empty", "", "", "", 0},
        {"no eth0", "auto lo\niface lo inet loopback", "auto lo\niface lo inet loopback",
         "auto lo\niface lo inet loopback", 0},
        {"static", "auto eth0\n" + fixed + four + "auto lo\n", "auto eth0\n" + dhcp + "{}auto lo\n",
         "auto eth0\n" + fixed + "{}auto lo\n", 1},
        {"dhcp", dhcp + "  pre-up x\nauto lo\n", dhcp + "{}auto lo\n", fixed + "{}auto lo\n", 1},
        {"other method", "iface eth0 inet manual\n  up x\n# end\n", "iface eth0 inet manual\n{}# end\n",
         fixed + "{}# end\n", 1},
        {"rest of the static line", "iface eth0 inet staticky # why\n" + four, dhcp + "{}",
         "iface eth0 inet staticky # why\n{}", 1},
        {"eth0 last", "auto lo\n" + fixed, "auto lo\n" + dhcp + "{}", "auto lo\n" + fixed + "{}", 1},
        {"eth0 last without newline", "iface eth0 inet dhcp", dhcp + "{}", fixed + "{}", 1},
        {"static last without newline", "iface eth0 inet static", dhcp + "{}", fixed + "{}", 1},
        {"too few lines after static", fixed + "  address 1\nauto lo\n", dhcp + "{}", fixed + "{}", 1},
        {"dropped by number", fixed + "# why\n  address 1\niface eth0 inet dhcp\n  x\nauto lo\n",
         dhcp + "{}auto lo\n", fixed + "{}auto lo\n", 1},
        {"several", dhcp + "  a\n" + fixed + four + dhcp + "  b", dhcp + "{}" + dhcp + "{}" + dhcp + "{}",
         fixed + "{}" + fixed + "{}" + fixed + "{}", 3},
        {"comment and blanks", "#iface eth0 inet static\n iface eth0 inet static\niface eth01 inet static\n",
         "#iface eth0 inet static\n iface eth0 inet static\niface eth01 inet static\n",
         "#iface eth0 inet static\n iface eth0 inet static\niface eth01 inet static\n", 0},
        {"line of 256 bytes", longest + dhcp + longest + "auto lo\n", longest + dhcp + "{}auto lo\n",
         longest + fixed + "{}auto lo\n", 1},
        {"rest of a long line is a line", dhcp + longest.substr(0, 255) + "yz\nauto lo\n",
         dhcp + "{}z\nauto lo\n", fixed + "{}z\nauto lo\n", 1},
        {"zero bytes", std::string("a\0b\n", 4) + dhcp, std::string("a\0b\n", 4) + dhcp + "{}",
         std::string("a\0b\n", 4) + fixed + "{}", 1},
    };
    for (const RewriteRow &row : rows) {
        int count = 0;
        const std::string dynamic = Rewritten(row.before, InterfacesRewriter::ForDhcp(), &count);
        EXPECT_EQ(dynamic, Filled(row.dhcp, kPreUp)) << row.name;
        EXPECT_EQ(count, row.eth0Lines) << row.name;
        EXPECT_EQ(Rewritten(row.before,
                            InterfacesRewriter::ForFixed(
                                {"10.0.0.7", "255.255.255.0", "10.0.0.0", "10.0.0.1"}),
                            &count),
                  Filled(row.fixed, kFour))
            << row.name;
        EXPECT_EQ(count, row.eth0Lines) << row.name;
    }
}

std::string ContentOf(const char *path)
{
    const std::unique_ptr<std::FILE, int (*)(std::FILE *)> file(std::fopen(path, "r"), std::fclose);
    char text[64] = {};
    return file ? std::string(text, std::fread(text, 1, sizeof text, file.get())) : "";
}

// Whether no process holds a lock on the file, at the latest after two seconds.
bool IsFree(const char *path)
{
    const ledboard::UniqueFd fd(open(path, O_RDONLY | O_CLOEXEC));
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(2);
    while (flock(fd.Get(), LOCK_EX | LOCK_NB) != 0) {
        if (std::chrono::steady_clock::now() > end)
            return false;
        std::this_thread::yield();
    }
    return true;
}

TEST(CommandWorker, KeepsTheOrderAndEndsWhatRuns)
{
    constexpr char kFile[] = "/tmp/command_worker_test";
    std::remove(kFile);
    const auto before = std::chrono::steady_clock::now();
    {
        CommandWorker worker;
        worker.Clear(); // nothing runs: nothing to wait for
        // The child of the command ends with it: its lock on the file, which it inherits, goes.
        worker.Put("exec 9>> /tmp/command_worker_test; flock 9; echo 1 >&9; sleep 100; echo never >&9");
        while (ContentOf(kFile) != "1\n")
            std::this_thread::yield();
        worker.Put("echo dropped >> /tmp/command_worker_test");
        worker.Clear();
        EXPECT_EQ(ContentOf(kFile), "1\n");
        EXPECT_TRUE(IsFree(kFile)) << "an orphan holds it";

        worker.Put("sleep 0.2");
        for (int count = 0; count < 3; ++count) // the same command waits in the line once
            worker.Put("echo 2 >> /tmp/command_worker_test");
        worker.Put("echo 3 >> /tmp/command_worker_test");
        while (ContentOf(kFile) != "1\n2\n3\n" &&
               std::chrono::steady_clock::now() - before < std::chrono::seconds(20))
            std::this_thread::yield();
        EXPECT_EQ(ContentOf(kFile), "1\n2\n3\n");
        worker.Put("sleep 100");
    }
    EXPECT_LT(std::chrono::steady_clock::now() - before, std::chrono::seconds(20));
    std::remove(kFile);
}

} // namespace
