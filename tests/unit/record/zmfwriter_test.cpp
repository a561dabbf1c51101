#include "record/zmfwriter.h"

#include <filesystem>
#include <sstream>
#include <tuple>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "recordkit.h"

namespace orx {

using testing::HasSubstr;

// Each sample as kind, flags and time, "v64@1000=data ".
static std::string Told(const std::vector<MediaSample> &samples)
{
    std::ostringstream text;
    for (const MediaSample &s : samples)
        text << s.chMedia << int{s.nFlags} << "@" << s.nTimeMs << "=" << s.data << " ";
    return text.str();
}

TEST(ZMFWriter, EveryByteOfASmallFile)
{
    Recorder recorder("v=0\r\na=Range:npt=now-\r\nm=video 0 RTP/AVP 96\r\na=rtpmap:96 H264/90000\r\n", "Front door",
                      "0123456789");
    EXPECT_TRUE(std::filesystem::exists(recorder.path + ".tm!"));
    recorder.PutKey(5000, 30);
    recorder.Put('v', 0, 5040, "delta");
    recorder.Put('u', 0, 5050, "ALARM:1");
    recorder.Put('t', 0, 6234, "text");
    std::string file = recorder.Finish();
    EXPECT_FALSE(std::filesystem::exists(recorder.path + ".tm!"));

    auto padded = [](std::string text, size_t nBytes) {
        text.resize(nBytes);
        return text;
    };
    auto record = [](const std::string &kind, uint32_t nTimeMs, const std::string &data) {
        return Be(Size(data) + 8, 2) + kind + Be(nTimeMs, 4) + data;
    };
    const std::string none(1, '\0');
    std::string start = file.substr(20, 15);
    EXPECT_THAT(start, testing::MatchesRegex("20[0-9]{6}-[0-9]{6}"));
    std::string head = "zmf@" + Be(168, 2) + Be(100, 2) + Be(1600, 2) + Be(88, 2) + Be(16, 2) + Be(0, 2);
    head += Be(0, 4) + padded(start, 16) + Be(RECORD_MANUAL, 2) + Be(0, 2) + Be(1234, 4);  // duration
    head += Be(2, 4) + Be(0, 4) + Be(1, 4) + Be(1, 4) + padded("Front door", 68);          // samples by kind
    head += Be(1, 4) + Be(1, 2);                                                           // key frames
    EXPECT_EQ(padded(head, 168), file.substr(0, 168));
    EXPECT_EQ(std::string(1600, '\0'), file.substr(168, 1600)) << "the first picture is at 0";
    EXPECT_EQ(padded("v=0\r\na=range:npt=0-1.234\r\nm=video 0 RTP/AVP 96\r\na=rtpmap:96 H264/90000\r\n", 88) +
                  padded("0123456789", 16) + record("v\x40", 0, Nal(7, 30, 5000)) + record("v" + none, 40, "delta") +
                  record("u" + none, 50, "ALARM:1") + record("t" + none, 1234, "text"),
              file.substr(1768));
}

// However many range lines a description has and however long it is, the new line fits into its block.
TEST(ZMFWriter, RoomForTheRangeLine)
{
    for (size_t nPad = 0; nPad < 8; nPad++) {
        for (const std::string range : {"", "a=range:\r\n", "a=range:npt=0-1.000\r\na=Range:x\r\n"}) {
            std::string sdp = "v=0\r\ns=" + std::string(nPad, 'x') + "\r\n" + range + "m=video 0 RTP/AVP 26";
            Recorder recorder(sdp.c_str());
            recorder.PutKey(0);
            recorder.PutKey(2147483000);
            std::string file = recorder.Finish();
            EXPECT_EQ((sdp.size() + 8) / 8 * 8 + (range.empty() ? 32 : 16), Field(file, 10, 2));
            EXPECT_THAT(file, HasSubstr("a=range:npt=0-2147483.000\r\nm=video")) << range;
        }
    }
}

TEST(ZMFWriter, NothingBeforeTheFirstKeyFrame)
{
    Recorder recorder;
    EXPECT_EQ(1, recorder.Put('a', 0, 900, "early audio"));
    EXPECT_EQ(1, recorder.Put('v', 0, 950, "early picture"));
    EXPECT_EQ(1, recorder.Put('u', 0, 960, "ALARM:early"));
    EXPECT_EQ(1, recorder.Put('v', ZMF_KEY, 1000, "key"));
    EXPECT_EQ(1, recorder.Put('a', 0, 990, "one"));  // from before the picture: counts as its time
    EXPECT_EQ(1, recorder.Put('a', 0, 1010, "two"));
    EXPECT_EQ(1, recorder.Put('v', 0, 1040, "picture"));
    EXPECT_EQ(1, recorder.Put('a', 0, 1060, "three"));
    EXPECT_EQ("v64@0=key a0@0=onetwo v0@40=picture a0@60=three ", Told(recorder.FinishedSamples()));
}

// What is gathered is written, and the next sample follows 20 ms after the last one, whatever its clock says.
TEST(ZMFWriter, APauseLeavesTimeOut)
{
    Recorder recorder;
    recorder.Put('v', ZMF_KEY, 1000, "key");
    recorder.Put('v', 0, 1040, "picture");
    recorder.Put('a', 0, 1050, "sound");
    ZMFWriterPause(recorder.pWriter);
    recorder.Put('a', 0, 500, "after");
    recorder.Put('v', ZMF_KEY, 700, "key");
    EXPECT_EQ("v64@0=key v0@40=picture a0@50=sound a0@70=after v64@270=key ", Told(recorder.FinishedSamples()));
}

TEST(ZMFWriter, BigFramesUseTheLongLength)
{
    for (size_t nBytes : {65527U, 65528U, 131071U}) {
        Recorder recorder;
        recorder.PutKey(0, nBytes);
        recorder.Put('v', 0, 40, "next");
        EXPECT_TRUE("v64@0=" + Nal(7, nBytes, 0) + " v0@40=next " == Told(recorder.FinishedSamples())) << nBytes;
    }
}

TEST(ZMFWriter, TheIndexHalvesWhenItIsFull)
{
    static const std::tuple<uint32_t, uint32_t, uint32_t> cases[] = {{199, 1, 199}, {200, 1, 200}, {201, 2, 101},
                                                                     {400, 4, 100}, {401, 4, 101}, {1000, 8, 125}};
    for (const auto &[nKeys, nInterval, nEntries] : cases) {
        Recorder recorder;
        for (uint32_t i = 0; i < nKeys; i++)
            ASSERT_EQ(1, recorder.PutKey(i * 1000, 20));
        std::string file = recorder.Finish();
        EXPECT_EQ(nInterval, Field(file, 132, 2)) << nKeys;
        EXPECT_EQ(nKeys, Field(file, 128, 4));
        for (uint32_t i = 0; i < 200; i++) {
            uint32_t nKey = i < nEntries ? i * nInterval : 0;
            EXPECT_EQ(nKey * 28, Field(file, 168 + i * 8, 4)) << nKeys << " entry " << i;
            EXPECT_EQ(nKey * 1000, Field(file, 172 + i * 8, 4));
        }
    }
}

TEST(ZMFWriter, TimesBeforeTheFileAreTakenAtItsBeginningOnly)
{
    Recorder recorder;
    recorder.PutKey(1000);
    for (uint32_t i = 1; i < 6; i++)
        EXPECT_EQ(1, recorder.Put('v', 0, 1000 - i, "early"));
    EXPECT_THAT(PeerFaults([&] { EXPECT_EQ(-1, recorder.Put('v', 0, 1000, "late")); }),
                HasSubstr("pWriter->uSampleCount < 6"));
}

}  // namespace orx
