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

TEST_F(ZMFReaderTest, SeeksAndStepsToKeyFrames)
{
    for (uint32_t nSeconds : {10U, 250U}) {  // with every key frame in the index, and with every second one
        MakeRecording(path, nSeconds);
        Reader reader(path);
        ASSERT_EQ(1, ZMFReaderSetupKeyFrameMode(reader.p, 1));
        uint32_t nReached = 0, nLast = (nSeconds - 1) * 1000;
        for (uint32_t nTimeMs : {0U, 7500U, 2000U, 5300U}) {
            EXPECT_NE(nullptr, ZMFReaderSeek(reader.p, nTimeMs, &nReached));
            EXPECT_EQ(nTimeMs / 1000 * 1000, nReached);
        }
        for (const auto &[nKeys, nTimeMs] : {std::pair{1, 6000U}, {-2, 4000}, {1000, nLast}, {-1000, 0}}) {
            EXPECT_NE(nullptr, ZMFReaderSeek2KeyFrame(reader.p, nKeys, &nReached)) << nKeys;
            EXPECT_EQ(nTimeMs, nReached) << nKeys;
        }
        EXPECT_EQ(nullptr, ZMFReaderSeek2KeyFrame(reader.p, -1, &nReached)) << "before the first";
    }
}

// An exact seek never leads behind the time wanted, but to the first key frame.
TEST_F(ZMFReaderTest, SeeksExactly)
{
    for (bool bClosed : {true, false}) {
        MakeRecording(path, 250, bClosed);
        Reader reader(path);
        reader.p->bExactSeek = 1;
        for (uint32_t nTimeMs = 0; nTimeMs < 250000; nTimeMs += 333) {
            uint32_t nReached = 0;
            if (ZMFReaderSeek(reader.p, nTimeMs, &nReached))
                EXPECT_EQ(nTimeMs / 1000 * 1000, nReached) << nTimeMs;
            else
                EXPECT_GE(nTimeMs, ZMFReaderDuration(reader.p));
        }
    }
}

// From key frame to key frame, whatever the file tells of them: each of its own second.
TEST_F(ZMFReaderTest, GoesOnByKeyFrames)
{
    enum { WHOLE, CUT_SHORT, WITHOUT_INDEX };
    for (auto [nSeconds, nFile] : {std::pair{10U, WHOLE}, {250, WHOLE}, {250, CUT_SHORT}, {3000, WITHOUT_INDEX}}) {
        MakeRecording(path, nSeconds, nFile != CUT_SHORT);
        for (uint32_t nGap : {0U, 1000U, 2500U}) {
            for (int nDirection : {1, -1}) {
                Reader reader(path);
                if (nFile == WITHOUT_INDEX)
                    reader.p->nIndex = 0;
                uint32_t nMs = 0;
                uint32_t nFrom = nDirection > 0 ? 3000 : (nSeconds - 1) * 1000;
                ASSERT_NE(nullptr, ZMFReaderSeek(reader.p, nFrom, &nMs));
                ZMFReaderBeginKeys(reader.p);
                std::vector<uint32_t> got, expected;
                int nBytes = 0, bMore = 0, nSteps = 0;
                const uint8_t *p;
                while ((p = ZMFReaderNextKey(reader.p, nDirection, nGap, 1000, &nBytes, &bMore)) || bMore) {
                    nSteps++;
                    if (p)
                        got.push_back(GetBe(p + 4, 4));
                }
                int64_t nStep = nGap > 1000 ? 3000 : 1000;
                for (int64_t n = nFrom; n >= 0 && n < nSeconds * 1000; n += nDirection * nStep)
                    expected.push_back(static_cast<uint32_t>(n));
                EXPECT_EQ(expected, got) << nSeconds << " s, " << nGap << ", " << nDirection;
                EXPECT_LE(nSteps, 2 * nSeconds + 100) << "what was looked through is remembered";
            }
        }
    }
}

// In steps everything is found as without, and what an interrupted file told is remembered until it changes.
TEST_F(ZMFReaderTest, StepsFindTheSame)
{
    for (bool bClosed : {false, true}) {
        MakeRecording(path, 450, bClosed);
        Reader whole(path);
        int bMore = 0, nSteps = 0;
        ZMFReader *pReader = ZMFReaderOpenStep(path.c_str(), 4096, 0, &bMore);
        ASSERT_NE(nullptr, pReader) << "known, or its header tells";
        for (uint32_t nTimeMs = 0; nTimeMs <= 450000; nTimeMs += 777) {
            uint32_t nWhole = 0, nReached = 0;
            const uint8_t *p = nullptr;
            do {
                p = ZMFReaderSeekStep(pReader, nTimeMs, 40, &nReached, &bMore);
                nSteps += bMore;
            } while (bMore);
            EXPECT_EQ(ZMFReaderSeek(whole.p, nTimeMs, &nWhole) != nullptr, p != nullptr) << nTimeMs;
            EXPECT_EQ(nWhole, nReached) << nTimeMs;
            uint32_t nRecordMs = nTimeMs % 200 <= 10 ? nTimeMs : (nTimeMs / 200 + 1) * 200;
            EXPECT_EQ(p ? nRecordMs / 1000 * 1000 : 0, nReached) << "of the first record from " << nTimeMs;
        }
        EXPECT_LT(nSteps, 3 * 450000 / 777) << "a seek begins near its end";
        ZMFReaderClose(pReader);
        WriteFile(path, ReadFile(path) + "x");
        pReader = ZMFReaderOpenStep(path.c_str(), 4096, 40, &bMore);
        EXPECT_EQ(bClosed, pReader != nullptr);
        EXPECT_EQ(!bClosed, bMore);
        ZMFReaderClose(pReader);
    }
}

// More interrupted files are asked for by turns than are measured at a time: those who come later wait, and all
// come to an end.
TEST_F(ZMFReaderTest, ManyAreMeasuredByTurns)
{
    const std::string file = MakeRecording(path, 20, false);
    std::vector<std::string> open;
    for (int i = 0; i < 12; i++) {
        open.push_back(dir.File(std::to_string(i).c_str()));
        WriteFile(open.back(), file);
    }
    for (int nRounds = 0; nRounds < 1000 && !open.empty(); nRounds++)
        std::erase_if(open, [](const std::string &one) {
            int bMore = 0;
            ZMFReader *pReader = ZMFReaderOpenStep(one.c_str(), 4096, 40, &bMore);
            EXPECT_EQ(!bMore, pReader != nullptr);
            ZMFReaderClose(pReader);
            return pReader != nullptr;
        });
    EXPECT_THAT(open, testing::IsEmpty());
}

}  // namespace orx
