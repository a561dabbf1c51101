#include "server/distribute.h"

#include <memory>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "base/bytes.h"
#include "record/zmfreader.h"
#include "record/zmfwriter.h"
#include "runtime/clock.h"
#include "server/play.h"
#include "server/programinit.h"
#include "server/send.h"
#include "support/output.h"
#include "support/testserver.h"
#include "support/wait.h"

namespace orx {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

constexpr uint8_t kPayloadTypes[] = {96, 8, 98};
constexpr char kWarning[] =
    "Warning: Could NOT find the next KeyFrame to remove the items that's before it.\r\n";

// A cached packet: track 0 video, 1 audio, 2 data.
struct Packet {
    uint32_t nTime;
    int nTrack = 0;
    int bKey = 0;
    int bMarker = 0;
    size_t nPayload = 4;
};

DataBlock *MakePacket(const Packet &packet)
{
    std::vector<uint8_t> frame(4 + 12 + packet.nPayload, 'p');
    frame[0] = '$';
    frame[1] = static_cast<uint8_t>(2 * packet.nTrack);
    PutBe(&frame[2], 2, static_cast<uint32_t>(12 + packet.nPayload));
    frame[4] = 0x80;
    frame[5] = static_cast<uint8_t>(packet.bMarker << 7 | kPayloadTypes[packet.nTrack]);
    PutBe(&frame[8], 4, packet.nTime * 90);
    PutBe(&frame[12], 4, 0xFEEDF00D);
    DataBlock *pBlock = MakeDataBlock(frame.data(), frame.size(), 1, packet.nTrack == 0, packet.bKey);
    pBlock->nTimestamp = packet.nTime;
    return pBlock;
}

// A program whose cache spans ten seconds.
struct CacheTest : testing::Test {
    Program *pProg;
    uint32_t nBase = 0;  // added to all times
    std::string output;

    CacheTest()
    {
        g_server.nCacheLimit = 10;
        pProg = ProgramNew("/cam");
    }
    ~CacheTest() override { ProgramDelete(pProg); }

    void Push(Packet packet)
    {
        packet.nTime += nBase;
        output += Printed([&] { CachePacketEx(pProg, MakePacket(packet)); });
    }
    // Pictures of two packets every 100 ms, a key picture every nKeyMs, from nFrom up to and with nTo.
    void PushVideo(uint32_t nFrom, uint32_t nTo, uint32_t nKeyMs)
    {
        for (uint32_t n = nFrom; n <= nTo; n += 100) {
            Push({n, 0, nKeyMs && n % nKeyMs == 0});
            Push({n, 0, 0, 1});
        }
    }
    // The packets of the cache in order, "K" for the first of a key picture.
    std::vector<std::string> Cached(uint32_t nUpTo = INT32_MAX) const
    {
        std::vector<std::string> items;
        for (ListNode *pNode = pProg->Pktq.pFirst; pNode; pNode = pNode->pNext) {
            auto *p = reinterpret_cast<DataBlock *>(pNode);
            const char *szKind = BlockData(p)[1] == 2 ? "a" : (p->nFlags & DB_KEY) ? "K" : "v";
            if (p->nTimestamp - nBase <= nUpTo)
                items.push_back(szKind + std::to_string(p->nTimestamp - nBase));
        }
        return items;
    }
    uint32_t FirstTime() const { return ListFirstOf<DataBlock>(&pProg->Pktq)->nTimestamp - nBase; }
    uint32_t CursorTime() const { return static_cast<DataBlock *>(pProg->pCacheCursor)->nTimestamp - nBase; }
};

// After one and a quarter spans it is trimmed: behind the end of a picture within the span comes the first
// key picture that may begin it; of what is older whole key pictures stay and nothing else.
TEST_F(CacheTest, KeepsTheSpanAndOldKeyPictures)
{
    for (uint32_t nStart : {0U, 0xFFFFFFFFU - 5000}) {  // also where the clock wraps
        nBase = nStart;
        Push({50, 1});
        PushVideo(0, 2900, 1000);
        Push({2950, 1});
        PushVideo(3000, 12500, 1000);
        EXPECT_EQ(nullptr, pProg->pCacheCursor);
        Push({12600, 0, 0, 1});
        EXPECT_EQ(3000U, CursorTime());
        EXPECT_THAT(Cached(3100), ElementsAre("K0", "v0", "K1000", "v1000", "K2000", "v2000", "K3000",
                                              "v3000", "v3100", "v3100"));
        ProgramClearCache(pProg);
        EXPECT_EQ(0U, ListCount(&pProg->Pktq));
        EXPECT_EQ(nullptr, pProg->pCacheCursor);
    }
}

TEST_F(CacheTest, ForgetsTheOldestKeyPicturesBeyondFifteen)
{
    PushVideo(0, 60000, 1000);
    EXPECT_EQ(15U, pProg->nKeptKeys);
    EXPECT_GE(CursorTime(), 60000U - 12500U);
    EXPECT_EQ(CursorTime() - 15000, FirstTime());
    EXPECT_EQ(2 * 15U, Cached(CursorTime() - 1).size()) << "two packets each";
}

TEST_F(CacheTest, CursorOutlivesWhatLaterTrimsRemove)
{
    PushVideo(0, 30000, 700);  // keys come and go while the cursor moves on
    PushVideo(30100, 50000, 0);
    PushVideo(50100, 80000, 900);
    ListNode *p = pProg->Pktq.pFirst;
    while (p && p != pProg->pCacheCursor)
        p = p->pNext;
    EXPECT_NE(nullptr, p);
}

// A stamp that is not after the start block's trims nothing, however far it lies before it; a guarded server
// begins anew.
TEST_F(CacheTest, TimeThatGoesBack)
{
    for (int bGuarded : {0, 1}) {
        g_server.bSurvivePeerFaults = bGuarded;
        ProgramClearCache(pProg);
        PushVideo(20000, 20500, 1000);
        Push({0, 0, 0, 1});
        EXPECT_EQ(bGuarded ? 1U : 13U, ListCount(&pProg->Pktq));
    }
    g_server.bSurvivePeerFaults = 0;
}

TEST_F(CacheTest, WithoutKeysWholePicturesWithinTheSpanStay)
{
    PushVideo(0, 12500, 0);
    Push({12600, 0, 0, 1});
    EXPECT_THAT(output, HasSubstr(kWarning));
    EXPECT_EQ(2700U, FirstTime()) << "the first picture that is younger than the span";
    ProgramClearCache(pProg);
    for (uint32_t n = 0; n <= 60000; n += 100)
        Push({n, 1});
    EXPECT_LE(ListCount(&pProg->Pktq), 126U) << "sound alone is bounded, too";
}

// A program and a player that has set the video and audio tracks up, on a real connection that takes little.
struct PlayerQueueTest : testing::Test {
    std::unique_ptr<TestServer> server;
    Program *pProg = nullptr;
    Session *pPlayer = nullptr;
    TcpPair pair;

    void Start(const std::string &settings = "")
    {
        server = std::make_unique<TestServer>(settings);
        ASSERT_TRUE(server->bRunning);
        int nSmall = 4096;
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
        pPlayer->out.nTracks = 3;
        for (int i = 0; i < 3; i++) {
            pPlayer->out.tracks[i].nPayloadType = kPayloadTypes[i];
            pPlayer->out.tracks[i].bSetUp = i < 2;
        }
    }
    void TearDown() override { server->Stop(); }

    void Push(const Packet &packet, int nTimes = 1)
    {
        server->Run([&] {
            for (int i = 0; i < nTimes; i++)
                CachePacketEx(pProg, MakePacket(packet));
        });
    }
    unsigned Waiting() const { return ListCount(&pPlayer->out.Outq); }
    // Reads what comes until nBytes are there.
    std::string Receive(size_t nBytes) const
    {
        std::string data;
        EXPECT_TRUE(WaitFor([&] {
            char bytes[65536];
            ssize_t n = recv(pair.fdPeer, bytes, sizeof(bytes), MSG_DONTWAIT);
            data.append(bytes, n > 0 ? static_cast<size_t>(n) : 0);
            return data.size() >= nBytes;
        }));
        return data;
    }
};

TEST_F(PlayerQueueTest, GivesAPlayerUpAtAThousandAndOne)
{
    Start();
    unsigned nMost = 0;
    for (int i = 0; i < 1200 && ListCount(&g_server.sessions) > 0; i++) {
        nMost = Waiting();
        Push({0, 0, i == 0, 1, 60000});  // the connection takes a few of these and is full
    }
    EXPECT_EQ(1000U, nMost);
    EXPECT_EQ(0U, ListCount(&g_server.sessions));
    EXPECT_EQ(1U, pProg->nRefs);
    Push({0, 0, 0, 1, 10});  // its program goes on
}

// A start of 1500 packets: a player that has not taken it yet is not one that cannot keep up, and over UDP
// what its socket cannot hold is held back.
TEST_F(PlayerQueueTest, StandardPlayersGetTimeForTheStart)
{
    Start("AutoDropDataWhenCrowded=1\n[INTEROP]\nStandardPlayers=1\n");
    auto play = [&] {
        server->Run([&] {
            EXPECT_EQ(1, FillBufferAtFirstPlay(pPlayer));
            pPlayer->nPlayClock = ClockMs();
            EXPECT_EQ(1, SendDataEx(pPlayer, nullptr, 1));
        });
    };
    server->Run([&] {
        pPlayer->nState = STATE_SETUP;
        for (uint32_t i = 0; i < 1500; i++)  // ten packets in each picture
            CachePacketEx(pProg, MakePacket({i / 10 * 10, 0, i == 0, i % 10 == 9, 1400}));
        pPlayer->nState = STATE_PLAYING;
    });
    auto waiting = [&] {
        unsigned n = 0;
        server->Run([&] { n = Waiting(); });
        return n;
    };
    server->Run([&] {
        pPlayer->nFlags &= ~SESSION_INTERLEAVED;
        pPlayer->tracks[0].Media = CreateUdpPort("127.0.0.1", 40000 + getpid() % 20000, "127.99.0.1", 9);
    });
    play();
    EXPECT_GT(waiting(), 1000U);
    EXPECT_TRUE(WaitFor([&] { return waiting() == 0; }));

    server->Run([&] { pPlayer->nFlags |= SESSION_INTERLEAVED; });
    play();
    EXPECT_GT(waiting(), 1000U);
    Push({1500, 0, 0, 1, 1400}, 100);
    ASSERT_EQ(1U, ListCount(&g_server.sessions)) << "not given up";
    EXPECT_GT(waiting(), 1100U) << "nor robbed";
}

TEST_F(PlayerQueueTest, CrowdedPlayerLosesMediaAndKeepsReplies)
{
    Start("AutoDropDataWhenCrowded=1\n");
    for (int i = 0; i < 300 && pPlayer->nBlockedSends < 19; i++)
        Push({0, 0, 0, 1, 60000});  // far more than the connection holds
    ASSERT_EQ(19U, pPlayer->nBlockedSends);
    server->Run([&] {
        DataBlock *pReply = MakeDataBlock("reply", 5, 0, 0, 0);
        ListInsert(&pPlayer->out.Outq, pReply, ListFirst(&pPlayer->out.Outq, 0), 1);
    });
    ASSERT_GT(Waiting(), 50U);
    Push({0, 0, 0, 1, 60000});
    EXPECT_EQ(20U, pPlayer->nBlockedSends);
    unsigned nPartial = ListFirstOf<DataBlock>(&pPlayer->out.Outq)->sent > 0;
    EXPECT_EQ(1U + nPartial, Waiting()) << "the reply, and a packet of which a part has left";

    Push({0, 1}, 10);
    EXPECT_EQ(1U + nPartial, Waiting()) << "no sound for the time being";
    std::string data;
    EXPECT_TRUE(WaitFor([&] {  // in the end the connection is blocked no more
        data += Receive(0);
        Push({0, 0, 0, 1, 100}, 51);
        return pPlayer->nBlockedSends == 0;
    }));
    Push({0, 1}, 10);
    EXPECT_GE(Waiting(), 10U) << "and with sound again";
    EXPECT_THAT(data + Receive(0), HasSubstr("reply"));
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
