#include "server/distribute.h"

#include <memory>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "base/assertion.h"
#include "base/bytes.h"
#include "record/zmfreader.h"
#include "record/zmfwriter.h"
#include "runtime/clock.h"
#include "server/play.h"
#include "server/programinit.h"
#include "server/send.h"
#include "support/testserver.h"
#include "support/wait.h"

namespace orx {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

constexpr int kVideoType = 96, kAudioType = 8, kDataType = 98;
constexpr char kWarning[] =
    "Warning: Could NOT find the next KeyFrame to remove the items that's before it.\r\n";

// A cached packet: track 0 video, 1 audio, 2 data. The sequence number counts up by itself.
struct Packet {
    uint32_t nTime;
    int nTrack = 0;
    int bKey = 0;
    int bMarker = 0;
    size_t nPayload = 4;
};

DataBlock *MakePacket(const Packet &packet)
{
    static const uint8_t types[] = {kVideoType, kAudioType, kDataType};
    static uint16_t nSequence = 0;
    std::vector<uint8_t> frame(4 + 12 + packet.nPayload, 'p');
    frame[0] = '$';
    frame[1] = static_cast<uint8_t>(2 * packet.nTrack);
    PutBe(&frame[2], 2, static_cast<uint32_t>(12 + packet.nPayload));
    frame[4] = 0x80;
    frame[5] = static_cast<uint8_t>(packet.bMarker << 7 | types[packet.nTrack]);
    PutBe(&frame[6], 2, ++nSequence);
    PutBe(&frame[8], 4, packet.nTime * 90);
    PutBe(&frame[12], 4, 0xFEEDF00D);
    DataBlock *pBlock = MakeDataBlock(frame.data(), frame.size(), 1, packet.nTrack == 0, packet.bKey);
    pBlock->nTimestamp = packet.nTime;
    return pBlock;
}

struct CacheTest : testing::Test {
    Program *pProg;
    std::string output;
    CacheTest()
    {
        g_server.nCacheLimit = 10;
        pProg = ProgramNew("/cam");
        strcpy(pProg->szName, "Orx1");
        pProg->nDataTrack = 2;
    }
    ~CacheTest() override { ProgramDelete(pProg); }

    void Push(const Packet &packet)
    {
        testing::internal::CaptureStdout();
        CachePacketEx(pProg, MakePacket(packet));
        output += testing::internal::GetCapturedStdout();
    }
    // Pictures of two packets every 100 ms, a key picture every nKeyMs, from nFrom up to and with nTo.
    void PushVideo(uint32_t nFrom, uint32_t nTo, uint32_t nKeyMs, uint32_t nBase = 0)
    {
        for (uint32_t n = nFrom; n <= nTo; n += 100) {
            Push({nBase + n, 0, nKeyMs && n % nKeyMs == 0, 0});
            Push({nBase + n, 0, 0, 1});
        }
    }
    // What the cache holds: one item per run of packets of the same time and track, "K" for key pictures.
    std::vector<std::string> Cached(uint32_t nUpTo = UINT32_MAX, uint32_t nBase = 0)
    {
        std::vector<std::string> items;
        for (auto *p = ListFirstOf<DataBlock>(&pProg->Pktq); p;
             p = reinterpret_cast<DataBlock *>(p->node.pNext)) {
            std::string item = (BlockData(p)[1] == 2   ? "a"
                                : (p->nFlags & DB_KEY) ? "K"
                                                       : "v") +
                               std::to_string(p->nTimestamp - nBase);
            if (p->nTimestamp - nBase > nUpTo)
                break;
            items.push_back(item);
        }
        return items;
    }
    uint32_t FirstTime() { return ListFirstOf<DataBlock>(&pProg->Pktq)->nTimestamp; }
    uint32_t CursorTime() { return static_cast<DataBlock *>(pProg->pCacheCursor)->nTimestamp; }
};

TEST_F(CacheTest, GrowsToOneAndAQuarterSpans)
{
    PushVideo(0, 12500, 1000);
    EXPECT_EQ(126U * 2, ListCount(&pProg->Pktq));
    EXPECT_EQ(nullptr, pProg->pCacheCursor);
    Push({12501, 0, 0, 0});
    EXPECT_LT(ListCount(&pProg->Pktq), 126U * 2);
}

// Behind the end of a picture within the span comes the first key picture that may begin the cache; older
// than that whole key pictures stay and nothing else.
TEST_F(CacheTest, KeepsOldKeyPicturesAndTheSpan)
{
    Push({50, 1});
    PushVideo(0, 900, 1000);
    Push({950, 1});
    PushVideo(1000, 2900, 1000);
    Push({2950, 1});
    PushVideo(3000, 12500, 1000);
    EXPECT_EQ("Program(Orx1)->ssrc=4277006349\r\n", output);
    Push({12600, 0, 0, 1});
    EXPECT_EQ(3000U, CursorTime());
    EXPECT_EQ(3U, pProg->nKeptKeys);
    EXPECT_THAT(Cached(3100), ElementsAre("K0", "v0", "K1000", "v1000", "K2000", "v2000", "K3000", "v3000",
                                          "v3100", "v3100"));
}

// A key picture right at the edge of the span follows no end of a picture within it.
TEST_F(CacheTest, WantsAWholePictureWithinTheSpanBeforeTheKey)
{
    PushVideo(0, 12500, 1000);
    Push({12999, 0, 0, 1});  // 3000 is within the span, 2900 is not
    EXPECT_EQ(4000U, CursorTime());
}

TEST_F(CacheTest, ForgetsTheOldestKeyPicturesBeyondFifteen)
{
    PushVideo(0, 60000, 1000);
    EXPECT_LE(pProg->nKeptKeys, 15U);
    unsigned nBefore = 0;
    for (const std::string &item : Cached(CursorTime() - 1)) {
        nBefore += item[0] == 'K';
        EXPECT_TRUE(item[0] == 'K' || item == "v" + std::to_string(FirstTime()) ||
                    item.substr(item.size() - 3) == "000")
            << item;
    }
    EXPECT_EQ(pProg->nKeptKeys, nBefore);
    EXPECT_EQ(15U, nBefore);
    EXPECT_GE(CursorTime(), 60000U - 12500U);
    EXPECT_EQ(CursorTime() - 15000, FirstTime());
}

TEST_F(CacheTest, TrimsAcrossAWrapOfTheClock)
{
    constexpr uint32_t kBase = 0xFFFFFFFF - 5000;
    PushVideo(0, 12500, 1000, kBase);
    EXPECT_EQ(126U * 2, ListCount(&pProg->Pktq));
    Push({kBase + 12600, 0, 0, 1});
    EXPECT_EQ(kBase + 3000, CursorTime());
    EXPECT_THAT(Cached(3000, kBase),
                ElementsAre("K0", "v0", "K1000", "v1000", "K2000", "v2000", "K3000", "v3000"));
}

// A stamp that is not after the start block's trims nothing, however far it lies before it.
TEST_F(CacheTest, KeepsEverythingWhenTimeGoesBack)
{
    PushVideo(20000, 20500, 1000);
    Push({0, 0, 0, 1});
    Push({20000, 0, 0, 1});
    EXPECT_EQ(14U, ListCount(&pProg->Pktq));
}

TEST_F(CacheTest, BeginsAnewWhenTimeRunsAwayFromAGuardedServer)
{
    g_server.bSurvivePeerFaults = 1;
    PushVideo(20000, 20500, 1000);
    Push({0, 0, 0, 1});
    EXPECT_EQ(1U, ListCount(&pProg->Pktq));
    Push({100, 0, 0, 1});
    EXPECT_EQ(2U, ListCount(&pProg->Pktq));
    g_server.bSurvivePeerFaults = 0;
}

TEST_F(CacheTest, AudioAloneIsTrimmedByTheSpan)
{
    for (uint32_t n = 0; n <= 12500; n += 100)
        Push({n, 1});
    EXPECT_EQ(126U, ListCount(&pProg->Pktq));
    EXPECT_THAT(output, testing::Not(HasSubstr(kWarning)));
    Push({12600, 1});
    EXPECT_THAT(output, HasSubstr(kWarning));
    EXPECT_LE(ListCount(&pProg->Pktq), 100U);
    output.clear();
    for (uint32_t n = 12700; n <= 60000; n += 100)
        Push({n, 1});
    EXPECT_THAT(output, HasSubstr(kWarning)) << "each time the span is exceeded";
    EXPECT_LE(ListCount(&pProg->Pktq), 126U) << "for ever bounded";
}

TEST_F(CacheTest, WithoutKeysWholePicturesWithinTheSpanStay)
{
    PushVideo(0, 12500, 0);
    Push({12600, 0, 0, 1});
    EXPECT_THAT(output, HasSubstr(kWarning));
    EXPECT_EQ(2700U, FirstTime()) << "the first picture that is younger than the span";
    EXPECT_EQ(pProg->pCacheCursor, ListFirst(&pProg->Pktq, 0));
    output.clear();
    PushVideo(12700, 60000, 0);
    EXPECT_GE(FirstTime(), 60000U - 12500U);
    EXPECT_THAT(output, HasSubstr(kWarning));
}

TEST_F(CacheTest, CursorOutlivesWhatLaterTrimsRemove)
{
    PushVideo(0, 30000, 700);  // keys come and go while the cursor moves on
    PushVideo(30100, 50000, 0);
    PushVideo(50100, 80000, 900);
    int bFound = 0;
    for (auto *p = ListFirstOf<ListNode>(&pProg->Pktq); p; p = p->pNext)
        bFound |= p == pProg->pCacheCursor;
    EXPECT_TRUE(bFound);
}

TEST_F(CacheTest, NumbersPacketsAndLearnsTheSourceOnce)
{
    Push({0, 0, 1, 1});
    EXPECT_EQ(0xFEEDF00DU, pProg->ssrc);
    pProg->ssrc = 0;
    Push({100, 0, 0, 1});
    EXPECT_EQ(0U, pProg->ssrc) << "only from the first packet";
    EXPECT_EQ(2U, pProg->nSerial);
    EXPECT_EQ(1U, reinterpret_cast<DataBlock *>(pProg->Pktq.pLast)->nSerial);
}

TEST_F(CacheTest, ClearingForgetsTheCursor)
{
    PushVideo(0, 13000, 1000);
    ASSERT_NE(nullptr, pProg->pCacheCursor);
    ProgramClearCache(pProg);
    EXPECT_EQ(0U, ListCount(&pProg->Pktq));
    EXPECT_EQ(nullptr, pProg->pCacheCursor);
    EXPECT_EQ(0U, pProg->nKeptKeys);
    PushVideo(13100, 13200, 1000);
    EXPECT_EQ(4U, ListCount(&pProg->Pktq));
}

// A program and a player that has set the video and audio tracks up, on a real connection.
struct PlayerQueueTest : testing::Test {
    std::unique_ptr<TestServer> server;
    Program *pProg = nullptr;
    Session *pPlayer = nullptr;
    TcpPair pair;
    std::string output;

    void Start(const std::string &settings = "")
    {
        testing::internal::CaptureStdout();
        server = std::make_unique<TestServer>(settings);
        ASSERT_TRUE(server->bRunning);
        ASSERT_GE(pair.fdServer, 0);
        int nSmall = 4096;  // little is under way when the peer does not read
        setsockopt(pair.fdServer, SOL_SOCKET, SO_SNDBUF, &nSmall, sizeof(nSmall));
        server->Run([&] { MakePlayer(); });
    }
    void MakePlayer()
    {
        pProg = ProgramNew("/cam");
        pProg->bLive = 1;
        pProg->nDataTrack = 2;
        pProg->nRefs = 1;  // as if a pusher held it
        ListAppend(&g_server.programs, pProg);
        pPlayer = CreateSession(CreateTcpPort(pair.fdServer));
        pPlayer->Reply = pPlayer->Cmd;
        pPlayer->nFlags |= SESSION_INTERLEAVED;
        pPlayer->nState = STATE_PLAYING;
        ProgramAttach(pPlayer, pProg);
        static const uint8_t types[] = {kVideoType, kAudioType, kDataType};
        pPlayer->out.nTracks = 3;
        for (int i = 0; i < 3; i++) {
            pPlayer->out.tracks[i].nPayloadType = types[i];
            pPlayer->out.tracks[i].bSetUp = i < 2;
        }
    }
    void TearDown() override
    {
        server->Stop();
        output += testing::internal::GetCapturedStdout();
        if (HasFailure())
            fputs(output.substr(output.size() > 3000 ? output.size() - 3000 : 0).c_str(), stdout);
    }
    void Push(const Packet &packet, int nTimes = 1)
    {
        server->Run([&] {
            for (int i = 0; i < nTimes; i++)
                CachePacketEx(pProg, MakePacket(packet));
        });
    }
    unsigned Waiting() { return ListCount(&pPlayer->out.Outq); }
    int Sessions() { return static_cast<int>(ListCount(&g_server.sessions)); }
    void Prints(const std::string &text)
    {
        output += testing::internal::GetCapturedStdout();
        EXPECT_NE(std::string::npos, output.find(text)) << text;
        testing::internal::CaptureStdout();
    }
    // Reads what comes until nBytes are there, or all that there is.
    std::string Receive(size_t nBytes)
    {
        std::string data;
        WaitFor(
            [&] {
                char bytes[65536];
                ssize_t n = recv(pair.fdPeer, bytes, sizeof(bytes), MSG_DONTWAIT);
                if (n > 0)
                    data.append(bytes, static_cast<size_t>(n));
                return data.size() >= nBytes;
            },
            5000);
        return data;
    }
};

TEST_F(PlayerQueueTest, SendsFromTheFiftyFirstPacketOn)
{
    Start();
    Push({0, 0, 1, 0, 84}, 50);
    EXPECT_EQ(50U, Waiting());
    Push({0, 0, 0, 1, 84});
    EXPECT_EQ(0U, Waiting());
    Prints("PushPacket2SessionQueue(): session->Outq.nItems=51\r\n");
    std::string data = Receive(5100);
    ASSERT_EQ(5100U, data.size());
    for (size_t n = 0; n < data.size(); n += 100) {
        EXPECT_EQ(std::string("$\0\0\x60\x80", 5), data.substr(n, 5)) << n;
        EXPECT_EQ(n / 100, (GetBe(reinterpret_cast<const uint8_t *>(&data[n + 6]), 2) -
                            GetBe(reinterpret_cast<const uint8_t *>(&data[6]), 2)));
    }
}

TEST_F(PlayerQueueTest, LeavesOutWhatAPlayerHasNotSetUp)
{
    Start();
    Push({0, 0});
    Push({0, 1});
    EXPECT_EQ(2U, Waiting());
    Push({0, 2});
    EXPECT_EQ(2U, Waiting()) << "described, but not set up";
    server->Run([&] {
        pPlayer->out.nTracks = 1;
        pPlayer->nState = STATE_PAUSED;
    });
    Push({0, 0});
    EXPECT_EQ(2U, Waiting()) << "not playing";
    server->Run([&] { pPlayer->nState = STATE_PLAYING; });
    Push({0, 1});
    EXPECT_EQ(2U, Waiting()) << "no track with that payload type";
    Push({0, 0});
    EXPECT_EQ(3U, Waiting());
}

TEST_F(PlayerQueueTest, DatagramsHaveNoPrefix)
{
    Start();
    server->Run([&] { pPlayer->nFlags &= ~SESSION_INTERLEAVED; });
    Push({77, 0, 1, 1, 10});
    auto *pBlock = ListFirstOf<DataBlock>(&pPlayer->out.Outq);
    EXPECT_EQ(22U, pBlock->len);
    EXPECT_EQ(0x80, BlockData(pBlock)[0]);
    EXPECT_EQ(DB_MEDIA | DB_VIDEO | DB_KEY, pBlock->nFlags);
    EXPECT_EQ(77U, pBlock->nTimestamp);
    server->Run([&] { ListEmpty(&pPlayer->out.Outq); });
}

// What a recording packs is not always what its player has set up.
TEST_F(PlayerQueueTest, MediaWithoutASocketEndsThePlayerAlone)
{
    Start();
    server->Run([&] {
        AssertSurvivePeerFaults(1);
        pPlayer->nFlags &= ~SESSION_INTERLEAVED;
        const uint8_t packet[12] = {0x80, kDataType};
        ListAppend(&pPlayer->out.Outq, MakeDataBlock(packet, sizeof(packet), 1, 0, 0));
        EXPECT_EQ(0, SendDataEx(pPlayer, nullptr, 0));
        AssertSurvivePeerFaults(0);
    });
}

TEST_F(PlayerQueueTest, GivesAPlayerUpAtAThousandAndOne)
{
    Start();
    unsigned nMost = 0;
    for (int i = 0; i < 1200 && Sessions() > 0; i++) {
        nMost = Waiting();
        Push({0, 0, i == 0, 1, 60000});  // the connection takes a few of these and is full
    }
    EXPECT_EQ(1000U, nMost);
    EXPECT_EQ(0, Sessions());
    Prints("PushPacket2SessionQueue()->DestroySession()!\r\n");
    EXPECT_EQ(1U, pProg->nRefs);
    Push({0, 0, 0, 1, 10});  // its program goes on
}

TEST_F(PlayerQueueTest, CrowdedPlayerLosesMediaAndKeepsReplies)
{
    Start("AutoDropDataWhenCrowded=1\n");
    server->Run([&] { SendReply(pPlayer, pPlayer->Cmd, "first", 5); });
    for (int i = 0; i < 300 && pPlayer->nBlockedSends < 19; i++)
        Push({0, 0, 0, 1, 60000});  // far more than the connection holds
    ASSERT_EQ(19U, pPlayer->nBlockedSends);
    server->Run([&] {
        DataBlock *pReply = MakeDataBlock("reply", 5, 0, 0, 0);
        ListInsert(&pPlayer->out.Outq, pReply, ListFirst(&pPlayer->out.Outq, 0), 1);
    });
    unsigned nBefore = Waiting();
    ASSERT_GT(nBefore, 50U);
    Push({0, 0, 0, 1, 60000});
    EXPECT_EQ(20U, pPlayer->nBlockedSends);
    char szLine[80];
    snprintf(szLine, sizeof(szLine), "SendDataEx(socket=0x%x) blocked count=20!\r\n", pPlayer->Cmd->fd);
    Prints(szLine);
    unsigned nPartial = ListFirstOf<DataBlock>(&pPlayer->out.Outq)->sent > 0;
    EXPECT_EQ(1U + nPartial, Waiting()) << "the reply, and a packet of which a part has left";

    Push({0, 1}, 10);
    EXPECT_EQ(1U + nPartial, Waiting()) << "no sound for the time being";
    Push({0, 0, 0, 1, 100}, 51);  // in the end one of these finds the connection blocked no more
    std::string data;
    for (int i = 0; i < 100 && pPlayer->nBlockedSends > 0; i++) {
        data += Receive(1);
        Push({0, 0, 0, 1, 100});
    }
    EXPECT_EQ(0U, pPlayer->nBlockedSends);
    Push({0, 1}, 10);
    EXPECT_GE(Waiting(), 10U) << "and with sound again";
    data += Receive(1);
    EXPECT_THAT(data, HasSubstr("reply"));
    EXPECT_EQ(1, Sessions());
}

TEST_F(PlayerQueueTest, BlockedPlayerKeepsItsMediaWhenNotTold)
{
    Start();
    Push({0, 0, 1, 1, 60000}, 300);
    EXPECT_EQ(0U, pPlayer->nBlockedSends) << "counted only with the setting on";
    EXPECT_GT(Waiting(), 200U);
}

TEST_F(PlayerQueueTest, PusherFlushesWhatExceedsFive)
{
    Start();
    Push({0, 0}, 5);
    server->Run([&] { FlushPlayers(pProg); });
    EXPECT_EQ(5U, Waiting());
    Push({0, 0});
    server->Run([&] { FlushPlayers(pProg); });
    EXPECT_EQ(0U, Waiting());
    EXPECT_EQ(6U * 20, Receive(6 * 20).size());
}

TEST_F(PlayerQueueTest, FlushFreesPlayersThatCannotBeWritten)
{
    Start();
    server->Run([&] {
        for (int i = 0; i < 6; i++)
            CachePacketEx(pProg, MakePacket({0, 0}));
        shutdown(pPlayer->Cmd->fd, SHUT_WR);
        FlushPlayers(pProg);
    });
    EXPECT_EQ(0, Sessions());
    Prints(" failed(errcode=32)!\r\n");
}

TEST_F(PlayerQueueTest, StartsAtTheNewestKeyPicture)
{
    Start();
    server->Run([&] { pPlayer->nState = STATE_SETUP; });
    server->Run([&] { EXPECT_EQ(0, FillBufferAtFirstPlay(pPlayer)); });
    Prints("FillBufferAtFirstPlay(Cache Packets:In=0, Out=0)\r\n");
    Push({0, 0, 0, 1});
    server->Run([&] { EXPECT_EQ(0, FillBufferAtFirstPlay(pPlayer)); });
    Prints(
        "FillBufferAtFirstPlay() did not find the next KeyFrame to fill packet!\r\n"
        "FillBufferAtFirstPlay(Cache Packets:In=1, Out=0)\r\n");

    Push({1000, 0, 1, 0});
    Push({1000, 0, 0, 1});
    Push({1500, 1});
    Push({2000, 0, 1, 0});
    Push({2000, 0, 0, 1});
    Push({2100, 1});
    Push({2100, 2});
    Push({2200, 0, 0, 1});
    server->Run([&] { EXPECT_EQ(1, FillBufferAtFirstPlay(pPlayer)); });
    Prints("FillBufferAtFirstPlay(Cache Packets:In=9, Out=4)\r\n");
    auto *pFirst = ListFirstOf<DataBlock>(&pPlayer->out.Outq);
    EXPECT_EQ(2000U, pFirst->nTimestamp);
    EXPECT_EQ(2000U * 90, pPlayer->tracks[0].nFirstRtpTime);
    EXPECT_EQ(GetBe(BlockData(pFirst) + 6, 2), pPlayer->tracks[0].nFirstSeq);
    EXPECT_EQ(2100U * 90, pPlayer->tracks[1].nFirstRtpTime);
    EXPECT_EQ(0U, pPlayer->tracks[2].nFirstRtpTime);
    server->Run([&] {
        ListEmpty(&pPlayer->out.Outq);
        pPlayer->nBlockedSends = 20;
        EXPECT_EQ(1, FillBufferAtFirstPlay(pPlayer));
        EXPECT_EQ(3U, ListCount(&pPlayer->out.Outq)) << "a blocked player gets video only";
        ListEmpty(&pPlayer->out.Outq);
        ProgramDetach(pPlayer);
        EXPECT_EQ(1, FillBufferAtFirstPlay(pPlayer)) << "without a program";
    });
}

TEST_F(PlayerQueueTest, SubscribersGetThePayloadOfEvents)
{
    Start();
    server->Run([&] {
        pPlayer->nState = STATE_NEW;
        pPlayer->nFlags |= SESSION_SUBSCRIBER;
    });
    Push({0, 0});
    Push({0, 2, 0, 0, 7});
    EXPECT_EQ("ppppppp", Receive(7)) << "neither video nor headers";
    server->Run([&] {
        uint8_t torn[] = {'$', 4, 0, 8, 0x80, kDataType, 0, 1, 0, 0, 0, 0};
        CachePacketEx(pProg, MakeDataBlock(torn, sizeof(torn), 1, 0, 0));
    });
    EXPECT_EQ(1, Sessions()) << "what is shorter than its headers is not sent";
    server->Run([&] { shutdown(pPlayer->Cmd->fd, SHUT_WR); });
    Push({0, 2, 0, 0, 7});
    EXPECT_EQ(0, Sessions());
    Prints("SendEventMsg2SubscribeClient()->DestroySession()!\r\n");
}

TEST_F(PlayerQueueTest, DroppingKeepsTheBlockThatIsUnderWay)
{
    Start();
    server->Run([&] {
        for (int i = 0; i < 3; i++)
            ListAppend(&pPlayer->out.Outq, MakePacket({0, 0}));
        ListFirstOf<DataBlock>(&pPlayer->out.Outq)->sent = 1;
        SessionDropQueue(pPlayer);
        EXPECT_EQ(1U, ListCount(&pPlayer->out.Outq));
        SessionDropQueue(pPlayer);
        EXPECT_EQ(1U, ListCount(&pPlayer->out.Outq));
    });
}

// The same player with a recording of twenty seconds, one picture a second.
struct RecordingQueueTest : PlayerQueueTest {
    void StartPlaying()
    {
        Start("[INTEROP]\nStandardPlayers=1\n");
        std::string file = server->dir.File("a.zmf");
        ZMFWriter *pWriter = ZMFWriterCreateFile(file.c_str(), RECORD_MANUAL, nullptr);
        ASSERT_EQ(1, ZMFWriterSetSdp(pWriter, "m=video 0 RTP/AVP 96\r\na=rtpmap:96 H264/90000\r\n"));
        ASSERT_EQ(1, ZMFWriterWriteHead(pWriter));
        const uint8_t picture[] = {0, 4, 0x67, 0};
        for (uint32_t i = 0; i <= 20; i++)
            ASSERT_EQ(1, ZMFWriterWriteSample(pWriter, picture, 4, 1000 * i, 'v' << 8 | 0x40));
        ZMFWriterFree(pWriter);
        server->Run([&] {
            pProg->bLive = 0;
            pProg->reader = ZMFReaderOpen(file.c_str(), 65536);
            pPlayer->nPlayClock = ClockMs();
            pPlayer->out.tracks[0].nNextSeq = 1;
            pPlayer->out.tracks[1].nNextSeq = 500;
        });
        ASSERT_NE(nullptr, pProg->reader);
    }
    // Queues a packet of which nSent bytes have left, and returns the rest.
    std::string Queue(const Packet &packet, uint16_t nSent = 0)
    {
        DataBlock *pBlock = MakePacket(packet);
        pBlock->sent = nSent;
        ListAppend(&pPlayer->out.Outq, pBlock);
        pPlayer->out.tracks[packet.nTrack].nNextSeq++;
        auto *p = reinterpret_cast<char *>(BlockData(pBlock));
        return {p + nSent, p + pBlock->len};
    }
};

TEST_F(RecordingQueueTest, RepliesPassWhatIsNotYetDue)
{
    ASSERT_NO_FATAL_FAILURE(StartPlaying());
    std::string expected;
    server->Run([&] {
        expected = Queue({0, 0}, 5);
        for (const Packet &packet : {Packet{900, 1}, {5000000, 0}, {5000000, 0, 0, 1}})
            expected += Queue(packet);
        for (uint32_t i = 0; i < 2; i++)
            Queue({5000040 + i, static_cast<int>(i)});
        for (const char *szReply : {"one", "two"}) {
            EXPECT_EQ(1, SendReply(pPlayer, pPlayer->Cmd, szReply, 3));
            expected += szReply;
        }
        EXPECT_EQ(1, SendReply2(pPlayer, pPlayer->Cmd, "three", 5, "body", 4, nullptr));
        expected += "threebody";
    });
    EXPECT_EQ(expected, Receive(expected.size())) << "a picture that has begun is sent whole";
    EXPECT_EQ(2U, Waiting());
}

// A reply that could not leave is not passed by the next one, whatever has become of the media before it.
TEST_F(RecordingQueueTest, RepliesKeepTheirOrder)
{
    ASSERT_NO_FATAL_FAILURE(StartPlaying());
    server->Run([&] {
        pPlayer->nPlayPos = 5000000;
        Queue({5000040, 0});
        ListAppend(&pPlayer->out.Outq, MakeDataBlock("one", 3, 0, 0, 0));
        Queue({5000080, 0});
        EXPECT_EQ(1, SendReply(pPlayer, pPlayer->Cmd, "two", 3));
        EXPECT_EQ(4U, Waiting());
        auto *pLast = reinterpret_cast<DataBlock *>(pPlayer->out.Outq.pLast);
        EXPECT_STREQ("two", reinterpret_cast<const char *>(BlockData(PrevBlock(pLast))));
    });
}

// Neither a packet nor a hole in their numbers, and the pace is that of the new place.
TEST_F(RecordingQueueTest, JumpsLeaveNothingFromBefore)
{
    ASSERT_NO_FATAL_FAILURE(StartPlaying());
    const std::string text = "PLAY rtsp://h/a.zmf RTSP/1.0\r\nCSeq: 1\r\nRange: npt=10-\r\n\r\n";
    std::string expected;
    server->Run([&] {
        Request request;
        RequestInit(&request);
        ASSERT_EQ(1, RequestParse(&request, text.data(), text.size()));
        expected = Queue({0, 0}, 5) + "RTSP/1.0 200 OK\r\n";
        for (int i = 0; i < 5; i++)
            Queue({40, i % 2});
        EXPECT_EQ(1, HandlePlay(pPlayer, pPlayer->Cmd, &request));
        EXPECT_EQ(10000U, pPlayer->nPlayPos);
        RequestReset(&request);
    });
    std::string data = Receive(expected.size());
    EXPECT_EQ(expected, data.substr(0, expected.size()));
    EXPECT_THAT(data, HasSubstr("\r\nRange: npt=10.000-20.000\r\n"));
    EXPECT_THAT(data, HasSubstr("trackID=0;seq=2,url=rtsp://h/a.zmf/trackID=0;seq=500\r\n"));
}

}  // namespace
}  // namespace orx
