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
}

TEST(ByteReader, AFailureLasts)
{
    ByteReader in{kBytes, 3};
    EXPECT_EQ(kBytes, ReadBytes(&in, 1));
    EXPECT_EQ(nullptr, ReadBytes(&in, SIZE_MAX));  // a length that must not wrap
    EXPECT_EQ(1, in.bFailed);
    EXPECT_EQ(0u, ReadBe(&in, 1));  // is there, but what it means is lost
    EXPECT_EQ(nullptr, ReadBytes(&in, 0));
    EXPECT_EQ(2u, in.nLeft);
}

TEST(PutBe, MirrorsGetBe)
{
    uint8_t out[6] = {0xaa, 0, 0, 0, 0, 0xaa};
    PutBe(out + 1, 4, 0x8102fe04);
    EXPECT_EQ(0, memcmp(out, "\xaa\x81\x02\xfe\x04\xaa", 6));
    EXPECT_EQ(0x8102fe04u, GetBe(out + 1, 4));
    PutBe(out, 2, 0x12345678);  // the low bytes alone
    EXPECT_EQ(0x567802u, GetBe(out, 3));
}

}  // namespace
}  // namespace orx
