#include "server/core/program.h"

#include <cstdlib>
#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "base/textbuf.h"
#include "server/core/registry.h"
#include "server/core/sdp.h"
#include "server/core/settings.h"
#include "support/files.h"

namespace orx {

constexpr char kSdp[] = "m=video 0 RTP/AVP 96\r\na=rtpmap:96 H264/90000\r\na=control:trackID=0\r\n";

const ProgramOps g_liveOps = {[](const Program *pProg) -> const char * { return pProg->desc.szSdp; }, nullptr,
                              [](Program *) {}};

// The registry without a server around it.
struct ProgramTest : testing::Test {
    TempDir dir;

    void SetUp() override
    {
        RegistryInit(OnFreePort);
        TextCopy(g_settings.szConfigPath, sizeof(g_settings.szConfigPath), dir.File("orx.cfg").c_str());
    }
    void TearDown() override
    {
        g_settings.bControlUsers = 0;
        ProgramEndAll();
        AvlDestroy(&g_server.programMap);
        FreeRetired();
    }
    // A live program as ANNOUNCE makes it, with its pusher attached.
    static Program *Make(const char *szPath, Session *pPusher, const std::string &sdp = kSdp)
    {
        Program *pProg = ProgramNew(szPath, &g_liveOps);
        pProg->bLive = 1;
        pProg->desc.szSdp = strdup(sdp.c_str());
        EXPECT_EQ(1, SdpParse(&pProg->desc, pProg->desc.szSdp, 1, 0));
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

}  // namespace orx
