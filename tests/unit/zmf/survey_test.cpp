#include "orxzmf/survey.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "base/assertion.h"
#include "orxzmf/report.h"
#include "recordings.h"

namespace orx {
namespace {

using ::testing::HasSubstr;

Survey Look(const std::string &path)
{
    Recording recording;
    Survey survey;
    EXPECT_EQ(1, RecordingOpen(&recording, path));
    SurveyRecording(&recording, &survey);
    RecordingClose(&recording);
    return survey;
}

TEST(Survey, WhatIsFoundInFaultyOnes)
{
    TempDir dir;
    RecordClip(dir.File("x.zmf"), nullptr);
    std::string good = ReadFile(dir.File("x.zmf"));
    size_t nFirst = good.find(std::string("v\x40\0\0\0\0", 6)) - 2;
    uint8_t four[4] = {0, 0, 0, 9};
    std::string nine(reinterpret_cast<char *>(four), 4);
    const struct {
        const char *szFault;
        size_t nOffset;
        std::string bytes;
    } cases[] = {
        {"the header says 9 pictures, there are 250", 44, nine},
        {"the header says 9 key frames, there are 10", 128, nine},
        {"the header says 9 ms, the last sample is at 9960 ms", 40, nine},
        {"index entry 1 names no key frame", 180, nine},
        {"the first picture is no key frame", nFirst + 3, std::string(1, '\0')},
        {"wrong key-frame flag", nFirst + 3, std::string(1, '\0')},
        {"its parts do not fill it", nFirst + 8, std::string(1, '\x7F')},
        {"unknown kind 0x78", nFirst + 2, "x"},
        {"bytes at the end are no whole record", nFirst, std::string(2, '\xFF')},
    };
    for (const auto &c : cases) {
        WriteFile(dir.File("y.zmf"), std::string(good).replace(c.nOffset, c.bytes.size(), c.bytes));
        EXPECT_THAT(Look(dir.File("y.zmf")).faults, testing::Contains(HasSubstr(c.szFault)));
        EXPECT_EQ(1, ReportCheck(dir.File("y.zmf")));
    }
    WriteFile(dir.File("y.zmf"), good.substr(0, good.size() - 1));
    EXPECT_EQ(1, ReportCheck(dir.File("y.zmf")));
    // The same cut in a file that was never closed is what a power cut leaves.
    WriteFile(dir.File("y.zmf"), good.substr(0, good.size() - 1).replace(40, 4, std::string(4, '\0')));
    EXPECT_EQ(0, ReportCheck(dir.File("y.zmf")));
    EXPECT_EQ(2U, Look(dir.File("y.zmf")).notes.size());
    EXPECT_EQ(1, ReportCheck(dir.File("none.zmf")));
}

}  // namespace
}  // namespace orx
