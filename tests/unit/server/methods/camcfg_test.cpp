// What a viewer is shown of a camera's configuration, and which part of it are accounts.
#include "server/methods/camcfg.h"

#include <array>
#include <cstdlib>
#include <string>

#include <gtest/gtest.h>

namespace orx {

using namespace std::string_literals;

static std::string Filtered(const std::string &text, const char *szUser = "bob")
{
    size_t nOut = 0;
    char *pOut = CamCfgFilter(text.c_str(), text.size(), szUser, &nOut);
    std::string out(pOut, nOut);
    EXPECT_EQ('\0', pOut[nOut]);
    free(pOut);
    return out;
}

TEST(CamCfg, ShowsAViewerOnlyItsOwn)
{
    static const std::array<std::string, 3> cases[] = {
        {"nothing to hide", "[VIDEO]\r\nSize=1\r\n", "[VIDEO]\r\nSize=1\r\n"},
        {"the super user", "[USERS]\nSuperUser=a\nSuperPwd=b\nNumUsers=0\n[X]\nSuperPwd=kept\n",
         "[USERS]\nNumUsers=0\n[X]\nSuperPwd=kept\n"},
        {"without a line end", "[USERS]\nx=1\nSuperPwd=b", "[USERS]\nx=1\n"},
        {"line ends of all kinds", "[USERS]\r\nSuperUser=a\rSuperPwd=b\r\n\r\nx=1\n", "[USERS]\r\n\r\nx=1\n"},
        {"indented, commented out", "[USERS] SuperUser=a\n \tSuperPwd=b\n;SuperPwd=c\nSuperPwd =d\n; text\n",
         "[USERS]; text\n"},
        {"a section that look-ups take for it", "[USERSOLD]\nSuperPwd=b\nx=1\n", "[USERSOLD]\nx=1\n"},
        {"a header that goes on", "[A]\nx=1\n[USERS\n]SuperPwd=b\n", ""},
        {"behind a zero byte", "[USERS]\n\0\n[USERS]\nSuperPwd=b\n[SMTP]\nx"s, "[USERS]\n\0\n[USERS]\n"s},
        {"other users",
         "[USERS]\nNumUsers=3\nUserName0=al\nUserPwd0=p\nUserLevel0=1\nUserName1=bob\nUserPwd1=q\n"
         "UserName2=bobby\nUserPwd2=r\nUserPwd10=s\n",
         "[USERS]\nNumUsers=3\nUserName1=bob\nUserPwd1=q\nUserPwd10=s\n"},
        {"the first of a name counts", "[USERS]\nNumUsers=1\nUserName0=al\nUserName0=bob\nUserPwd0=p\n",
         "[USERS]\nNumUsers=1\n"},
        {"whole sections", "a=1\n[SMTP]\nPwd=x\n\n[A]\nb=[SMTP]\n[SEND2FTP]\nc=2\n[SMTP2]\nd=3\n[SMTP]\ne=4",
         "a=1\n[A]\nb=[SMTP]\n[SMTP2]\nd=3\n"},
    };
    for (const auto &[name, text, shown] : cases)
        EXPECT_EQ(shown, Filtered(text)) << name;
    EXPECT_EQ("[USERS]\nNumUsers=1\n", Filtered("[USERS]\nNumUsers=1\nUserName0=\nUserPwd0=p\n", ""))
        << "nobody has no name";
}

}  // namespace orx
