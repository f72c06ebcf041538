// SPDX-License-Identifier: MIT
// The order in which a file is stored: whoever asks the kernel for it is recorded here.
#include "settings/transfer_file.h"

#include "test_files.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

namespace
{

constexpr char kPath[] = "/boot/disp.bin";

std::vector<std::string> s_calls;

} // namespace

// They take the place of the library's for the whole program.
extern "C" int fsync(int fd)
{
    std::error_code none;
    const auto path = std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(fd), none);
    s_calls.push_back("fsync " + path.string());
    return static_cast<int>(syscall(SYS_fsync, fd));
}

extern "C" int rename(const char *from, const char *to) noexcept
{
    s_calls.push_back(std::string("rename ") + from + " " + to);
    return static_cast<int>(syscall(SYS_renameat2, AT_FDCWD, from, AT_FDCWD, to, 0));
}

TEST(TransferFile, IsOnTheDiskBeforeItTakesThePlaceOfTheOldOne)
{
    WriteTestFile(kPath, "old");
    TransferFile file;
    ASSERT_TRUE(file.Open(kPath));
    EXPECT_TRUE(file.Append(wire::BytesAt("new ", 4)) && file.Append(wire::BytesAt("picture", 7)));
    EXPECT_EQ(ReadTestFile(kPath), "old");
    s_calls.clear();
    EXPECT_TRUE(file.Commit());
    EXPECT_FALSE(file.IsOpen());
    EXPECT_EQ(ReadTestFile(kPath), "new picture");
    EXPECT_EQ(s_calls, (std::vector<std::string>{"fsync /boot/disp.bin.new",
                                                 "rename /boot/disp.bin.new /boot/disp.bin", "fsync /boot"}));

    ASSERT_TRUE(file.Open(kPath));
    EXPECT_TRUE(file.Append(wire::BytesAt("half", 4)));
    file.Drop();
    EXPECT_EQ(ReadTestFile(kPath), "new picture");
    EXPECT_EQ(ReadTestFile(std::string(kPath) + ".new"), std::nullopt);
    RemoveTestFile(kPath);
}
