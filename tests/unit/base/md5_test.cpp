#include "base/md5.h"

#include <cstdlib>
#include <string>

#include <gtest/gtest.h>

namespace orx {

// Short texts, and lengths around the end of a block, where the padding needs another one.
TEST(Md5, GivesTheKnownDigests)
{
    static const struct {
        std::string text;
        const char *szHex;
    } cases[] = {
        {"", "d41d8cd98f00b204e9800998ecf8427e"},
        {"abcdefghijklmnopqrstuvwxyz", "c3fcd3d76192e4007dfb496cca67e13b"},
        {std::string(55, 'a'), "ef1772b6dff9a122358552954ad0df65"},
        {std::string(56, 'a'), "3b0c8ac703f828b04c6c197006d17218"},
        {std::string(64, 'a'), "014842d480b571495a4a0363793f7367"},
        {std::string(65, 'a'), "c743a45e0d2e6a95cb859adae0248435"},
    };
    for (const auto &c : cases) {
        char hex[kMd5HexSize];
        EXPECT_EQ(32, Md5Hex(c.text.c_str(), 0, hex));
        EXPECT_STREQ(c.szHex, hex) << c.text;
        char *pNew = Md5HexAlloc(c.text.c_str(), c.text.size());
        EXPECT_STREQ(c.szHex, pNew) << c.text;
        free(pNew);
    }
}

}  // namespace orx
