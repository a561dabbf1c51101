// Pushers that go, and come back: what their players get.
#include "client/rtppacket.h"
#include "system/mediakit.h"
#include "system/systemtest.h"

using namespace orx;

struct HoldTest : SystemTest {
    Camera first{{Coding::H264, Coding::G711}}, second{{Coding::H264, Coding::G711}};
    Viewer tcp, udp{RTSP_OVER_UDP};

    void StartWatched(const std::string &seconds)
    {
        server.Set("INTEROP", "StandardPushers=1\nStandardPlayers=1\nHoldPlayers", seconds);
        server.Start();
        ASSERT_EQ(1, first.Open(server.Url("/cam")));
        for (Viewer *p : {&tcp, &udp})
            ASSERT_EQ(1, p->Open(server.Url("/cam")));
        first.Send(50);
        ASSERT_TRUE(WatchPictures({&tcp, &udp}, 20));
    }
    // Another start of the camera: numbers, stamps and sources of its own.
    void Restart()
    {
        for (CameraTrack &track : second.tracks) {
            track.stream.nSequence = 4711;
            track.stream.nSsrc += 0x01000000;
        }
        ASSERT_EQ(1, second.Open(server.Url("/cam")));
        second.Send(50);
    }
    // Every packet follows the one before in number, source and time, and none is missing but the last, which wait
    // for more.
    void ExpectOneStream(const Viewer &viewer)
    {
        for (size_t i = 0; i < first.tracks.size(); i++) {
            const CameraTrack &track = first.tracks[i];
            MediaUnits units = viewer.Units(i, track.codec);
            EXPECT_GT(units.size(), track.sent.size());
            EXPECT_TRUE((JoinData(track.sent) + JoinData(second.tracks[i].sent)).starts_with(JoinData(units))) << i;
            uint32_t nStamp = GetBe(viewer.packets[i][0].data() + 4, 4);
            for (const std::string &packet : viewer.packets[i]) {
                EXPECT_EQ(track.stream.nSsrc, GetBe(packet.data() + 8, 4));
                EXPECT_GE(GetBe(packet.data() + 4, 4), nStamp);
                nStamp = GetBe(packet.data() + 4, 4);
            }
        }
    }
    static size_t CountByes(const Viewer &viewer, const Camera &camera)
    {
        size_t nByes = 0;
        for (const std::string &report : viewer.reports)
            for (const CameraTrack &track : camera.tracks) {
                char bye[8] = "\x81\xCB\0\x02";
                PutBe(bye + 4, 4, track.stream.nSsrc);
                nByes += report.find(std::string(bye, 8)) != std::string::npos;
            }
        return nByes;
    }
    void ExpectTheEnd()
    {
        EXPECT_TRUE(Watch({&tcp, &udp}, [&] { return tcp.client.bClosed && udp.client.bClosed; }));
        for (Viewer *p : {&tcp, &udp})
            EXPECT_TRUE(Watch({p}, [&] { return CountByes(*p, first) == 2; })) << CountByes(*p, first);
    }
};

TEST_F(HoldTest, PlayersGoOnWithWhoComesBack)
{
    StartWatched("600");
    RtspClose(&first.client);
    ASSERT_TRUE(server.WaitOutput("Program(/cam) waits for its pusher, 600 s.\r\n"));
    Viewer late;
    EXPECT_EQ(1, late.Prepare(server.Url("/cam")));
    Restart();
    EXPECT_TRUE(server.WaitOutput("ResumeLiveProgram(Uri=/cam)"));
    ASSERT_TRUE(WatchPictures({&tcp, &udp}, 75));
    for (const Viewer *p : {&tcp, &udp})
        ExpectOneStream(*p);
}

TEST_F(HoldTest, PlayersGoOnWithWhoTakesOver)
{
    StartWatched("600");
    Restart();
    EXPECT_EQ(1, RtspWaitClosed(&first.client));
    ASSERT_TRUE(WatchPictures({&tcp, &udp}, 75));
    for (const Viewer *p : {&tcp, &udp})
        ExpectOneStream(*p);
}

TEST_F(HoldTest, PlayersEndWithWhoLeaves)
{
    StartWatched("600");
    ASSERT_NE(0, RtspSend(&first.client, "TEARDOWN", nullptr));
    ExpectTheEnd();
}

TEST_F(HoldTest, PlayersEndWithoutHold)
{
    StartWatched("0");
    RtspClose(&first.client);
    ExpectTheEnd();
}

TEST_F(HoldTest, PlayersEndWhenNobodyComes)
{
    StartWatched("1");
    RtspClose(&first.client);
    ExpectTheEnd();
}

TEST_F(HoldTest, PlayersEndWhenSomethingElseComes)
{
    StartWatched("600");
    RtspClose(&first.client);
    ASSERT_TRUE(server.WaitOutput("waits for its pusher"));
    Camera other({Coding::JPEG, Coding::G711});
    ASSERT_EQ(1, other.Open(server.Url("/cam")));
    ExpectTheEnd();
    Viewer late;
    ASSERT_EQ(1, late.Open(server.Url("/cam")));
    other.Send(60);
    EXPECT_TRUE(WatchPictures({&late}, 3));
}
