#include "server/methods/play.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/playerkit.h"

namespace orx {

using testing::HasSubstr;

// Neither a packet nor a hole in their numbers, and the pace is that of the new place.
TEST_F(RecordingQueueTest, JumpsLeaveNothingFromBefore)
{
    ASSERT_NO_FATAL_FAILURE(StartPlaying());
    const std::string text = "PLAY rtsp://h/a.zmf RTSP/1.0\r\nCSeq: 1\r\nRange: npt=10-\r\n\r\n";
    std::string expected;
    RunOnScheduler([&] {
        Request request;
        RequestInit(&request);
        ASSERT_EQ(1, RequestParse(&request, text.data(), text.size()));
        expected = Queue({0, 0}, 5) + "RTSP/1.0 200 OK\r\n";
        for (int i = 0; i < 5; i++)
            Queue({40, i % 2});
        EXPECT_EQ(Verdict::Keep, HandlePlay(pPlayer, pPlayer->peer.Cmd, &request));
        EXPECT_EQ(10000U, pPlayer->play.nPlayPos);
        RequestReset(&request);
    });
    std::string data = Receive(expected.size());
    EXPECT_EQ(expected, data.substr(0, expected.size()));
    EXPECT_THAT(data, HasSubstr("\r\nRange: npt=10.000-20.100\r\n"));
    EXPECT_THAT(data, HasSubstr("trackID=0;seq=2;rtptime=1,url=rtsp://h/a.zmf/trackID=0;seq=500;rtptime=1\r\n"));
}

// A reply that waits is not overtaken by the one to PLAY, nor is that by the media that PLAY queues.
TEST_F(PlayerQueueTest, RepliesToPlayKeepTheirPlace)
{
    Start("[INTEROP]\nStandardPlayers=1\n");
    const std::string text = "PLAY rtsp://h/cam RTSP/1.0\r\nCSeq: 1\r\n\r\n";
    RunOnScheduler([&] {
        Request request;
        RequestInit(&request);
        ASSERT_EQ(1, RequestParse(&request, text.data(), text.size()));
        pPlayer->nState = STATE_SETUP;
        CachePacketEx(pProg, MakePacket({0, 0, 1, 1}));
        QueueAppend(&pPlayer->out.Outq, {MakeDataBlock("first", 5, 0, 0, 0)});
        EXPECT_EQ(Verdict::Keep, HandlePlay(pPlayer, pPlayer->peer.Cmd, &request));
        RequestReset(&request);
    });
    EXPECT_THAT(Receive(200), testing::MatchesRegex("firstRTSP/1.0 200 OK\r\n.*RTP-Info: [^$]*\r\n\r\n[$].*"));
}

}  // namespace orx
