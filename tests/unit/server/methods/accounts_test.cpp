#include "server/methods/accounts.h"

#include <cstdlib>
#include <cstring>
#include <string>
#include <tuple>
#include <utility>

#include <gtest/gtest.h>

#include "base/textbuf.h"
#include "server/core/settings.h"
#include "server/media/liveprogram.h"
#include "server/methods/access.h"
#include "server/methods/accountfile.h"
#include "support/testcore.h"

namespace orx {

// Accounts in the text that a camera sent, which may not be taken for the name of a file.
TEST(Accounts, AreFoundInTheCamerasText)
{
    TestCore core;
    WriteFile(g_settings.szConfigPath, "[USERS]\nSuperUser=boss\nSuperPwd=bosspw\nNumUsers=0\n");
    AccountFileLoad(g_settings.szConfigPath);
    Session pusher;
    const std::string sdp = "m=video 0 RTP/AVP 96\r\na=rtpmap:96 H264/90000\r\na=control:trackID=0\r\n";
    Program *pProg = CreateLiveProgram("/cam", sdp.c_str(), sdp.size());
    pProg->pPusher = &pusher;
    ProgramAttach(&pusher, pProg);
    static const std::tuple<int, const char *, const char *, const char *, int> cases[] = {
        // with ControlUsers, the camera's text, a user, and the password and level found; -1: refused
        {0, nullptr, "boss", "bosspw", 0},
        {0, nullptr, "ann", "", -1},
        {0, "[USERS]\r\nNumUsers=2\r\nUserName0=ann\r\nUserPwd0=x\r\nUserLevel0=1\r\n", "ann", "x", 1},
        {0, "[USERS]\r\nNumUsers=2\r\nUserName0=ann\r\nUserName1=bob\r\n", "bob", "", 2},
        {0, "[USERS]\nNumUsers=1\nUserName0=ann\nUserName1=bob\n", "bob", "", -1},
        {0, "[USERS]\nNumUsers=2000000000\nUserName0=ann\n", "bob", "", -1},
        {0, "[USERS]\nNumUsers=1\nUserName0=ann\n", "boss", "", -1},
        {0, "[USERS]\nSuperUser=\nSuperPwd=\nNumUsers=1\nUserName0=\n", "", "", -1},
        {0, "[USERS]SuperUser=root", "root", "", 0},  // no line end in it
        // the server's own accounts count whatever the camera says
        {1, "[USERS]\nSuperUser=root\n", "root", "", -1},
        {1, "[USERS]\nSuperUser=root\n", "boss", "bosspw", 0},
    };
    for (const auto &[bControlUsers, szText, szUser, szPassword, nExpected] : cases) {
        SCOPED_TRACE(std::string(szText ? szText : "none") + szUser);
        g_settings.bControlUsers = bControlUsers;
        pProg->camera.pAccounts = szText ? AccountTableParse(szText) : nullptr;
        char password[64] = "";
        int nLevel = -1;
        EXPECT_EQ(nExpected >= 0, GetUserAccount(nullptr, "rtsp://box/cam", szUser, password, &nLevel));
        EXPECT_EQ(nExpected, nLevel);
        EXPECT_STREQ(szPassword, password);
        AccountTableFree(std::exchange(pProg->camera.pAccounts, nullptr));
    }
    char password[64] = "";
    EXPECT_EQ(1, GetUserAccount(nullptr, nullptr, "boss", password, nullptr)) << "the first live program";
    EXPECT_EQ(0, GetUserAccount(nullptr, "rtsp://box/dog", "boss", password, nullptr));
    ProgramDetach(&pusher);
    // the file may be of any length
    std::string users = "[USERS]\nNumUsers=1000\n";
    for (int i = 0; i < 1000; i++) {
        const std::string n = std::to_string(i);
        users += "UserName" + n + "=user" + n + "\nUserPwd" + n + "=password" + n + "\nUserLevel" + n + "=1\n";
    }
    WriteFile(g_settings.szConfigPath, users);
    AccountFileLoad(g_settings.szConfigPath);
    Account account;
    EXPECT_EQ(1, AccountsFind(nullptr, "user999", &account));
    EXPECT_STREQ("password999", account.szPassword);
    EXPECT_EQ(0, AccountsFind(nullptr, "user1000", &account));
    WriteFile(g_settings.szConfigPath, "");
    AccountFileLoad(g_settings.szConfigPath);
    EXPECT_EQ(-1, AccountsFind(nullptr, "user999", &account));
}

// A camera's accounts count at its program alone; an empty password may be nobody's.
TEST(Accounts, AnswerWhoAsksForOthers)
{
    TestCore core;
    g_settings.nAuthType = 1;
    WriteFile(g_settings.szConfigPath, "[USERS]\nSuperUser=boss\nSuperPwd=pw\nNumUsers=1\nUserName0=bob\nUserPwd0=x\n");
    AccountFileLoad(g_settings.szConfigPath);
    Session pusher;
    const std::string sdp = "m=video 0 RTP/AVP 96\r\na=rtpmap:96 H264/90000\r\na=control:trackID=0\r\n";
    Program *pProg = CreateLiveProgram("/cam", sdp.c_str(), sdp.size());
    pProg->pPusher = &pusher;
    ProgramAttach(&pusher, pProg);
    pProg->camera.pAccounts = AccountTableParse("[USERS]\nNumUsers=1\nUserName0=ann\nUserPwd0=own\nUserLevel0=1\n");
    static const struct {
        int bAnonymous;
        const char *szUser, *szPassword, *szPath;
        int bKnown, bHere, bMaySee, nLevel;
    } cases[] = {
        {0, "ann", "own", nullptr, 0, 0, 0, 3},  {0, "ann", "own", "/cam", 1, 1, 1, 1},
        {0, "ann", "own", "/dog", 0, 0, 0, 3},   {0, "bob", "x", "/cam", 1, 0, 0, 2},
        {0, "bob", "x", "/dog", 1, 0, 1, 2},     {0, "boss", "pw", "/cam", 1, 0, 0, 0},
        {0, "bob", "", "/dog", 0, 0, 0, 3},      {1, "bob", "", "/dog", 0, 0, 0, 3},
        {1, "eve", "", "/cam", 1, 0, 1, 3},      {1, "bob", "", "/cam", 1, 1, 1, 3},
        {0, "", "", "/cam", 0, 0, 0, 3},         {0, "bob", nullptr, "/dog", 0, 0, 0, 3},
        {1, "eve", nullptr, "/cam", 0, 0, 0, 3},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(std::string(c.szUser) + (c.szPath ? c.szPath : "") + std::to_string(c.bAnonymous));
        g_settings.bAnonymousViewer = c.bAnonymous;
        AccessQuestion question{c.szUser, c.szPassword, c.szPath};
        AccessAnswer answer;
        ASSERT_EQ(1, AccessAsk(&question, &answer));
        EXPECT_EQ(c.bKnown, answer.bKnown);
        EXPECT_EQ(c.bHere, answer.bHere);
        EXPECT_EQ(c.bMaySee, answer.bMaySee);
        EXPECT_EQ(c.nLevel, answer.account.nLevel);
        EXPECT_STREQ("", answer.account.szPassword);
    }
    ProgramDetach(&pusher);
}

// A list, a path, and whether it may be seen without and with StrictRoles.
TEST(Accounts, CountRecordingsAsTheirProgram)
{
    TestCore core;
    static const std::tuple<const char *, const char *, int, int> cases[] = {
        {"cam", "/cam/20260101/S120000.zmf", 0, 1},
        {"dog, /cam", "/cam//20260101/S120000.ZMF/", 0, 1},
        {"cam", "/cam/front.zmf", 0, 1},
        {"cam", "/cam/20260101/S120000.txt", 0, 0},
        {"cam", "/camera/20260101/S120000.zmf", 0, 0},
        {"cam", "/cam/../dog/20260101/S120000.zmf", 0, 0},
        {"live/cam1", "/live/cam1/20260101/S120000.zmf", 0, 1},
        {"live", "/live/cam1/20260101/S120000.zmf", 0, 0},
        {"cam1", "/live/cam1/20260101/S120000.zmf", 0, 0},
        {"live/cam10", "/live/cam1/20260101/S120000.zmf", 0, 0},
        {"keep/a.zmf", "/keep/a.zmf", 1, 1},
        {"20260101", "/20260101/S120000.zmf", 0, 1},  // a program may be called so
        {"", "/S120000.zmf", 0, 0},
    };
    for (const auto &[szList, szPath, bLoose, bStrict] : cases) {
        Account account;
        TextCopy(account.szDevices, sizeof(account.szDevices), szList);
        for (int bRoles : {0, 1}) {
            g_settings.bStrictRoles = bRoles;
            EXPECT_EQ(bRoles ? bStrict : bLoose, MaySeeProgram(&account, szPath)) << szList << " " << szPath << bRoles;
        }
    }
}

}  // namespace orx
