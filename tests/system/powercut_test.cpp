// What a recording still has of its last seconds when the server is killed, or the power goes.
#include <linux/fs.h>
#include <sys/ioctl.h>

#include <chrono>
#include <filesystem>
#include <random>

#include "support/namespaces.h"
#include "system/imagedisk.h"
#include "system/recordingtest.h"

using namespace orx;

using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

constexpr size_t kWorth = 65536;  // no file of so many bytes may go

// A camera that sends a picture now and then.
struct PacedCamera {
    const char *szName;
    int nEveryMs;
    Camera camera{{Coding::JPEG}};
    std::vector<Clock::time_point> sent{};  // when each picture was

    // How many pictures were sent by some time.
    size_t SentBy(Clock::time_point tWhen) const
    {
        return static_cast<size_t>(std::ranges::count_if(sent, [&](auto t) { return t <= tWhen; }));
    }
};

// A server whose recordings lie below a root, and the trial: two cameras are recorded, something ends that,
// and the server is started anew.
struct LastSeconds {
    OrxProcess server;
    std::string root;
    double dMostLost = 0;  // seconds
    size_t nFiles = 0;

    explicit LastSeconds(const std::string &where) : root(where.empty() ? server.dir.File("rec") : where)
    {
        server.Set("SERVER", "EnableFilePrg", "1");
        server.Set("STORAGE", "RecordEnable=1\nNeverLose=1\nWideUnits=1\nRecordPath=" + root);
        server.Set("GUARD", "SurvivePeerFaults", "1");
    }
    static void SendUntil(PacedCamera *pFast, PacedCamera *pSlow, Clock::time_point tEnd)
    {
        const auto tStart = Clock::now();
        for (;;) {
            auto due = [&](const PacedCamera *p) {
                return tStart + milliseconds(p->nEveryMs * static_cast<int>(p->sent.size()));
            };
            PacedCamera *pNext = due(pFast) <= due(pSlow) ? pFast : pSlow;
            std::this_thread::sleep_until(std::min(tEnd, due(pNext)));
            if (Clock::now() >= tEnd)
                return;
            pNext->camera.Send(1, false);
            pNext->sent.push_back(Clock::now());
        }
    }
    // The recordings of a program that was ended at tCut play, hold its first pictures, and lack at most those
    // of the last nSeconds.
    void Expect(const PacedCamera &program, Clock::time_point tCut, int nSeconds)
    {
        size_t nKept = 0;
        for (const std::string &name : FilesBelow(root)) {
            if (!name.starts_with(program.szName))
                continue;
            size_t nPictures = CountPictures(ReadFile(root + "/" + name));
            Viewer viewer;
            ASSERT_EQ(1, viewer.Open(server.Url("/" + name))) << name;
            EXPECT_TRUE(WatchPictures({&viewer}, std::min<size_t>(nPictures, 20))) << name;
            size_t nUnit = nKept;
            for (const MediaUnit &unit : viewer.Units(0, Coding::JPEG))
                EXPECT_EQ(program.camera.tracks[0].sent.at(nUnit++).data, unit.data) << name;
            nKept += nPictures;
            nFiles++;
        }
        EXPECT_GE(nKept, program.SentBy(tCut - std::chrono::seconds(nSeconds))) << program.szName;
        if (nKept < program.sent.size())
            dMostLost = std::max(dMostLost, std::chrono::duration<double>(tCut - program.sent[nKept]).count());
    }
    void ExpectSound()
    {
        for (const std::string &name : FilesBelow(root)) {
            for (const char *szCommand : {"repair", "check"}) {
                ToolProcess tool("orxzmf", {szCommand, root + "/" + name});
                EXPECT_EQ(0, tool.WaitExit()) << name << ": " << tool.Output();
            }
        }
    }
    void SyncDisk() const
    {
        int fd = open(root.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        EXPECT_EQ(0, syncfs(fd));
        close(fd);
    }
    // One trial, which is ended after so long. end: how.
    template <typename End>
    void Run(int nMs, int nSeconds, End end)
    {
        PacedCamera fast{"fast", 40}, slow{"slow", 700};
        fast.camera.nJpegBytes = 20000;
        slow.camera.nJpegBytes = 300;
        ASSERT_NO_FATAL_FAILURE(server.Start());
        for (PacedCamera *p : {&fast, &slow}) {
            ASSERT_EQ(1, p->camera.Open(server.Url(std::string("/") + p->szName)));
            ASSERT_EQ("200 OK", p->camera.Record("EventType=1"));
        }
        SendUntil(&fast, &slow, Clock::now() + milliseconds(nMs));
        const auto tCut = Clock::now();
        end();
        std::vector<std::string> worth = FilesBelow(root);
        std::erase_if(worth, [&](const auto &name) { return std::filesystem::file_size(root + "/" + name) < kWorth; });
        ASSERT_NO_FATAL_FAILURE(server.Start());
        for (const std::string &name : worth)
            EXPECT_TRUE(std::filesystem::exists(root + "/" + name.substr(0, name.find(".tm!")))) << name;
        Expect(fast, tCut, nSeconds);
        Expect(slow, tCut, nSeconds);
        EXPECT_EQ(0, server.Quit());
        ExpectSound();
        std::filesystem::remove_all(root + "/fast");
        std::filesystem::remove_all(root + "/slow");
        SyncDisk();  // or a cut brings them back
    }
    void Report() const
    {
        printf("%zu files; at most the last %.1f s were lost\n", nFiles, dMostLost);
        EXPECT_GT(nFiles, 0U);
    }
};

struct KillTest : testing::TestWithParam<unsigned> {};

TEST_P(KillTest, LosesTwoSecondsAtMost)
{
    LastSeconds trial("");
    std::mt19937 random{GetParam()};
    for (int nRound = 0; nRound < (getenv("ORX_LONG") ? 50 : 1) && !HasFailure(); nRound++) {
        SCOPED_TRACE(nRound);
        int nMs = getenv("ORX_LONG") ? 100 + static_cast<int>(random() % 4500) : 2600;
        trial.Run(nMs, 2, [&] { trial.server.Kill(); });
    }
    trial.Report();
}

INSTANTIATE_TEST_SUITE_P(Rounds, KillTest, testing::Values(1U, 2U, 3U, 4U));

// One that loses what the disk was not told to keep: a power cut.
struct CutDisk : ImageDisk {
    // Nothing more is written, the journal neither; then the journal is replayed, and the file system checked.
    void Cut(OrxProcess *pServer) const
    {
        constexpr uint32_t kNoLogFlush = 2;
        int fd = open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        ASSERT_EQ(0, ioctl(fd, _IOR('X', 125, uint32_t), &kNoLogFlush)) << strerror(errno);
        close(fd);
        pServer->Kill();
        ASSERT_EQ(0, umount(dir.c_str())) << strerror(errno);
        ASSERT_TRUE(Mount());
        ASSERT_EQ(0, umount(dir.c_str()));
        EXPECT_TRUE(Sh("PATH=$PATH:/usr/sbin e2fsck -fn '" + image + "'"));
        ASSERT_TRUE(Mount());
    }
};

TEST(PowerCut, LosesTenSecondsAtMost)
{
    InChildProcess("may not mount an image, or has no mkfs.ext4, or an emulator that cannot ask for the cut", [] {
        TempDir place;
        CutDisk disk{{place.File("image"), place.File("rec")}};
        if (kEmulated || !EnterNamespaces(CLONE_NEWNS) || !disk.Make())
            return false;
        LastSeconds trial(disk.dir);
        std::mt19937 random{20260102};
        for (int nRound = 0; nRound < (getenv("ORX_LONG") ? 25 : 1) && !testing::Test::HasFailure(); nRound++) {
            SCOPED_TRACE(nRound);
            int nMs = getenv("ORX_LONG") ? 500 + static_cast<int>(random() % 25000) : 11500;
            trial.Run(nMs, 10, [&] { disk.Cut(&trial.server); });
        }
        trial.Report();
        while (umount2(disk.dir.c_str(), MNT_DETACH) == 0) {
        }
        return true;
    });
}
