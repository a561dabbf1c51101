#include "base/bytes.h"

#include <cstring>

#include <gtest/gtest.h>

namespace orx {

TEST(ByteReader, ReadsBigEndianUntilItFailsForGood)
{
    const uint8_t bytes[] = {0x81, 0x02, 0xfe, 0x04, 0x05, 0x06, 0x07};
    ByteReader in{bytes, sizeof(bytes)};
    EXPECT_EQ(0x81u, ReadBe(&in, 1));
    EXPECT_EQ(0x02fe0405u, ReadBe(&in, 4));
    EXPECT_EQ(nullptr, ReadBytes(&in, SIZE_MAX));  // a length that must not wrap
    EXPECT_EQ(1, in.bFailed);
    EXPECT_EQ(0u, ReadBe(&in, 1));  // is there, but what it means is lost
    EXPECT_EQ(2u, in.nLeft);
}

}  // namespace orx
