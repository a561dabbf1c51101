#include "server/media/distribute.h"

#include <algorithm>
#include <array>
#include <memory>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "base/bytes.h"
#include "runtime/clock.h"
#include "server/media/cache.h"
#include "server/media/pace.h"
#include "server/media/send.h"
#include "support/portblock.h"
#include "support/output.h"
#include "support/playerkit.h"
#include "support/wait.h"
#include "server/core/sessionpeer.h"

namespace orx {

using testing::HasSubstr;

// A program whose cache spans ten seconds.
struct CacheTest : testing::Test {
    Program *pProg;
    uint32_t nBase = 0;  // added to all times
    std::string output;

    CacheTest()
    {
        g_settings.nCacheSeconds = 10;
        pProg = ProgramNew("/cam", &g_testOps);
    }
    ~CacheTest() override { ProgramDiscard(pProg); }

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
    std::string Cached(uint32_t nUpTo) const
    {
        std::string items;
        for (auto *p = ListFirstOf<DataBlock>(&pProg->cache.Pktq); p; p = NextBlock(p))
            if (p->nTimestamp - nBase <= nUpTo)
                items += (BlockData(p)[1] == 2 ? "a"
                          : p->nFlags & DB_KEY ? "K"
                                               : "v") +
                         std::to_string(p->nTimestamp - nBase) + " ";
        return items;
    }
    uint32_t FirstTime() const { return ListFirstOf<DataBlock>(&pProg->cache.Pktq)->nTimestamp - nBase; }
    uint32_t CursorTime() const
    {
        auto *p = ListFirstOf<DataBlock>(&pProg->cache.Pktq);
        while (p && p != pProg->cache.pCacheCursor)
            p = NextBlock(p);
        EXPECT_NE(nullptr, p) << "no block of the cache";
        return p ? p->nTimestamp - nBase : 0;
    }
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
        EXPECT_EQ(nullptr, pProg->cache.pCacheCursor);
        Push({12600, 0, 0, 1});
        EXPECT_EQ(3000U, CursorTime());
        EXPECT_EQ("K0 v0 K1000 v1000 K2000 v2000 K3000 v3000 v3100 v3100 ", Cached(3100));
        ProgramClearCache(pProg);
        EXPECT_EQ(0U, ListCount(&pProg->cache.Pktq));
        EXPECT_EQ(nullptr, pProg->cache.pCacheCursor);
    }
}

TEST_F(CacheTest, ForgetsTheOldestKeyPicturesBeyondFifteen)
{
    PushVideo(0, 60000, 1000);
    EXPECT_EQ(15U, pProg->cache.nKeptKeys);
    EXPECT_GE(CursorTime(), 60000U - 12500U);
    EXPECT_EQ(CursorTime() - 15000, FirstTime());
    EXPECT_EQ(2 * 15, std::ranges::count(Cached(CursorTime() - 1), ' ')) << "two packets each";
}

TEST_F(CacheTest, CursorOutlivesWhatLaterTrimsRemove)
{
    PushVideo(0, 30000, 700);  // keys come and go while the cursor moves on
    PushVideo(30100, 50000, 0);
    PushVideo(50100, 80000, 900);
    EXPECT_GT(CursorTime(), 60000U);
}

// A stamp that is not after the start block's trims nothing, however far it lies before it; a guarded server
// begins anew.
TEST_F(CacheTest, TimeThatGoesBack)
{
    for (int bGuarded : {0, 1}) {
        g_settings.bSurvivePeerFaults = bGuarded;
        ProgramClearCache(pProg);
        PushVideo(20000, 20500, 1000);
        Push({0, 0, 0, 1});
        EXPECT_EQ(bGuarded ? 1U : 13U, ListCount(&pProg->cache.Pktq));
    }
    g_settings.bSurvivePeerFaults = 0;
}

TEST_F(CacheTest, WithoutKeysWholePicturesWithinTheSpanStay)
{
    PushVideo(0, 12500, 0);
    Push({12600, 0, 0, 1});
    EXPECT_THAT(output,
                HasSubstr("Warning: Could NOT find the next KeyFrame to remove the items that's before it.\r\n"));
    EXPECT_EQ(2700U, FirstTime()) << "the first picture that is younger than the span";
    ProgramClearCache(pProg);
    for (uint32_t n = 0; n <= 60000; n += 100)
        Push({n, 1});
    EXPECT_LE(ListCount(&pProg->cache.Pktq), 126U) << "sound alone is bounded, too";
}

// From encoders with long distances all since the newest key picture stays, until it is more than a cache holds.
TEST_F(CacheTest, ALongGroupStaysWhole)
{
    pProg->standards.bPushers = 1;
    for (uint32_t nStart : {0U, 0xFFFFFFFFU - 45000}) {  // also where the clock wraps
        nBase = nStart;
        Push({0, 1});  // of which nothing need stay
        PushVideo(0, 60000, 40000);
        std::string cached = Cached(60000);
        EXPECT_EQ(40000U, CacheLastKey(pProg)->nTimestamp - nBase);
        EXPECT_EQ(2 * 201, std::ranges::count(cached.substr(cached.find("K40000 ")), ' '));
        EXPECT_EQ("K0 v0 ", cached.substr(0, cached.find("K40000 ")));
        ProgramClearCache(pProg);
        EXPECT_EQ(nullptr, CacheLastKey(pProg));
    }
    int64_t nMost = 0;
    for (uint32_t n = 0; n <= 600; n++) {
        Push({n * 100, 0, n == 0, 1, 60000});
        nMost = std::max(nMost, pProg->cache.held.nBytes);
    }
    EXPECT_EQ(nullptr, CacheLastKey(pProg));
    EXPECT_LE(ListCount(&pProg->cache.Pktq), 126U);
    EXPECT_GT(nMost, Megabytes(32) - 61000);
    EXPECT_LE(nMost, Megabytes(32) + 61000);
}

// A megabyte holds sixteen packets of this size, and at most once that much is kept. The oldest group goes
// first; of a group that is longer by itself what is oldest, until the next one begins.
TEST_F(CacheTest, ABoundInBytes)
{
    g_settings.nCacheMegabytes = 1;
    int64_t nMost = 0;
    auto push = [&](uint32_t nTime, int bKey) {
        Push({nTime, 0, bKey, 1, 60000});
        nMost = std::max(nMost, pProg->cache.held.nBytes);
    };
    for (uint32_t n = 0; n < 20; n++)
        push(n, n % 5 == 0);
    EXPECT_EQ("K5 v6 v7 v8 v9 K10 v11 v12 v13 v14 K15 v16 v17 v18 v19 ", Cached(100));
    for (uint32_t n = 20; n < 60; n++)
        push(n, 0);
    EXPECT_EQ(43U, FirstTime());
    EXPECT_EQ(nullptr, CacheLastKey(pProg)) << "a player begins with the next one";
    push(60, 1);
    EXPECT_EQ("K60 ", Cached(100));
    EXPECT_LE(nMost, Megabytes(1) + 61000);
    for (uint32_t n = 61; n < 200; n++)  // every picture a group, with old ones before the cursor
        push(n * 1000, 1);
    EXPECT_LE(nMost, Megabytes(1) + 61000);
    EXPECT_EQ(17U, ListCount(&pProg->cache.Pktq));
    g_settings.nCacheMegabytes = 0;
}

// Of all programs the one that keeps most gives, whoever the newest packet is for.
TEST_F(PlayerQueueTest, ABoundInBytesForAllPrograms)
{
    Start("AutoDropDataWhenCrowded=1\n");
    g_settings.nCacheMegabytesTotal = 1;
    auto *pOther = ProgramNew("/other", &g_testOps);
    pOther->nRefs = 1;
    RunOnScheduler([&] {
        ListAppend(&g_server.programs, pOther);
        for (int i = 0; i < 12; i++)
            CachePacketEx(pOther, MakePacket({0, 0, i % 4 == 0, 1, 60000}));
    });
    Push({0, 0, 1, 1, 60000}, 6);
    EXPECT_EQ(8U, ListCount(&pOther->cache.Pktq)) << "its oldest group";
    EXPECT_EQ(6U, ListCount(&pProg->cache.Pktq));
    EXPECT_EQ(g_server.nCachedBytes, pProg->cache.held.nBytes + pOther->cache.held.nBytes);
}

// A queue holds a megabyte, of standard players eight and what a start brought besides; beyond that a player
// is ended or loses media.
TEST_F(PlayerQueueTest, ABoundInBytesForAQueue)
{
    const struct {
        const char *szSettings;
        int bStart;
        int64_t nMostBytes;
        unsigned nSessions;
    } cases[] = {
        {"", 0, Megabytes(1), 0},
        {"AutoDropDataWhenCrowded=1\n", 0, Megabytes(1), 1},
        {"[INTEROP]\nStandardPlayers=1\n", 1, Megabytes(8), 0},
    };
    for (const auto &c : cases) {
        TcpPair other;
        std::swap(other.fdServer, pair.fdServer);
        std::swap(other.fdPeer, pair.fdPeer);
        Start(c.szSettings);
        g_settings.nCacheMegabytes = 1;
        RunOnScheduler([&] { pPlayer->nState = c.bStart ? STATE_SETUP : STATE_PLAYING; });
        Push({0, 0, 1, 1, 60000});
        Push({0, 0, 0, 1, 60000}, c.bStart ? 16 : 0);
        RunOnScheduler([&] {
            EXPECT_EQ(c.bStart, c.bStart && FillBufferAtFirstPlay(pPlayer));
            pPlayer->nState = STATE_PLAYING;
        });
        int64_t nMost = 0;
        for (int i = 0; i < 200 && ListCount(&g_server.sessions) > 0; i++) {
            nMost = std::max(nMost, pPlayer->out.Outq.sum.nBytes - pPlayer->flow.nStartHeld);
            EXPECT_EQ(c.bStart, pPlayer->flow.nStartHeld > Megabytes(1) / 2);
            Push({0, 0, 0, 1, 60000});
        }
        EXPECT_GT(nMost, c.nMostBytes - 130000) << c.szSettings;
        EXPECT_LE(nMost, c.nMostBytes) << c.szSettings;
        EXPECT_EQ(c.nSessions, ListCount(&g_server.sessions)) << c.szSettings;
        core.reset();
    }
}

// All queues together hold four megabytes, of starts that take one each: of those who do not read the largest
// gives, and who reads has its start and everything behind it.
TEST_F(PlayerQueueTest, ABoundInBytesForAllQueues)
{
    for (int bAutoDrop : {0, 1}) {
        TcpPair pairs[13];
        std::swap(pairs[12].fdServer, pair.fdServer);
        std::swap(pairs[12].fdPeer, pair.fdPeer);
        Start("AutoDropDataWhenCrowded=" + std::to_string(bAutoDrop) + "\n[INTEROP]\nStandardPlayers=1\n");
        g_settings.nCacheMegabytesTotal = 4;
        RunOnScheduler([&] { pPlayer->nState = STATE_SETUP; });
        Push({0, 0, 1, 1, 60000});
        Push({0, 0, 0, 1, 60000}, 15);
        int64_t nMost = 0;
        Session *pReader = nullptr;
        auto measure = [&] { nMost = std::max(nMost, g_server.nQueuedBytes + BytesLeft()); };
        size_t nReceived = 0;
        auto read = [&](size_t nBytes) {
            return WaitFor([&] {
                RunOnScheduler([&] { EXPECT_EQ(1, SendDataEx(pReader, nullptr, 1)); });
                char bytes[65536];
                for (ssize_t n; (n = recv(pairs[11].fdPeer, bytes, sizeof(bytes), MSG_DONTWAIT)) > 0;)
                    nReceived += static_cast<size_t>(n);
                return nReceived == nBytes;
            });
        };
        for (int i = 0; i < 12; i++)
            RunOnScheduler([&] {
                int nRoom = 40000;  // a packet or two leave
                for (int fd : {pairs[i].fdServer, pairs[i].fdPeer})
                    setsockopt(fd, SOL_SOCKET, fd == pairs[i].fdPeer ? SO_RCVBUF : SO_SNDBUF, &nRoom, sizeof(nRoom));
                pReader = AddPlayer(pairs[i].fdServer);
                EXPECT_EQ(1, FillBufferAtFirstPlay(pReader));
                EXPECT_EQ(1, SendDataEx(pReader, nullptr, 1));
                measure();
            });
        for (size_t n = 16; n < 160; n++) {  // what the cache holds no more is left to those who do not read
            ASSERT_TRUE(read(n * (60000 + kInterleaveBytes + kRtpHeaderBytes))) << n;
            Push({0, 0, 0, 1, 60000});
            RunOnScheduler(measure);
        }
        EXPECT_LE(nMost, Megabytes(4));
        EXPECT_EQ(bAutoDrop, ListCount(&g_server.sessions) == 13);
        core.reset();
        EXPECT_EQ(0, g_server.nQueuedBytes);
    }
}

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

// Of a long start a part is queued at once and the rest in further tasks; what is pushed and what is forgotten
// meanwhile leaves no hole, nothing comes twice, and the order stays.
TEST_F(PlayerQueueTest, ALongStartIsQueuedInParts)
{
    Start("[INTEROP]\nStandardPlayers=1\n");
    constexpr uint32_t kPackets = 20000;
    uint32_t nNext = 0;
    auto push = [&](uint32_t n) {
        for (uint32_t nEnd = nNext + n; nNext < nEnd; nNext++)
            CachePacketEx(pProg, MakePacket({nNext / 100, 0, nNext == 0, 1, 1400}));
    };
    RunOnScheduler([&] {
        pPlayer->nState = STATE_SETUP;
        push(kPackets);
        EXPECT_EQ(1, FillBufferAtFirstPlay(pPlayer));
        pPlayer->play.nPlayClock = ClockMs();
        pPlayer->nState = STATE_PLAYING;
        push(60);
    });
    EXPECT_TRUE(WaitFor([&] {
        DataBlock *pLeft = nullptr;
        RunOnScheduler([&] { pLeft = pPlayer->start.pNext; });
        return pLeft == nullptr;
    }));
    RunOnScheduler([&] {
        push(40);
        uint32_t nLeft = pPlayer->out.Outq.sum.nBytes ? Waiting() : 0;
        EXPECT_GT(nLeft, kPackets - 1000);
        for (uint32_t i = 0; nLeft > 0; nLeft--)
            ASSERT_EQ((nNext - nLeft) / 100, QueueAt(&pPlayer->out.Outq, i++)->pBlock->nTimestamp);
    });
}

// A flush that goes on with a player who leaves meanwhile goes on with the next.
TEST_F(PlayerQueueTest, AFlushOutlivesThePlayerItIsAt)
{
    Start();
    RunOnScheduler([&] {
        pProg->flush.pNext = pPlayer;
        SessionEnd(pPlayer);
        EXPECT_EQ(nullptr, pProg->flush.pNext);
    });
}

// A start of 1500 packets: a player that has not taken it yet is not one that cannot keep up, and over UDP
// what its socket cannot hold is held back.
TEST_F(PlayerQueueTest, StandardPlayersGetTimeForTheStart)
{
    const PortBlock ports;
    Start("AutoDropDataWhenCrowded=1\n[INTEROP]\nStandardPlayers=1\n");
    auto play = [&](int bInterleaved) {
        unsigned nWaiting = 0;
        RunOnScheduler([&] {
            pPlayer->out.bInterleaved = bInterleaved;
            EXPECT_EQ(1, FillBufferAtFirstPlay(pPlayer));
            pPlayer->play.nPlayClock = ClockMs();
            EXPECT_EQ(1, SendDataEx(pPlayer, nullptr, 1));
            nWaiting = Waiting();
        });
        return nWaiting;
    };
    RunOnScheduler([&] {
        pPlayer->nState = STATE_SETUP;
        for (uint32_t i = 0; i < 1500; i++)  // ten packets in each picture
            CachePacketEx(pProg, MakePacket({i / 10 * 10, 0, i == 0, i % 10 == 9, 1400}));
        pPlayer->nState = STATE_PLAYING;
        const Port *pPort = SessionPeerPort(pPlayer);
        pPlayer->tracks[0].Media = CreateUdpPort(&pPort->local, ports.nFirst, &pPort->remote, 9);
    });
    EXPECT_GT(play(0), 1000U);
    EXPECT_TRUE(WaitFor([&] {
        unsigned nWaiting = 1;
        RunOnScheduler([&] { nWaiting = Waiting(); });
        return nWaiting == 0;
    }));
    EXPECT_GT(play(1), 1000U);
    Push({1500, 0, 0, 1, 1400}, 100);
    ASSERT_EQ(1U, ListCount(&g_server.sessions)) << "not given up";
    EXPECT_GT(Waiting(), 1100U) << "nor robbed";
    Push({1500, 0, 0, 1, 65000}, 140);
    ASSERT_EQ(1U, ListCount(&g_server.sessions)) << "one that never takes it";
    EXPECT_LE(Waiting(), 50U) << "is a crowded player like others";
}

// Groups of 21 packets for a player that does not read: what has begun to leave stays, of the others the
// newest; after 30 seconds the player is ended.
TEST_F(PlayerQueueTest, WholeGroupsAreDropped)
{
    Start("AutoDropDataWhenCrowded=1\n[INTEROP]\nStandardPlayers=1\n");
    RunOnScheduler([&] { pProg->desc.nVideoTrack = 0; });
    for (uint32_t i = 0; i < 10; i++) {
        Push({i * 40, 0, 1, 1, 60000});
        Push({i * 40 + 20, 0, 0, 1, 60000}, 20);
        unsigned nSinceKey = 0;
        const DataBlock *pBefore = nullptr;
        for (uint32_t n = 0; n < Waiting(); n++) {
            const DataBlock *p = QueueAt(&pPlayer->out.Outq, n)->pBlock;
            nSinceKey = BlockStartsKey(p) ? 0 : nSinceKey + 1;
            EXPECT_TRUE(!BlockStartsKey(p) || !pBefore || pBefore->nTimestamp % 40 == 20);
            pBefore = p;
        }
        EXPECT_EQ(20U, nSinceKey) << "the newest is whole";
        EXPECT_LE(pPlayer->out.Outq.sum.nBytes, Megabytes(8) + 61000);
    }
    ASSERT_EQ(1U, ListCount(&g_server.sessions));
    for (uint32_t i = 1; i < 5 && ListCount(&g_server.sessions) == 1; i++) {  // the kernel may find some room yet
        ClockSetOffset(i * 31000);
        Push({400, 0, 1, 1, 60000}, 52);
    }
    EXPECT_EQ(0U, ListCount(&g_server.sessions));
    ClockSetOffset(0);
}

TEST_F(PlayerQueueTest, CrowdedPlayerLosesMediaAndKeepsReplies)
{
    Start("AutoDropDataWhenCrowded=1\n");
    const Packet picture{0, 0, 0, 1, 60000}, sound{0, 1};
    for (int i = 0; i < 300 && pPlayer->flow.nBlockedSends < 19; i++)
        Push(picture);  // far more than the connection holds
    ASSERT_EQ(19U, pPlayer->flow.nBlockedSends);
    RunOnScheduler([&] {
        DataBlock *pReply = MakeDataBlock("reply", 5, 0, 0, 0);
        QueueInsert(&pPlayer->out.Outq, 1, {pReply});
    });
    ASSERT_GT(Waiting(), 50U);
    unsigned nPartial = QueueFirst(&pPlayer->out.Outq)->nSent > 0;
    Push(picture);
    EXPECT_EQ(20U, pPlayer->flow.nBlockedSends);
    EXPECT_EQ(1U + nPartial, Waiting()) << "the reply, and a packet of which a part has left";
    Push(sound, 10);
    EXPECT_EQ(1U + nPartial, Waiting()) << "no sound for the time being";
    std::string data;
    EXPECT_TRUE(WaitFor([&] {  // in the end the connection is blocked no more, and there is sound again
        data += Receive(0);
        Push({0, 0, 0, 1, 100}, 51);
        Push(sound);
        return data.find("$\2") != std::string::npos;
    }));
    EXPECT_THAT(data, HasSubstr("reply"));
}

TEST_F(RecordingQueueTest, RepliesPassWhatIsNotYetDue)
{
    ASSERT_NO_FATAL_FAILURE(StartPlaying());
    std::string expected;
    RunOnScheduler([&] {
        expected = Queue({0, 0}, 5);
        for (const Packet &packet : {Packet{900, 1}, {5000000, 0}, {5000000, 0, 0, 1}})
            expected += Queue(packet);
        for (uint32_t i = 0; i < 2; i++)
            Queue({5000040 + i, static_cast<int>(i)});
        for (const char *szReply : {"one", "two"}) {
            EXPECT_EQ(1, SendReply(pPlayer, pPlayer->peer.Cmd, szReply, 3));
            expected += szReply;
        }
        EXPECT_EQ(1, SendReply2(pPlayer, pPlayer->peer.Cmd, "three", 5, "body", 4, kQueueEnd));
        expected += "threebody";
    });
    EXPECT_EQ(expected, Receive(expected.size())) << "a picture that has begun is sent whole";
    EXPECT_EQ(2U, Waiting());
}

// A reply that could not leave is not passed by the next one, whatever has become of the media before it.
TEST_F(RecordingQueueTest, RepliesKeepTheirOrder)
{
    ASSERT_NO_FATAL_FAILURE(StartPlaying());
    RunOnScheduler([&] {
        pPlayer->play.nPlayPos = 5000000;
        Queue({5000040, 0});
        QueueAppend(&pPlayer->out.Outq, {MakeDataBlock("one", 3, 0, 0, 0)});
        Queue({5000080, 0});
        EXPECT_EQ(1, SendReply(pPlayer, pPlayer->peer.Cmd, "two", 3));
        EXPECT_EQ(4U, Waiting());
        EXPECT_STREQ("two", reinterpret_cast<const char *>(RefData(QueueAt(&pPlayer->out.Outq, 2))));
    });
}

// Over UDP 20 ms of a rate leave at once, and no more than that is saved: of a live program twice its own, of a
// recording more the later it is.
TEST_F(CacheTest, RoomForDatagramsGrowsWithTime)
{
    g_settings.bStandardPlayers = 1;
    for (const auto &[bLive, nOwnRate, nLateMs, nRate] :
         {std::array{1, 100, 0, 3200}, {1, 5000, 0, 10000}, {0, 5000, 0, 3200}, {0, 0, 60000, 9 * 3200}})
        for (uint32_t nStart : {1000U, 0U - 12}) {  // also where the clock wraps
            ClockSetOffset(0);
            uint32_t nBegin = nStart - ClockMs();
            Session session;
            session.pProg = pProg;
            pProg->bLive = bLive;
            pProg->cache.nBytesPerMs = static_cast<uint32_t>(nOwnRate);
            session.play.nPlayClock = nStart - static_cast<uint32_t>(nLateMs);
            session.play.nPlayPos = nLateMs ? 0 : 1000000;
            session.flow.nRoomClock = nStart - 5000;
            // at a time, ms: what may leave, and what then leaves, in ms of the rate
            for (const auto &[nAt, nRoom, nSent] :
                 {std::array{0, 20, 21}, {0, -1, 0}, {5, 4, 3}, {15, 11, 0}, {25, 20, 0}, {9000, 20, 0}}) {
                ClockSetOffset(nBegin + static_cast<uint32_t>(nAt));
                PaceMakeRoom(&session);
                int nSlack = ClockDiff(ClockMs(), nStart + static_cast<uint32_t>(nAt)) + 1;  // of a busy machine
                EXPECT_GE(session.flow.nRoom, nRoom * nRate) << bLive << nAt;
                EXPECT_LE(session.flow.nRoom, std::min(nRoom + nSlack, 20) * nRate) << bLive << nAt;
                session.flow.nRoom -= nSent * nRate;
            }
            session.pProg = nullptr;
        }
    ClockSetOffset(0);
    g_settings.bStandardPlayers = 0;
}

// Over UDP the second ahead comes at four times real time: at once it would be more than a socket holds.
TEST_F(RecordingQueueTest, LeadOverUdpGrows)
{
    ASSERT_NO_FATAL_FAILURE(StartPlaying());
    RunOnScheduler([&] {
        for (const auto &[bInterleaved, nSinceMs, nLeast, nMost] :
             {std::array{1, 0, 1000, 1000}, {0, 0, 0, 900}, {0, 100, 300, 900}, {0, 9000, 1000, 1000}}) {
            pPlayer->out.bInterleaved = bInterleaved;
            pPlayer->play.nPlayClock = ClockMs() - static_cast<uint32_t>(nSinceMs);
            int32_t nLead = PaceOf(pPlayer).nLead;
            EXPECT_TRUE(nLead >= nLeast && nLead <= nMost) << nLead << " after " << nSinceMs;
        }
        pPlayer->out.bInterleaved = 1;
    });
}

}  // namespace orx
