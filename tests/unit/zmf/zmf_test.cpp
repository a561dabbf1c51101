// What orxzmf finds in recordings, and the images that it makes of their payloads.
#include <string>
#include <tuple>
#include <utility>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "orxzmf/jpegimage.h"
#include "orxzmf/report.h"
#include "orxzmf/repair.h"
#include "orxzmf/survey.h"
#include "orxzmf/timeline.h"
#include "unit/record/recordkit.h"

namespace orx {

TEST(JpegImage, RecordedPayloadsBecomeAnImage)
{
    // an image of 16 x 8 pixels in two payloads, its tables given by Q or sent along
    const std::string scan = "entropy coded data";
    auto payload = [&](uint32_t nOffset, uint32_t nQ, const std::string &rest) {
        return Be(nOffset, 4) + "\x01" + Be(nQ, 1) + "\x02\x01" + rest;
    };
    auto rebuild = [](const std::string &sample, std::string *pImage) {
        return JpegImageRebuild(Data(sample), Size(sample), pImage);
    };
    std::string image, again;
    static const std::pair<uint32_t, char> cases[] = {{50, 16}, {99, 1}, {1, '\xFF'}, {254, 'q'}, {255, 'q'}};
    for (const auto &[nQ, chFirst] : cases) {  // Q, and the first byte of the table
        size_t nTables = nQ < 128 ? 0 : nQ == 254 ? 64 : 128;  // one for both kinds of values, or two
        std::string tables = nQ < 128 ? "" : Be(static_cast<uint32_t>(nTables), 4) + std::string(nTables, 'q');
        ASSERT_EQ(1, rebuild(payload(0, nQ, tables + scan.substr(0, 7)) + payload(7, nQ, scan.substr(7)), &image));
        EXPECT_TRUE(image.ends_with(scan + "\xFF\xD9"));
        uint32_t nWidth = 0, nHeight = 0;
        EXPECT_EQ(1, JpegImageSize(image, &nWidth, &nHeight));
        EXPECT_EQ(16U, nWidth);
        EXPECT_EQ(8U, nHeight);
        EXPECT_EQ(chFirst, image[image.find(std::string("\xFF\xDB\0\x43\0", 5)) + 5]) << nQ;
        EXPECT_EQ(1, rebuild(image, &again));
        EXPECT_EQ(image, again);
    }
    for (const std::string &bad : {payload(0, 0, scan), payload(0, 120, scan), payload(9, 50, scan), scan})
        EXPECT_EQ(0, rebuild(bad, &image));
}

static Survey Look(const std::string &path)
{
    Recording recording;
    Survey survey;
    EXPECT_EQ(1, RecordingOpen(&recording, path));
    SurveyRecording(&recording, &survey);
    RecordingClose(&recording);
    return survey;
}

TEST(Survey, FindsFaults)
{
    Recorder recorder;  // of two seconds
    for (uint32_t i = 0; i < 50; i++)
        recorder.Put('v', i % 10 == 0 ? ZMF_KEY : 0, i * 40, Prefixed(Nal(i % 10 == 0 ? 7 : 1, 3, i)));
    const std::string good = recorder.Finish(), path = recorder.path;
    EXPECT_EQ(0, ReportCheck(path));
    size_t nFirst = good.find(std::string("v\x40\0\0\0\0", 6)) - 2;
    const std::tuple<const char *, size_t, std::string> cases[] = {
        {"the header says 9 pictures, there are 50", 44, Be(9, 4)},
        {"the header says 9 ms, the last sample is at 1960 ms", 40, Be(9, 4)},
        {"index entry 1 names no key frame", 180, Be(9, 4)},
        {"its parts do not fill it", nFirst + 8, "\x7F"},
        {"unknown kind 0x78", nFirst + 2, "x"},
        {"bytes at the end are no whole record", nFirst, "\xFF\xFF"},
    };
    for (const auto &[szFault, nOffset, bytes] : cases) {
        WriteFile(path, std::string(good).replace(nOffset, bytes.size(), bytes));
        EXPECT_THAT(Look(path).faults, testing::Contains(testing::HasSubstr(szFault)));
        EXPECT_EQ(VERDICT_DAMAGED, ReportCheck(path));
    }
    // a cut is a fault, but not in a file that was never closed: that is what a power cut leaves
    std::string cut = good.substr(0, good.size() - 1);
    WriteFile(path, cut);
    EXPECT_EQ(VERDICT_DAMAGED, ReportCheck(path));
    WriteFile(path, cut.replace(40, 4, Be(0, 4)));
    EXPECT_EQ(VERDICT_INTERRUPTED, ReportCheck(path));
    EXPECT_EQ(2U, Look(path).notes.size());
}

TEST(Timeline, MendsWhatCannotBe)
{
    const std::pair<std::vector<int64_t>, std::vector<int64_t>> cases[] = {
        {{0, 40, 1800040, 1800080}, {0, 40, 1800040, 1800080}},  // a pause
        {{0, 40, UINT32_MAX, 120}, {0, 40, 40, 120}},            // one that is damaged, wherever it stands
        {{UINT32_MAX, 40}, {0, 40}},
        {{20000, 20040, 0, 20120, 20160}, {20000, 20040, 20040, 20120, 20160}},
        {{0, 40, UINT32_MAX}, {0, 40, 40}},
        {{50000, 50040, 0, 40, 80}, {50000, 50040, 50080, 50120, 50160}},  // clocks that were set
        {{0, 40, 90000000, 90000040}, {0, 40, 80, 120}},
        {{5000, 4000, 6000}, {5000, 4000, 6000}},  // out of order
    };
    for (const auto &[recorded, mended] : cases) {
        Timeline timeline{recorded};
        TimelineMend(&timeline);
        EXPECT_EQ(mended, timeline.times);
    }
}

TEST(Repair, GivesTheNameUnlessItIsTakenOrAWriterLives)
{
    Recorder recorder;
    for (uint32_t nTimeMs : {0, 40})
        recorder.Put('v', ZMF_KEY, nTimeMs, Prefixed(Nal(7, 9, nTimeMs)));
    const std::string path = recorder.path, open = path + kOpenSuffix;
    const std::string left = std::string(recorder.Finish()).replace(40, 4, Be(0, 4));
    WriteFile(open, left);
    EXPECT_EQ(VERDICT_SOUND, RepairRecording(open));  // the name is taken
    EXPECT_EQ(ReadFile(open), ReadFile(path));
    std::remove(path.c_str());
    WriteFile(open, left);
    FILE *pWriter = fopen(open.c_str(), "r+");
    EXPECT_EQ(VERDICT_UNREADABLE, RepairRecording(open));
    EXPECT_EQ(left, ReadFile(open));
    fclose(pWriter);
    EXPECT_EQ(VERDICT_SOUND, RepairRecording(open));
    EXPECT_EQ(VERDICT_SOUND, RepairRecording(path));
}

}  // namespace orx
