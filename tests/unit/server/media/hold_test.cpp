#include "server/media/hold.h"

#include <string>

#include <gtest/gtest.h>

#include "server/core/sdp.h"
#include "server/core/settings.h"
#include "support/playerkit.h"

namespace orx {

// Players that wait know the description: what they cannot do with another ends them.
TEST(HoldSuits, WhatPlayersCanGoOnWith)
{
    const std::string video = "m=video 0 RTP/AVP 96\r\na=rtpmap:96 H264/90000\r\n",
                      audio =
                          "m=audio 0 RTP/AVP 97\r\na=rtpmap:97 mpeg4-generic/44100/2\r\na=fmtp:97 config=1210; x=1\r\n";
    const std::pair<std::string, int> cases[] = {
        {video + audio, 1},
        {"m=video 0 RTP/AVP 99\r\na=rtpmap:99 h264/90000\r\na=framesize:99 640-480\r\n" + audio, 1},
        {video + "a=fmtp:96 config=000001B001\r\n" + audio, 1},
        {video + "m=audio 0 RTP/AVP 97\r\na=rtpmap:97 mpeg4-generic/44100/2\r\na=fmtp:97 config=1210;mode=AAC-lbr\r\n",
         0},
        {video, 0},
        {video + audio + "m=text 0 RTP/AVP 98\r\na=rtpmap:98 t140/1000\r\n", 0},
        {audio + video, 0},
        {video + video, 0},
        {"m=video 0 RTP/AVP 96\r\na=rtpmap:96 H265/90000\r\n" + audio, 0},
        {video + "m=audio 0 RTP/AVP 97\r\na=rtpmap:97 mpeg4-generic/48000/2\r\na=fmtp:97 config=1210\r\n", 0},
        {video + "m=audio 0 RTP/AVP 97\r\na=rtpmap:97 mpeg4-generic/44100/1\r\na=fmtp:97 config=1210\r\n", 0},
        {video + "m=audio 0 RTP/AVP 97\r\na=rtpmap:97 mpeg4-generic/44100/2\r\na=fmtp:97 config=1208\r\n", 0},
        {video + "m=audio 0 RTP/AVP 97\r\na=rtpmap:97 PCMA/44100/2\r\na=fmtp:97 config=1210\r\n", 0},
    };
    Program *pOld = ProgramNew("/cam", &g_testOps);
    pOld->desc.szSdp = strdup(cases[0].first.c_str());
    ASSERT_EQ(1, SdpParse(&pOld->desc, pOld->desc.szSdp, 1, 0, 1));
    for (int bWaits : {1, 0}) {
        pOld->hold.nNumber = bWaits;
        for (const auto &[sdp, bSuits] : cases) {
            std::string text = sdp;
            Description desc;
            desc.szSdp = text.data();
            ASSERT_EQ(1, SdpParse(&desc, desc.szSdp, 1, 0, 1)) << sdp;
            EXPECT_EQ(bWaits && bSuits, HoldSuits(pOld, &desc)) << sdp;
            desc.szSdp = nullptr;
        }
    }
    Description same;
    same.szSdp = strdup(cases[1].first.c_str());
    ASSERT_EQ(1, SdpParse(&same, same.szSdp, 1, 0, 1));
    pOld->flush.bTask = 1;  // a task of the pusher that has gone
    HoldResume(pOld, &same);
    EXPECT_EQ(0, pOld->flush.bTask);
    free(same.szSdp);
    pOld->hold.nNumber = 0;
    ProgramDiscard(pOld);
}

}  // namespace orx
