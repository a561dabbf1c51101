#include "orxpull/announcement.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace orx;
using testing::HasSubstr;

PlayTrack Track(const char *szMedia, const char *szEncoding, int nType, int nRate, const char *szFormat = "")
{
    PlayTrack track;
    track.media = szMedia;
    track.encoding = szEncoding;
    track.nPayloadType = nType;
    track.nClockRate = nRate;
    track.fmtp = szFormat;
    return track;
}

constexpr const char *kSets = "packetization-mode=1;sprop-parameter-sets=Z0IAH5WoFAFuQA==,aM48gA==";

TEST(Announcement, ChoosesWhatOrxKnows)
{
    static const struct {
        std::vector<PlayTrack> tracks;
        AnnounceRules rules;
        std::vector<int> wanted;
    } cases[] = {
        {{Track("video", "H264", 96, 90000), Track("audio", "PCMU", 0, 8000)}, {}, {1, 1}},
        {{Track("video", "H264", 96, 90000), Track("audio", "PCMU", 0, 8000)}, {0, 1}, {1, 0}},
        {{Track("application", "VND.ONVIF.METADATA", 107, 90000), Track("video", "H265", 97, 90000)}, {}, {0, 1}},
        {{Track("video", "VP8", 96, 90000), Track("video", "H264", 97, 90000)}, {}, {0, 1}},
        {{Track("video", "JPEG", 26, 90000), Track("video", "H264", 97, 90000)}, {}, {1, 0}},
        {{Track("audio", "MPEG4-GENERIC", 97, 44100)}, {}, {1}},
        {{Track("audio", "MPEG4-GENERIC", 97, 44100)}, {1, 0}, {0}},
        {{Track("video", "H264", 96, 0)}, {}, {0}},
        {{Track("video", "H264", -1, 90000)}, {}, {0}},
        {{Track("video", "H264", 96, 90000, "a=1\r\na=ProgramAuth:x")}, {}, {0}},
        {{}, {}, {}},
    };
    for (const auto &c : cases) {
        PlayDescription description;
        description.tracks = c.tracks;
        int nWanted = 0;
        int nChosen = ChooseTracks(&description, &c.rules);
        for (size_t i = 0; i < c.wanted.size(); i++) {
            EXPECT_EQ(c.wanted[i], description.tracks[i].bWanted) << c.tracks[i].encoding << i;
            nWanted += c.wanted[i];
        }
        EXPECT_EQ(nWanted, nChosen);
    }
}

TEST(Announcement, TellsWhatOrxNeeds)
{
    PlayDescription description;
    description.title = "RTSP Session\r\n";
    description.tracks = {Track("application", "X", 98, 1000), Track("video", "H264", 96, 90000, kSets),
                          Track("audio", "PCMA", 8, 8000)};
    AnnounceRules rules;
    ASSERT_EQ(2, ChooseTracks(&description, &rules));
    Announcement announcement = MakeAnnouncement(&description, "live/cam1");
    EXPECT_EQ(
        "v=0\r\no=- 1 1 IN IP4 127.0.0.1\r\ns=cam1\r\na=NickName:cam1\r\nt=0 0\r\n"
        "m=video 0 RTP/AVP 96\r\na=rtpmap:96 H264/90000\r\na=fmtp:96 " +
            std::string(kSets) +
            "\r\na=framesize:96 1280-720\r\na=control:trackID=0\r\n"
            "m=audio 0 RTP/AVP 8\r\na=rtpmap:8 PCMA/8000/1\r\na=control:trackID=1\r\n",
        announcement.sdp);
    ASSERT_EQ(2U, announcement.tracks.size());
    EXPECT_EQ(1, announcement.tracks[0].nSource);
    EXPECT_NE(nullptr, announcement.tracks[0].pVideo);
    EXPECT_EQ(2, announcement.tracks[1].nSource);
    EXPECT_EQ(nullptr, announcement.tracks[1].pVideo);
    EXPECT_EQ(8000, announcement.tracks[1].nRate);
}
