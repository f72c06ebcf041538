// SPDX-License-Identifier: MIT
// Commands for the shell, and files that are replaced as a whole.
#include "base/files.h"
#include "base/shell.h"
#include "test_files.h"

#include <gtest/gtest.h>

#include <sys/mount.h>
#include <sys/wait.h>

#include <cerrno>
#include <chrono>
#include <csignal>

TEST(Shell, NamesReachTheCommandByteForByte)
{
    struct Row {
        std::string name;
        bool plain;
    };
    std::string everyByte;
    for (int byte = 1; byte < 256; ++byte)
        everyByte += static_cast<char>(byte);
    const Row rows[] = {
        {"/home/root/plexa_data/factory/film_1.2-3+4,5:6=7@8%9", true},
        {"", false},
        {"-rf", false},
        {"two words", false},
        {"it's", false},
        {"'; touch /tmp/hurt; '", false},
        {"$(reboot)`reboot`&|<>*?[]{}~#!\\\"\n", false},
        {"\xE4\xB8\xAD\xE6\x96\x87", false},
        {everyByte, false},
    };
    for (const Row &row : rows) {
        const std::string text = ShellName(row.name);
        EXPECT_EQ(text == row.name, row.plain) << text;
        // No option of a command, and nothing that a shell would take apart.
        EXPECT_EQ(ReadShell("printf '%s' " + text, 1000), row.name);
    }
}

TEST(Shell, GivesStatusAndOutputWithALimit)
{
    const int ended = RunShell("exit 3");
    EXPECT_TRUE(WIFEXITED(ended) && WEXITSTATUS(ended) == 3);
    const int killed = RunShell("kill -9 $$");
    EXPECT_TRUE(WIFSIGNALED(killed) && WTERMSIG(killed) == SIGKILL);
    EXPECT_EQ(ReadShell("echo one; echo two >&2; echo three", 1000), "one\nthree\n");
    EXPECT_EQ(ReadShell("head -c 300000 /dev/zero", 2000), std::string(2000, '\0')); // and does not hang
}

TEST(Shell, ChildrenStartWithoutTheCallersSignalsAndDescriptors)
{
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    const auto pipeBefore = std::signal(SIGPIPE, SIG_IGN);
    const FilePointer open = OpenFile("/etc/passwd", "r");
    const std::string mask = ReadShell("grep SigBlk /proc/$$/status", 100);
    const std::string ignored = ReadShell("sed -n 's/^SigIgn:.//p' /proc/$$/status", 100);
    const std::string descriptors = ReadShell("ls -l /proc/$$/fd", 10000);
    std::signal(SIGPIPE, pipeBefore);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    EXPECT_EQ(mask, "SigBlk:\t0000000000000000\n");
    // Those with a name; SIGQUIT is ignored by BusyBox's shell itself.
    EXPECT_EQ(std::stoull(ignored, nullptr, 16) & 0x7FFFFFFB, 0U) << ignored;
    EXPECT_NE(descriptors, "");
    EXPECT_EQ(descriptors.find("/etc/passwd"), std::string::npos) << descriptors;
}

TEST(Shell, AChildThatIsNotWaitedForEndsWithItsOwnChildren)
{
    const std::string file = "/tmp/shell_child";
    RemoveTestFile(file);
    ShellChild child;
    child.End(); // nothing runs
    EXPECT_FALSE(child.Ended());
    ASSERT_TRUE(child.Start("sleep 100 & echo $! > /tmp/shell_child; wait"));
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    const auto inTime = [&end] { return std::chrono::steady_clock::now() < end; };
    std::string pid;
    while (pid.find('\n') == std::string::npos && inTime())
        pid = ReadFileStart(file, 20).value_or("");
    ASSERT_NE(pid, "");
    pid.pop_back();
    EXPECT_FALSE(child.Ended());
    child.End();
    std::optional<int> status;
    while (!status && inTime())
        status = child.Ended();
    ASSERT_TRUE(status);
    EXPECT_TRUE(WIFSIGNALED(*status) && WTERMSIG(*status) == SIGTERM);
    EXPECT_FALSE(child.Ended()) << "once";
    const std::string line = "/proc/" + pid + "/cmdline"; // empty for one that only waits to be reaped
    while (!ReadFileStart(line, 1).value_or("").empty() && inTime()) {
    }
    EXPECT_EQ(ReadFileStart(line, 1).value_or(""), "");
}

TEST(Files, ReplaceLeavesTheOldOrTheNewFile)
{
    const std::string folder = "/tmp/replace";
    RemoveTestFile(folder);
    std::filesystem::create_directories(folder);
    ASSERT_EQ(mount("none", folder.c_str(), "tmpfs", 0, "size=64k"), 0);
    const std::string path = folder + "/file";
    const auto only = [&folder] {
        std::size_t count = 0;
        for ([[maybe_unused]] const auto &entry : std::filesystem::directory_iterator(folder))
            ++count;
        return count == 1;
    };
    EXPECT_TRUE(ReplaceFile(path, "old"));
    EXPECT_TRUE(ReplaceFile(path, std::string("n\0w", 3)));
    EXPECT_EQ(ReadTestFile(path), std::string("n\0w", 3));
    EXPECT_TRUE(only());

    EXPECT_FALSE(ReplaceFile(path, std::string(100000, 'x')));
    EXPECT_EQ(errno, ENOSPC);
    EXPECT_EQ(ReadTestFile(path), std::string("n\0w", 3));
    EXPECT_TRUE(only()); // no incomplete neighbour file is left

    EXPECT_FALSE(ReplaceFile(folder + "/missing/file", "x"));
    EXPECT_EQ(errno, ENOENT);
    umount(folder.c_str());
}

TEST(Files, StartOfAFile)
{
    WriteTestFile("/tmp/start", std::string("a\0bcd", 5));
    EXPECT_EQ(ReadFileStart("/tmp/start", 3), std::string("a\0b", 3));
    EXPECT_EQ(ReadFileStart("/tmp/start", 99), std::string("a\0bcd", 5));
    EXPECT_EQ(ReadFileStart("/tmp/start/none", 3), std::nullopt);
    EXPECT_FALSE(IsFolder("/tmp/start"));
    EXPECT_TRUE(IsFolder("/tmp"));
}
