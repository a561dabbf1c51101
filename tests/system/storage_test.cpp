// Recordings on a disk that runs full, and what is left of them when the power goes.
#include <sys/stat.h>
#include <sys/statvfs.h>

#include <algorithm>
#include <csignal>
#include <ctime>
#include <deque>
#include <filesystem>
#include <map>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "record/storage.h"
#include "server/server.h"
#include "support/namespaces.h"
#include "support/sockets.h"
#include "system/recordingtest.h"

namespace orx {
namespace {

using testing::ElementsAre;

const bool kLong = getenv("ORX_LONG") != nullptr;
constexpr size_t kMegabyte = 1024 * 1024;
constexpr char kNoSpace[] = "200 NOT enough space to RECORD.";
constexpr char kSkip[] = "may not mount a file system of its own";

// A server inside the test that records on a disk of its own, so that names can be given a second each.
struct SmallDisk {
    TempDir dir;
    PortBlock ports;
    std::string root = dir.File("rec");
    Camera camera{{Codec::JPEG}};
    int64_t nOffset = 0;
    bool bRunning = false;

    ~SmallDisk()
    {
        if (bRunning)
            ServerStop();
        RecordTimeSetOffset(0);
        umount2(root.c_str(), MNT_DETACH);
    }
    bool Mount(int nMegabytes)
    {
        std::filesystem::create_directories(root);
        camera.nJpegBytes = 50000;  // and a little more
        return EnterNamespaces(CLONE_NEWNS) &&
               MountEmpty(root.c_str(), ("size=" + std::to_string(nMegabytes) + "m").c_str());
    }
    std::string Url(const std::string &name) const
    {
        return "rtsp://127.0.0.1:" + std::to_string(ports.nFirst) + "/" + name;
    }
    std::string File(const std::string &name) const { return root + "/" + name; }
    void Start(const std::string &storage)
    {
        WriteFile(dir.File("orx.cfg"),
                  "[SERVER]\nAuthType=0\nEnableFilePrg=1\nListenPort=" + std::to_string(ports.nFirst) +
                      "\n[STORAGE]\nRecordEnable=1\nRecordPath=" + root + "\n" + storage +
                      "[GUARD]\nRunUnprivileged=1\n");
        bRunning = ServerStart(dir.File("orx.cfg").c_str()) != 0;
        ASSERT_TRUE(bRunning);
        ASSERT_EQ(1, camera.Open(Url("cam")));
    }
    // A file from before, the later in the calls the younger.
    void Make(const std::string &name, size_t nBytes)
    {
        static time_t tStamp = time(nullptr) - 100000;
        std::filesystem::create_directories(std::filesystem::path(File(name)).parent_path());
        WriteFile(File(name), std::string(nBytes, 'x'));
        timespec times[2] = {{++tStamp, 0}, {tStamp, 0}};
        ASSERT_EQ(0, utimensat(AT_FDCWD, File(name).c_str(), times, 0));
    }
    size_t FreeMegabytes() const
    {
        struct statvfs info {};
        statvfs(root.c_str(), &info);
        return size_t{info.f_bavail} * info.f_frsize / kMegabyte;
    }
    // About a megabyte of pictures, with a player that keeps up, and ten seconds go by.
    void SendMegabyte(Viewer *pLive = nullptr)
    {
        for (int i = 0; i < 20; i++) {
            camera.Send(1);
            camera.Flush();
            if (pLive)
                pLive->Poll();
        }
        RecordTimeSetOffset(nOffset += 10);  // nobody reads it now
    }
    size_t PicturesIn(const std::vector<std::string> &files) const
    {
        size_t n = 0;
        for (const std::string &name : files) {
            std::string file = ReadFile(File(name));
            n += CountPictures(file, file.size());
        }
        return n;
    }
};

// Those of a list that are there. The rest must be gone from its front.
size_t CountLeft(const SmallDisk &disk, const std::vector<std::string> &oldest)
{
    size_t nGone = 0;
    while (nGone < oldest.size() && !std::filesystem::exists(disk.File(oldest[nGone])))
        nGone++;
    for (size_t i = nGone; i < oldest.size(); i++)
        EXPECT_TRUE(std::filesystem::exists(disk.File(oldest[i]))) << oldest[i] << " went out of turn";
    return oldest.size() - nGone;
}

// The pictures of recordings, joined as they follow each other.
MediaUnits PlayAll(const SmallDisk &disk, const std::vector<std::string> &files)
{
    std::deque<Viewer> viewers;
    std::vector<Viewer *> all;
    for (const std::string &name : files) {
        Viewer *pViewer = &viewers.emplace_back();
        EXPECT_EQ(1, pViewer->Prepare(disk.Url(name))) << name;
        pViewer->Request("PLAY");
        all.push_back(pViewer);
    }
    WatchToTheEnd(all);
    MediaUnits units;
    for (const Viewer &viewer : viewers) {
        MediaUnits part = viewer.Units(0, Codec::JPEG);
        units.insert(units.end(), part.begin(), part.end());
    }
    return units;
}

// A player of the live program gets everything from some picture on, but for what still waits for more.
void ExpectWatched(SmallDisk *pDisk, Viewer *pLive)
{
    const MediaUnits &sent = pDisk->camera.tracks[0].sent;
    auto missing = [&] {
        MediaUnits got = pLive->Units(0, Codec::JPEG);
        auto first = got.empty() ? sent.end() : std::find(sent.begin(), sent.end(), got[0]);
        auto nRest = static_cast<size_t>(sent.end() - first);
        return nRest >= got.size() && std::equal(got.begin(), got.end(), first) ? nRest - got.size()
                                                                                : SIZE_MAX;
    };
    auto done = [&] {
        pDisk->camera.Flush();  // what waits for a player leaves when its camera is heard of
        return missing() <= 2;
    };
    EXPECT_TRUE(Watch({pLive}, done, 5000)) << missing();
}

// The oldest of the program go first, nobody else's; the recording goes on, and its players with it.
bool FillWithDeleting()
{
    SmallDisk disk;
    if (!disk.Mount(48))
        return false;
    const std::vector<std::string> oldest = {"cam/20200101/S080000.zmf", "cam/20200101/A070000.zmf",
                                             "cam/20200103/M000001.zmf", "cam/20200105/S000000.zmf",
                                             "cam/20200105/S000001.zmf"};
    const std::vector<std::string> others = {"cam/20190101.bad/S000000.zmf", "cam/2019/S000000.zmf",
                                             "cam/20200103/notes.txt", "other/20180101/S000000.zmf"};
    for (const std::string &name : others)
        disk.Make(name, kMegabyte);
    for (const std::string &name : oldest)
        disk.Make(name, 2 * kMegabyte);
    EXPECT_EQ(34U, disk.FreeMegabytes());
    disk.Start("MinutePerFile=5\n");
    Viewer live;
    EXPECT_EQ("200 OK", RecordEx(&disk.camera.client, "EventType=1"));
    EXPECT_EQ(1, live.Prepare(disk.Url("cam")));
    live.Request("PLAY");
    EXPECT_EQ(oldest.size(), CountLeft(disk, oldest)) << "there is room";
    for (int i = 0; i < 40; i++) {
        disk.SendMegabyte(&live);
        EXPECT_GE(disk.FreeMegabytes(), 28U) << i;
        CountLeft(disk, oldest);
        std::vector<std::string> files = FilesBelow(disk.root);
        EXPECT_EQ(1, std::count_if(files.begin(), files.end(),
                                   [](const std::string &name) {
                                       return testing::Matches(testing::EndsWith(".tm!"))(name);
                                   }))
            << i;
    }
    EXPECT_EQ(0U, CountLeft(disk, oldest));
    EXPECT_FALSE(std::filesystem::exists(disk.File("cam/20200101")));
    EXPECT_FALSE(std::filesystem::exists(disk.File("cam/20200105")));
    EXPECT_TRUE(std::filesystem::exists(disk.File("cam/20200103.bad/notes.txt")));
    for (const std::string &name : others)
        EXPECT_EQ(name.find("notes") == std::string::npos, std::filesystem::exists(disk.File(name))) << name;

    ExpectWatched(&disk, &live);

    // what is left of today are its last minutes, whole and without a gap
    RtspClose(&disk.camera.client);
    std::vector<std::string> files;
    EXPECT_TRUE(WaitFor([&] {
        files = FilesBelow(disk.root);
        return std::none_of(files.begin(), files.end(), testing::Matches(testing::EndsWith(".tm!")));
    }));
    std::erase_if(files, [](const std::string &name) {
        return name.compare(0, 6, "cam/20") != 0 || name < "cam/2021";
    });
    EXPECT_GT(files.size(), 2U);
    const MediaUnits &sent = disk.camera.tracks[0].sent;
    size_t nLeft = disk.PicturesIn(files);
    EXPECT_GT(nLeft, 100U);
    MediaUnits played = PlayAll(disk, files);
    EXPECT_EQ(nLeft, played.size());
    EXPECT_TRUE(MediaUnits(sent.end() - static_cast<long>(played.size()), sent.end()) == played);
    return true;
}

bool FillWithoutDeleting()
{
    SmallDisk disk;
    if (!disk.Mount(36))
        return false;
    disk.Make("cam/20200101/S000000.zmf", 3 * kMegabyte);
    disk.Make("named.zmf", kMegabyte);
    disk.Start("MinutePerFile=5\nAutoDelOldFile=0\n");
    EXPECT_EQ("200 OK", RecordEx(&disk.camera.client, "EventType=1"));
    Viewer live;
    EXPECT_EQ(1, live.Prepare(disk.Url("cam")));
    live.Request("PLAY");
    for (int i = 0; i < 6; i++) {
        disk.SendMegabyte(&live);
    }
    std::vector<std::string> files = FilesBelow(disk.root);
    EXPECT_EQ(3U, files.size());
    EXPECT_THAT(files, testing::Each(testing::EndsWith(".zmf"))) << "it has ended in good order";
    EXPECT_LT(disk.FreeMegabytes(), 30U);
    EXPECT_EQ(kNoSpace, RecordEx(&disk.camera.client, "EventType=1"));
    EXPECT_EQ(kNoSpace, RecordEx(&disk.camera.client, "EventType=2&FileName=" + disk.File("x.zmf")));
    EXPECT_EQ(files, FilesBelow(disk.root)) << "nothing is left of what was refused, and nothing was deleted";
    disk.SendMegabyte();
    ExpectWatched(&disk, &live);
    std::filesystem::remove(disk.File("cam/20200101/S000000.zmf"));
    EXPECT_EQ("200 OK", RecordEx(&disk.camera.client, "EventType=1"));
    return true;
}

// Somebody else takes the last byte while a recording is written.
bool FillToTheLastByte()
{
    SmallDisk disk;
    if (!disk.Mount(34))
        return false;
    disk.Start("MinutePerFile=0\n");
    EXPECT_EQ("200 OK", RecordEx(&disk.camera.client, "FileName=" + disk.File("a.zmf")));
    disk.SendMegabyte();
    WriteFile(disk.File("filler"), std::string((disk.FreeMegabytes() - 1) * kMegabyte, 'f'));
    Viewer live;
    EXPECT_EQ(1, live.Prepare(disk.Url("cam")));
    live.Request("PLAY");
    size_t nBefore = disk.camera.tracks[0].sent.size();
    for (int i = 0; i < 4; i++) {
        disk.SendMegabyte(&live);
    }
    EXPECT_EQ(0U, disk.FreeMegabytes());
    EXPECT_THAT(FilesBelow(disk.root), ElementsAre("a.zmf", "filler"));
    const MediaUnits &sent = disk.camera.tracks[0].sent;
    size_t nWhole = disk.PicturesIn({"a.zmf"});
    EXPECT_GT(nWhole, nBefore);
    EXPECT_LT(nWhole, sent.size());
    // its header does not claim what was lost: a reader counts for itself
    std::string file = ReadFile(disk.File("a.zmf"));
    EXPECT_EQ(0U, GetBe(file.data() + 40, 4));
    Viewer viewer;
    EXPECT_EQ(1, viewer.Prepare(disk.Url("a.zmf")));
    char range[32];
    snprintf(range, sizeof(range), "a=range:npt=0-%.3f\r\n", static_cast<double>(nWhole - 1) * 0.04);
    EXPECT_THAT(viewer.client.sdp, testing::HasSubstr(range));
    EXPECT_TRUE(MediaUnits(sent.begin(), sent.begin() + static_cast<long>(nWhole)) ==
                PlayAll(disk, {"a.zmf"}));
    ExpectWatched(&disk, &live);

    // nothing can be begun on a full disk either; what is on it stays
    EXPECT_EQ(kNoSpace, RecordEx(&disk.camera.client, "EventType=1"));
    EXPECT_TRUE(std::filesystem::exists(disk.File("a.zmf")));
    std::filesystem::remove(disk.File("filler"));
    EXPECT_EQ("200 OK", RecordEx(&disk.camera.client, "EventType=1"));
    return true;
}

// With nothing old to delete, the day that is being written is neither emptied nor renamed.
bool FillWithNothingOld()
{
    SmallDisk disk;
    if (!disk.Mount(34))
        return false;
    disk.Start("MinutePerFile=5\n");
    EXPECT_EQ("200 OK", RecordEx(&disk.camera.client, "EventType=1"));
    std::string open = FilesBelow(disk.root)[0];
    WriteFile(disk.File("filler"), std::string(10 * kMegabyte, 'f'));
    EXPECT_EQ(kNoSpace, RecordEx(&disk.camera.client, "EventType=2"));
    EXPECT_THAT(FilesBelow(disk.root), ElementsAre(open, "filler"));
    disk.SendMegabyte();  // the next key picture begins a file and finds no room, whatever it deletes
    disk.SendMegabyte();
    std::vector<std::string> files = FilesBelow(disk.root);
    EXPECT_THAT(files, testing::Not(testing::Contains(testing::EndsWith(".tm!"))));
    std::filesystem::remove(disk.File("filler"));
    EXPECT_EQ("200 OK", RecordEx(&disk.camera.client, "EventType=1"));
    return true;
}

// Named files make room among themselves.
bool FillWithNamedFiles()
{
    SmallDisk disk;
    if (!disk.Mount(40))
        return false;
    const std::vector<std::string> oldest = {"b.zmf", "a.zmf", "c.zmf"};
    for (const std::string &name : oldest)
        disk.Make(name, 2 * kMegabyte);
    disk.Make("letter.txt", kMegabyte);
    disk.Make("cam/20200101/S000000.zmf", kMegabyte);
    disk.Start("MinutePerFile=5\n");
    EXPECT_EQ("200 OK", RecordEx(&disk.camera.client, "FileName=" + disk.File("new.zmf")));
    for (int i = 0; i < 12; i++) {
        disk.SendMegabyte();
        CountLeft(disk, oldest);
    }
    EXPECT_EQ(0U, CountLeft(disk, oldest));
    EXPECT_EQ("200 OK", RecordEx(&disk.camera.client, "Cmd=stop"));
    EXPECT_TRUE(std::filesystem::exists(disk.File("letter.txt")));
    EXPECT_TRUE(std::filesystem::exists(disk.File("cam/20200101/S000000.zmf")));
    std::vector<std::string> files = FilesBelow(disk.root);
    std::erase_if(files, [](const std::string &name) { return name.compare(0, 3, "new") != 0; });
    EXPECT_GT(files.size(), 1U);
    MediaUnits played = PlayAll(disk, files);
    const MediaUnits &sent = disk.camera.tracks[0].sent;
    EXPECT_EQ(disk.PicturesIn(files), played.size());
    EXPECT_TRUE(MediaUnits(sent.end() - static_cast<long>(played.size()), sent.end()) == played);
    return true;
}

TEST(FullDisk, LosesTheOldestFirst)
{
    InChildProcess(kSkip, FillWithDeleting);
}

TEST(FullDisk, EndsRecordingsWhereNothingMayBeDeleted)
{
    InChildProcess(kSkip, FillWithoutDeleting);
}

TEST(FullDisk, LeavesWholeRecords)
{
    InChildProcess(kSkip, FillToTheLastByte);
}

TEST(FullDisk, SparesWhatIsBeingWritten)
{
    InChildProcess(kSkip, FillWithNothingOld);
}

TEST(FullDisk, NamedFilesMakeRoomAmongThemselves)
{
    InChildProcess(kSkip, FillWithNamedFiles);
}

// --- The power goes ---

struct PowerCutTest : RecordingTest {
    std::mt19937 random{20260101};
    // Everything below the root but what an interrupted recording leaves.
    std::map<std::string, std::string> Snapshot() const
    {
        std::map<std::string, std::string> files;
        for (const std::string &name : FilesBelow(root))
            files[name] = ReadFile(File(name));
        return files;
    }
    void KillNow()
    {
        server.Signal(SIGKILL);
        ASSERT_EQ(256 + SIGKILL, server.WaitExit());
    }
    // Some pictures of each camera, the last of them perhaps still on their way, and the end.
    void RecordAndKill(std::vector<Camera *> cameras)
    {
        for (size_t i = 0; i < cameras.size(); i++) {
            ASSERT_EQ(1, cameras[i]->Open(Url("cam" + std::to_string(i))));
            ASSERT_EQ("200 OK", RecordEx(&cameras[i]->client, "EventType=1"));
        }
        int nPictures = static_cast<int>(random() % 60);
        for (int n = 0; n < nPictures; n++)
            for (Camera *pCamera : cameras)
                pCamera->Send(1);
        std::this_thread::sleep_for(std::chrono::microseconds(random() % 20000));
        KillNow();
        for (Camera *pCamera : cameras)
            RtspClose(&pCamera->client);
    }
    // What an interrupted file has is what the camera sent, up to the last whole record.
    void ExpectPlays(const std::vector<Camera *> &cameras, const std::vector<std::string> &files)
    {
        std::deque<Viewer> viewers;
        std::vector<Viewer *> all;
        for (const std::string &name : files) {
            ASSERT_EQ(1, viewers.emplace_back().Prepare(Url(name))) << name;
            viewers.back().Request("PLAY");
            all.push_back(&viewers.back());
        }
        WatchToTheEnd(all);
        for (size_t i = 0; i < files.size(); i++) {
            const Camera &camera = *cameras[static_cast<size_t>(files[i][3] - '0')];
            const MediaUnits &sent = camera.tracks[0].sent;
            std::string file = ReadFile(File(files[i]));
            size_t nWhole = CountPictures(file, file.size());
            ASSERT_LE(nWhole, sent.size());
            MediaUnits got = viewers[i].Units(0, camera.tracks[0].codec);
            EXPECT_TRUE(MediaUnits(sent.begin(), sent.begin() + static_cast<long>(nWhole)) == got)
                << files[i] << ": " << got.size() << " of " << nWhole;
        }
    }
};

TEST_F(PowerCutTest, KeepsWhatWasWritten)
{
    server.Start();
    Camera before({Codec::H264});
    ASSERT_NO_FATAL_FAILURE(Record(&before, "before.zmf", 30));
    ASSERT_EQ(0, server.Quit());
    std::filesystem::create_directories(File("cam0/20200101.bad"));
    std::filesystem::create_directories(File(".hidden"));
    WriteFile(File("cam0/20200101.bad/S000000.zmf"), "x");
    WriteFile(File(".hidden/a.zmf.tm!"), "x");
    WriteFile(File("notes.tm"), "x");
    size_t nKept = 0;
    for (int nRound = 0; nRound < (kLong ? 50 : 5); nRound++) {
        SCOPED_TRACE(nRound);
        Camera large({Codec::JPEG, Codec::AMR_NB}), small({Codec::H264, Codec::G711});
        large.nJpegBytes = 20000;
        std::vector<Camera *> cameras = {&large, &small};
        ASSERT_NO_FATAL_FAILURE(server.Start());
        ASSERT_NO_FATAL_FAILURE(RecordAndKill(cameras));
        std::map<std::string, std::string> expected, left = Snapshot();
        std::vector<std::string> kept;
        for (const auto &[name, content] : left) {
            bool bOpen = name[0] != '.' && name.size() > 4 && name.compare(name.size() - 4, 4, ".tm!") == 0;
            std::string final = bOpen ? name.substr(0, name.size() - 4) : name;
            if (bOpen && content.size() < 65536)
                continue;
            expected[final] = content;
            if (bOpen)
                kept.push_back(final);
        }
        ASSERT_NO_FATAL_FAILURE(server.Start());
        EXPECT_TRUE(expected == Snapshot());
        ExpectPlays(cameras, kept);
        nKept += kept.size();
        ASSERT_EQ(0, server.Quit());
        for (const std::string &name : kept)
            std::filesystem::remove(File(name));
    }
    EXPECT_GT(nKept, 0U);
}

TEST_F(PowerCutTest, KeepsFromExactly65536Bytes)
{
    std::filesystem::create_directories(File("cam/20260101"));
    WriteFile(File("cam/20260101/S000001.zmf.tm!"), std::string(65535, 'x'));
    WriteFile(File("cam/20260101/S000002.zmf.tm!"), std::string(65536, 'x'));
    WriteFile(File("named.zmf.tm!"), std::string(65536, 'x'));
    WriteFile(File("named.zmf"), "an older one");
    WriteFile(File("deep/er/and/deeper.zmf.tm!"), "x");
    server.Start();
    EXPECT_THAT(FilesBelow(root), ElementsAre("cam/20260101/S000002.zmf", "named.zmf"));
    EXPECT_EQ(65536U, std::filesystem::file_size(File("named.zmf")));
    Viewer viewer;
    EXPECT_EQ(0, viewer.Prepare(Url("named.zmf"))) << "no recording, but kept";
}

}  // namespace
}  // namespace orx
