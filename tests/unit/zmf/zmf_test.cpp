// What orxzmf finds in recordings, and the images that it makes of their payloads.
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "orxzmf/jpegimage.h"
#include "orxzmf/report.h"
#include "orxzmf/survey.h"
#include "record/zmfwriter.h"
#include "support/files.h"
#include "support/rtp.h"

namespace orx {
namespace {

using testing::Contains;
using testing::HasSubstr;

const uint8_t *Data(const std::string &text)
{
    return reinterpret_cast<const uint8_t *>(text.data());
}

// Two seconds of pictures, one in ten a key frame.
void Record(const std::string &path)
{
    ZMFWriter *pWriter = ZMFWriterCreateFile(path.c_str(), RECORD_MANUAL, nullptr);
    ZMFWriterSetSdp(pWriter, "v=0\r\nm=video 0 RTP/AVP 96\r\na=rtpmap:96 H264/90000\r\n");
    ZMFWriterWriteHead(pWriter);
    for (uint32_t i = 0; i < 50; i++) {
        const std::string unit = (i % 10 == 0 ? "\x67" : "\x41") + std::to_string(i),
                          data = Be(static_cast<uint32_t>(unit.size()) + 2, 2) + unit;
        ASSERT_EQ(1, ZMFWriterWriteSample(pWriter, Data(data), static_cast<uint32_t>(data.size()), i * 40,
                                          SampleType('v', i % 10 == 0 ? ZMF_KEY : 0)));
    }
    ZMFWriterFree(pWriter);
}

TEST(JpegImage, RecordedPayloadsBecomeAnImage)
{
    // an image of 16 x 8 pixels in two payloads, its tables given by Q or sent along
    const std::string scan = "entropy coded data";
    auto payload = [&](uint32_t nOffset, uint32_t nQ, const std::string &rest) {
        return Be(nOffset, 4) + "\x01" + Be(nQ, 1) + "\x02\x01" + rest;
    };
    auto rebuild = [](const std::string &sample, std::string *pImage) {
        return JpegImageRebuild(Data(sample), static_cast<uint32_t>(sample.size()), pImage);
    };
    static const struct {
        uint32_t nQ;
        char chFirst;  // of the table
    } cases[] = {{50, 16}, {99, 1}, {1, '\xFF'}, {255, 'q'}};
    for (const auto &c : cases) {
        std::string tables = c.nQ == 255 ? Be(128, 4) + std::string(128, 'q') : "", image, again;
        ASSERT_EQ(1, rebuild(payload(0, c.nQ, tables + scan.substr(0, 7)) + payload(7, c.nQ, scan.substr(7)),
                             &image));
        EXPECT_TRUE(image.ends_with(scan + "\xFF\xD9"));
        uint32_t nWidth = 0, nHeight = 0;
        EXPECT_EQ(1, JpegImageSize(image, &nWidth, &nHeight));
        EXPECT_EQ(16U, nWidth);
        EXPECT_EQ(8U, nHeight);
        EXPECT_EQ(c.chFirst, image[image.find(std::string("\xFF\xDB\0\x43\0", 5)) + 5]) << c.nQ;
        EXPECT_EQ(1, rebuild(image, &again));
        EXPECT_EQ(image, again);
    }
    std::string image;
    for (const std::string &bad : {payload(0, 0, scan), payload(0, 120, scan), payload(9, 50, scan), scan})
        EXPECT_EQ(0, rebuild(bad, &image));
}

Survey Look(const std::string &path)
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
    TempDir dir;
    std::string path = dir.File("x.zmf");
    Record(path);
    EXPECT_EQ(0, ReportCheck(path));
    const std::string good = ReadFile(path);
    size_t nFirst = good.find(std::string("v\x40\0\0\0\0", 6)) - 2;
    const struct {
        const char *szFault;
        size_t nOffset;
        std::string bytes;
    } cases[] = {
        {"the header says 9 pictures, there are 50", 44, Be(9, 4)},
        {"the header says 9 ms, the last sample is at 1960 ms", 40, Be(9, 4)},
        {"index entry 1 names no key frame", 180, Be(9, 4)},
        {"its parts do not fill it", nFirst + 8, "\x7F"},
        {"unknown kind 0x78", nFirst + 2, "x"},
        {"bytes at the end are no whole record", nFirst, "\xFF\xFF"},
    };
    for (const auto &c : cases) {
        WriteFile(path, std::string(good).replace(c.nOffset, c.bytes.size(), c.bytes));
        EXPECT_THAT(Look(path).faults, Contains(HasSubstr(c.szFault)));
        EXPECT_EQ(1, ReportCheck(path));
    }
    // a cut is a fault, but not in a file that was never closed: that is what a power cut leaves
    std::string cut = good.substr(0, good.size() - 1);
    WriteFile(path, cut);
    EXPECT_EQ(1, ReportCheck(path));
    WriteFile(path, cut.replace(40, 4, Be(0, 4)));
    EXPECT_EQ(0, ReportCheck(path));
    EXPECT_EQ(2U, Look(path).notes.size());
}

}  // namespace
}  // namespace orx
