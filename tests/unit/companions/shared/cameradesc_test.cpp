#include "shared/cameradesc.h"

#include <gtest/gtest.h>

using namespace orx;

static std::string Show(const PlayTrack &track)
{
    return track.media + "|" + track.encoding + "|" + std::to_string(track.nPayloadType) + "|" +
           std::to_string(track.nClockRate) + "|" + std::to_string(track.nChannels) + "|" + track.fmtp + "|" +
           track.control;
}

TEST(CameraDesc, ReadsTracks)
{
    static const struct {
        const char *szSdp, *szControl;
        std::vector<std::string> tracks;
    } cases[] = {
        {"v=0\r\no=- 1 1 IN IP4 0.0.0.0\r\ns=Cam\r\na=control:*\r\nm=video 0 RTP/AVP 96\r\n"
         "a=rtpmap:96 H264/90000\r\na=fmtp:96 packetization-mode=1;x=y\r\na=control:trackID=0\r\n"
         "m=audio 0 RTP/AVP 97 0\r\na=rtpmap:0 PCMU/8000\r\na=rtpmap:97 MPEG4-GENERIC/48000/2\r\n"
         "a=control:trackID=1\r\n",
         "*",
         {"video|H264|96|90000|1|packetization-mode=1;x=y|trackID=0", "audio|MPEG4-GENERIC|97|48000|2||trackID=1"}},
        // no s=, no o=, LF, static types, blanks where none belong, no control
        {"v=0\nm=audio 0 RTP/AVP 8\nm=video 0/2 RTP/AVP 26\nm=video 0 RTP/AVPF 98\na=rtpmap: 98  H265/90000 \n"
         "a=fmtp:99 no\na=fmtp:98 yes\na=fmtp:98 late",
         "",
         {"audio|PCMA|8|8000|1||", "video|JPEG|26|90000|1||", "video|H265|98|90000|1|yes|"}},
        {"m=application 0 RTP/SAVP 1\r\nm=video 0 RTP/AVP 300\r\na=rtpmap:300 X/1\r\nm=audio 0 RTP/AVP 11\r\nm=",
         "",
         {"application||-1|0|1||", "video||-1|0|1||", "audio|L16|11|44100|1||", "||-1|0|1||"}},
        {"m=audio 0 RTP/AVP 100\ra=rtpmap:100 opus/48000/0\ra=rtpmap:100 opus/-5/9999999999",
         "",
         {"audio|opus|100|0|255||"}},
        {"v=0\r\ns=x\r\na=rtpmap:96 H264/90000\r\n", "", {}},
    };
    for (const auto &c : cases) {
        PlayDescription description;
        std::string control;
        std::vector<std::string> tracks;
        EXPECT_EQ(!c.tracks.empty(), CameraDescRead(c.szSdp, &description, &control)) << c.szSdp;
        for (const PlayTrack &track : description.tracks)
            tracks.push_back(Show(track));
        EXPECT_EQ(c.tracks, tracks) << c.szSdp;
        EXPECT_EQ(c.szControl, control) << c.szSdp;
    }
}

TEST(CameraDesc, BoundsTracks)
{
    std::string sdp;
    for (int i = 0; i < 1000; i++)
        sdp += "m=video 0 RTP/AVP 26\n";
    PlayDescription description;
    std::string control;
    EXPECT_TRUE(CameraDescRead(sdp, &description, &control));
    EXPECT_EQ(kMostCameraTracks, description.tracks.size());
}

TEST(CameraDesc, FindsTheUrlsOfTracks)
{
    static const struct {
        const char *szAsked, *szBase, *szLocation, *szControl, *szUrl;
    } cases[] = {
        {"rtsp://c/a", "rtsp://c/a/", "", "trackID=0", "rtsp://c/a/trackID=0"},
        {"rtsp://c/a", "", "", "trackID=0", "rtsp://c/a/trackID=0"},
        {"rtsp://c/a", "", "rtsp://c/b/", "t", "rtsp://c/b/t"},
        {"rtsp://c/a", "nonsense", " rtsp://c/b ", "t", "rtsp://c/b/t"},
        {"rtsp://c/a", "rtsp://c/a/", "", "", "rtsp://c/a/"},
        {"rtsp://c/a", "rtsp://c/a/", "", "*", "rtsp://c/a/"},
        {"rtsp://c/a", "", "", "rtsp://c/x?y=1", "rtsp://c/x?y=1"},
        {"rtsp://c:8554/a", "", "", "rtsp://192.168.1.9/a/t", "rtsp://c:8554/a/t"},
        {"rtsp://c:8554/a", "rtsp://192.168.1.9:554/a/", "", "t", "rtsp://c:8554/a/t"},
        {"rtsps://c/a", "rtsp://c/a/", "", "t", "rtsps://c/a/t"},
        {"rtsp://c/a?ch=1&s=0", "", "", "trackID=1", "rtsp://c/a?ch=1&s=0/trackID=1"},
        {"rtsp://c/a?ch=1", "rtsp://c/a?ch=1/", "", "trackID=1", "rtsp://c/a?ch=1/trackID=1"},
        {"rtsp://c/a", "/b/", "", "t", "rtsp://c/b/t"},
        {"rtsp://c/a", "", "", "/a/t", "rtsp://c/a/t"},
        {"rtsp://c/a", "", "", "/t", "rtsp://c/a/t"},
        {"rtsp://c", "", "", "t", "rtsp://c/t"},
        {"rtsp://c/", "", "", "/t", "rtsp://c/t"},
        {"rtsp://c/a", "rtsp://u:p@c/b/", "", "my track", "rtsp://c/b/my%20track"},
        {"rtsp://[::1]:5/a", "", "", "rtsp://", "rtsp://[::1]:5/a"},
    };
    for (const auto &c : cases) {
        CameraUrl home;
        ASSERT_TRUE(CameraUrlParse(c.szAsked, &home));
        EXPECT_EQ(c.szUrl, CameraDescUrl(&home, CameraDescBase(&home, c.szBase, c.szLocation), c.szControl))
            << c.szAsked << " " << c.szBase << " " << c.szControl;
    }
}
