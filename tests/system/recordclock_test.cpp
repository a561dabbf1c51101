// Recordings as hours and days go by. The server runs inside the test, so that its clocks can be moved.
#include <atomic>
#include <ctime>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "base/bytes.h"
#include "record/storage.h"
#include "runtime/clock.h"
#include "server/server.h"
#include "system/recordingtest.h"

namespace orx {
namespace {

using testing::ElementsAre;
using testing::MatchesRegex;

const RtspTransport kTransports[] = {RTSP_OVER_TCP, RTSP_OVER_UDP, RTSP_OVER_TUNNEL};

struct RecordClockTest : testing::Test {
    TempDir dir;
    PortBlock ports;
    std::string root = dir.File("rec");
    Camera camera{{Codec::H264, Codec::G711}};

    std::string Url(const std::string &name) const
    {
        return "rtsp://127.0.0.1:" + std::to_string(ports.nFirst) + "/" + name;
    }
    std::string File(const std::string &name) const { return root + "/" + name; }

    // Pushers may be silent for as long as can be: a jump of the clock is no silence of theirs.
    void Start(const std::string &storage)
    {
        WriteFile(dir.File("orx.cfg"), "[SERVER]\nAuthType=0\nLiveTime=120\nEnableFilePrg=1\nListenPort=" +
                                           std::to_string(ports.nFirst) +
                                           "\nUdpStartPort=" + std::to_string(ports.nFirst + 16) +
                                           "\nUdpEndPort=" + std::to_string(ports.nFirst + 500) +
                                           "\n[STORAGE]\nRecordEnable=1\nRecordPath=" + root + "\n" +
                                           storage + "[GUARD]\nRunUnprivileged=1\n");
        ASSERT_EQ(1, ServerStart(dir.File("orx.cfg").c_str()));
        ASSERT_EQ(1, camera.Open(Url("cam")));
    }
    void TearDown() override
    {
        ServerStop();
        RecordTimeSetOffset(0);
        ClockSetOffset(0);
    }
    // Moves the wall clock of recordings, on the thread that reads it. What is sent later may overtake the
    // task, so its end is waited for.
    void SetWallClock(int64_t nSeconds)
    {
        static int64_t nOffset;
        static std::atomic<bool> bSet;
        camera.Flush();
        nOffset = nSeconds;
        bSet = false;
        TaskSchedule(
            &g_server.scheduler,
            [](Task *, uint32_t, uint32_t, uint32_t) {
                RecordTimeSetOffset(nOffset);
                bSet = true;
                return -1;
            },
            0, 0, nullptr);
        ASSERT_TRUE(WaitFor([] { return bSet.load(); }));
    }
    void Stop()
    {
        camera.Flush();
        ASSERT_EQ("200 OK", RecordEx(&camera.client, "Cmd=stop"));
    }
    uint32_t HeaderNumber(const std::string &name, size_t nAt, size_t nBytes) const
    {
        std::string file = ReadFile(File(name));
        return file.size() < 168 ? ~0U : GetBe(file.data() + nAt, nBytes);
    }
    size_t Pictures(const std::string &name) const
    {
        std::string file = ReadFile(File(name));
        return CountPictures(file, file.size());
    }
};

// Several files of one recording, played over each transport, give what the camera sent, without a gap.
TEST_F(RecordClockTest, FilesFollowEachOther)
{
    Start("MinutePerFile=2\n");
    ASSERT_EQ("200 OK", RecordEx(&camera.client, "EventType=1"));
    camera.Send(60);
    SetWallClock(100);
    camera.Send(30);  // not yet
    SetWallClock(122);
    camera.Send(40);  // at picture 100, the next key picture
    SetWallClock(244);
    camera.Send(20);  // at picture 150
    camera.Send(60);
    RtspClose(&camera.client);
    std::vector<std::string> files;
    ASSERT_TRUE(WaitFor([&] {
        files = FilesBelow(root);
        return files.size() == 3 && files[2].find(".tm!") == std::string::npos;
    }));
    static const size_t pictures[] = {100, 50, 60};
    std::vector<Viewer> viewers(9);
    std::vector<Viewer *> all;
    for (size_t i = 0; i < 9; i++) {
        viewers[i].transport = kTransports[i % 3];
        ASSERT_EQ(1, viewers[i].Prepare(Url(files[i / 3])));
        EXPECT_NE("", viewers[i].Request("PLAY"));
        all.push_back(&viewers[i]);
    }
    WatchToTheEnd(all);
    MediaUnits got[3];
    std::string sound[3];
    for (size_t i = 0; i < 3; i++) {
        EXPECT_THAT(files[i], MatchesRegex("cam/20[0-9]{6}/S[0-9]{6}\\.zmf"));
        EXPECT_EQ(i, HeaderNumber(files[i], 134, 2)) << "the number in the recording";
        EXPECT_EQ(pictures[i], HeaderNumber(files[i], 44, 4));
        EXPECT_EQ(pictures[i] / 25 + (i == 2), HeaderNumber(files[i], 128, 4)) << "key pictures";
        for (size_t k = 0; k < 3; k++) {
            MediaUnits part = viewers[3 * i + k].Units(0, Codec::H264);
            ASSERT_FALSE(part.empty());
            EXPECT_TRUE(part[0].bKey);
            EXPECT_EQ(0U, part[0].nTimeMs);
            got[k].insert(got[k].end(), part.begin(), part.end());
            sound[k] += JoinData(viewers[3 * i + k].Units(1, Codec::G711));
        }
    }
    for (size_t k = 0; k < 3; k++) {
        EXPECT_TRUE(camera.tracks[0].sent == got[k]) << "transport " << k;
        EXPECT_TRUE(JoinData(camera.tracks[1].sent) == sound[k]) << "transport " << k;
    }
}

TEST_F(RecordClockTest, NamesWhatFollowsANamedFile)
{
    Start("MinutePerFile=1\n");
    ASSERT_EQ("200 OK", RecordEx(&camera.client, "FileName=" + File("night.zmf") + "&EventType=3"));
    for (int i = 1; i <= 3; i++) {
        camera.Send(25);
        SetWallClock(61 * i);
    }
    camera.Send(1);
    Stop();
    std::vector<std::string> files = FilesBelow(root);
    ASSERT_EQ(4U, files.size());
    for (size_t i = 0; i < 3; i++) {
        EXPECT_THAT(files[i], MatchesRegex("night-20[0-9]{6}-[0-9]{6}\\.zmf"));
        EXPECT_EQ(i + 1, HeaderNumber(files[i], 134, 2));
    }
    EXPECT_EQ("night.zmf", files[3]);
    EXPECT_EQ(25U, Pictures("night.zmf"));
    EXPECT_EQ(1U, Pictures(files[2]));
}

TEST_F(RecordClockTest, BeginsADirectoryForEachDay)
{
    Start("MinutePerFile=60\n");
    ASSERT_EQ("200 OK", RecordEx(&camera.client, "EventType=3"));
    camera.Send(25);
    SetWallClock(86400);
    camera.Send(25);
    SetWallClock(2 * 86400 - 3700);  // the clock is set back by an hour: the file goes on
    camera.Send(25);
    Stop();
    std::vector<std::string> files = FilesBelow(root);
    ASSERT_GE(files.size(), 2U);
    EXPECT_NE(files[0].substr(0, 12), files[1].substr(0, 12));
    EXPECT_EQ(25U, Pictures(files[0]));
}

TEST_F(RecordClockTest, GoesOnWhenTheClockIsSetBack)
{
    Start("MinutePerFile=1\n");
    SetWallClock(86400);
    ASSERT_EQ("200 OK", RecordEx(&camera.client, "LimitLen=200&FileName=" + File("a.zmf")));
    camera.Send(25);
    SetWallClock(0);
    camera.Send(25);
    EXPECT_THAT(FilesBelow(root), ElementsAre("a.zmf.tm!"));
    SetWallClock(61);  // a minute from then on
    camera.Send(25);
    camera.Flush();
    EXPECT_EQ(2U, FilesBelow(root).size());
    SetWallClock(300);  // and the limit, too
    camera.Send(1);
    camera.Flush();
    EXPECT_EQ("200 OK", RecordEx(&camera.client, "Cmd=stop"));
    for (const std::string &name : FilesBelow(root))
        EXPECT_THAT(name, testing::EndsWith(".zmf"));
}

TEST_F(RecordClockTest, ZeroMinutesAreOneFile)
{
    Start("MinutePerFile=0\n");
    ASSERT_EQ("200 OK", RecordEx(&camera.client, "FileName=" + File("a.zmf")));
    for (int i = 1; i <= 3; i++) {
        camera.Send(25);
        SetWallClock(86400 * i);
    }
    Stop();
    EXPECT_THAT(FilesBelow(root), ElementsAre("a.zmf"));
    EXPECT_EQ(75U, Pictures("a.zmf"));
}

TEST_F(RecordClockTest, LimitCountsAllFiles)
{
    Start("MinutePerFile=1\n");
    ASSERT_EQ("200 OK", RecordEx(&camera.client, "LimitLen=100&EventType=2"));
    camera.Send(25);
    SetWallClock(61);
    camera.Send(25);
    SetWallClock(95);
    camera.Send(24);
    camera.Flush();
    std::vector<std::string> files = FilesBelow(root);
    ASSERT_EQ(2U, files.size());
    EXPECT_THAT(files[1], testing::EndsWith(".tm!"));
    SetWallClock(102);
    camera.Send(10);
    camera.Flush();
    files = FilesBelow(root);
    ASSERT_EQ(2U, files.size());
    EXPECT_EQ(25U, Pictures(files[0]));
    EXPECT_EQ(50U, Pictures(files[1])) << "the picture that is over the limit is in";
}

struct PreRecordCase {
    uint32_t nAgeMs;  // of the program when the alarm comes
    const char *szStorage;
    int nFirst;  // picture of 250 with which the recording begins; 250: with the next one
};

// The newest picture is number 249; a key picture comes every second.
TEST_F(RecordClockTest, AlarmsBeginBeforeTheAlarm)
{
    static const PreRecordCase cases[] = {
        {20000, "PreRecordLen=3\n", 175}, {20000, "PreRecordLen=10\n", 0}, {20000, "PreRecordLen=0\n", 250},
        {20000, "PreRecordLen=1\n", 225}, {1500, "PreRecordLen=3\n", 225}, {20000, "", 175},
    };
    for (const PreRecordCase &c : cases) {
        SCOPED_TRACE(c.szStorage + std::to_string(c.nAgeMs));
        ClockSetOffset(0);
        Camera another({Codec::H264, Codec::G711});
        RtspClose(&camera.client);
        Start(c.szStorage);
        ASSERT_EQ(1, another.Open(Url("alarmed")));
        another.Send(250);
        another.Flush();
        ClockSetOffset(c.nAgeMs);
        ASSERT_EQ("200 OK", RecordEx(&another.client, "EventType=2&FileName=" + File("a.zmf")));
        another.Send(26);
        another.Flush();
        RtspClose(&another.client);
        ASSERT_TRUE(WaitFor([&] { return FilesBelow(root) == std::vector<std::string>{"a.zmf"}; }));
        EXPECT_EQ(static_cast<size_t>(276 - c.nFirst), Pictures("a.zmf"));
        ServerStop();
        std::filesystem::remove(File("a.zmf"));
    }
    Start("");
}

}  // namespace
}  // namespace orx
