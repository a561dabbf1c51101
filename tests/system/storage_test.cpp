// Recordings on a disk that runs full, and what is left of them when the power goes.

#include <csignal>
#include <filesystem>
#include <map>
#include <optional>
#include <random>

#include "base/bytes.h"
#include "support/namespaces.h"
#include "system/localserver.h"
#include "system/recordingtest.h"

using namespace orx;

using testing::ElementsAre;
using testing::EndsWith;

constexpr size_t kMegabyte = 1024 * 1024;
constexpr size_t kReserve = 30;  // megabytes that every recording keeps free
constexpr char kNoSpace[] = "200 NOT enough space to RECORD.";

// A server that records on a disk of its own while somebody watches. It runs inside the test, so that names
// can be given a second each.
struct SmallDisk {
    TempDir dir;
    std::string root = dir.File("rec");
    std::optional<LocalServer> server;
    Camera camera{{Coding::JPEG}};
    Viewer live;
    int64_t nSeconds = 0;

    ~SmallDisk()
    {
        server.reset();
        umount2(root.c_str(), MNT_DETACH);
    }
    std::string File(const std::string &name) const { return root + "/" + name; }
    bool Has(const std::string &name) const { return std::filesystem::exists(File(name)); }

    // Room for so much beyond the reserve. Returns false when that may not be had.
    bool Mount(size_t nMegabytes)
    {
        std::filesystem::create_directories(root);
        return EnterNamespaces(CLONE_NEWNS) &&
               MountEmpty(root.c_str(), ("size=" + std::to_string(kReserve + nMegabytes) + "m").c_str());
    }
    void Start(const std::string &storage)
    {
        server.emplace("EnableFilePrg=1\n[STORAGE]\nRecordEnable=1\nRecordPath=" + root + "\n" + storage);
        camera.nJpegBytes = 50000;  // and a little more
        ASSERT_EQ(1, camera.Open(server->Url("/cam")));
        ASSERT_EQ(1, live.Open(server->Url("/cam")));
    }
    // A file from before, the later in the calls the younger.
    void Make(const std::string &name, size_t nMegabytes) const
    {
        static auto stamp = std::filesystem::file_time_type::clock::now() - std::chrono::hours(24);
        std::filesystem::create_directories(std::filesystem::path(File(name)).parent_path());
        WriteFile(File(name), std::string(nMegabytes * kMegabyte, 'x'));
        std::filesystem::last_write_time(File(name), stamp += std::chrono::seconds(1));
    }
    size_t FreeMegabytes() const { return std::filesystem::space(root).available / kMegabyte; }
    // About a megabyte of pictures, with a player that keeps up, and ten seconds go by.
    void SendMegabyte()
    {
        for (int i = 0; i < 20; i++) {
            camera.Send(1);
            live.Poll();
        }
        server->MoveWallClock(nSeconds += 10);
    }
    // The files below the root with such names; those that are being written end with ".tm!".
    std::vector<std::string> Files(const std::string &prefix = "", const std::string &suffix = "") const
    {
        std::vector<std::string> files = FilesBelow(root);
        std::erase_if(files,
                      [&](const std::string &name) { return !name.starts_with(prefix) || !name.ends_with(suffix); });
        return files;
    }
    // How many of a list are there; the rest must be gone from its front.
    size_t CountLeft(const std::vector<std::string> &oldest) const
    {
        size_t nGone = 0;
        while (nGone < oldest.size() && !Has(oldest[nGone]))
            nGone++;
        for (size_t i = nGone; i < oldest.size(); i++)
            EXPECT_TRUE(Has(oldest[i])) << oldest[i] << " went out of turn";
        return oldest.size() - nGone;
    }
    // Who watched missed nothing, whatever became of the recording; the end of the last picture may wait for
    // more.
    void ExpectWatched()
    {
        const MediaUnits &sent = camera.tracks[0].sent;
        ASSERT_TRUE(Answers(&camera.client) && Answers(&camera.client));
        EXPECT_TRUE(WatchPictures({&live}, sent.size() - 1));
        EXPECT_TRUE(JoinData(sent).starts_with(JoinData(live.Units(0, Coding::JPEG))));
    }
    // The files hold, whole and without a gap, the last pictures that were sent, or the first ones. Returns
    // how many.
    size_t ExpectPlays(const std::vector<std::string> &files, bool bLast = true)
    {
        std::string played;
        size_t nPictures = 0;
        for (const std::string &name : files) {
            Viewer viewer;
            EXPECT_EQ(1, viewer.Open(server->Url("/" + name))) << name;
            EXPECT_TRUE(WatchPictures({&viewer}, CountPictures(ReadFile(File(name))))) << name;
            played += JoinData(viewer.Units(0, Coding::JPEG));
            nPictures += viewer.nPictures;
        }
        const std::string sent = JoinData(camera.tracks[0].sent);
        EXPECT_TRUE(bLast ? sent.ends_with(played) : sent.starts_with(played));
        return nPictures;
    }
};

void OnSmallDisk(size_t nMegabytes, const std::function<void(SmallDisk *)> &test)
{
    InChildProcess("may not mount a file system of its own", [&] {
        SmallDisk disk;
        if (!disk.Mount(nMegabytes))
            return false;
        test(&disk);
        return true;
    });
}

// The oldest of the program go, nobody else's; the recording goes on, and its last minutes are whole.
TEST(FullDisk, LosesTheOldestFirst)
{
    OnSmallDisk(12, [](SmallDisk *pDisk) {
        const std::vector<std::string> oldest = {"cam/20200101/S080000.zmf", "cam/20200101/A070000.zmf",
                                                 "cam/20200103/M000001.zmf", "cam/20200105/S000000.zmf"};
        const std::vector<std::string> others = {"cam/20190101.bad/S000000.zmf", "cam/2019/S000000.zmf",
                                                 "cam/20200103/notes.txt", "other/20180101/S000000.zmf"};
        for (const auto *pNames : {&others, &oldest})
            for (const std::string &name : *pNames)
                pDisk->Make(name, 1);
        pDisk->Start("MinutePerFile=1\n");
        EXPECT_EQ("200 OK", pDisk->camera.Record("EventType=1"));
        EXPECT_EQ(oldest.size(), pDisk->CountLeft(oldest)) << "there is room";
        for (int i = 0; i < 18; i++) {
            pDisk->SendMegabyte();
            EXPECT_GE(pDisk->FreeMegabytes(), kReserve - 2) << i;
            EXPECT_EQ(1U, pDisk->Files("cam/", ".tm!").size()) << i;
            pDisk->CountLeft(oldest);
        }
        EXPECT_EQ(0U, pDisk->CountLeft(oldest));
        EXPECT_FALSE(pDisk->Has("cam/20200101"));
        EXPECT_TRUE(pDisk->Has("cam/20200103.bad/notes.txt"));
        for (const std::string &name : others)
            EXPECT_EQ(name.find("notes") == std::string::npos, pDisk->Has(name)) << name;
        pDisk->ExpectWatched();
        RtspClose(&pDisk->camera.client);
        EXPECT_TRUE(WaitFor([&] { return pDisk->Files("", ".tm!").empty(); }));
        std::vector<std::string> files = pDisk->Files("cam/202");
        std::erase_if(files, [](const std::string &name) { return name < "cam/2021"; });
        EXPECT_GT(pDisk->ExpectPlays(files), 60U);
    });
}

// Where nothing may be deleted, recordings end in good order, and nothing is left of those that are refused.
TEST(FullDisk, EndsRecordingsWhereNothingMayBeDeleted)
{
    OnSmallDisk(6, [](SmallDisk *pDisk) {
        pDisk->Make("cam/20200101/S000000.zmf", 3);
        pDisk->Start("MinutePerFile=5\nAutoDelOldFile=0\n");
        EXPECT_EQ("200 OK", pDisk->camera.Record("EventType=1"));
        for (int i = 0; i < 5; i++)
            pDisk->SendMegabyte();
        std::vector<std::string> files = pDisk->Files();
        EXPECT_THAT(files, ElementsAre("cam/20200101/S000000.zmf", EndsWith(".zmf")));
        EXPECT_EQ(kNoSpace, pDisk->camera.Record("EventType=1"));
        EXPECT_EQ(kNoSpace, pDisk->camera.Record("EventType=2&FileName=" + pDisk->File("x.zmf")));
        EXPECT_EQ(files, pDisk->Files());
        pDisk->ExpectWatched();
        std::filesystem::remove(pDisk->File(files[0]));
        EXPECT_EQ("200 OK", pDisk->camera.Record("EventType=1"));
    });
}

// Somebody else takes the last byte while a recording is written.
TEST(FullDisk, LeavesWholeRecords)
{
    OnSmallDisk(4, [](SmallDisk *pDisk) {
        pDisk->Start("MinutePerFile=0\n");
        EXPECT_EQ("200 OK", pDisk->camera.Record("FileName=" + pDisk->File("a.zmf")));
        pDisk->SendMegabyte();
        WriteFile(pDisk->File("filler"), std::string((pDisk->FreeMegabytes() - 1) * kMegabyte, 'f'));
        for (int i = 0; i < 4; i++)
            pDisk->SendMegabyte();
        EXPECT_EQ(0U, pDisk->FreeMegabytes());
        EXPECT_THAT(pDisk->Files(), ElementsAre("a.zmf", "filler"));
        // its header does not claim what was lost: a reader counts for itself
        std::string file = ReadFile(pDisk->File("a.zmf"));
        EXPECT_EQ(0U, GetBe(file.data() + 40, 4));
        size_t nWhole = pDisk->ExpectPlays({"a.zmf"}, false);
        EXPECT_GT(nWhole, 20U);
        EXPECT_LT(nWhole, pDisk->camera.tracks[0].sent.size());
        pDisk->ExpectWatched();
        EXPECT_EQ(kNoSpace, pDisk->camera.Record("EventType=1"));
        std::filesystem::remove(pDisk->File("filler"));
        EXPECT_EQ("200 OK", pDisk->camera.Record("EventType=1"));
    });
}

// Where nothing is to be lost, a recording waits for room, and goes on in a new file; by itself, where the program
// is recorded always.
TEST(FullDisk, WaitsForRoom)
{
    OnSmallDisk(4, [](SmallDisk *pDisk) {
        pDisk->Start("MinutePerFile=0\nAutoDelOldFile=0\nNeverLose=1\nRecordAlways=cam\n");
        EXPECT_EQ("200 OK", pDisk->camera.Record("EventType=1"));
        pDisk->SendMegabyte();
        WriteFile(pDisk->File("filler"), std::string((pDisk->FreeMegabytes() - 1) * kMegabyte, 'f'));
        auto state = [&](size_t nOpen, size_t nFiles) {
            pDisk->camera.Send(1);
            pDisk->live.Poll();
            return pDisk->Files("cam/", ".tm!").size() == nOpen && pDisk->Files("cam/").size() >= nFiles;
        };
        EXPECT_TRUE(WaitFor([&] { return state(0, 2); })) << "both have ended their file";
        EXPECT_EQ(kNoSpace, pDisk->camera.Record("EventType=2"));
        std::filesystem::remove(pDisk->File("filler"));
        EXPECT_TRUE(WaitFor([&] { return state(2, 4); })) << "and begun another";
        RtspClose(&pDisk->camera.client);
        EXPECT_TRUE(WaitFor([&] { return pDisk->Files("", ".tm!").empty(); }));
        for (const std::string &name : pDisk->Files("cam/"))
            EXPECT_GT(CountPictures(ReadFile(pDisk->File(name))), 0U) << name;
    });
}

// --- The power goes ---

using PowerCutTest = RecordingTest;

// What was completed stays as it was. What was not is kept when it is worth it, from 65536 bytes on, and
// plays up to its last whole record.
TEST_F(PowerCutTest, KeepsWhatWasWritten)
{
    constexpr size_t kWorth = 65536;
    std::mt19937 random{20260101};
    server.Start();
    Camera before({Coding::H264});
    ASSERT_NO_FATAL_FAILURE(Record(&before, "before.zmf", 30));
    WriteFile(File("named.zmf.tm!"), std::string(kWorth, 'x'));
    WriteFile(File("small.zmf.tm!"), std::string(kWorth - 1, 'x'));
    size_t nKept = 0;
    for (int nRound = 0; nRound < (getenv("ORX_LONG") ? 50 : 4); nRound++) {
        SCOPED_TRACE(nRound);
        Camera camera({Coding::H264, Coding::G711});
        ASSERT_EQ(1, camera.Open(Url("cam")));
        ASSERT_EQ("200 OK", camera.Record("EventType=1"));
        camera.Send(100 + static_cast<int>(random() % 100));
        auto isWorth = [&](const std::string &name) {
            return name.ends_with(".tm!") && ReadFile(File(name)).size() >= kWorth;
        };
        EXPECT_TRUE(WaitFor([&] { return std::ranges::any_of(FilesBelow(root), isWorth); }));
        camera.Send(1 + static_cast<int>(random() % 5), false);  // they may be on their way
        server.Kill();
        std::map<std::string, std::string> expected, found;
        for (const std::string &name : FilesBelow(root)) {
            std::string content = ReadFile(File(name));
            size_t nOpen = name.find(".tm!");
            if (nOpen == std::string::npos || content.size() >= kWorth)
                expected[name.substr(0, nOpen)] = content;
        }
        ASSERT_NO_FATAL_FAILURE(server.Start());
        for (const std::string &name : FilesBelow(root))
            found[name] = ReadFile(File(name));
        EXPECT_TRUE(expected == found);
        std::erase_if(found, [](const auto &file) { return !file.first.starts_with("cam/"); });
        for (const auto &[name, content] : found) {
            Viewer viewer;
            ASSERT_EQ(1, viewer.Open(Url(name))) << name;
            EXPECT_TRUE(WatchPictures({&viewer}, CountPictures(content))) << name;
            EXPECT_EQ(0U, JoinData(camera.tracks[0].sent).find(JoinData(viewer.Units(0, Coding::H264))));
            std::filesystem::remove(File(name));
            nKept++;
        }
    }
    EXPECT_GT(nKept, 0U);
}
