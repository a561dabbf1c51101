#include "base/bytes.h"

#include <cstring>

#include <gtest/gtest.h>

namespace orx {
namespace {

const uint8_t kBytes[] = {0x81, 0x02, 0xfe, 0x04, 0x05, 0x06};

TEST(ByteReader, ReadsBigEndianInOrder)
{
    ByteReader in{kBytes, sizeof(kBytes)};
    EXPECT_EQ(0x81u, ReadBe(&in, 1));
    EXPECT_EQ(0x02feu, ReadBe(&in, 2));
    EXPECT_EQ(0x040506u, ReadBe(&in, 3));
    EXPECT_EQ(0u, in.nLeft);
    EXPECT_EQ(0, in.bFailed);
    ByteReader four{kBytes, sizeof(kBytes)};
    EXPECT_EQ(0x8102fe04u, ReadBe(&four, 4));
}

TEST(ByteReader, AFailureLasts)
{
    ByteReader in{kBytes, 3};
    EXPECT_EQ(0u, ReadBe(&in, 4));
    EXPECT_EQ(1, in.bFailed);
    EXPECT_EQ(0u, ReadBe(&in, 1));  // is there, but what it means is lost
    EXPECT_EQ(nullptr, ReadBytes(&in, 0));
    EXPECT_EQ(3u, in.nLeft);
}

TEST(ByteReader, LengthsDoNotWrap)
{
    ByteReader in{kBytes, sizeof(kBytes)};
    EXPECT_EQ(kBytes, ReadBytes(&in, 1));
    EXPECT_EQ(nullptr, ReadBytes(&in, SIZE_MAX));
    ByteReader empty{nullptr, 0};
    ReadBytes(&empty, 0);
    EXPECT_EQ(0, empty.bFailed);
    EXPECT_EQ(0u, ReadBe(&empty, 1));
    EXPECT_EQ(1, empty.bFailed);
}

TEST(PutBe, MirrorsGetBe)
{
    uint8_t out[6];
    memset(out, 0xaa, sizeof(out));
    PutBe(out + 1, 4, 0x8102fe04);
    EXPECT_EQ(0, memcmp(out, "\xaa\x81\x02\xfe\x04\xaa", 6));
    EXPECT_EQ(0x8102fe04u, GetBe(out + 1, 4));
    PutBe(out, 2, 0x12345678);  // the low bytes alone
    EXPECT_EQ(0x5678u, GetBe(out, 2));
    EXPECT_EQ(0x567802u, GetBe(out, 3));
}

}  // namespace
}  // namespace orx
