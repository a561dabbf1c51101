#include "record/sdpscan.h"

#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/output.h"

namespace orx {

using testing::HasSubstr;

TEST(SdpScan, TakesWhatCanBeRecorded)
{
    const std::string video = "m=video 0 RTP/AVP 96\r\n", audio = "m=audio 0 RTP/AVP 97\n",
                      h264 = video + "a=rtpmap:96 avc/90000\r\n", amr = audio + "a=rtpmap:97 amr-nb/8000\n",
                      data = "m=data 0 RTP/AVP 98\r\na=rtpmap:98 x/1000\r\n";
    const struct {
        std::string sdp;
        const char *szVideo, *szAudio, *szPrinted;
    } cases[] = {
        {"v=0\n" + amr + h264, "H264", "AMR-NB", ""},
        {"m=video 0 RTP/AVP 26\r\n", "JPEG", "", ""},
        {video + h264, "H264", "",
         "bad SDP: no rtpmap field"},         // a section does not take the next one's line
        {data + h264 + amr, "H264", "", ""},  // two that are used, the rest is not read
        {"m=application 0 x y\n" + h264 + amr, "H264", "AMR-NB", "ignore unknown media \"application\"\n"},
        {video + "a=rtpmap:96 MJPEG/90000\r\n", "MJPEG", "", "Unsupport Video Codec \"MJPEG\"!\r\n"},
        {audio + "a=rtpmap:97 G711A/8000\r\n", "", "G711A", "Unsupport Audio Codec \"G711A\"!\r\n"},
        {audio + "a=rtpmap:97 pcma/8000\r\n", "", "PCMA", ""},
        {audio + "a=rtpmap:97 PCMU/8000\r\n", "", "PCMU", ""},
        {audio + "a=rtpmap:97 sawb/16000\r\n", "", "AMR-WB", ""},
        {h264 + audio + "a=rtpmap:97 /8000\r\n", "H264", "", "Invalid SDP!\r"},
        {h264 + audio + "a=rtpmap:97 AMR\r\n", "H264", "", "Invalid SDP!\r"},
        {h264 + "m=audio 0 RTP/AVP\r\na=rtpmap:97 AMR/8000\r\n", "H264", "", "bad SDP:\r\nm=video"},
        {"s=m=video 0 RTP/AVP 26\r\rm=video 0 RTP/AVP 26", "", "", ""},  // lines end in LF
    };
    for (const auto &c : cases) {
        SdpCodecs codecs;
        std::string printed = Printed([&] {
            SdpScanCodecs(c.sdp.c_str(), &codecs);
            SdpDepacketiser(&codecs.video, "Video");
            SdpDepacketiser(&codecs.audio, "Audio");
        });
        EXPECT_STREQ(c.szVideo, codecs.video.szName) << c.sdp;
        EXPECT_STREQ(c.szAudio, codecs.audio.szName) << c.sdp;
        EXPECT_EQ(*c.szPrinted == '\0', printed.empty()) << printed;
        EXPECT_THAT(printed, HasSubstr(c.szPrinted));
        for (const Codec *p : {codecs.video.pCodec, codecs.audio.pCodec})
            EXPECT_TRUE(!p || (p->pfnPack && p->nForm != FORM_NONE && p->exported.szEnding))
                << "what is recorded can be played and exported";
    }
}

}  // namespace orx
