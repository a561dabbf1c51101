// Recordings that go on where a file has to end: full disks, clocks that jump, files of endless length.
#include <csignal>
#include <filesystem>
#include <functional>
#include <set>

#include <sys/resource.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/namespaces.h"
#include "unit/record/recordkit.h"

namespace orx {

constexpr uint32_t kPictureBytes = 20000;
constexpr int kGroup = 5;  // pictures from one key frame to the next

// A recording in the date layout, one picture every 40 ms, whose files are all looked at in the end.
struct WriterLife : testing::Test {
    TempDir dir;
    std::string root = dir.path + "/";
    RecordRules rules;
    ZMFWriter *p = nullptr;
    uint32_t nTimeMs = 1000;

    WriterLife() { rules.bNeverLose = 1; }
    ~WriterLife() override
    {
        ZMFWriterFree(p);
        RecordTimeSetOffset(0);
        RecordSteadySetOffset(0);
    }
    void Begin(uint32_t nSpaceInMB = 0, int bDelete = 0, uint32_t nSeconds = 0, uint32_t nTotal = 0)
    {
        p = ZMFWriterCreate(root.c_str(), "cam", RECORD_SCHEDULED, nullptr, 0, &rules);
        ASSERT_NE(nullptr, p);
        ASSERT_TRUE(nSpaceInMB == 0 || ZMFWriterSetReserveMinSpace(p, nSpaceInMB, bDelete));
        ASSERT_EQ(1, ZMFWriterSetSdp(p, kVideoSdp));
        ASSERT_EQ(1, ZMFWriterSetLimits(p, nSeconds, nTotal));
        ASSERT_EQ(1, ZMFWriterWriteHead(p));
    }
    // The pictures from one number up to before another; each is known by the byte that it is made of.
    int Put(int nFrom, int nTo)
    {
        int nResult = 1;
        for (int i = nFrom; i < nTo && nResult == 1; i++, nTimeMs += 40) {
            const std::string data(kPictureBytes, static_cast<char>(i));
            nResult =
                ZMFWriterWriteSample(p, Data(data), Size(data), nTimeMs, SampleType('v', i % kGroup ? 0 : ZMF_KEY));
        }
        return nResult;
    }
    static void Pretend(WriterLife *pLife, int nMs) { pLife->nTimeMs = 1000 + static_cast<uint32_t>(nMs); }
    // The numbers of the pictures, file by file; every file says of itself what is in it.
    std::string Finish()
    {
        ZMFWriterFree(std::exchange(p, nullptr));
        std::set<std::pair<uint32_t, std::string>> files;  // by their number in the recording
        for (const auto &entry : std::filesystem::recursive_directory_iterator(root + "cam"))
            if (entry.path().filename().string().starts_with("S"))
                files.emplace(Field(ReadFile(entry.path()), 134, 2), entry.path());
        std::string told;
        for (const auto &[nNumber, path] : files) {
            int nEnd = 1;
            const std::vector<MediaSample> samples = Reader(path).ReadOn(&nEnd);
            const std::string file = ReadFile(path);
            uint32_t nKeys = 0, nLast = 0;
            for (const MediaSample &sample : samples) {
                told += std::to_string(static_cast<uint8_t>(sample.data[0])) + " ";
                EXPECT_EQ(sample.data, std::string(kPictureBytes, sample.data[0]));
                nKeys += sample.nFlags == ZMF_KEY;
                nLast = std::max(nLast, sample.nTimeMs);
            }
            told += "| ";
            EXPECT_TRUE(path.ends_with(".zmf")) << path;
            EXPECT_EQ(samples.size(), Field(file, 44, 4)) << path;
            EXPECT_EQ(nKeys, Field(file, 128, 4)) << path;
            EXPECT_GE(nLast + 40, Field(file, 40, 4)) << path;  // or where the next file goes on
            EXPECT_LE(nLast, Field(file, 40, 4)) << path;
            for (uint32_t i = 0; i < 200; i++)
                EXPECT_EQ(i < nKeys ? i * kGroup * (kPictureBytes + 8) : 0, Field(file, 168 + 8 * i, 4)) << i;
        }
        return told;
    }
    static std::string Numbers(int nFrom, int nTo)
    {
        std::string told;
        for (int i = nFrom; i < nTo; i++)
            told += std::to_string(i) + " ";
        return told + "| ";
    }
};

// What a file cannot take is cut to whole pictures, and a key picture that did not fit begins the next one.
TEST_F(WriterLife, AFullFileIsCompletedAndFollowed)
{
    for (int nFits : {0, 3, 4, 5, 10, 11}) {
        InChildProcess("", [&] {
            signal(SIGXFSZ, SIG_IGN);
            rlim_t nLimit = kZmfHeadBytes + kZmfIdxBytes + 88 + nFits * (kPictureBytes + 8) + 7000;
            rlimit limit{nLimit, RLIM_INFINITY};
            setrlimit(RLIMIT_FSIZE, &limit);
            Begin();
            EXPECT_EQ(1, Put(0, nFits));
            EXPECT_EQ(1, ZMFWriterTick(p));  // what is held comes to the file, and so is not lost with the next
            EXPECT_EQ(1, Put(nFits, nFits + 1));
            EXPECT_EQ(1, ZMFWriterTick(p));
            limit.rlim_cur = RLIM_INFINITY;
            setrlimit(RLIMIT_FSIZE, &limit);
            EXPECT_EQ(1, Put(nFits + 1, 20));
            int nNext = nFits % kGroup || nFits == 0 ? (nFits / kGroup + 1) * kGroup : nFits + kGroup;
            EXPECT_EQ((nFits ? Numbers(0, nFits) : "") + Numbers(nNext, 20), Finish()) << nFits;
            std::filesystem::remove_all(root + "cam");
            return true;
        });
    }
}

// On a disk of 8 megabytes of which 2 are kept free.
void OnDisk(const std::string &root, const std::function<void()> &test)
{
    InChildProcess("may not mount a file system of its own", [&] {
        if (!EnterNamespaces(CLONE_NEWNS) || !MountEmpty(root.c_str(), "size=8m"))
            return false;
        test();
        umount2(root.c_str(), MNT_DETACH);
        return true;
    });
}

TEST_F(WriterLife, RoomIsMadeBetweenKeyFrames)
{
    const std::string megabyte(1 << 20, 'x');
    OnDisk(root, [&] {
        for (const char *szDay : {"cam/20200101", "cam/20200102", "other/20190101"}) {
            std::filesystem::create_directories(root + szDay);
            WriteFile(root + szDay + "/M000000.zmf", megabyte + megabyte);
        }
        EXPECT_EQ(1, CheckPathReserveSpace(root.c_str(), "cam/", 0, 2, 0));
        Begin(2, 1);
        EXPECT_EQ(1, Put(0, 3));
        EXPECT_EQ(1, ZMFWriterTick(p));
        EXPECT_FALSE(std::filesystem::exists(root + "cam/20200101")) << "the pictures took of the reserve";
        EXPECT_TRUE(std::filesystem::exists(root + "cam/20200102"));
        EXPECT_EQ(1, Put(3, 8));
        EXPECT_EQ(1, ZMFWriterTick(p));
        WriteFile(root + "filler", std::string(std::filesystem::space(root).available, 'f'));
        EXPECT_EQ(1, Put(8, 15)) << "no second has gone by";
        EXPECT_FALSE(std::filesystem::exists(root + "cam/20200102"));
        EXPECT_TRUE(std::filesystem::exists(root + "other/20190101"));
        const std::string told = Finish();
        EXPECT_THAT(told, testing::StartsWith(Numbers(0, 5) + "5 6 7 "));
        EXPECT_THAT(told, testing::EndsWith("| " + Numbers(10, 15)));
    });
}

// It goes at the next key frame, as it would have gone had the disk been full then. Where there is nothing else,
// to look for that takes more steps than a second has.
TEST_F(WriterLife, AFileThatFillsTheDiskAloneGivesWay)
{
    OnDisk(root, [&] {
        for (int i = 0; i < 20; i++)
            std::filesystem::create_directory(root + "other" + std::to_string(i));
        Begin(2, 1);
        EXPECT_EQ(1, Put(0, 3));
        WriteFile(root + "filler", std::string((6 << 20) - 32768, 'f'));
        for (int i = 0; i < 2; i++) {
            EXPECT_EQ(1, ZMFWriterTick(p));
            while (ZMFWriterRoomStep(p)) {
            }
        }
        EXPECT_TRUE(RecordFileIsOpen(&p->file)) << "half of what is kept free is there yet";
        EXPECT_EQ(1, Put(3, 9));
        EXPECT_EQ(Numbers(5, 9), Finish());
    });
}

TEST_F(WriterLife, TheRecordingPausesWhereNothingMayBeDeleted)
{
    OnDisk(root, [&] {
        Begin(2, 0);
        EXPECT_EQ(1, Put(0, 3));
        WriteFile(root + "filler", std::string(13 << 19, 'f'));
        std::string said = Printed([&] {
            for (int i = 0; i < 3; i++)
                EXPECT_EQ(1, ZMFWriterTick(p));
        });
        EXPECT_EQ(0U, said.find("\n") + 1 - said.size()) << "one line: " << said;
        EXPECT_THAT(said, testing::HasSubstr("no room for more, the recording pauses"));
        EXPECT_FALSE(RecordFileIsOpen(&p->file));
        EXPECT_EQ(1, Put(3, 13));
        std::filesystem::remove(root + "filler");
        EXPECT_EQ(1, Put(13, 17)) << "it is not known yet";
        EXPECT_EQ(1, ZMFWriterTick(p));
        EXPECT_EQ(1, Put(17, 24));
        EXPECT_EQ(Numbers(0, 3) + Numbers(20, 24), Finish());
    });
}

TEST_F(WriterLife, ClocksThatJumpBeginANewFile)
{
    static const struct {
        const char *szWhat;
        std::function<void(WriterLife *)> jump;  // before picture 7
        int nFiles;                              // 1; 2; or -2: two that hold every picture
        int bNeverLose = 1;
    } cases[] = {
        {"marked", [](WriterLife *pLife) { ZMFWriterMarkJump(pLife->p); }, 2},
        {"marked without the rule", [](WriterLife *pLife) { ZMFWriterMarkJump(pLife->p); }, 1, 0},
        {"times before the file", [](WriterLife *pLife) { Pretend(pLife, -10000); }, 2},
        {"times a little before the file", [](WriterLife *pLife) { Pretend(pLife, -900); }, 1},
        {"more than a file can tell", [](WriterLife *pLife) { Pretend(pLife, 0x7FFFFF00); }, 2},
        {"near to what a file can tell", [](WriterLife *pLife) { Pretend(pLife, 0x7FFFFFFF - 3500000); }, -2},
        {"the wall clock forward", [](WriterLife *) { RecordTimeSetOffset(3600); }, -2},
        {"the wall clock back", [](WriterLife *) { RecordTimeSetOffset(-90000); }, -2},
        {"both clocks",
         [](WriterLife *) {
             RecordTimeSetOffset(3000);
             RecordSteadySetOffset(3000000);
         },
         1},
    };
    for (const auto &c : cases) {
        rules.bNeverLose = c.bNeverLose;
        RecordTimeSetOffset(0);
        RecordSteadySetOffset(0);
        nTimeMs = 1000;
        Begin();
        EXPECT_EQ(1, Put(0, 7)) << c.szWhat;
        EXPECT_EQ(1, ZMFWriterTick(p));
        c.jump(this);
        EXPECT_EQ(1, Put(7, 20)) << c.szWhat;
        const std::string expected = c.nFiles == 1   ? Numbers(0, 20)
                                     : c.nFiles == 2 ? Numbers(0, 7) + Numbers(10, 20)
                                                     : Numbers(0, 10) + Numbers(10, 20);
        EXPECT_EQ(expected, Finish()) << c.szWhat;
        std::filesystem::remove_all(root + "cam");
    }
}

// What lies before a hole and behind it never makes one picture, even where the numbers fit.
TEST_F(WriterLife, TracksThatLagCostNoPictures)
{
    Begin();
    for (int i = 0; i < 20; i++) {
        EXPECT_EQ(1, Put(i, i + 1));
        EXPECT_EQ(1, ZMFWriterWriteSample(p, Data("s"), 1, nTimeMs - 5000, SampleType('a', 0)));
        EXPECT_EQ(1, ZMFWriterWriteSample(p, Data("ALARM:"), 6, nTimeMs - 5000, SampleType('u', 0)));
    }
    EXPECT_EQ(0U, p->file.head.nFileSeq);
    EXPECT_EQ(20U, p->file.uVideoSamples);
    EXPECT_EQ(20U, p->file.uUserSamples);
    EXPECT_EQ(40U, p->file.uSampleCount) << "the sound is from before";
}

TEST_F(WriterLife, AHoleEndsThePictureThatIsHalfBuilt)
{
    Begin();
    uint16_t nSeq = 0;
    auto put = [&](const std::string &payload, int bMarker, uint32_t nPicture) {
        const std::string packet = MakeRtp({96, nSeq++, nPicture * 3600, bMarker != 0}, payload);
        EXPECT_EQ(1, ZMFWriterWriteRtpPacket(p, Data(packet), Size(packet), 'v', nPicture * 40));
    };
    put("\x67 sets", 0, 0);
    put("\x65 first", 1, 0);
    put("\x61 half", 0, 1);
    ZMFWriterMarkHole(p);  // 65536 packets
    put("\x67 sets", 0, 5000);
    put("\x65 second", 1, 5000);
    ZMFWriterFree(std::exchange(p, nullptr));
    std::string told;
    for (const auto &entry : std::filesystem::recursive_directory_iterator(root + "cam")) {
        int nEnd = 1;
        if (entry.is_regular_file())
            for (const MediaSample &sample : Reader(entry.path()).ReadOn(&nEnd))
                told += std::string(sample.data.substr(2)) + (sample.nFlags == ZMF_KEY ? " key|" : "|");
    }
    EXPECT_EQ(std::string("\x67 sets\0\x09\x65 first key|\x67 sets\0\x0A\x65 second key|", 41), told);
}

// Lengths are counted by the clock that nobody sets.
TEST_F(WriterLife, LengthsCountByTheSteadyClock)
{
    Begin(0, 0, 60, 100);
    EXPECT_EQ(1, Put(0, 7));
    RecordTimeSetOffset(3600);
    ZMFWriterTick(p);
    EXPECT_EQ(1, Put(7, 12));  // a new file, for the wall clock
    RecordSteadySetOffset(61000);
    RecordTimeSetOffset(3661);
    EXPECT_EQ(1, Put(12, 17));  // and one for its length
    RecordSteadySetOffset(102000);
    EXPECT_EQ(0, Put(17, 20));
    EXPECT_EQ(0, ZMFWriterTick(p));
    EXPECT_EQ(Numbers(0, 10) + Numbers(10, 15) + Numbers(15, 18), Finish());
}

// What is in memory is in the file after two seconds at most.
TEST_F(WriterLife, MemoryReachesTheFile)
{
    Begin();
    auto size = [&] { return std::filesystem::file_size(p->file.szFile + std::string(".tm!")); };
    size_t nHead = size();
    ASSERT_EQ(1, ZMFWriterWriteSample(p, Data("key"), 3, 0, SampleType('v', ZMF_KEY)));
    ASSERT_EQ(1, ZMFWriterWriteSample(p, Data("sound"), 5, 20, SampleType('a', 0)));
    EXPECT_EQ(nHead, size());
    ZMFWriterTick(p);
    EXPECT_EQ(nHead + 11, size());
    ZMFWriterTick(p);
    EXPECT_EQ(nHead + 11 + 13, size());
}

}  // namespace orx
