// What a viewer is shown of a camera's configuration, and which part of it are accounts.
#include "server/camcfg.h"

#include <cstdlib>
#include <cstring>
#include <string>

#include <gtest/gtest.h>

namespace orx {
namespace {

std::string Filtered(const std::string &text, const char *szUser)
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
    static const struct {
        const char *szName, *szUser, *szText, *szShown;
    } cases[] = {
        {"nothing to hide", "bob", "[VIDEO]\r\nSize=1\r\n", "[VIDEO]\r\nSize=1\r\n"},
        {"empty", "bob", "", ""},
        {"the super user", "bob", "[USERS]\nSuperUser=a\nSuperPwd=b\nNumUsers=0\n[X]\nSuperPwd=kept\n",
         "[USERS]\nNumUsers=0\n[X]\nSuperPwd=kept\n"},
        {"without a line end", "bob", "[USERS]\nx=1\nSuperPwd=b", "[USERS]\nx=1\n"},
        {"line ends of all kinds", "bob", "[USERS]\r\nSuperUser=a\rSuperPwd=b\r\n\r\nx=1\n",
         "[USERS]\r\n\r\nx=1\n"},
        {"behind the header, indented, commented out", "bob",
         "[USERS] SuperUser=a\n \tSuperPwd=b\n;SuperPwd=c\nSuperPwd =d\n; text\n", "[USERS]; text\n"},
        {"a section that look-ups take for it", "bob", "[USERSOLD]\nSuperPwd=b\nx=1\n", "[USERSOLD]\nx=1\n"},
        {"a header that goes on", "bob", "[A]\nx=1\n[USERS\n]SuperPwd=b\n", ""},
        {"other users", "bob",
         "[USERS]\nNumUsers=3\nUserName0=al\nUserPwd0=p\nUserLevel0=1\nUserName1=bob\nUserPwd1=q\nUserLevel1="
         "2\n"
         "UserName2=bobby\nUserPwd2=r\nUserPwd10=s\n",
         "[USERS]\nNumUsers=3\nUserName1=bob\nUserPwd1=q\nUserLevel1=2\nUserPwd10=s\n"},
        {"two of that name, one without", "bob",
         "[USERS]\nUserName0=bob\nUserPwd0=p\nUserPwd1=q\nUserName2=bob\nUserPwd2=r\nNumUsers=3\n",
         "[USERS]\nUserName0=bob\nUserPwd0=p\nUserName2=bob\nUserPwd2=r\nNumUsers=3\n"},
        {"the first of a name counts", "bob",
         "[USERS]\nNumUsers=2\nUserName0=al\nUserName0=bob\nUserPwd0=p\nUserName01=bob\nUserPwd1=q\n",
         "[USERS]\nNumUsers=2\n"},
        {"named behind the header, and elsewhere", "bob",
         "[A]\nUserName1=bob\n[USERS] \n\tUserName0=bob\nUserPwd0=p\nUserPwd1=q\nNumUsers=2\n",
         "[A]\nUserName1=bob\n[USERS] \n\tUserName0=bob\nUserPwd0=p\nNumUsers=2\n"},
        {"nobody has no name", "", "[USERS]\nNumUsers=1\nUserName0=\nUserPwd0=p\n", "[USERS]\nNumUsers=1\n"},
        {"keys that are none", "bob",
         "[USERS]\nNumUsers=9\nUserName=a\nUserNameX=b\nUserPwd1x=c\nUserPwd1234567890=d\n",
         "[USERS]\nNumUsers=9\nUserName=a\nUserNameX=b\nUserPwd1x=c\nUserPwd1234567890=d\n"},
        {"whole sections", "bob",
         "a=1\n[SMTP]\nPwd=x\n\n[A]\nb=[SMTP]\n[SEND2FTP]\nc=2\n[SMTP2]\nd=3\n[SMTP]\ne=4",
         "a=1\n[A]\nb=[SMTP]\n[SMTP2]\nd=3\n"},
    };
    for (const auto &c : cases)
        EXPECT_EQ(c.szShown, Filtered(c.szText, c.szUser)) << c.szName;
}

TEST(CamCfg, HidesBehindAZeroByteToo)
{
    using namespace std::string_literals;
    EXPECT_EQ("[USERS]\nNumUsers=0\n\0\n[USERS]\n"s,
              Filtered("[USERS]\nNumUsers=0\n\0\n[USERS]\nSuperPwd=b\n[SMTP]\nx"s, "bob"));
}

TEST(CamCfg, CutAnywhere)
{
    const std::string text =
        "[USERS]\r\nNumUsers=1\r\nSuperPwd=secret\r\nUserName0=al\r\nUserPwd0=hidden\r\n[SMTP]\r\n";
    for (size_t n = 0; n <= text.size(); n++) {
        std::string shown = Filtered(text.substr(0, n), "bob");
        EXPECT_EQ(std::string::npos, shown.find("secret")) << n;
        EXPECT_EQ(std::string::npos, shown.find("hidden")) << n;
    }
}

TEST(CamCfg, FindsTheAccounts)
{
    static const struct {
        const char *szText, *szUsers;  // null: none
    } cases[] = {
        {"[A]\n[USERS]\nx=1\n[B]\n", "[USERS]\nx=1\n"},
        {"[USERS][B]", "[USERS]"},
        {"[USERS]\nx=1\n", nullptr},
        {"[B]\n[USER]\n[C]", nullptr},
        {"", nullptr},
    };
    for (const auto &c : cases) {
        size_t nUsers = 0;
        const char *p = CamCfgFindUsers(c.szText, strlen(c.szText), &nUsers);
        ASSERT_EQ(c.szUsers == nullptr, p == nullptr) << c.szText;
        EXPECT_EQ(c.szUsers ? c.szUsers : "", std::string(p ? p : "", nUsers));
    }
}

}  // namespace
}  // namespace orx
