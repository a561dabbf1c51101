#include "record/zmfreader.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include "recordkit.h"

namespace orx {
namespace {

// A key frame a second, four pictures and an audio sample between, for nSeconds.
std::string MakeRecording(const std::string &path, uint32_t nSeconds, bool bClosed = true)
{
    ZMFWriter *pWriter = ZMFWriterCreateFile(path.c_str(), RECORD_MANUAL, nullptr);
    ZMFWriterSetSdp(pWriter, kVideoSdp);
    ZMFWriterSetAppData(pWriter, 5, "extra");
    ZMFWriterWriteHead(pWriter);
    for (uint32_t i = 0; i < nSeconds * 5; i++) {
        PutSample(pWriter, 'v', i % 5 == 0 ? ZMF_KEY : 0, i * 200, Nal(i % 5 == 0 ? 7 : 1, 60, i));
        PutSample(pWriter, 'a', 0, i * 200 + 10, "sound");
    }
    std::string unfinished;
    if (!bClosed) {
        FileOutFlush(&pWriter->file);
        unfinished = ReadFile(path + ".tm!");
    }
    ZMFWriterFree(pWriter);
    if (!bClosed)
        WriteFile(path, unfinished);
    return ReadFile(path);
}

struct Opened {
    ZMFReader *p;
    explicit Opened(const std::string &path, uint32_t nBuffer = 8192)
        : p(ZMFReaderOpen(path.c_str(), nBuffer))
    {
    }
    ~Opened() { ZMFReaderClose(p); }
    Opened(const Opened &) = delete;
    Opened &operator=(const Opened &) = delete;

    // The time sought, or -1.
    int64_t Seek(uint32_t nTimeMs)
    {
        uint32_t nReached = 0;
        const uint8_t *pRecord = ZMFReaderSeek(p, nTimeMs, &nReached);
        EXPECT_TRUE(!pRecord || nReached == GetBe(pRecord + 4, 4));
        return pRecord ? int64_t{nReached} : -1;
    }
    int64_t Step(int nKeys)
    {
        uint32_t nTime = 0;
        return ZMFReaderSeek2KeyFrame(p, nKeys, &nTime) ? int64_t{nTime} : -1;
    }
    // The time of the next sample, or -1.
    int64_t Next()
    {
        int nBytes = 0;
        const uint8_t *pRecord = ZMFReaderNextSample(p, &nBytes);
        return pRecord ? int64_t{GetBe(pRecord + 4, 4)} : -1;
    }
};

// Whatever the size of the buffer, the samples are the same.
TEST(ZMFReader, EveryBufferSizeGivesEverySample)
{
    TempDir dir;
    std::string path = dir.File("x.zmf");
    ZMFWriter *pWriter = ZMFWriterCreateFile(path.c_str(), RECORD_MANUAL, nullptr);
    ZMFWriterSetSdp(pWriter, kVideoSdp);
    ZMFWriterWriteHead(pWriter);
    std::vector<Sample> expected;
    for (uint32_t i = 0; i < 300; i++) {
        expected.push_back({'v', ZMF_KEY, i, Nal(7, 1 + i * 331 % 4000, i)});
        PutSample(pWriter, 'v', ZMF_KEY, i, expected.back().data);
    }
    ZMFWriterFree(pWriter);
    for (uint32_t nBuffer : {0U, 4096U, 4100U, 5000U, 65536U, 204800U, 2000000U}) {
        Opened reader(path, nBuffer);
        int nEnd = 1;
        EXPECT_EQ(expected, ReadOn(reader.p, &nEnd)) << nBuffer;
        EXPECT_EQ(0, nEnd);
    }
}

// Cut at every byte, as after a power cut: every whole record plays, nothing else, and the duration is found.
TEST(ZMFReader, ACutFilePlaysUpToItsLastWholeRecord)
{
    TempDir dir;
    for (bool bClosed : {false, true}) {
        std::string file = MakeRecording(dir.File("whole.zmf"), 2, bClosed);
        std::vector<Sample> whole = ReadFileSamples(dir.File("whole.zmf"));
        ASSERT_EQ(bClosed ? 20U : 19U, whole.size()) << "the last sound is in the writer's memory";
        std::string path = dir.File("cut.zmf");
        WriteFile(path, file);
        size_t nBegin = file.size();
        for (const auto &sample : whole)
            nBegin -= sample.data.size() + 8;
        for (size_t nSize = file.size(); nSize-- > 0;) {
            ASSERT_EQ(0, truncate(path.c_str(), static_cast<off_t>(nSize)));
            Opened reader(path);
            size_t nKept = 0;
            size_t nEnd = nBegin;
            while (nKept < whole.size() && nEnd + whole[nKept].data.size() + 8 <= nSize)
                nEnd += whole[nKept++].data.size() + 8;
            if (nSize < nBegin - 8) {
                ASSERT_EQ(nullptr, reader.p) << nSize;
                continue;
            }
            if (nSize < nBegin)
                continue;  // only application data is missing
            ASSERT_NE(nullptr, reader.p) << nSize;
            ASSERT_EQ(bClosed     ? 1810U
                      : nKept > 0 ? whole[nKept - 1].nTimeMs
                                  : 0,
                      ZMFReaderDuration(reader.p));
            int nResult = 1;
            std::vector<Sample> got = ReadOn(reader.p, &nResult);
            ASSERT_EQ(nKept, got.size()) << nSize;
            ASSERT_EQ(nEnd == nSize ? 0 : -1, nResult);
            for (size_t i = 0; i < nKept; i++)
                ASSERT_EQ(whole[i], got[i]);
        }
    }
}

TEST(ZMFReader, Seeking)
{
    TempDir dir;
    for (bool bClosed : {true, false}) {
        std::string path = dir.File("x.zmf");
        MakeRecording(path, 10, bClosed);
        Opened reader(path);
        ASSERT_NE(reader.p, nullptr);
        uint32_t nEnd = ZMFReaderDuration(reader.p);
        EXPECT_EQ(bClosed ? 9810U : 9800U, nEnd);
        const struct {
            uint32_t nTimeMs;
            int64_t nReached;
        } cases[] = {{5500, 5000}, {0, 0}, {1, 0}, {811, 1000}, {1000, 1000}, {1001, 1000}, {9600, 9000}};
        for (const auto &c : cases) {  // at 811 the next record is the key frame of 1000
            EXPECT_EQ(c.nReached, reader.Seek(c.nTimeMs)) << c.nTimeMs;
            EXPECT_EQ(c.nReached, reader.Next());
            EXPECT_EQ(c.nReached + 10, reader.Next());
        }
        int64_t nBefore = reader.Next();
        for (uint32_t nTimeMs : {nEnd, nEnd + 1, UINT32_MAX}) {
            EXPECT_EQ(-1, reader.Seek(nTimeMs));
            nBefore += nBefore % 200 == 0 ? 10 : 190;
            EXPECT_EQ(nBefore, reader.Next()) << "a failed seek keeps the position";
        }
    }
}

TEST(ZMFReader, StepsFromKeyFrameToKeyFrame)
{
    TempDir dir;
    std::string path = dir.File("x.zmf");
    for (uint32_t nSeconds : {10U, 250U}) {  // with every key frame in the index, and with every second one
        MakeRecording(path, nSeconds);
        int64_t nLast = (int64_t{nSeconds} - 1) * 1000;
        Opened reader(path);
        ASSERT_EQ(1, ZMFReaderSetupKeyFrameMode(reader.p, 1));
        EXPECT_EQ(0, reader.Step(1));
        EXPECT_EQ(-1, reader.Step(-1)) << "before the first";
        EXPECT_EQ(1000, reader.Step(1));
        EXPECT_EQ(4000, reader.Step(3));
        EXPECT_EQ(3000, reader.Step(-1));
        EXPECT_EQ(3000, reader.Next()) << "plays on from there";
        EXPECT_EQ(nLast, reader.Step(1000));
        EXPECT_EQ(-1, reader.Step(1));
        EXPECT_EQ(0, reader.Step(-1000));
        EXPECT_EQ(5000, reader.Seek(5300));
        EXPECT_EQ(6000, reader.Step(1)) << "a seek moves the table as well";
        while (reader.Next() < 7300) {
        }
        ASSERT_EQ(1, ZMFReaderSetupKeyFrameMode(reader.p, -1));
        EXPECT_EQ(6000, reader.Step(-1)) << "playback moves it when the mode is set up again";

        Opened fresh(path);
        ASSERT_EQ(1, ZMFReaderSetupKeyFrameMode(fresh.p, -1));
        EXPECT_EQ(nLast, fresh.Step(-1));
    }
    MakeRecording(path, 4, false);
    Opened interrupted(path);
    ASSERT_EQ(1, ZMFReaderSetupKeyFrameMode(interrupted.p, 1));
    EXPECT_EQ(3000, interrupted.Step(4)) << "an interrupted file has no index to go by";
}

// Files from elsewhere. A fault is a refusal, or playback of what makes sense.
TEST(ZMFReader, BrokenFiles)
{
    TempDir dir;
    SurviveFaults survive;
    std::string good = MakeRecording(dir.File("x.zmf"), 5);
    const struct {
        const char *szWhat;
        size_t nOffset;
        std::string bytes;
        bool bOpens;
    } cases[] = {
        {"magic", 0, "zmf#", false},
        {"a header of 7 bytes", 4, Be(7, 2), false},
        {"an index of 9 bytes", 8, Be(9, 2), false},
        {"an index that does not begin at 0", 168, Be(8, 4), false},
        {"a description longer than the file", 10, Be(65528, 2), false},
        {"an index that points outside", 176, Be(0x7FFFFFFF, 4) + Be(1000, 4), true},
        {"an index that points between records", 176, Be(3, 4) + Be(1000, 4), true},
        {"a duration beyond the records", 40, Be(0xFFFFFFFF, 4), true},
        {"no duration", 40, Be(0, 4), true},
        {"an interval of 0", 132, Be(0, 2), true},
    };
    for (const auto &c : cases) {
        WriteFile(dir.File("y.zmf"), std::string(good).replace(c.nOffset, c.bytes.size(), c.bytes));
        Opened reader(dir.File("y.zmf"));
        EXPECT_EQ(c.bOpens, reader.p != nullptr) << c.szWhat;
        if (!reader.p)
            continue;
        EXPECT_EQ(50U, ReadOn(reader.p).size()) << c.szWhat;
        for (uint32_t nTimeMs : {0U, 900U, 2500U, 4800U, 70000U})
            reader.Seek(nTimeMs);
        if (ZMFReaderSetupKeyFrameMode(reader.p, 1))
            for (int nStep : {-5, 1, 1, 1, 100, -1, -100})
                reader.Step(nStep);
    }
    for (uint32_t nLength : {0U, 7U, 65535U}) {
        WriteFile(dir.File("y.zmf"), good + Be(nLength, 2) + "v@" + Be(6000, 4) + "xy");
        Opened reader(dir.File("y.zmf"));
        int nEnd = 0;
        EXPECT_EQ(50U, ReadOn(reader.p, &nEnd).size()) << nLength;
        EXPECT_EQ(-1, nEnd);
    }
    EXPECT_EQ(nullptr, ZMFReaderOpen(dir.path.c_str(), 65536));
    EXPECT_EQ(nullptr, ZMFReaderOpen(dir.File("none.zmf").c_str(), 65536));
}

TEST(ZMFReaderDeathTest, BrokenIndex)
{
    TempDir dir;
    std::string good = MakeRecording(dir.File("x.zmf"), 2);
    WriteFile(dir.File("x.zmf"), std::string(good).replace(8, 2, Be(1601, 2)));
    EXPECT_DEATH(ZMFReaderOpen(dir.File("x.zmf").c_str(), 65536), "\\(pFileHead->nIdxSize & 0x7\\) == 0");
    WriteFile(dir.File("x.zmf"), std::string(good).replace(168, 4, Be(1, 4)));
    EXPECT_DEATH(ZMFReaderOpen(dir.File("x.zmf").c_str(), 65536), "\\*p == 0");
    WriteFile(dir.File("x.zmf"), good);
    Opened reader(dir.File("x.zmf"));
    EXPECT_DEATH(ZMFReaderSetupKeyFrameMode(reader.p, 0), "nMoveKeyFrames != 0");
}

}  // namespace
}  // namespace orx
