#include "server/core/sdp.h"
#include "server/core/settings.h"

#include <string>
#include <tuple>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace orx {

constexpr char kHead[] = "v=0\r\no=- 0 0 IN IP4 127.0.0.1\r\ns=live\r\nt=0 0\r\n";
constexpr char kVideo[] = "m=video 0 RTP/AVP 96\r\na=rtpmap:96 H264/90000\r\na=control:trackID=0\r\n";
constexpr char kAudio[] = "m=audio 0 RTP/AVP 97\r\na=rtpmap:97 AMR/8000/1\r\na=control:trackID=1\r\n";

struct Parsed : Description {
    int nResult;
    explicit Parsed(const std::string &sdp, int bStandard = 0) : nResult(SdpParse(this, sdp.c_str(), 1, 0, bStandard))
    {
    }
};

// What is known of a track, in words.
static std::string Told(const MediaInfo &m)
{
    char text[128];
    snprintf(text, sizeof(text), "%d %s/%u %ux%u %u bits, track %d, channels %d-%d", m.nPayloadType, m.szEncoding,
             m.nTimeScale, m.nWidth, m.nHeight, m.nSampleBits, m.nTrackId, m.nRtpChannel, m.nRtcpChannel);
    return text;
}

TEST(Sdp, DescribesTheTracksOfALiveProgram)
{
    Parsed p(std::string(kHead) + kVideo + "m=application 0 RTP/AVP 99\r\na=x\r\n" + kAudio +
             "m=data 0 RTP/AVP 98\na=rtpmap:98 event/1000\na=control:trackID=2\n");
    ASSERT_EQ(1, p.nResult);
    ASSERT_EQ(3, p.nTrackCount) << "unknown media are passed over";
    EXPECT_EQ("96 H264/90000 0x0 10000 bits, track 0, channels 0-1", Told(p.mediaInfos[p.nVideoTrack]));
    EXPECT_EQ("97 AMR-NB/8000 1x8000 16 bits, track 1, channels 2-3", Told(p.mediaInfos[p.nAudioTrack]));
    EXPECT_EQ("98 event/1000 0x0 0 bits, track 2, channels 4-5", Told(p.mediaInfos[p.nDataTrack]));
}

TEST(Sdp, KnowsCodecsByName)
{
    static const std::tuple<const char *, std::string, uint32_t, const char *> cases[] = {
        {"VIDEO", "AVC/90000", MEDIA_H264, "97 H264/90000 0x0"},
        {"video", "H265/90000", MEDIA_VIDEO_OTHER, "97 H265/90000 0x0"},
        {"audio", "sawb/16000", MEDIA_AMR_WB, "97 AMR-WB/16000 2x16000"},
        {"Audio", "pcma/8000/1", MEDIA_G711, "97 pcma/8000 1x8000"},
        {"audio", "g711a/8000/1", MEDIA_G711, "97 g711a/8000 1x8000"},
        {"audio", "AMR-NB/8000", MEDIA_AUDIO_OTHER, "97 AMR-NB/8000 2x8000"},  // only recordings call it so
        {"text", "t140/1000", MEDIA_TEXT, "97 t140/1000 0x0"},
        {"video", std::string(300, 'x') + "/90000", MEDIA_VIDEO_OTHER, "97 xxxxxxxxxxxxxxx/90000 0x0"},
    };
    for (const auto &[szMedia, map, nMediaType, szTold] : cases) {
        Parsed p(std::string("m=") + szMedia + " 0 RTP/AVP 97\r\na=rtpmap:97 " + map + "\r\n");
        ASSERT_EQ(1, p.nResult) << map;
        EXPECT_EQ(nMediaType, p.mediaInfos[0].nMediaType) << map;
        EXPECT_THAT(Told(p.mediaInfos[0]), testing::StartsWith(szTold));
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
        "m=video 0 RTP/AVP 96\r\na=rtpmap:96 x/9\r\nm=audio 0 RTP/AVP 97\r\na=rtpmap:97 AMR/8000/0\r\n",
    };
    for (const char *szText : texts)
        EXPECT_EQ(0, Parsed(szText).nResult) << szText;
    EXPECT_EQ(1, Parsed(std::string(kVideo) + "m=audio\r\n").nTrackCount) << "a line that cannot be read ends it";
    EXPECT_EQ(4, Parsed(std::string(kVideo) + kAudio + kVideo + kAudio + kVideo).nTrackCount) << "no room for more";
}

TEST(Sdp, NumbersTracks)
{
    static const std::tuple<int, const char *, const char *, int, int> cases[] = {
        // with StandardPushers, lines of the two sections and the numbers of their tracks
        {0, "a=control:streamid=5\r\n", "", 0, 1},
        {0, "", "a=control:trackID=7\r\n", 7, 7},  // a section without lines of its own means the next one's
        {1, "a=control:stream=1\r\n", "a=control:stream=0\r\n", 1, 0},
        {1, "", "a=control:stream=0\r\n", 0, 0},  // not what the next section says
        {1, "a=control:rtsp://h/p/trackID=3\r\n", "a=control:trackID=4\r\n", 3, 4},
        {1, "a=control:audio\r\n", "a=control:track=\r\n", 0, 1},
    };
    for (const auto &[bStandardPushers, szFirst, szSecond, nFirst, nSecond] : cases) {
        Parsed p(std::string("m=audio 0 RTP/AVP 8\r\na=rtpmap:8 PCMA/8000\r\n") + szFirst +
                     "m=video 0 RTP/AVP 96\r\na=rtpmap:96 H264/90000\r\n" + szSecond,
                 bStandardPushers);
        ASSERT_EQ(1, p.nResult) << szFirst;
        EXPECT_EQ(nFirst, p.mediaInfos[0].nTrackId) << szFirst;
        EXPECT_EQ(nSecond, p.mediaInfos[1].nTrackId) << szSecond;
    }
}

TEST(Sdp, TakesWhatStandardEncodersDescribe)
{
    static const std::tuple<const char *, uint32_t, const char *> cases[] = {
        {"m=application 0 RTP/AVP 107\r\na=control:meta\r\n", MEDIA_CARRIED, "107 /90000 "},
        {"m=text 0 RTP/AVP 98\r\na=rtpmap:98 t140/1000\r\n", MEDIA_TEXT, "98 t140/1000 "},
        {"m=audio 0 RTP/AVP 0 101\r\na=rtpmap:101 telephone-event/8000\r\na=rtpmap:0 PCMU/8000/1\r\n", MEDIA_G711,
         "0 PCMU/8000 1x8000"},
        {"m=audio 0 RTP/AVP 97\r\na=rtpmap:97 AAL2-G726-24/8000/1\r\n", MEDIA_AUDIO_OTHER,
         "97 AAL2-G726-24/8000 1x8000"},
        {"m=audio 0 RTP/AVP 97\r\na=rtpmap:97 mpeg4-generic/44100/2\r\n", MEDIA_AAC, "97 mpeg4-generic/44100 2x44100"},
        {"m=video 0 RTP/AVP 97\r\na=rtpmap:97 hevc/90000\r\na=framesize:97 640x480\r\n", MEDIA_H265,
         "97 H265/90000 0x0"},
    };
    for (const auto &[szSection, nMediaType, szTold] : cases) {
        Parsed p(std::string(kHead) + szSection + kVideo + kAudio, 1);
        ASSERT_EQ(3, p.nTrackCount) << szSection;
        EXPECT_EQ(nMediaType, p.mediaInfos[0].nMediaType) << szSection;
        EXPECT_THAT(Told(p.mediaInfos[0]), testing::StartsWith(szTold));
        EXPECT_EQ(1, p.nVideoTrack);
        EXPECT_EQ(-1, p.nDataTrack) << "only our own encoders have one";
    }
    std::string many;
    for (int i = 0; i < 9; i++)
        many += "m=application 0 RTP/AVP 99\r\n";
    EXPECT_EQ(8, Parsed(kVideo + many, 1).nTrackCount) << "no player could set up more";
}

}  // namespace orx
