// SPDX-License-Identifier: MIT
// Names from the network, and the file classes of the upload service.
#include "base/log.h"
#include "base/safe_name.h"
#include "test_files.h"

#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>

namespace
{

constexpr char kFile[] = "/tmp/io_buffer/file";

} // namespace

TEST(SafeName, OnlyNamesThatStayInsideTheirFolder)
{
    struct Row {
        std::string name;
        bool safe;
    };
    const Row rows[] = {
        {"film.mp4", true},
        {"media/2024/film.mp4", true},
        {"-rf", true},
        {"it's $(reboot) `x` \"y\" * ? ~", true},
        {"\xff\xfe\x80\x9f", true},
        {"..film", true},
        {"a..", true},
        {"...", true},
        {"", false},
        {"/etc/passwd", false},
        {"media//film.mp4", false},
        {"media/", false},
        {"..", false},
        {"../film", false},
        {"media/../../film", false},
        {"media/..", false},
        {"..\\film", false},
        {"media\\..\\film", false},
        {"a\nb", false},
        {"a\x7f", false},
        {std::string("a\0b", 3), false},
    };
    for (const Row &row : rows)
        EXPECT_EQ(IsSafeName(row.name), row.safe) << row.name;
    EXPECT_EQ(PrintableName("a\nb\x1b[2J\xe9"), "a?b?[2J\xe9");
}

TEST(IoBuffer, EveryFailureIsSeen)
{
    char bytes[4] = {};
    KIoBuffer closed;
    EXPECT_EQ(closed.Close(), 1);
    EXPECT_EQ(closed.Write("abc", 3), 0);
    EXPECT_EQ(closed.Read(bytes, 3), 0);
    EXPECT_EQ(closed.Seek(0, SEEK_SET), -1);
    EXPECT_EQ(closed.SetBufferSize(_IOFBF, 10), 0);
    EXPECT_EQ(closed.Open("/tmp/no such folder/file", "wb"), 0);
    EXPECT_EQ(errno, ENOENT);

    KIoBuffer full;
    ASSERT_EQ(full.Open("/dev/full", "wb"), 1);
    ASSERT_EQ(full.SetBufferSize(_IONBF, 0), 1);
    EXPECT_EQ(full.Write("abc", 3), 0);
    EXPECT_EQ(errno, ENOSPC);
    KIoBuffer buffered;
    ASSERT_EQ(buffered.Open("/dev/full", "wb"), 1);
    ASSERT_EQ(buffered.SetBufferSize(_IOFBF, 1024), 1);
    EXPECT_EQ(buffered.Write("abc", 3), 3);
    EXPECT_EQ(buffered.Close(), 0); // only this call fails
}

TEST(IoBuffer, OpenReplacesTheFileOnlyWhenItWorked)
{
    WriteTestFile(kFile, "");
    const std::string other = std::string(kFile) + "2";
    KIoBuffer file(kFile);
    ASSERT_EQ(file.Open(nullptr, "wb"), 1); // the name given before
    EXPECT_EQ(file.Open("/tmp/no such folder/file", "wb"), 0);
    EXPECT_EQ(file.Write("first", 5), 5);
    ASSERT_EQ(file.Open(other.c_str(), "wb"), 1);
    EXPECT_EQ(file.Write("second", 6), 6);
    EXPECT_EQ(ReadTestFile(kFile), "first");
    ASSERT_EQ(file.SetBufferSize(_IOFBF, 0), 1); // a size of 0 is unbuffered whatever the mode
    EXPECT_EQ(file.Write("!", 1), 1);
    EXPECT_EQ(ReadTestFile(other), "second!");
}

TEST(IoBuffer, SeekTakesTheLowHalfOfTheOffset)
{
    WriteTestFile(kFile, "0123456789");
    KIoBuffer file;
    ASSERT_EQ(file.Open(kFile, "rb"), 1);
    char digit = 0;
    EXPECT_EQ(file.Seek((5LL << 32) + 7, SEEK_SET), 0);
    EXPECT_EQ(file.Read(&digit, 1), 1);
    EXPECT_EQ(digit, '7');
    EXPECT_EQ(file.Seek(0xffff'ffffLL, SEEK_CUR), 0); // -1
    EXPECT_EQ(file.Read(&digit, 1), 1);
    EXPECT_EQ(digit, '7');
}

TEST(Log, UnnamedLogsCarryARawByte)
{
    std::filesystem::create_directories("/tmp/io_buffer/c:");
    ASSERT_EQ(chdir("/tmp/io_buffer"), 0);
    for (const char *const name : {"c:/log", "c:/log\x01.log", "c:/log\x02.log"}) {
        KLog log;
        EXPECT_EQ(log.Open(), 1);
        EXPECT_EQ(log.Close(), 1);
        EXPECT_TRUE(ReadTestFile(name)) << name;
    }
    ASSERT_EQ(chdir("/"), 0);
}

TEST(Log, TakesOneLine)
{
    const pid_t child = fork();
    ASSERT_NE(child, -1);
    if (child == 0) {
        KLog log(kFile);
        if (log.Open() != 1 || log.Write("only line") != 10)
            _exit(1);
        alarm(1); // ends the second call, which waits for ever
        log.Write("never");
        _exit(0);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGALRM) << status;
    EXPECT_EQ(ReadTestFile(kFile), "only line\n");
}
