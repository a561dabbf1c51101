#include "record/zmfreader.h"

#include <unistd.h>

#include <gtest/gtest.h>

#include "recordkit.h"

namespace orx {

// A recording with a key frame a second, four pictures and an audio sample between.
static std::string MakeRecording(const std::string &path, uint32_t nSeconds, bool bClosed = true)
{
    Recorder recorder;
    for (uint32_t i = 0; i < nSeconds * 5; i++) {
        recorder.Put('v', i % 5 == 0 ? ZMF_KEY : 0, i * 200, Nal(i % 5 == 0 ? 7 : 1, 60, i));
        recorder.Put('a', 0, i * 200 + 10, "sound");
    }
    FileOutFlush(&recorder.pWriter->file.out);
    WriteFile(path, bClosed ? recorder.Finish() : ReadFile(recorder.path + ".tm!"));
    return ReadFile(path);
}

// The time of the record stepped to, or -1.
static int64_t Step(const Reader &reader, int nKeys)
{
    uint32_t nTime = 0;
    return ZMFReaderSeek2KeyFrame(reader.p, nKeys, &nTime) ? int64_t{nTime} : -1;
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
        std::vector<MediaSample> whole = Reader(path).ReadOn(&nResult);
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
            ASSERT_EQ(std::vector<MediaSample>(whole.begin(), whole.begin() + static_cast<long>(nKept)),
                      reader.ReadOn(&nResult));
            ASSERT_EQ(nEnd == nSize ? 0 : -1, nResult);
        }
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
        EXPECT_EQ(nLast, Step(reader, 1000));
        EXPECT_EQ(-1, Step(reader, 1));
        EXPECT_EQ(0, Step(reader, -1000));
        uint32_t nReached = 0;
        ZMFReaderSeek(reader.p, 5300, &nReached);
        EXPECT_EQ(6000, Step(reader, 1)) << "a seek moves the table as well";
        int nBytes = 0;
        for (int i = 0; i < 18; i++)  // to 7610
            ZMFReaderNextSample(reader.p, &nBytes);
        ASSERT_EQ(1, ZMFReaderSetupKeyFrameMode(reader.p, -1));
        EXPECT_EQ(6000, Step(reader, -1)) << "playback moves it when the mode is set up again";
    }
    MakeRecording(path, 4, false);
    Reader interrupted(path);
    ASSERT_EQ(1, ZMFReaderSetupKeyFrameMode(interrupted.p, -1));
    EXPECT_EQ(3000, Step(interrupted, -1)) << "an interrupted file has no index to go by";
}

}  // namespace orx
