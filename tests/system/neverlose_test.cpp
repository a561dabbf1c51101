// Recordings that go on, whatever becomes of clocks, disks and the server.
#include <csignal>
#include <filesystem>
#include <memory>

#include "base/bytes.h"
#include "system/localserver.h"
#include "system/recordingtest.h"

using namespace orx;

using testing::ElementsAre;
using testing::MatchesRegex;

constexpr char kDated[] = "cam/20[0-9]{6}/M[0-9]{6}\\.zmf";

// A camera whose clock is set: the recording goes on in the next file, with sound in step, and who watches
// misses nothing. Key pictures come each 25.
TEST(NeverLose, BeginsANewFileWhereTheClockJumps)
{
    static const struct {
        const char *szWhat;
        int nPictures;       // by which the clock jumps, behind picture 60
        uint32_t nGoBy;      // ms that go by meanwhile
        size_t pictures[2];  // of the files
    } cases[] = {
        {"forward", 500, 0, {60, 45}},          {"by hours", 25 * 20000, 0, {60, 45}},   {"back", -50, 0, {60, 45}},
        {"a little forward", 225, 0, {120, 0}}, {"slow pictures", 500, 20000, {120, 0}},
    };
    for (int bStandard : {0, 1}) {
        for (const auto &c : cases) {
            SCOPED_TRACE(std::string(c.szWhat) + (bStandard ? ", StandardPushers" : ""));
            TempDir dir;
            LocalServer server(
                "[INTEROP]\nStandardPushers=" + std::to_string(bStandard) +
                "\n[STORAGE]\nRecordEnable=1\nNeverLose=1\nRecordAlways=other c*\nRecordPath=" + dir.path + "\n");
            Camera camera({Coding::H264, Coding::G711});
            Viewer live;
            ASSERT_EQ(1, camera.Open(server.Url("/cam")));
            ASSERT_EQ(1, live.Open(server.Url("/cam")));
            camera.Send(60);
            server.MoveClock(c.nGoBy);
            camera.nPicture += c.nPictures;
            camera.Send(60);
            ASSERT_TRUE(Answers(&camera.client) && Answers(&camera.client));  // each second read sends
            EXPECT_TRUE(WatchPictures({&live}, 115)) << "the last ones may wait for more";
            RtspClose(&camera.client);
            std::vector<std::string> files;
            ASSERT_TRUE(WaitFor([&] {
                files = FilesBelow(dir.path);
                return files.size() == (c.pictures[1] ? 2U : 1U) &&
                       std::ranges::none_of(files, [](const std::string &name) { return name.ends_with(".tm!"); });
            }));
            for (size_t i = 0; i < files.size(); i++) {
                EXPECT_THAT(files[i], MatchesRegex(kDated));
                const std::string file = ReadFile(dir.File(files[i]));
                EXPECT_EQ(c.pictures[i], CountPictures(file));
                EXPECT_EQ(0U, PictureTimes(file)[0]);
                EXPECT_NEAR((c.pictures[i] - 1) * 40.0 + 20 + (files.size() == 1 ? c.nPictures * 40 : 0),
                            GetBe(file.data() + 40, 4), bStandard ? 40 : 0)
                    << "up to the last sound; tracks of standard pushers begin as they arrive";
            }
        }
    }
}

// A program of RecordAlways is recorded whenever it is there, beside all that is asked for.
TEST(NeverLose, RecordsAlwaysWhateverElseIsAsked)
{
    TempDir dir;
    LocalServer server(
        "LowEnergyMode=1\n[STORAGE]\nRecordEnable=1\nNeverLose=1\nRecordAlways=cam\nRecordPath=" + dir.path + "\n");
    for (size_t nRound = 1; nRound <= 3; nRound++) {  // its pusher comes back
        Camera camera({Coding::H264});
        ASSERT_EQ(1, camera.Open(server.Url("/cam")));
        camera.Send(20);
        for (const char *szParam : {"EventType=1", "EventType=2", "EventType=3", "EventType=1", "EventType=1"})
            EXPECT_EQ("200 OK", camera.Record(szParam));
        for (int i = 0; i < 3; i++)
            EXPECT_EQ("200 OK", camera.Record("Cmd=stop"));
        camera.Send(20);
        auto count = [&](const char *szPattern) {
            return std::ranges::count_if(FilesBelow(dir.path), [&](const std::string &name) {
                return testing::Matches(MatchesRegex(std::string("cam/20[0-9]{6}/") + szPattern))(name);
            });
        };
        EXPECT_EQ(4, count(".*tm!")) << "itself and those that are not manual";
        RtspClose(&camera.client);
        EXPECT_TRUE(WaitFor([&] { return count(".*tm!") == 0; }));
        size_t nWhole = 0;
        for (const std::string &name : FilesBelow(dir.path))
            nWhole += name.find("/M") != std::string::npos && CountPictures(ReadFile(dir.File(name))) == 40;
        EXPECT_EQ(nRound, nWhole);
    }
}

// What could not begin begins once it can, and says so once.
TEST(NeverLose, TriesAgainToRecordAlways)
{
    TempDir dir;
    LocalServer server("[STORAGE]\nRecordEnable=1\nRecordAlways=cam\nRecordPath=" + dir.path + "\n");
    WriteFile(dir.File("cam"), "in the way");
    Camera camera({Coding::H264});
    ASSERT_EQ(1, camera.Open(server.Url("/cam")));
    testing::internal::CaptureStdout();
    for (uint32_t i = 0; i < 5; i++) {
        camera.Send(25);
        EXPECT_EQ(0U, DiskAwait(60000));
        camera.Send(25);
        server.MoveClock(6000 * (i + 1));
    }
    EXPECT_EQ(1, CountText(testing::internal::GetCapturedStdout(), "cannot be recorded now"));
    std::filesystem::remove(dir.File("cam"));
    camera.Send(50);
    RtspClose(&camera.client);
    EXPECT_TRUE(WaitFor([&] {
        std::vector<std::string> files = FilesBelow(dir.path);
        return files.size() == 1 && CountPictures(ReadFile(dir.File(files[0]))) == 50;
    }));
}

// Old days go at start and each hour, of every program.
TEST(KeepDays, IsLookedAtEachHour)
{
    TempDir dir;
    auto make = [&](const char *szName) {
        std::filesystem::create_directories(std::filesystem::path(dir.File(szName)).parent_path());
        WriteFile(dir.File(szName), "old");
    };
    auto isLeft = [&](size_t n) { return WaitFor([&, n] { return FilesBelow(dir.path).size() == n; }); };
    make("cam/20200101/S000000.zmf");
    make("a/b/20991231/S000000.zmf");
    LocalServer server("[STORAGE]\nKeepDays=2\nRecordPath=" + dir.path + "\n");
    EXPECT_TRUE(isLeft(1));
    make("a/b/20200102/M000000.zmf");
    server.MoveClock(3599000 - 60000);
    EXPECT_EQ(0U, DiskAwait(60000));
    EXPECT_TRUE(isLeft(2));
    server.MoveClock(3601000);
    EXPECT_TRUE(isLeft(1));
}

// --- The server dies ---

using RepairTest = RecordingTest;

// Killed at any time it loses two seconds at most; the next run repairs what it left, and records on.
TEST_F(RepairTest, GoesOnAfterItWasKilled)
{
    server.Set("STORAGE", "NeverLose", "1");
    server.Set("STORAGE", "RecordAlways", "cam*");
    ASSERT_NO_FATAL_FAILURE(server.Start());
    const struct {
        int nPictures;
        const char *szPath;
    } cameras[] = {{500, "cam1"}, {10, "cam2"}};  // one that is large, and one of less than 64 kB
    std::vector<std::unique_ptr<Camera>> pushers;
    for (const auto &c : cameras) {
        pushers.push_back(std::make_unique<Camera>(std::vector{Coding::H264, Coding::G711}));
        ASSERT_EQ(1, pushers.back()->Open(Url(c.szPath)));
        pushers.back()->Send(c.nPictures);
    }
    auto pictures = [&](const std::string &path) {
        std::vector<size_t> counts;
        for (const std::string &name : FilesBelow(File(path)))
            counts.push_back(CountPictures(ReadFile(File(path + "/" + name))));
        return counts;
    };
    for (const auto &c : cameras)
        EXPECT_TRUE(WaitFor([&] { return pictures(c.szPath) == std::vector{size_t(c.nPictures)}; }, 3000));
    server.Kill();
    WriteFile(File("nothing.zmf.tm!"), "not even a header");
    ASSERT_NO_FATAL_FAILURE(server.Start());
    EXPECT_TRUE(server.WaitOutput("is repaired: ", 2)) << server.Output();
    for (const auto &c : cameras) {
        for (const std::string &name : FilesBelow(File(c.szPath))) {
            EXPECT_THAT(std::string(c.szPath) + "/" + name, MatchesRegex("cam./20[0-9]{6}/M[0-9]{6}\\.zmf"));
            const std::string file = ReadFile(File(std::string(c.szPath) + "/" + name));
            EXPECT_EQ(static_cast<uint32_t>(c.nPictures), GetBe(file.data() + 44, 4));
            EXPECT_GE(GetBe(file.data() + 40, 4), static_cast<uint32_t>(c.nPictures - 1) * 40);
        }
        Camera camera({Coding::H264});
        ASSERT_EQ(1, camera.Open(Url(c.szPath)));
        camera.Send(30);
        RtspClose(&camera.client);
        EXPECT_TRUE(WaitFor([&] {
            return testing::Matches(testing::UnorderedElementsAre(static_cast<size_t>(c.nPictures), 30U))(
                pictures(c.szPath));
        }));
    }
    EXPECT_FALSE(std::filesystem::exists(File("nothing.zmf.tm!")) || std::filesystem::exists(File("nothing.zmf")));
}
