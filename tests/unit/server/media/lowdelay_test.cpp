#include <gtest/gtest.h>

#include "server/media/hold.h"
#include "server/media/ingest.h"
#include "server/media/passon.h"
#include "support/playerkit.h"

namespace orx {

// A player, and a pusher whose reads the test makes.
struct LowDelayTest : PlayerQueueTest {
    TcpPair pusherPair;
    Session *pPusher = nullptr;

    void StartPushed(const std::string &keys)
    {
        Start("[INTEROP]\nStandardPlayers=1\n" + keys);
        RunOnScheduler([&] {
            pPusher = CreateSession(CreateTcpPort(pusherPair.fdServer));
            pPusher->nFlags = SESSION_PUSHER;
            pPusher->nState = STATE_PLAYING;
            pPusher->pProg = pProg;
            pProg->pPusher = pPusher;
            pProg->nRefs++;
            pProg->desc.nTrackCount = 2;
            pProg->desc.mediaInfos[0].nMediaType = MEDIA_VIDEO_OTHER;
            pProg->desc.mediaInfos[1].nMediaType = MEDIA_AUDIO_OTHER;
        });
    }
    // On the scheduler thread. How many packets wait for the player after it.
    unsigned Read(const std::vector<Packet> &packets, size_t nBytes = 1)
    {
        for (const Packet &packet : packets)
            PassPacketOn(pProg, static_cast<unsigned>(packet.nTrack), MakePacket(packet));
        FlushAfterRead(pPusher, nBytes);
        return Waiting();
    }
};

// The network decides how much one read brings. What a camera sent at once, and nothing after it, does not stay.
TEST_F(LowDelayTest, TheRestOfABurstLeavesSoon)
{
    StartPushed("LowDelay=0\n");
    RunOnScheduler([&] {
        const std::vector<Packet> pictures(8);
        EXPECT_EQ(0U, Read(pictures));
        EXPECT_EQ(8U, Read(pictures)) << "a short one";
        EXPECT_EQ(0U, Read(pictures));
        EXPECT_EQ(8U, Read(pictures, pPusher->input.nTotal));
    });
    EXPECT_TRUE(WaitFor([&] {
        unsigned nWaiting = 1;
        RunOnScheduler([&] { nWaiting = Waiting(); });
        return nWaiting == 0;
    }));
}

// What a read brings, and what waits behind it, with the key and without.
struct Step {
    std::vector<Packet> packets;
    unsigned nLeft, nLeftWithout;
};
static const Step g_steps[] = {
    {{{0}, {0}}, 2, 2},       {{{0, 0, 0, 1}}, 0, 3},           // the marker
    {{{40}}, 1, 4},           {{{80}}, 0, 5},                   // another stamp: the picture before had no marker
    {{{80, 0, 0, 1}}, 0, 0},  {{{120, 0, 0, 1}, {160}}, 0, 2},  // with the beginning of the next
    {{{160}}, 1, 3},          {{{160}, {150, 1}}, 0, 5},        // sound
    {{{160, 0, 0, 1}}, 0, 0}, {{{200, 0, 0, 1}, {240}, {240, 0, 0, 1}}, 0, 3},
};

TEST_F(LowDelayTest, WhatIsWholeLeavesWithItsRead)
{
    StartPushed("LowDelay=1\n");
    RunOnScheduler([&] {
        for (const Step &step : g_steps)
            EXPECT_EQ(step.nLeft, Read(step.packets)) << &step - g_steps;
        EXPECT_EQ(2U, SchedulerTaskCount(&g_server.scheduler)) << "one for all that waited, one for reports";
    });
}

// More than five packets leave with every odd read, whatever they are.
TEST_F(LowDelayTest, WithoutTheKeyPacketsAreCounted)
{
    StartPushed("");
    RunOnScheduler([&] {
        for (const Step &step : g_steps)
            EXPECT_EQ(step.nLeftWithout, Read(step.packets)) << &step - g_steps;
        EXPECT_EQ(1U, SchedulerTaskCount(&g_server.scheduler));
    });
}

// Once for each that waits; not while it may still become whole, and what came behind a marker has its own
// time.
TEST_F(LowDelayTest, ByTheTimerAtLast)
{
    StartPushed("LowDelay=1\n");
    for (int i = 0; i < 3; i++) {
        uint32_t nFrom = 0;
        RunOnScheduler([&] {
            EXPECT_EQ(1U, Read({{uint32_t(80 * i)}}));
            EXPECT_EQ(0U, Read({{uint32_t(80 * i), 0, 0, 1}}));
            nFrom = ClockMs();
            EXPECT_EQ(1U, Read({{uint32_t(80 * i + 40)}}));
            pProg->desc.mediaInfos[0].bOpenPicture = 0;
        });
        EXPECT_TRUE(WaitFor([&] {
            unsigned nWaiting = 1;
            RunOnScheduler([&] { nWaiting = Waiting(); });
            return nWaiting == 0;
        }));
        EXPECT_GE(ClockMs() - nFrom, 4U);
    }
    RunOnScheduler([&] { EXPECT_EQ(1U, SchedulerTaskCount(&g_server.scheduler)) << "that for reports"; });
}

// The tasks of a flush and of the timer end with the pusher; what the next one sends leaves all the same.
TEST_F(LowDelayTest, GoesOnWithTheNextPusher)
{
    StartPushed("LowDelay=1\n");
    RunOnScheduler([&] {
        pProg->flush.bTask = pProg->flush.bTimer = 1;
        Description same = pProg->desc;
        HoldResume(pProg, &same);
        EXPECT_EQ(0U, Read({{0, 0, 0, 1}}));
        EXPECT_EQ(1U, Read({{40}}));
        EXPECT_EQ(1, pProg->flush.bTimer);
    });
}

}  // namespace orx
