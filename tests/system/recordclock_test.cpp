// Recordings as hours and days go by. The server runs inside the test, so that its clocks can be moved.
#include <memory>

#include "base/bytes.h"
#include "system/localserver.h"
#include "system/mediakit.h"
#include "system/systemtest.h"

using namespace orx;

struct RecordClockTest : testing::Test {
    TempDir dir;
    std::unique_ptr<LocalServer> server;
    std::unique_ptr<Camera> camera;

    void Start(const std::string &storage, const std::string &settings = "")
    {
        server.reset();  // the one before
        server = std::make_unique<LocalServer>("EnableFilePrg=1\n" + settings +
                                               "[STORAGE]\nRecordEnable=1\nRecordPath=" + dir.path + "\n" + storage);
        camera = std::make_unique<Camera>(std::vector{Coding::H264, Coding::G711});
        ASSERT_EQ(1, camera->Open(server->Url("/cam")));
    }
};

// Several files of one recording give what the camera sent, without a gap.
TEST_F(RecordClockTest, FilesFollowEachOther)
{
    Start("MinutePerFile=2\n");
    ASSERT_EQ("200 OK", camera->Record("EventType=1"));
    camera->Send(60);
    server->MoveWallClock(60);
    camera->Send(30);  // not yet
    server->MoveWallClock(122);
    camera->Send(40);  // at picture 100, the next key picture
    server->MoveWallClock(244);
    camera->Send(60);  // at picture 150
    RtspClose(&camera->client);
    std::vector<std::string> files;
    ASSERT_TRUE(WaitFor([&] {
        files = FilesBelow(dir.path);
        return files.size() == 3 && CountText(files[2], ".tm!") == 0;
    }));
    static const size_t pictures[] = {100, 50, 40};
    Viewer viewers[3];
    for (size_t i = 0; i < 3; i++) {
        EXPECT_THAT(files[i], testing::MatchesRegex("cam/20[0-9]{6}/S[0-9]{6}\\.zmf"));
        const std::string head = ReadFile(dir.File(files[i])).substr(0, 168);
        EXPECT_EQ(i, GetBe(head.data() + 134, 2)) << "the number in the recording";
        EXPECT_EQ(pictures[i], GetBe(head.data() + 44, 4));
        ASSERT_EQ(1, viewers[i].Open(server->Url("/" + files[i])));
    }
    EXPECT_TRUE(Watch({&viewers[0], &viewers[1], &viewers[2]}, [&] {
        std::string video, sound;
        for (const Viewer &viewer : viewers) {
            video += JoinData(viewer.Units(0, Coding::H264));
            sound += JoinData(viewer.Units(1, Coding::G711));
        }
        return video == JoinData(camera->tracks[0].sent) && sound == JoinData(camera->tracks[1].sent);
    }));
}

TEST_F(RecordClockTest, FilesBeginAndEndByTheWallClock)
{
    constexpr int64_t kDay = 86400;
    const std::string dated = "cam/20[0-9]{6}/[SAM][0-9]{6}\\.zmf", named = "a-20[0-9]{6}-[0-9]{6}\\.zmf";
    const struct {
        const char *szWhat, *szStorage, *szParam;
        std::vector<std::pair<int, int64_t>> steps;         // pictures sent, and where the wall clock stands then
        std::vector<std::pair<std::string, size_t>> files;  // what comes of it: patterns of names, pictures
    } cases[] = {
        {"what follows a named file has its time in its name",
         "MinutePerFile=1\n",
         "FileName=",
         {{25, 0}, {25, 61}, {25, 122}, {1, 183}},
         {{named, 25}, {named, 25}, {named, 1}, {"a\\.zmf", 25}}},
        {"minutes and limit count on from a clock that was set back",
         "MinutePerFile=1\n",
         "LimitLen=200&FileName=",
         {{25, kDay}, {25, 0}, {25, 61}, {1, 300}, {25, 300}},
         {{named, 25}, {named, 1}, {"a\\.zmf", 50}}},
        {"the limit counts all files, and takes the picture that is over it",
         "MinutePerFile=10\n",
         "LimitLen=1000&EventType=2",
         {{25, 0}, {25, 601}, {24, 700}, {10, 1002}},
         {{dated, 25}, {dated, 50}}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.szWhat);
        Start(c.szStorage);
        server->MoveWallClock(c.steps[0].second);
        std::string param = c.szParam;
        ASSERT_EQ("200 OK", camera->Record(param.back() == '=' ? param + dir.File("a.zmf") : param));
        for (const auto &[nPictures, nSeconds] : c.steps) {
            server->MoveWallClock(nSeconds);
            camera->Send(nPictures);
        }
        ASSERT_EQ("200 OK", camera->Record("Cmd=stop"));
        EXPECT_EQ(0U, DiskAwait(60000));  // of those that ended by themselves
        std::vector<std::string> files = FilesBelow(dir.path);
        ASSERT_EQ(c.files.size(), files.size());
        for (size_t i = 0; i < files.size(); i++) {
            EXPECT_THAT(files[i], testing::MatchesRegex(c.files[i].first));
            EXPECT_EQ(c.files[i].second, CountPictures(ReadFile(dir.File(files[i])))) << files[i];
        }
        for (const auto &entry : std::filesystem::directory_iterator(dir.path))
            std::filesystem::remove_all(entry);
    }
}

// As far back as the cache reaches, to a key picture; one comes every second.
TEST_F(RecordClockTest, AlarmsBeginBeforeTheAlarm)
{
    static const struct {
        const char *szStorage;
        size_t nBefore;  // of 250 pictures, whose program is twenty seconds old
    } cases[] = {{"PreRecordLen=3\n", 75}, {"PreRecordLen=10\n", 250}, {"PreRecordLen=0\n", 0}, {"", 75}};
    for (const auto &c : cases) {
        Start(c.szStorage);
        camera->Send(250);
        server->MoveClock(20000);
        ASSERT_EQ("200 OK", camera->Record("EventType=2&FileName=" + dir.File("a.zmf")));
        camera->Send(26);
        RtspClose(&camera->client);
        ASSERT_TRUE(WaitFor([&] { return FilesBelow(dir.path) == std::vector<std::string>{"a.zmf"}; }));
        EXPECT_EQ(26 + c.nBefore, CountPictures(ReadFile(dir.File("a.zmf")))) << c.szStorage;
        std::filesystem::remove(dir.File("a.zmf"));
    }
}

bool SaysBye(const std::string &report)
{
    return report.find("completed", report.find(std::string("\x81\xCB\0\x05", 4))) != std::string::npos;
}

// Where reports are on, they end with a goodbye for each track, ten seconds after the ones before.
TEST_F(RecordClockTest, RecordingsSayBye)
{
    Start("", "EnableRtcp=1\n");
    ASSERT_EQ("200 OK", camera->Record("FileName=" + dir.File("a.zmf")));
    camera->Send(100);
    ASSERT_EQ("200 OK", camera->Record("Cmd=stop"));
    std::deque<Viewer> viewers;
    for (RtspTransport transport : {RTSP_OVER_TCP, RTSP_OVER_UDP, RTSP_OVER_TUNNEL}) {
        ASSERT_EQ(1, viewers.emplace_back(transport).Open(server->Url("/a.zmf")));
    }
    server->MoveClock(3000);  // all of it is due
    for (Viewer &viewer : viewers)
        ExpectAllOf(*camera, &viewer);
    auto ended = [&] {
        int nEnded = 0;
        server->server.Run([&] {
            for (auto *p = static_cast<Session *>(ListFirst(&g_server.sessions, 0)); p;
                 p = static_cast<Session *>(ListNext(&g_server.sessions, p, 0)))
                nEnded += p->nState == STATE_FINISHED;
        });
        return nEnded == 3;
    };
    ASSERT_TRUE(WaitFor(ended));
    for (Viewer &viewer : viewers)
        EXPECT_EQ(0, std::count_if(viewer.reports.begin(), viewer.reports.end(), SaysBye));
    server->MoveClock(14000);
    for (Viewer &viewer : viewers)
        EXPECT_TRUE(Watch({&viewer},
                          [&] { return std::count_if(viewer.reports.begin(), viewer.reports.end(), SaysBye) == 2; }));
}
