#include "server/core/sdp.h"
#include "server/core/settings.h"

#include <string>

#include <gtest/gtest.h>

namespace orx {
namespace {

constexpr char kHead[] = "v=0\r\no=- 0 0 IN IP4 127.0.0.1\r\ns=live\r\nt=0 0\r\n";
constexpr char kVideo[] = "m=video 0 RTP/AVP 96\r\na=rtpmap:96 H264/90000\r\na=control:trackID=0\r\n";
constexpr char kAudio[] = "m=audio 0 RTP/AVP 97\r\na=rtpmap:97 AMR/8000/1\r\na=control:trackID=1\r\n";

struct Parsed : Description {
    int nResult;
    explicit Parsed(const std::string &sdp, int bLive = 1, uint32_t nDurationMs = 0)
        : nResult(SdpParse(this, sdp.c_str(), bLive, nDurationMs))
    {
    }
};

TEST(Sdp, DescribesTheTracksOfALiveProgram)
{
    Parsed p(std::string(kHead) + kVideo + "m=application 0 RTP/AVP 99\r\na=x\r\n" + kAudio +
             "m=data 0 RTP/AVP 98\na=rtpmap:98 event/1000\na=control:trackID=2\n");
    ASSERT_EQ(1, p.nResult);
    ASSERT_EQ(3, p.nTrackCount) << "unknown media are passed over";
    EXPECT_EQ(0, p.nVideoTrack);
    EXPECT_EQ(1, p.nAudioTrack);
    EXPECT_EQ(2, p.nDataTrack);
    const MediaInfo *m = p.mediaInfos;
    EXPECT_EQ(96, m[0].nPayloadType);
    EXPECT_EQ(90000U, m[0].nTimeScale);
    EXPECT_EQ(10000U, m[0].nSampleBits);
    EXPECT_EQ(1U, m[1].nWidth);
    EXPECT_EQ(8000U, m[1].nHeight);
    EXPECT_EQ(16U, m[1].nSampleBits);
    EXPECT_EQ(1000U, m[2].nTimeScale);
    for (int i = 0; i < 3; i++) {
        EXPECT_EQ(i, m[i].nTrackId);
        EXPECT_EQ(2 * i, m[i].nRtpChannel);
        EXPECT_EQ(2 * i + 1, m[i].nRtcpChannel);
    }
}

TEST(Sdp, KnowsCodecsByName)
{
    static const struct {
        const char *szMedia;
        std::string map;
        uint32_t nMediaType, nWidth;
        const char *szEncoding;
    } cases[] = {
        {"VIDEO", "AVC/90000", MEDIA_H264, 0, "H264"},
        {"video", "MJPEG/90000", MEDIA_JPEG, 0, "JPEG"},
        {"video", "H265/90000", MEDIA_VIDEO_OTHER, 0, "H265"},
        {"audio", "SAMR/8000/1", MEDIA_AMR_NB, 1, "AMR-NB"},
        {"audio", "sawb/16000", MEDIA_AMR_WB, 2, "AMR-WB"},
        {"Audio", "pcma/8000/1", MEDIA_G711, 1, "pcma"},
        {"audio", "AMR-NB/8000", MEDIA_AUDIO_OTHER, 2, "AMR-NB"},  // only recordings call it so
        {"audio", "g711a/8000/1", MEDIA_G711, 1, "g711a"},
        {"audio", "MPEG4-GENERIC/48000/2", MEDIA_AUDIO_OTHER, 2, "MPEG4-GENERIC"},
        {"text", "t140/1000", MEDIA_TEXT, 0, "t140"},
        {"video", std::string(300, 'x') + "/90000", MEDIA_VIDEO_OTHER, 0, "xxxxxxxxxxxxxxx"},
    };
    for (const auto &c : cases) {
        Parsed p(std::string("m=") + c.szMedia + " 0 RTP/AVP 97\r\na=rtpmap:97 " + c.map + "\r\n");
        ASSERT_EQ(1, p.nResult) << c.map;
        EXPECT_EQ(c.nMediaType, p.mediaInfos[0].nMediaType) << c.map;
        EXPECT_STREQ(c.szEncoding, p.mediaInfos[0].szEncoding);
        EXPECT_EQ(c.nWidth, p.mediaInfos[0].nWidth) << c.map;
        EXPECT_EQ(97, p.mediaInfos[0].nPayloadType) << c.map;
    }
}

TEST(Sdp, TheLastVideoTrackChoosesTheKeyFrameTest)
{
    const std::string jpeg = "m=video 0 RTP/AVP 26\r\na=rtpmap:26 JPEG/90000\r\n",
                      other = "m=video 0 RTP/AVP 99\r\na=rtpmap:99 H265/90000\r\n";
    EXPECT_EQ(IsKeyH264, Parsed(jpeg + kVideo + kAudio).pfnIsKeyFrame);
    EXPECT_EQ(IsKeyJpeg, Parsed(kVideo + jpeg).pfnIsKeyFrame);
    EXPECT_EQ(IsKeyGeneric, Parsed(kVideo + other).pfnIsKeyFrame);
    EXPECT_EQ(nullptr, Parsed(kAudio).pfnIsKeyFrame);
}

TEST(Sdp, RefusesWhatCannotBePlayed)
{
    static const char *const texts[] = {
        "",
        "m=",
        "m=video 0 RTP/AVP\r\n",
        "m=video x RTP/AVP 96\r\na=rtpmap:96 H264/90000\r\n",
        "m=video 0 RTP/AVP 96\r\n",
        "m=video 0 RTP/AVP 96\r\na=rtpmap:96 H264\r\n",
        "m=video 0 RTP/AVP 96\r\na=rtpmap:96 H264/0\r\n",
        "m=video 0 RTP/AVP 96\r\na=rtpmap:96 H264/90000\r\na=framesize:96 640x480\r\n",
        "m=application 0 RTP/AVP 96\r\na=rtpmap:96 x/1000\r\n",
        "s=m=video 0 RTP/AVP 96\r\na=rtpmap:96 H264/90000\r\n",  // not at the start of a line
        // one section that is wrong costs the whole description
        "m=video 0 RTP/AVP 96\r\na=rtpmap:96 H264/90000\r\nm=audio 0 RTP/AVP 97\r\na=rtpmap:97 "
        "AMR/8000/0\r\n",
    };
    for (const char *szText : texts)
        EXPECT_EQ(0, Parsed(szText).nResult) << szText;
    EXPECT_EQ(1, Parsed(std::string(kVideo) + "m=audio\r\n").nTrackCount)
        << "a line that cannot be read ends it";
    EXPECT_EQ(4, Parsed(std::string(kVideo) + kAudio + kVideo + kAudio + kVideo).nTrackCount)
        << "no room for more";
}

TEST(Sdp, NumbersTracks)
{
    static const struct {
        int bStandardPushers;
        const char *szFirst, *szSecond;  // lines of the two sections
        int nFirst, nSecond;
    } cases[] = {
        {0, "a=control:streamid=5\r\n", "", 0, 1},
        {0, "", "a=control:trackID=7\r\n", 7, 7},  // a section without lines of its own means the next one's
        {1, "a=control:stream=1\r\n", "a=control:stream=0\r\n", 1, 0},
        {1, "", "a=control:stream=0\r\n", 0, 0},  // not what the next section says
        {1, "a=control:rtsp://h/p/trackID=3\r\n", "a=control:trackID=4\r\n", 3, 4},
        {1, "a=control:audio\r\n", "a=control:track=\r\n", 0, 1},
    };
    for (const auto &c : cases) {
        g_settings.bStandardPushers = c.bStandardPushers;
        Parsed p(std::string("m=audio 0 RTP/AVP 8\r\na=rtpmap:8 PCMA/8000\r\n") + c.szFirst +
                 "m=video 0 RTP/AVP 96\r\na=rtpmap:96 H264/90000\r\n" + c.szSecond);
        ASSERT_EQ(1, p.nResult) << c.szFirst;
        EXPECT_EQ(c.nFirst, p.mediaInfos[0].nTrackId) << c.szFirst;
        EXPECT_EQ(c.nSecond, p.mediaInfos[1].nTrackId) << c.szSecond;
    }
    g_settings.bStandardPushers = 0;
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
        {"a=range:npt=now-", 0, 0, 0},
        {"a=range:npt=0-1e30", 0, 0, 2000000000},
        {"a=nothing", 0, 0, 0},
        {"a=range:npt=0-12.5", 0, 700, 700},
        {"a=range:npt=0-12.5", 1, 0, 0},
    };
    for (const auto &c : cases) {
        Parsed p(std::string(kHead) + c.szLine + "\r\n" + kVideo, c.bLive, c.nKnown);
        EXPECT_EQ(c.nDuration, p.mediaInfos[0].nDuration) << c.szLine;
    }
}

}  // namespace
}  // namespace orx
