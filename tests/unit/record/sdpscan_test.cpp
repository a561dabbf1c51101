#include "record/sdpscan.h"

#include <string>
#include <tuple>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "record/sdpreader.h"
#include "support/output.h"

namespace orx {

TEST(SdpScan, TakesWhatCanBeRecorded)
{
    const std::string video = "m=video 0 RTP/AVP 96\r\n", audio = "m=audio 0 RTP/AVP 97\n",
                      h264 = video + "a=rtpmap:96 avc/90000\r\n", amr = audio + "a=rtpmap:97 amr-nb/8000\n",
                      data = "m=data 0 RTP/AVP 98\r\na=rtpmap:98 x/1000\r\n";
    const std::tuple<std::string, const char *, const char *, const char *> cases[] = {
        // a description, its video and audio, and what is printed
        {"v=0\n" + amr + h264, "H264", "AMR-NB", ""},
        {"m=video 0 RTP/AVP 26\r\n", "JPEG", "", ""},
        {video + h264, "H264", "", "bad SDP: no rtpmap field"},  // a section does not take the next one's line
        {data + h264 + amr, "H264", "", ""},                     // two that are used, the rest is not read
        {"m=application 0 x y\n" + h264 + amr, "H264", "AMR-NB", "ignore unknown media \"application\"\n"},
        {video + "a=rtpmap:96 MJPEG/90000\r\n", "MJPEG", "", "Unsupport Video Codec \"MJPEG\"!\r\n"},
        {audio + "a=rtpmap:97 G711A/8000\r\n", "", "G711A", "Unsupport Audio Codec \"G711A\"!\r\n"},
        {audio + "a=rtpmap:97 pcma/8000\r\n", "", "PCMA", ""},
        {h264 + audio + "a=rtpmap:97 /8000\r\n", "H264", "", "Invalid SDP!\r"},
        {h264 + audio + "a=rtpmap:97 AMR\r\n", "H264", "", "Invalid SDP!\r"},
        {h264 + "m=audio 0 RTP/AVP\r\na=rtpmap:97 AMR/8000\r\n", "H264", "", "bad SDP:\r\nm=video"},
        {"s=m=video 0 RTP/AVP 26\r\rm=video 0 RTP/AVP 26", "", "", ""},  // lines end in LF
    };
    for (const auto &[sdp, szVideo, szAudio, szPrinted] : cases) {
        SdpCodecs codecs;
        std::string printed = Printed([&, &text = sdp] {
            SdpScanCodecs(text.c_str(), &codecs);
            SdpDepacketiser(&codecs.video, "Video");
            SdpDepacketiser(&codecs.audio, "Audio");
        });
        EXPECT_STREQ(szVideo, codecs.video.szName) << sdp;
        EXPECT_STREQ(szAudio, codecs.audio.szName) << sdp;
        EXPECT_EQ(*szPrinted == '\0', printed.empty()) << printed;
        EXPECT_THAT(printed, testing::HasSubstr(szPrinted));
    }
}

TEST(SdpScan, StaticPayloadTypesGetTheirLine)
{
    static const std::pair<const char *, const char *> cases[] = {
        {"v=0\r\nm=audio 0 RTP/AVP 8\r\nb=AS:64\r\nm=video 0 RTP/AVP 26",
         "v=0\r\nm=audio 0 RTP/AVP 8\r\nb=AS:64\r\na=rtpmap:8 PCMA/8000\r\nm=video 0 RTP/AVP 26\r\n"
         "a=rtpmap:26 JPEG/90000\r\n"},
        {"m=audio 0 RTP/AVP 0\na=rtpmap:0 L8/8000\nm=audio 0 RTP/AVP 20\n",
         "m=audio 0 RTP/AVP 0\na=rtpmap:0 L8/8000\nm=audio 0 RTP/AVP 20\n"},
        {"m=audio 0 RTP/AVP 10 1 101\na=rtpmap:101 telephone-event/8000\n",
         "m=audio 0 RTP/AVP 10 1 101\na=rtpmap:10 L16/44100/2\r\na=rtpmap:101 telephone-event/8000\n"},
        {"m=audio\n", "m=audio\n"},
        {"none", "none"},
    };
    for (const auto &[szGiven, szMade] : cases) {
        char *sz = SdpWithStaticMaps(szGiven);
        EXPECT_STREQ(szMade, sz);
        free(sz);
    }
}

}  // namespace orx
