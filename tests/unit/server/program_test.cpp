#include "server/program.h"

#include <cstdlib>
#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "base/textbuf.h"
#include "server/accounts.h"
#include "server/auth.h"
#include "server/programinit.h"
#include "server/sdp.h"
#include "server/server.h"
#include "support/files.h"

namespace orx {
namespace {

constexpr char kSdp[] = "m=video 0 RTP/AVP 96\r\na=rtpmap:96 H264/90000\r\na=control:trackID=0\r\n";

// The registry without a server around it.
struct ProgramTest : testing::Test {
    TempDir dir;

    void SetUp() override
    {
        ListInit(&g_server.programs, nullptr);
        ListUsedDefMap(&g_server.programs, 0);
        ListDataProc(&g_server.programs, OnFreeProgram, nullptr);
        AvlInit(&g_server.programMap, nullptr);
        g_server.programMap.pfnCompare = AvlCompareTextNoCase;
        g_server.bProgramMapReady = 1;
        TextCopy(g_server.szConfigPath, sizeof(g_server.szConfigPath), dir.File("orx.cfg").c_str());
    }
    void TearDown() override
    {
        g_server.bProgramMapReady = g_server.bControlUsers = 0;
        AvlDestroy(&g_server.programMap);
        ListDestroy(&g_server.programs);
    }
    // A live program as ANNOUNCE makes it, with its pusher attached.
    static Program *Make(const char *szPath, Session *pPusher, const std::string &sdp = kSdp)
    {
        Program *pProg = ProgramNew(szPath);
        pProg->bLive = 1;
        pProg->szSdp = strdup(sdp.c_str());
        EXPECT_EQ(1, SdpParse(pProg, pProg->szSdp, 1, 0));
        EXPECT_EQ(1, ProgramReady(pProg));
        pProg->pPusher = pPusher;
        ProgramAttach(pPusher, pProg);
        return pProg;
    }
};

// The order is that of creation, also where handles wrap, whatever the order of attaching.
TEST_F(ProgramTest, KeepsWhoIsAttachedInOrder)
{
    Session pusher, a, b, c;
    a.nHandle = 0xFFFFFFFE;
    b.nHandle = 0xFFFFFFFF;
    c.nHandle = 1;
    Program *pProg = Make("/cam", &pusher);
    for (Session *p : {&c, &a, &b, &b})  // twice is once
        ProgramAttach(p, pProg);
    EXPECT_EQ(4U, pProg->nRefs);
    EXPECT_EQ(&a, ListFirst(&pProg->players, 0));
    EXPECT_EQ(&b, ListNext(&pProg->players, &a, 0));
    EXPECT_EQ(&c, ListNext(&pProg->players, &b, 0));
    for (Session *p : {&b, &b, &a, &c, &pusher})
        ProgramDetach(p);
    EXPECT_EQ(0U, ListCount(&g_server.programs));
}

// Without its pusher a program is found by nobody, and a new one may take its name.
TEST_F(ProgramTest, ANameOutlivesItsProgram)
{
    Session pusher, player;
    Make("/cam", &pusher);
    Program *pOther = ProgramFind("/cam");
    ProgramAttach(&player, pOther);
    ProgramDetach(&pusher);
    EXPECT_EQ(nullptr, ProgramFind("/cam"));
    EXPECT_EQ(0U, ProgramCountLive());
    Program *pNew = Make("/CAM", &pusher);
    EXPECT_EQ(2U, ListCount(&g_server.programs));
    ProgramAttach(&player, pNew);  // a player may move on
    EXPECT_EQ(1U, ListCount(&g_server.programs));
    EXPECT_EQ(2U, pNew->nRefs);
    EXPECT_EQ(pNew, ProgramFind("/cam")) << "it was not the old one's to take away";
    ProgramDetach(&player);
    ProgramDetach(&pusher);
}

// Accounts in the text that a camera sent, which may not be taken for the name of a file.
TEST_F(ProgramTest, FindsAccountsInTheCamerasText)
{
    WriteFile(g_server.szConfigPath, "[USERS]\nSuperUser=boss\nSuperPwd=bosspw\nNumUsers=0\n");
    Session pusher;
    Program *pProg = Make("/cam", &pusher);
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
        g_server.bControlUsers = c.bControlUsers;
        pProg->szAccounts = c.szText ? strdup(c.szText) : nullptr;
        char password[64] = "";
        int nLevel = -1;
        EXPECT_EQ(c.nLevel >= 0, GetUserAccount(nullptr, "rtsp://box/cam", c.szUser, password, &nLevel));
        EXPECT_EQ(c.nLevel, nLevel);
        EXPECT_STREQ(c.szPassword, password);
        free(std::exchange(pProg->szAccounts, nullptr));
    }
    char password[64] = "";
    EXPECT_EQ(1, GetUserAccount(nullptr, nullptr, "boss", password, nullptr)) << "the first live program";
    EXPECT_EQ(0, GetUserAccount(nullptr, "rtsp://box/dog", "boss", password, nullptr));
    ProgramDetach(&pusher);
}

}  // namespace
}  // namespace orx
