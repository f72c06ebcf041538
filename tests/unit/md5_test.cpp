// SPDX-License-Identifier: MIT
#include "base/md5.h"

#include "records/remote_crc.h"
#include "test_files.h"

#include <gtest/gtest.h>

namespace
{

struct Row {
    std::string message;
    const char *digest;
};

// The suite of RFC 1321, and the lengths at which the padding takes another block.
const Row kRows[] = {
    {"", "d41d8cd98f00b204e9800998ecf8427e"},
    {"a", "0cc175b9c0f1b6a831c399e269772661"},
    {"abc", "900150983cd24fb0d6963f7d28e17f72"},
    {"message digest", "f96b697d7cb7938d525a2f31aaf161d0"},
    {"abcdefghijklmnopqrstuvwxyz", "c3fcd3d76192e4007dfb496cca67e13b"},
    {"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789", "d174ab98d277d9f5a5611c2c9f419d9f"},
    {"12345678901234567890123456789012345678901234567890123456789012345678901234567890",
     "57edf4a22be3c955ac49da2e2107b67a"},
    {std::string(55, 'a'), "ef1772b6dff9a122358552954ad0df65"},
    {std::string(56, 'a'), "3b0c8ac703f828b04c6c197006d17218"},
    {std::string(63, 'a'), "b06521f39153d618550606be297466d5"},
    {std::string(64, 'a'), "014842d480b571495a4a0363793f7367"},
    {std::string(65, 'a'), "c743a45e0d2e6a95cb859adae0248435"},
    {std::string(1024, 'a'), "c9a34cfc85d982698c6ac89f76071abd"},
};

bool Never()
{
    return false;
}

} // namespace

TEST(Md5, SuiteInAnySplit)
{
    KMD5 digest;
    for (const Row &row : kRows) {
        for (const std::size_t first : {std::size_t{0}, std::size_t{1}, row.message.size() / 2}) {
            const std::size_t split = std::min(first, row.message.size());
            digest.Initialise();
            digest.Update(row.message.data(), split);
            digest.Update(row.message.data() + split, row.message.size() - split);
            EXPECT_EQ(DigestText(digest.Final()), row.digest) << row.message.size() << " at " << split;
        }
    }
}

TEST(Md5, Files)
{
    for (const Row &row : kRows) {
        WriteTestFile("/tmp/digest", row.message);
        EXPECT_EQ(DigestText(DigestOfFile("/tmp/digest", Never).value()), row.digest);
    }
    EXPECT_FALSE(DigestOfFile("/tmp/no such file", Never));
    EXPECT_FALSE(DigestOfFile("/tmp/digest", [] { return true; }));
}

TEST(RemoteCrc, CheckValueInAnySplit)
{
    const std::string message = "123456789";
    for (std::size_t split = 0; split <= message.size(); ++split) {
        const std::uint32_t begun = wire::AdvanceCrc(wire::kCrcStart, wire::BytesAt(message.data(), split));
        EXPECT_EQ(wire::AdvanceCrc(begun, wire::BytesAt(message.data() + split, message.size() - split)),
                  0x0376E6E7U);
    }
}
