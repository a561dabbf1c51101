#include "server/program.h"

#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "base/bytes.h"
#include "base/textbuf.h"
#include "record/zmfwriter.h"
#include "runtime/clock.h"
#include "server/accounts.h"
#include "server/auth.h"
#include "server/fileprogram.h"
#include "server/filesend.h"
#include "server/play.h"
#include "server/programinit.h"
#include "server/sdp.h"
#include "server/server.h"
#include "support/files.h"

namespace orx {
namespace {

using testing::ElementsAre;

constexpr char kSdp[] =
    "v=0\r\na=GroupName:house\r\na=NickName:front door\r\n"
    "m=video 0 RTP/AVP 96\r\na=rtpmap:96 H264/90000\r\na=control:trackID=0\r\n";

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
        g_server.bProgramMapReady = 0;
        AvlDestroy(&g_server.programMap);
        ListDestroy(&g_server.programs);
        free(g_server.szRecordPath);
        g_server.szRecordPath = nullptr;
        g_server.bFilePrograms = g_server.bControlUsers = g_server.bAnonymousViewer = 0;
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
    static std::vector<uint32_t> Players(Program *pProg)
    {
        std::vector<uint32_t> handles;
        for (void *p = ListFirst(&pProg->players, 0); p; p = ListNext(&pProg->players, p, 0))
            handles.push_back(static_cast<Session *>(p)->nHandle);
        return handles;
    }
};

TEST_F(ProgramTest, FindsLivePrograms)
{
    Session pusher;
    Session other;
    Program *pSub = Make("/ch1-s1", &pusher);
    Program *pCam = Make("/cam", &other);
    static const struct {
        const char *szPath;
        int nFound, nFoundSub;  // 0 none, 1 pSub, 2 pCam
    } cases[] = {
        {"/ch1-s1", 1, 1}, {"/CH1-S1", 1, 1}, {"/ch1", 0, 1},  {"/CH1", 0, 0}, {"/ch1-", 0, 0},
        {"/cam", 2, 2},    {"/Cam", 2, 2},    {"/cam/", 0, 0}, {"", 0, 0},     {"/ch", 0, 0},
    };
    Program *const programs[] = {nullptr, pSub, pCam};
    for (const auto &c : cases) {
        EXPECT_EQ(programs[c.nFound], ProgramFind(c.szPath)) << c.szPath;
        EXPECT_EQ(programs[c.nFoundSub], ProgramFindWithSubstream(c.szPath)) << c.szPath;
    }
    std::string longest = "/ch" + std::string(5000, '1');
    EXPECT_EQ(nullptr, ProgramFindWithSubstream(longest.c_str()));
    EXPECT_EQ(0, strncmp("Orx", pCam->szName, 3));
    ProgramDetach(&pusher);
    ProgramDetach(&other);
    EXPECT_EQ(0U, ListCount(&g_server.programs));
    EXPECT_EQ(nullptr, ProgramFind("/cam"));
}

TEST_F(ProgramTest, CountsWhoIsAttached)
{
    Session pusher;
    Session a;
    Session b;
    Session c;
    // the order is that of creation, also where handles wrap, whatever the order of attaching
    a.nHandle = 0xFFFFFFFE;
    b.nHandle = 0xFFFFFFFF;
    c.nHandle = 1;
    Program *pProg = Make("/cam", &pusher);
    pProg->tIdleSince = 0;
    ProgramAttach(&c, pProg);
    ProgramAttach(&a, pProg);
    ProgramAttach(&b, pProg);
    ProgramAttach(&b, pProg);  // twice is once
    EXPECT_EQ(4U, pProg->nRefs);
    EXPECT_THAT(Players(pProg), ElementsAre(0xFFFFFFFE, 0xFFFFFFFF, 1));
    ProgramDetach(&b);
    ProgramDetach(&b);
    ProgramDetach(&a);
    EXPECT_EQ(0U, pProg->tIdleSince) << "somebody watches";
    ProgramDetach(&c);
    EXPECT_EQ(1U, pProg->nRefs);
    EXPECT_NE(0U, pProg->tIdleSince);
    ProgramDetach(&pusher);
    EXPECT_EQ(0U, ListCount(&g_server.programs));
}

TEST_F(ProgramTest, LetsAPlayerMoveOn)
{
    Session pusher;
    Session other;
    Session player;
    Program *pFirst = Make("/one", &pusher);
    Program *pSecond = Make("/two", &other);
    ProgramAttach(&player, pFirst);
    ProgramAttach(&player, pSecond);
    EXPECT_EQ(1U, pFirst->nRefs);
    EXPECT_EQ(0U, ListCount(&pFirst->players));
    EXPECT_EQ(2U, pSecond->nRefs);
    EXPECT_EQ(2U, ProgramCountLive());
    // without its pusher a program is found by nobody, and a new one may take its name
    ProgramDetach(&other);
    EXPECT_EQ(1U, ProgramCountLive());
    EXPECT_EQ(nullptr, ProgramFind("/two"));
    Program *pThird = Make("/TWO", &other);
    ProgramDetach(&player);
    EXPECT_EQ(2U, ListCount(&g_server.programs));
    EXPECT_EQ(pThird, ProgramFind("/two")) << "it is not the old one's to take away";
    ProgramDetach(&other);
    ProgramDetach(&pusher);
}

// A client that was asked for its password holds the program meanwhile.
TEST_F(ProgramTest, AskingAgainFindsThePusherOfNow)
{
    Session pusher;
    Session player;
    Program *pOld = Make("/ch1-s1", &pusher);
    Port port;
    Request request;
    RequestInit(&request);
    const std::string block = "DESCRIBE rtsp://box/ch1 RTSP/1.0\r\nCSeq: 1\r\n\r\n";
    ASSERT_EQ(1, RequestParse(&request, block.data(), block.size()));
    EXPECT_EQ(1, AttachByPath(&player, &port, &request));
    EXPECT_EQ(1, AttachByPath(&player, &port, &request));
    EXPECT_EQ(pOld, player.pProg);
    EXPECT_EQ(2U, pOld->nRefs);
    ProgramDetach(&pusher);
    Program *pNew = Make("/ch1-s1", &pusher);
    EXPECT_EQ(1, AttachByPath(&player, &port, &request));
    EXPECT_EQ(pNew, player.pProg);
    EXPECT_EQ(1U, ListCount(&g_server.programs));
    ProgramDetach(&player);
    ProgramDetach(&pusher);
    RequestReset(&request);
}

TEST_F(ProgramTest, TakesNoNameTwice)
{
    Session pusher;
    Make("/cam", &pusher);
    Program *pProg = ProgramNew("/CAM");
    pProg->bLive = 1;
    EXPECT_EQ(0, ProgramReady(pProg));
    ProgramDelete(pProg);
    ProgramDetach(&pusher);
}

TEST_F(ProgramTest, MayBeFreedWithoutTheNameMap)
{
    Session pusher;
    Make("/cam", &pusher);
    g_server.bProgramMapReady = 0;
    AvlDestroy(&g_server.programMap);
    ProgramDetach(&pusher);
    EXPECT_EQ(0U, ListCount(&g_server.programs));
}

TEST_F(ProgramTest, ReadsNamesFromTheDescription)
{
    Session pusher;
    Program *pProg = Make("/cam", &pusher);
    char group[32];
    char nick[6];
    EXPECT_EQ(1, ProgramNames(pProg, group, sizeof(group), nick, sizeof(nick)));
    EXPECT_STREQ("house", group);
    EXPECT_STREQ("front", nick) << "cut to the buffer";
    char password[33];
    EXPECT_EQ(0, ProgramPassword(pProg, password));

    static const char *const kLines[] = {"a=NickName:yard\r\n", "a=NickName:yard\nb=x\r\n",
                                         "a=NickName:yard"};
    char line[32];
    for (const char *szLine : kLines) {
        std::string sdp = std::string("v=0\r\n") + szLine;
        free(pProg->szSdp);
        pProg->szSdp = strdup(sdp.c_str());
        EXPECT_EQ(1, ProgramNames(pProg, nullptr, 0, line, sizeof(line)));
        EXPECT_STREQ("yard", line) << "ends with its line, whatever ends that";
    }

    Session other;
    pProg =
        Make("/bare", &other, strstr(kSdp, "m=video") + std::string("a=ProgramAuth:") + std::string(40, 'p'));
    EXPECT_EQ(0, ProgramNames(pProg, group, sizeof(group), nullptr, 0));
    EXPECT_STREQ("", group);
    EXPECT_EQ(1, ProgramNames(pProg, nullptr, 0, nullptr, 0));
    EXPECT_EQ(1, ProgramPassword(pProg, password));
    EXPECT_EQ(std::string(32, 'p'), password);
    ProgramDetach(&pusher);
    ProgramDetach(&other);
}

// Accounts in the text that a camera sent, which may not be taken for the name of a file.
TEST_F(ProgramTest, FindsAccountsInTheCamerasText)
{
    WriteFile(g_server.szConfigPath, "[USERS]\nSuperUser=boss\nSuperPwd=bosspw\nNumUsers=0\n");
    Session pusher;
    Program *pProg = Make("/cam", &pusher);
    static const struct {
        const char *szText, *szUser;
        int nLevel;  // -1: refused
        const char *szPassword;
    } cases[] = {
        {nullptr, "boss", 0, "bosspw"},
        {nullptr, "ann", -1, ""},
        {"[USERS]\r\nNumUsers=2\r\nUserName0=ann\r\nUserPwd0=x\r\nUserLevel0=1\r\nUserName1=bob\r\n", "ann",
         1, "x"},
        {"[USERS]\r\nNumUsers=2\r\nUserName0=ann\r\nUserPwd0=x\r\nUserName1=bob\r\n", "bob", 2, ""},
        {"[USERS]\nNumUsers=1\nUserName0=ann\nUserName1=bob\n", "bob", -1, ""},
        {"[USERS]\nNumUsers=2000000000\nUserName0=ann\n", "bob", -1, ""},
        {"[USERS]\nNumUsers=1\nUserName0=ann\n", "boss", -1, ""},
        {"[USERS]\nSuperUser=\nSuperPwd=\nNumUsers=1\nUserName0=\n", "", -1, ""},
        {"[USERS]SuperUser=root", "root", 0, ""},  // no line end in it
        {"[USERS]", "root", -1, ""},
    };
    for (const auto &c : cases) {
        pProg->szAccounts = c.szText ? strdup(c.szText) : nullptr;
        char password[64] = "";
        int nLevel = -1;
        int nFound = GetUserAccount(nullptr, "rtsp://box/cam", c.szUser, password, &nLevel);
        EXPECT_EQ(c.nLevel >= 0, nFound) << (c.szText ? c.szText : "none");
        EXPECT_EQ(c.nLevel, nLevel);
        EXPECT_STREQ(c.szPassword, password);
        free(pProg->szAccounts);
        pProg->szAccounts = nullptr;
    }
    // the server's own accounts count whatever the camera says
    pProg->szAccounts = strdup("[USERS]\nSuperUser=root\n");
    g_server.bControlUsers = 1;
    char password[64] = "";
    EXPECT_EQ(0, GetUserAccount(nullptr, "rtsp://box/cam", "root", password, nullptr));
    EXPECT_EQ(1, GetUserAccount(nullptr, "rtsp://box/cam", "boss", password, nullptr));
    EXPECT_STREQ("bosspw", password);
    EXPECT_EQ(1, GetUserAccount(nullptr, nullptr, "boss", password, nullptr)) << "the first live program";
    EXPECT_EQ(0, GetUserAccount(nullptr, "rtsp://box/dog", "boss", password, nullptr));
    ProgramDetach(&pusher);
    EXPECT_EQ(0, GetUserAccount(nullptr, nullptr, "boss", password, nullptr));
}

// A recording of key pictures alone.
void WriteRecording(const std::string &path, int nPictures = 2)
{
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    ZMFWriter *pWriter = ZMFWriterCreateFile(path.c_str(), RECORD_MANUAL, nullptr);
    ASSERT_NE(nullptr, pWriter);
    EXPECT_EQ(1, ZMFWriterSetSdp(pWriter, kSdp));
    EXPECT_EQ(1, ZMFWriterWriteHead(pWriter));
    uint8_t packet[] = {0x80, 0xE0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 9, 0x67, 1, 2, 3};
    for (int i = 0; i < nPictures; i++) {
        PutBe(packet + 2, 2, static_cast<uint32_t>(i));
        EXPECT_EQ(1, ZMFWriterWriteRtpPacket(pWriter, packet, sizeof(packet), 'v', 1500U * i));
    }
    ZMFWriterFree(pWriter);
}

TEST_F(ProgramTest, MakesProgramsOfRecordings)
{
    WriteRecording(dir.File("rec/day/one.zmf"));
    WriteRecording(dir.File("outside.zmf"));
    WriteFile(dir.File("rec/broken.zmf"), "no recording");
    EXPECT_EQ(nullptr, CreateFileProgram("/day/one.zmf")) << "not allowed";
    g_server.bFilePrograms = 1;
    EXPECT_EQ(nullptr, CreateFileProgram("/day/one.zmf")) << "no directory";
    g_server.szRecordPath = strdup((dir.File("rec") + "/").c_str());
    Program *pProg = CreateFileProgram("/day/one.zmf");
    ASSERT_NE(nullptr, pProg);
    EXPECT_EQ(0, pProg->bLive);
    EXPECT_EQ(0U, pProg->nRefs);
    EXPECT_EQ(1, pProg->nTrackCount);
    EXPECT_EQ(-1, pProg->nDataTrack);
    EXPECT_EQ(FileProgramDuration(pProg), pProg->mediaInfos[0].nDuration);
    EXPECT_NE(nullptr, pProg->pfnIsKeyFrame);
    EXPECT_THAT(ProgramSdp(pProg), testing::HasSubstr("m=video"));
    EXPECT_EQ(nullptr, ProgramFind("/day/one.zmf")) << "everybody gets one of his own";
    EXPECT_EQ(0U, ProgramCountLive());
    char password[64];
    WriteFile(g_server.szConfigPath, "[USERS]\nSuperUser=boss\nSuperPwd=bosspw\n");
    EXPECT_EQ(1, GetUserAccount(nullptr, "rtsp://box/day/one.zmf/trackID=0", "boss", password, nullptr));
    Session player;
    ProgramAttach(&player, pProg);
    EXPECT_EQ(1U, ListCount(&g_server.programs));
    ProgramDetach(&player);
    EXPECT_EQ(0U, ListCount(&g_server.programs));

    static const char *const paths[] = {
        "/../outside.zmf", "/day/../../outside.zmf", "/broken.zmf", "/none.zmf", "/day/..", "/day", ".."};
    for (const char *szPath : paths)
        EXPECT_EQ(nullptr, CreateFileProgram(szPath)) << szPath;
    EXPECT_EQ(nullptr, CreateFileProgram(("/" + std::string(600, 'x') + ".zmf").c_str()));
}

// A file may have two video tracks, and a player only the other one. The file is then not read through in one
// go while the other players wait.
TEST_F(ProgramTest, PlaysNothingOfATrackThatIsNotSetUp)
{
    WriteRecording(dir.File("rec/one.zmf"), 300);
    g_server.bFilePrograms = 1;
    g_server.szRecordPath = strdup((dir.File("rec") + "/").c_str());
    for (int bSetUp : {0, 1}) {
        Program *pProg = CreateFileProgram("/one.zmf");
        ASSERT_NE(nullptr, pProg);
        Session player;
        uint8_t scratch[2048];
        BlockListInit(&player.out.Outq, nullptr);
        player.out.pScratch = scratch;
        player.out.nScratch = sizeof(scratch);
        player.nState = STATE_PLAYING;
        player.nMediaMask = MEDIA_H264;
        ProgramAttach(&player, pProg);
        SessionCopyTracks(&player, pProg);
        player.out.tracks[0].bSetUp = bSetUp;
        EXPECT_EQ(bSetUp, FillBufferFromFile(&player));
        EXPECT_EQ(STATE_PLAYING, player.nState);
        EXPECT_EQ(bSetUp, FillBufferFromFile(&player));
        EXPECT_EQ(bSetUp ? STATE_PLAYING : STATE_ENDED, player.nState);
        ListDestroy(&player.out.Outq);
        ProgramDetach(&player);
    }
}

}  // namespace
}  // namespace orx
