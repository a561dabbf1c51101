#include "record/zmfreader.h"

#include <unistd.h>

#include <gtest/gtest.h>

#include "recordkit.h"

namespace orx {
namespace {

// A recording with a key frame a second, four pictures and an audio sample between.
std::string MakeRecording(const std::string &path, uint32_t nSeconds, bool bClosed = true)
{
    Recorder recorder;
    for (uint32_t i = 0; i < nSeconds * 5; i++) {
        recorder.Put('v', i % 5 == 0 ? ZMF_KEY : 0, i * 200, Nal(i % 5 == 0 ? 7 : 1, 60, i));
        recorder.Put('a', 0, i * 200 + 10, "sound");
    }
    FileOutFlush(&recorder.pWriter->file);
    WriteFile(path, bClosed ? recorder.Finish() : ReadFile(recorder.path + ".tm!"));
    return ReadFile(path);
}

// The times of records, or -1: of the one sought, the one stepped to, and the next.
int64_t Seek(const Reader &reader, uint32_t nTimeMs)
{
    uint32_t nReached = 0;
    const uint8_t *pRecord = ZMFReaderSeek(reader.p, nTimeMs, &nReached);
    EXPECT_TRUE(!pRecord || nReached == GetBe(pRecord + 4, 4));
    return pRecord ? int64_t{nReached} : -1;
}

int64_t Step(const Reader &reader, int nKeys)
{
    uint32_t nTime = 0;
    return ZMFReaderSeek2KeyFrame(reader.p, nKeys, &nTime) ? int64_t{nTime} : -1;
}

int64_t Next(const Reader &reader)
{
    int nBytes = 0;
    const uint8_t *pRecord = ZMFReaderNextSample(reader.p, &nBytes);
    return pRecord ? int64_t{GetBe(pRecord + 4, 4)} : -1;
}

struct ZMFReaderTest : testing::Test {
    TempDir dir;
    std::string path = dir.File("x.zmf");
};

// Cut at every byte, as after a power cut: every whole record plays, nothing else, and the duration is found.
TEST_F(ZMFReaderTest, ACutFilePlaysUpToItsLastWholeRecord)
{
    for (bool bClosed : {false, true}) {
        std::string file = MakeRecording(path, 2, bClosed);
        int nResult = 1;
        std::vector<Sample> whole = Reader(path).ReadOn(&nResult);
        ASSERT_EQ(bClosed ? 20U : 19U, whole.size()) << "the last sound is in the writer's memory";
        size_t nBegin = file.size();
        for (const auto &sample : whole)
            nBegin -= sample.data.size() + 8;
        for (size_t nSize = file.size(); nSize-- > 0;) {
            ASSERT_EQ(0, truncate(path.c_str(), static_cast<off_t>(nSize)));
            Reader reader(path);
            if (nSize < nBegin) {
                ASSERT_EQ(nullptr, reader.p) << nSize;
                continue;
            }
            size_t nKept = 0, nEnd = nBegin;
            while (nKept < whole.size() && nEnd + whole[nKept].data.size() + 8 <= nSize)
                nEnd += whole[nKept++].data.size() + 8;
            uint32_t nLastMs = nKept > 0 ? whole[nKept - 1].nTimeMs : 0;
            ASSERT_EQ(bClosed ? 1810U : nLastMs, ZMFReaderDuration(reader.p));
            ASSERT_EQ(std::vector<Sample>(whole.begin(), whole.begin() + static_cast<long>(nKept)),
                      reader.ReadOn(&nResult));
            ASSERT_EQ(nEnd == nSize ? 0 : -1, nResult);
        }
    }
}

TEST_F(ZMFReaderTest, SeeksTheKeyFrameToStartWith)
{
    for (bool bClosed : {true, false}) {
        MakeRecording(path, 10, bClosed);
        Reader reader(path);
        uint32_t nEnd = ZMFReaderDuration(reader.p);
        EXPECT_EQ(bClosed ? 9810U : 9800U, nEnd);
        static const struct {
            uint32_t nTimeMs;
            int64_t nReached;
        } cases[] = {{5500, 5000}, {0, 0}, {1, 0}, {811, 1000}, {1000, 1000}, {1001, 1000}, {9600, 9000}};
        for (const auto &c : cases) {  // at 811 the next record is the key frame of 1000
            EXPECT_EQ(c.nReached, Seek(reader, c.nTimeMs)) << c.nTimeMs;
            EXPECT_EQ(c.nReached, Next(reader));
        }
        for (uint32_t nTimeMs : {nEnd, UINT32_MAX})
            EXPECT_EQ(-1, Seek(reader, nTimeMs));
        EXPECT_EQ(9010, Next(reader)) << "a failed seek keeps the position";
    }
}

TEST_F(ZMFReaderTest, StepsFromKeyFrameToKeyFrame)
{
    for (uint32_t nSeconds : {10U, 250U}) {  // with every key frame in the index, and with every second one
        MakeRecording(path, nSeconds);
        int64_t nLast = (int64_t{nSeconds} - 1) * 1000;
        Reader reader(path);
        ASSERT_EQ(1, ZMFReaderSetupKeyFrameMode(reader.p, 1));
        EXPECT_EQ(0, Step(reader, 1));
        EXPECT_EQ(-1, Step(reader, -1)) << "before the first";
        EXPECT_EQ(3000, Step(reader, 3));
        EXPECT_EQ(2000, Step(reader, -1));
        EXPECT_EQ(2000, Next(reader)) << "plays on from there";
        EXPECT_EQ(nLast, Step(reader, 1000));
        EXPECT_EQ(-1, Step(reader, 1));
        EXPECT_EQ(0, Step(reader, -1000));
        EXPECT_EQ(5000, Seek(reader, 5300));
        EXPECT_EQ(6000, Step(reader, 1)) << "a seek moves the table as well";
        while (Next(reader) < 7300)
            continue;
        ASSERT_EQ(1, ZMFReaderSetupKeyFrameMode(reader.p, -1));
        EXPECT_EQ(6000, Step(reader, -1)) << "playback moves it when the mode is set up again";
    }
    MakeRecording(path, 4, false);
    Reader interrupted(path);
    ASSERT_EQ(1, ZMFReaderSetupKeyFrameMode(interrupted.p, -1));
    EXPECT_EQ(3000, Step(interrupted, -1)) << "an interrupted file has no index to go by";
}

}  // namespace
}  // namespace orx
