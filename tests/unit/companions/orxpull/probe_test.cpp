#include "orxpull/probe.h"

#include <gtest/gtest.h>

#include "base/bytes.h"

using namespace orx;

constexpr std::string_view kSequence("\x67\x42\x00\x1f\x95\xa8\x14\x01\x6e\x40", 10);  // 1280x720

PlayTrack Told(const char *szMedia, const char *szEncoding, int nRate)
{
    PlayTrack track;
    track.media = szMedia;
    track.encoding = szEncoding;
    track.nClockRate = nRate;
    return track;
}

void Send(ProbeTrack *pTrack, uint32_t nStamp, const std::string &payload, int bMarker = 1)
{
    std::string packet(12, '\0');
    PutBe(packet.data(), 2, 0x8000U | static_cast<unsigned>(bMarker) << 7);
    PutBe(packet.data() + 4, 4, nStamp);
    packet += payload;
    ProbePacket(pTrack, reinterpret_cast<const uint8_t *>(packet.data()), packet.size());
}

TEST(Probe, TellsWhatPicturesDo)
{
    PlayTrack told = Told("video", "H264", 90000);
    ProbeTrack track = ProbeTrackOf(&told);
    EXPECT_EQ("video: H264, nothing comes", ProbeLine(&track));
    for (uint32_t i = 0; i <= 100; i++) {
        EXPECT_EQ(0, ProbeIsSure(&track));
        if (i % 50 == 0)  // in an aggregate
            Send(&track, i * 3600, std::string("\x78\0\x0a", 3) + std::string(kSequence), 0);
        Send(&track, i * 3600, i % 50 == 0 ? "\x65key" : "\x41not");
    }
    EXPECT_EQ(1, ProbeIsSure(&track));
    for (uint32_t i = 75; i < 100; i++)  // a camera that is out of breath goes back a second
        Send(&track, i * 3600, i % 50 == 0 ? "\x65key" : "\x41not");
    EXPECT_EQ("video: H264 1280x720, 25 pictures a second, 2.0 s between key frames", ProbeLine(&track));
}

TEST(Probe, TellsOfTheRest)
{
    PlayTrack sound = Told("audio", "PCMU", 8000), strange = Told("video", "VP9", 90000);
    ProbeTrack tracks[] = {ProbeTrackOf(&sound), ProbeTrackOf(&strange)};
    for (ProbeTrack &track : tracks)
        for (uint32_t i = 0; i <= 100; i++)
            Send(&track, i * 9000, "x");
    EXPECT_EQ("audio: PCMU, 8000 Hz, 1 channel", ProbeLine(&tracks[0]));
    EXPECT_EQ("video: VP9 (not known to Orx)", ProbeLine(&tracks[1]));
    EXPECT_EQ(1, ProbeIsSure(&tracks[0]));
}
