#include "server/methods/accounts.h"

#include <cstdlib>
#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "base/textbuf.h"
#include "server/core/settings.h"
#include "server/media/liveprogram.h"
#include "support/testcore.h"

namespace orx {
namespace {

// Accounts in the text that a camera sent, which may not be taken for the name of a file.
TEST(Accounts, AreFoundInTheCamerasText)
{
    TestCore core;
    WriteFile(g_settings.szConfigPath, "[USERS]\nSuperUser=boss\nSuperPwd=bosspw\nNumUsers=0\n");
    Session pusher;
    const std::string sdp = "m=video 0 RTP/AVP 96\r\na=rtpmap:96 H264/90000\r\na=control:trackID=0\r\n";
    Program *pProg = CreateLiveProgram("/cam", sdp.c_str(), sdp.size());
    pProg->pPusher = &pusher;
    ProgramAttach(&pusher, pProg);
    static const struct {
        const char *szText, *szUser, *szPassword;
        int nLevel;  // -1: refused
        int bControlUsers = 0;
    } cases[] = {
        {nullptr, "boss", "bosspw", 0},
        {nullptr, "ann", "", -1},
        {"[USERS]\r\nNumUsers=2\r\nUserName0=ann\r\nUserPwd0=x\r\nUserLevel0=1\r\n", "ann", "x", 1},
        {"[USERS]\r\nNumUsers=2\r\nUserName0=ann\r\nUserName1=bob\r\n", "bob", "", 2},
        {"[USERS]\nNumUsers=1\nUserName0=ann\nUserName1=bob\n", "bob", "", -1},
        {"[USERS]\nNumUsers=2000000000\nUserName0=ann\n", "bob", "", -1},
        {"[USERS]\nNumUsers=1\nUserName0=ann\n", "boss", "", -1},
        {"[USERS]\nSuperUser=\nSuperPwd=\nNumUsers=1\nUserName0=\n", "", "", -1},
        {"[USERS]SuperUser=root", "root", "", 0},  // no line end in it
        // the server's own accounts count whatever the camera says
        {"[USERS]\nSuperUser=root\n", "root", "", -1, 1},
        {"[USERS]\nSuperUser=root\n", "boss", "bosspw", 0, 1},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(std::string(c.szText ? c.szText : "none") + c.szUser);
        g_settings.bControlUsers = c.bControlUsers;
        pProg->camera.szAccounts = c.szText ? strdup(c.szText) : nullptr;
        char password[64] = "";
        int nLevel = -1;
        EXPECT_EQ(c.nLevel >= 0, GetUserAccount(nullptr, "rtsp://box/cam", c.szUser, password, &nLevel));
        EXPECT_EQ(c.nLevel, nLevel);
        EXPECT_STREQ(c.szPassword, password);
        free(std::exchange(pProg->camera.szAccounts, nullptr));
    }
    char password[64] = "";
    EXPECT_EQ(1, GetUserAccount(nullptr, nullptr, "boss", password, nullptr)) << "the first live program";
    EXPECT_EQ(0, GetUserAccount(nullptr, "rtsp://box/dog", "boss", password, nullptr));
    ProgramDetach(&pusher);
}

}  // namespace
}  // namespace orx
