// Pushers that go, and come back: what their players get.
#include <algorithm>
#include <regex>

#include "client/rtppacket.h"
#include "system/mediakit.h"
#include "system/systemtest.h"

using namespace orx;

struct HoldTest : SystemTest {
    TempDir dir;  // of recordings
    Camera first{{Coding::H264, Coding::G711}}, second{{Coding::H264, Coding::G711}};
    Viewer tcp, udp{RTSP_OVER_UDP};

    void StartWatched(const std::string &seconds)
    {
        server.Set("INTEROP", "StandardPushers=1\nStandardPlayers=1\nHoldPlayers", seconds);
        server.Set("STORAGE", "RecordEnable=1\nNeverLose=1\nRecordAlways=cam\nRecordPath", dir.path);
        server.Start();
        ASSERT_EQ(1, first.Open(server.Url("/cam")));
        for (Viewer *p : {&tcp, &udp})
            ASSERT_EQ(1, p->Open(server.Url("/cam")));
        first.Send(50);
        ASSERT_TRUE(WatchPictures({&tcp, &udp}, 20));
    }
    // Another start of the camera: numbers, stamps, sources and a payload type of its own.
    void Restart()
    {
        for (CameraTrack &track : second.tracks) {
            track.stream.nSequence = 4711;
            track.stream.nSsrc += 0x01000000;
        }
        second.tracks[0].stream.nPayloadType = 111;
        std::string sdp = std::regex_replace(second.Sdp(), std::regex("96"), "111");
        ASSERT_EQ(1, RtspOpenPusher(&second.client, server.Url("/cam").c_str(), sdp));
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
                EXPECT_EQ(track.stream.nPayloadType, packet[1] & 0x7F);
                EXPECT_GE(GetBe(packet.data() + 4, 4), nStamp);
                nStamp = GetBe(packet.data() + 4, 4);
            }
        }
    }
    // The recording has what both have sent, in one file.
    void ExpectOneRecording()
    {
        ASSERT_NE(0, RtspSend(&second.client, "TEARDOWN", nullptr));
        std::vector<std::string> files;
        ASSERT_TRUE(WaitFor([&] {
            files = FilesBelow(dir.path);
            return files.size() == 1 && files[0].ends_with(".zmf");
        })) << files.size();
        std::vector<uint32_t> times = PictureTimes(ReadFile(dir.File(files[0])));
        EXPECT_EQ(100U, times.size());
        EXPECT_TRUE(std::ranges::is_sorted(times, std::less_equal<>()));
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
    EXPECT_EQ(1, late.Open(server.Url("/cam")));
    Restart();
    EXPECT_TRUE(server.WaitOutput("ResumeLiveProgram(Uri=/cam)"));
    ASSERT_TRUE(WatchPictures({&tcp, &udp}, 75));
    EXPECT_TRUE(WatchPictures({&late}, 50));
    for (const Viewer *p : {&tcp, &udp})
        ExpectOneStream(*p);
    ExpectOneRecording();
}

TEST_F(HoldTest, PlayersGoOnWithWhoTakesOver)
{
    StartWatched("600");
    Restart();
    EXPECT_EQ(1, RtspWaitClosed(&first.client));
    ASSERT_TRUE(WatchPictures({&tcp, &udp}, 75));
    for (const Viewer *p : {&tcp, &udp})
        ExpectOneStream(*p);
    ExpectOneRecording();
}

// Who waits, waits for the same user.
TEST_F(HoldTest, OtherUsersDoNotTakeOver)
{
    server.Set("USERS", "SuperUser=root\nSuperPwd=r\nNumUsers=1\nUserName0=ann\nUserPwd0=a\nUserLevel0", "1");
    server.Set("GUARD", "AnnounceAuth", "1");
    server.Set("SERVER", "AuthType", "0");
    first.client.user = second.client.user = "ann";
    first.client.password = second.client.password = "a";
    StartWatched("600");
    RtspClose(&first.client);
    ASSERT_TRUE(server.WaitOutput("waits for its pusher"));
    pusher.user = "root";
    pusher.password = "r";
    EXPECT_EQ(0, RtspOpenPusher(&pusher, server.Url("/cam").c_str(), second.Sdp()));
    Restart();
    ASSERT_TRUE(WatchPictures({&tcp, &udp}, 75));
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
