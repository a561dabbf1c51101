#include "server/sdp.h"

#include <string>

#include <gtest/gtest.h>

#include "server/server.h"

namespace orx {
namespace {

constexpr char kHead[] = "v=0\r\no=- 0 0 IN IP4 127.0.0.1\r\ns=live\r\nt=0 0\r\n";
constexpr char kVideo[] = "m=video 0 RTP/AVP 96\r\na=rtpmap:96 H264/90000\r\na=control:trackID=0\r\n";
constexpr char kAudio[] = "m=audio 0 RTP/AVP 97\r\na=rtpmap:97 AMR/8000/1\r\na=control:trackID=1\r\n";

// A section of one line of attributes.
std::string Section(const std::string &media, const std::string &attribute)
{
    return "m=" + media + " 0 RTP/AVP 97\r\n" + attribute + "\r\n";
}

struct Parsed : Program {
    int nResult;
    explicit Parsed(const std::string &sdp, int bLive = 1, uint32_t nDurationMs = 0)
        : nResult(SdpParse(this, sdp.c_str(), bLive, nDurationMs))
    {
    }
};

TEST(Sdp, DescribesTheTracksOfALiveProgram)
{
    Parsed p(std::string(kHead) + kVideo + kAudio +
             "m=data 0 RTP/AVP 98\r\na=rtpmap:98 event/1000\r\na=control:trackID=2\r\n");
    ASSERT_EQ(1, p.nResult);
    ASSERT_EQ(3, p.nTrackCount);
    EXPECT_EQ(0, p.nVideoTrack);
    EXPECT_EQ(1, p.nAudioTrack);
    EXPECT_EQ(2, p.nDataTrack);
    EXPECT_TRUE(p.bHasVideo && p.bHasAudio);
    const MediaInfo *m = p.mediaInfos;
    EXPECT_EQ(MEDIA_H264, m[0].nMediaType);
    EXPECT_STREQ("H264", m[0].szEncoding);
    EXPECT_EQ(96, m[0].nPayloadType);
    EXPECT_EQ(90000U, m[0].nTimeScale);
    EXPECT_EQ(10000U, m[0].nSampleBits);
    EXPECT_EQ(MEDIA_AMR_NB, m[1].nMediaType);
    EXPECT_STREQ("AMR-NB", m[1].szEncoding);
    EXPECT_EQ(1U, m[1].nWidth);
    EXPECT_EQ(8000U, m[1].nHeight);
    EXPECT_EQ(16U, m[1].nSampleBits);
    EXPECT_EQ(MEDIA_DATA, m[2].nMediaType);
    EXPECT_EQ(1000U, m[2].nTimeScale);
    EXPECT_EQ(0U, m[2].nSampleBits);
    for (int i = 0; i < 3; i++) {
        EXPECT_EQ(i, m[i].nTrackId);
        EXPECT_EQ(2 * i, m[i].nRtpChannel);
        EXPECT_EQ(2 * i + 1, m[i].nRtcpChannel);
        EXPECT_EQ(0U, m[i].nDuration);
    }
}

TEST(Sdp, KnowsCodecsByName)
{
    static const struct {
        const char *szMedia, *szMap;
        uint32_t nMediaType, nWidth;
        const char *szEncoding;
    } cases[] = {
        {"video", "h264/90000", MEDIA_H264, 0, "H264"},
        {"VIDEO", "AVC/90000", MEDIA_H264, 0, "H264"},
        {"video", "MJPEG/90000", MEDIA_JPEG, 0, "JPEG"},
        {"video", "jpeg/90000", MEDIA_JPEG, 0, "JPEG"},
        {"video", "H265/90000", MEDIA_VIDEO_OTHER, 0, "H265"},
        {"audio", "amr/8000", MEDIA_AMR_NB, 2, "AMR-NB"},
        {"audio", "SAMR/8000/1", MEDIA_AMR_NB, 1, "AMR-NB"},
        {"audio", "AMR-WB/16000/1", MEDIA_AMR_WB, 1, "AMR-WB"},
        {"audio", "sawb/16000/2", MEDIA_AMR_WB, 2, "AMR-WB"},
        {"audio", "PCMU/8000", MEDIA_G711, 2, "PCMU"},
        {"Audio", "pcma/8000/1", MEDIA_G711, 1, "pcma"},
        {"audio", "G711A/8000/1", MEDIA_G711, 1, "G711A"},
        {"audio", "MPEG4-GENERIC/48000/2", MEDIA_AUDIO_OTHER, 2, "MPEG4-GENERIC"},
        {"text", "t140/1000", MEDIA_TEXT, 0, "t140"},
        {"video", "123456789012345/90000", MEDIA_VIDEO_OTHER, 0, "123456789012345"},
        {"video", "12345678901234567890/90000", MEDIA_VIDEO_OTHER, 0, "123456789012345"},
    };
    for (const auto &c : cases) {
        Parsed p(std::string(kHead) + Section(c.szMedia, std::string("a=rtpmap:97 ") + c.szMap));
        ASSERT_EQ(1, p.nResult) << c.szMap;
        EXPECT_EQ(c.nMediaType, p.mediaInfos[0].nMediaType) << c.szMap;
        EXPECT_STREQ(c.szEncoding, p.mediaInfos[0].szEncoding);
        EXPECT_EQ(c.nWidth, p.mediaInfos[0].nWidth) << c.szMap;
        EXPECT_EQ(97, p.mediaInfos[0].nPayloadType) << c.szMap;
    }
}

// A text that was cut must not leave half of a track's record in the next field.
TEST(Sdp, LongNameLeavesItsNeighboursAlone)
{
    Parsed p(Section("video", "a=rtpmap:97 " + std::string(300, 'x') + "/90000"));
    ASSERT_EQ(1, p.nResult);
    EXPECT_EQ(std::string(15, 'x'), p.mediaInfos[0].szEncoding);
    EXPECT_EQ(97, p.mediaInfos[0].nPayloadType);
    EXPECT_EQ(90000U, p.mediaInfos[0].nTimeScale);
}

TEST(Sdp, RefusesWhatCannotBePlayed)
{
    static const char *const texts[] = {
        "",
        "v=0\r\n",
        "m=video 0 RTP/AVP 96\r\n",
        "m=video 0 RTP/AVP 96\r\na=rtpmap:96\r\n",
        "m=video 0 RTP/AVP 96\r\na=rtpmap:96\tH264/90000\r\n",
        "m=video 0 RTP/AVP 96\r\na=rtpmap:96 H264\r\n",
        "m=video 0 RTP/AVP 96\r\na=rtpmap:96 H264/\r\n",
        "m=video 0 RTP/AVP 96\r\na=rtpmap:96 H264/0\r\n",
        "m=video 0 RTP/AVP 96\r\na=rtpmap:96 H264/-90000\r\n",
        "m=audio 0 RTP/AVP 97\r\na=rtpmap:97 AMR/8000/0\r\n",
        "m=audio 0 RTP/AVP 97\r\na=rtpmap:97 AMR/8000/x\r\n",
        "m=video 0 RTP/AVP 96\r\na=rtpmap:96 H264/90000\r\na=framesize:96\r\n",
        "m=video 0 RTP/AVP 96\r\na=rtpmap:96 H264/90000\r\na=framesize:96 640x480\r\n",
        "m=video 0 RTP/AVP\r\n",
        "m=video x RTP/AVP 96\r\na=rtpmap:96 H264/90000\r\n",
        "m=",
        "m=application 0 RTP/AVP 96\r\na=rtpmap:96 x/1000\r\n",
        "s=m=video 0 RTP/AVP 96\r\na=rtpmap:96 H264/90000\r\n",  // not at the start of a line
    };
    for (const char *szText : texts)
        EXPECT_EQ(0, Parsed(szText).nResult) << szText;
}

// One section that is wrong costs the whole description, however many were read before it.
TEST(Sdp, RefusesTheWholeForOneBadSection)
{
    EXPECT_EQ(0, Parsed(std::string(kVideo) + Section("audio", "a=rtpmap:97 AMR/8000/0")).nResult);
}

TEST(Sdp, KeepsWhatCameBeforeALineItCannotRead)
{
    Parsed p(std::string(kVideo) + "m=audio\r\n");
    EXPECT_EQ(1, p.nResult);
    EXPECT_EQ(1, p.nTrackCount);
}

TEST(Sdp, DescribesFourSectionsAtMost)
{
    std::string sdp = kHead;
    for (int i = 0; i < 6; i++)
        sdp += Section(i < 4 ? "video" : "audio", "a=rtpmap:97 H264/90000");
    Parsed p(sdp);
    EXPECT_EQ(4, p.nTrackCount);
    EXPECT_EQ(3, p.nVideoTrack);
    EXPECT_FALSE(p.bHasAudio);
}

TEST(Sdp, PassesUnknownMediaOver)
{
    Parsed p(Section("application", "a=x") + kVideo + Section("message", "a=x") + kAudio);
    ASSERT_EQ(2, p.nTrackCount);
    EXPECT_EQ(0, p.nVideoTrack);
    EXPECT_EQ(1, p.nAudioTrack);
    EXPECT_EQ(2, p.mediaInfos[1].nRtpChannel);
}

TEST(Sdp, TakesLinesThatASectionLacksFromTheNext)
{
    Parsed p(
        "m=video 0 RTP/AVP 96\r\nm=audio 0 RTP/AVP 97\r\n"
        "a=rtpmap:97 AMR/8000/1\r\na=control:trackID=7\r\n");
    ASSERT_EQ(2, p.nTrackCount);
    EXPECT_EQ(97, p.mediaInfos[0].nPayloadType);
    EXPECT_STREQ("AMR", p.mediaInfos[0].szEncoding);
    EXPECT_EQ(7, p.mediaInfos[0].nTrackId);
    EXPECT_EQ(7, p.mediaInfos[1].nTrackId);
}

TEST(Sdp, NumbersTracksThatNameNoNumber)
{
    Parsed p(
        "m=video 0 RTP/AVP 96\r\na=rtpmap:96 H264/90000\r\na=control:streamid=5\r\n"
        "m=audio 0 RTP/AVP 97\r\na=rtpmap:97 PCMU/8000\r\n");
    EXPECT_EQ(0, p.mediaInfos[0].nTrackId);
    EXPECT_EQ(1, p.mediaInfos[1].nTrackId);
}

TEST(Sdp, TakesTrackNumbersOfStandardEncoders)
{
    static const struct {
        const char *szFirst, *szSecond;  // lines of the two sections
        int nFirst, nSecond;
    } cases[] = {
        {"a=control:stream=1\r\n", "a=control:stream=0\r\n", 1, 0},
        {"a=control:streamid=0\r\n", "a=control:streamid=1\r\n", 0, 1},
        {"", "a=control:stream=0\r\n", 0, 0},  // not what the next section says
        {"a=control:rtsp://h/p/trackID=3\r\n", "a=control:trackID=4\r\n", 3, 4},
        {"a=control:audio\r\n", "a=control:track=\r\n", 0, 1},
    };
    g_server.bStandardPushers = 1;
    for (const auto &c : cases) {
        Parsed p(std::string("m=audio 0 RTP/AVP 8\r\na=rtpmap:8 PCMA/8000\r\n") + c.szFirst +
                 "m=video 0 RTP/AVP 96\r\na=rtpmap:96 H264/90000\r\n" + c.szSecond);
        ASSERT_EQ(1, p.nResult) << c.szFirst;
        EXPECT_EQ(c.nFirst, p.mediaInfos[0].nTrackId) << c.szFirst;
        EXPECT_EQ(c.nSecond, p.mediaInfos[1].nTrackId) << c.szSecond;
    }
    g_server.bStandardPushers = 0;
}

TEST(Sdp, ReadsFrameSizes)
{
    static const struct {
        const char *szLine;
        uint32_t nWidth, nHeight;
    } cases[] = {
        {"a=framesize:96 640-480", 640, 480},
        {"a=cliprect:0,0,480,640", 640, 480},
        {"a=cliprect:0,0,480", 0, 480},
        {"a=cliprect:", 0, 0},
        {"a=cliprect:1,2,3,4\r\na=framesize:96 1920-1080", 1920, 1080},
        {"a=framesize:96 640-99999999999", 640, 2147483647},
    };
    for (const auto &c : cases) {
        Parsed p(std::string(kVideo) + c.szLine + "\r\n");
        ASSERT_EQ(1, p.nResult) << c.szLine;
        EXPECT_EQ(c.nWidth, p.mediaInfos[0].nWidth) << c.szLine;
        EXPECT_EQ(c.nHeight, p.mediaInfos[0].nHeight) << c.szLine;
    }
}

TEST(Sdp, ReadsTheLengthOfARecording)
{
    static const struct {
        const char *szLine;
        int bLive;
        uint32_t nKnown, nDuration;
    } cases[] = {
        {"a=range:npt=0-12.5", 0, 0, 12500},
        {"a=Range:npt=0.000-3600.125", 0, 0, 3600125},
        {"a=range:npt=0-", 0, 0, 0},
        {"a=range:npt=now-", 0, 0, 0},
        {"a=range:npt=0-1e30", 0, 0, 2000000000},
        {"a=nothing", 0, 0, 0},
        {"a=range:npt=0-12.5", 0, 700, 700},
        {"a=range:npt=0-12.5", 1, 0, 0},
    };
    for (const auto &c : cases) {
        Parsed p(std::string(kHead) + c.szLine + "\r\n" + kVideo, c.bLive, c.nKnown);
        ASSERT_EQ(1, p.nResult) << c.szLine;
        EXPECT_EQ(c.nDuration, p.mediaInfos[0].nDuration) << c.szLine;
    }
}

TEST(Sdp, TakesBareLineFeeds)
{
    Parsed p(
        "v=0\nm=video 0/2 RTP/AVP 96 97\na=rtpmap:96 H264/90000\nm=audio 0 RTP/AVP 8\na=rtpmap:8 "
        "PCMA/8000\n");
    ASSERT_EQ(2, p.nTrackCount);
    EXPECT_EQ(MEDIA_H264, p.mediaInfos[0].nMediaType);
    EXPECT_EQ(8000U, p.mediaInfos[1].nTimeScale);
}

// Cut anywhere, a description is refused or described by what is left.
TEST(Sdp, SurvivesEveryCut)
{
    std::string sdp = std::string(kHead) + kVideo + "a=framesize:96 640-480\r\n" + kAudio;
    for (size_t n = 0; n < sdp.size(); n++) {
        Parsed p(sdp.substr(0, n));
        EXPECT_LE(p.nTrackCount, 2);
        EXPECT_FALSE(p.nResult && p.nTrackCount == 0);
    }
}

}  // namespace
}  // namespace orx
