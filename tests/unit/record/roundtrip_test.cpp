// From packets into a file and out again: what a player gets is what the pusher sent.
#include <gtest/gtest.h>

#include "recordkit.h"

namespace orx {
namespace {

// A pusher of one track that counts its packets.
struct Pusher {
    ZMFWriter *pWriter;
    char chMedia = 'v';
    uint16_t nSeq = 65500;  // wraps on the way
    uint32_t nTimeMs = 0xFFFFF000;

    int Send(const std::vector<std::string> &payloads)
    {
        int nResult = 1;
        for (size_t i = 0; i < payloads.size() && nResult == 1; i++)
            nResult = PutPacket(pWriter, chMedia, nTimeMs,
                                Rtp(nSeq++, nTimeMs * 90, i + 1 == payloads.size(), payloads[i]));
        return nResult;
    }
};

struct AccessUnit {
    std::vector<std::string> units;
    std::string Recorded() const
    {
        std::string out;
        for (const auto &unit : units)
            out += Prefixed(unit);
        return out;
    }
};

AccessUnit MakeAccessUnit(int nFrame)
{
    auto nSeed = static_cast<uint32_t>(nFrame);
    size_t nBytes = 40 + static_cast<size_t>(nFrame) * 977 % 9000;
    if (nFrame % 10 == 0)
        return {
            {Nal(7, 20, nSeed), Nal(8, 6, nSeed), Nal(5, 12000 + nBytes, nSeed), Nal(5, 60000, nSeed + 1)}};
    if (nFrame % 3 == 0)
        return {{Nal(1, nBytes, nSeed), Nal(1, 1461, nSeed), Nal(1, 1462, nSeed)}};
    return {{Nal(1, nBytes, nSeed)}};
}

// The three ways of RFC 6184 by turns, as encoders mix them.
std::vector<std::string> Packetise(const AccessUnit &frame)
{
    std::vector<std::string> payloads;
    std::vector<std::string> small;
    for (const auto &unit : frame.units) {
        if (unit.size() < 30) {
            small.push_back(unit);
            continue;
        }
        if (!small.empty())
            payloads.push_back(Stap(small));
        small.clear();
        if (unit.size() <= 1400)
            payloads.push_back(unit);
        else
            for (const auto &part : Fragments(unit, 1389))
                payloads.push_back(part);
    }
    return payloads;
}

// What a player makes of the packets of one sample.
std::string Rebuild(const std::vector<Player::Packet> &packets, std::vector<Sample> *pSamples)
{
    Depacketiser track;
    track.pContext = pSamples;
    track.pfnSample = [](void *pContext, const uint8_t *p, uint32_t n, uint32_t nTimeMs, uint32_t nType) {
        static_cast<std::vector<Sample> *>(pContext)->push_back(
            {static_cast<char>(nType >> 8), static_cast<uint8_t>(nType), nTimeMs, std::string(Bytes(p), n)});
        return 1;
    };
    for (const auto &packet : packets)
        EXPECT_EQ(1, WriteH264RtpData(&track, Data(packet.data), static_cast<uint32_t>(packet.data.size()),
                                      packet.nTimeMs));
    DepacketiserReset(&track);
    return pSamples->empty() ? "" : pSamples->back().data;
}

TEST(RoundTrip, H264AccessUnitsComeOutAsTheyWentIn)
{
    Recorder recorder;
    Pusher pusher{recorder.pWriter};
    std::vector<AccessUnit> frames;
    uint32_t nStart = pusher.nTimeMs;
    for (int i = 0; i < 200; i++) {
        frames.push_back(MakeAccessUnit(i));
        pusher.nTimeMs = nStart + static_cast<uint32_t>(i) * 40;
        ASSERT_EQ(1, pusher.Send(Packetise(frames.back()))) << i;
    }
    std::vector<Sample> recorded = recorder.Finish();
    ASSERT_EQ(frames.size(), recorded.size());
    for (size_t i = 0; i < frames.size(); i++) {
        Sample expected{'v', static_cast<uint8_t>(i % 10 == 0 ? ZMF_KEY : 0), static_cast<uint32_t>(i) * 40,
                        frames[i].Recorded()};
        ASSERT_EQ(expected, recorded[i]) << i;
        Player player;
        ASSERT_GT(Pack2Rtp264Block(&player.out, Data(recorded[i].data),
                                   static_cast<uint32_t>(recorded[i].data.size()), recorded[i].nTimeMs, 0),
                  0);
        std::vector<Sample> rebuilt;
        ASSERT_EQ(expected.data, Rebuild(player.Packets(), &rebuilt)) << i;
        ASSERT_EQ(1U, rebuilt.size());
    }
}

TEST(RoundTrip, JpegPayloadsComeOutAsTheyWentIn)
{
    Recorder recorder("v=0\r\nm=video 0 RTP/AVP 26\r\n");
    Pusher pusher{recorder.pWriter};
    std::vector<std::vector<std::string>> images;
    for (uint32_t nImage = 0; nImage < 20; nImage++) {
        std::vector<std::string> payloads;
        uint32_t nOffset = 0;
        int nType = nImage % 2 ? 65 : 1;  // with and without restart markers
        for (uint32_t i = 0; i < 1 + nImage; i++) {
            std::string payload =
                std::string(1, '\0') + Be(nOffset, 3) + static_cast<char>(nType) + "\xFF\x28\x1E";
            if (nType == 65)
                payload += Be(0x0004C000 + i, 4);
            if (i == 0)
                payload += std::string("\0\0\0\x80", 4) + Noise(128, nImage);
            std::string scan = Noise(1000 + 13 * i, nImage * 100 + i);
            nOffset += static_cast<uint32_t>(scan.size());
            payloads.push_back(payload + scan);
        }
        images.push_back(payloads);
        ASSERT_EQ(1, pusher.Send(payloads));
        pusher.nTimeMs += 100;
    }
    std::vector<Sample> recorded = recorder.Finish();
    ASSERT_EQ(images.size(), recorded.size());
    for (size_t i = 0; i < images.size(); i++) {
        EXPECT_EQ(ZMF_KEY, recorded[i].nFlags);
        Player player(false, 2);
        ASSERT_EQ(static_cast<int>(images[i].size()),
                  Pack2RtpJpegBlock(&player.out, Data(recorded[i].data),
                                    static_cast<uint32_t>(recorded[i].data.size()), recorded[i].nTimeMs, 0));
        std::vector<Player::Packet> packets = player.Packets();
        for (size_t k = 0; k < packets.size(); k++) {
            ASSERT_EQ(images[i][k], packets[k].Payload());
            EXPECT_EQ(k + 1 == packets.size(), packets[k].Marker());
            EXPECT_EQ(k == 0, (packets[k].nFlags & DB_KEY) != 0);
        }
    }
}

TEST(RoundTrip, AudioComesOutAsItWentIn)
{
    static const struct {
        const char *szName;
        uint32_t nMediaType;
        int nToc;  // of every frame
        size_t nFrame;
    } cases[] = {{"AMR", MEDIA_AMR_NB, 7 << 3 | 4, 32}, {"AMR-WB", MEDIA_AMR_WB, 8 << 3 | 4, 61}};
    for (const auto &c : cases) {
        std::string sdp = std::string(
                              "v=0\r\nm=video 0 RTP/AVP 96\r\na=rtpmap:96 H264/90000\r\nm=audio 0 RTP/AVP "
                              "97\r\na=rtpmap:97 ") +
                          c.szName + "/8000\r\n";
        Recorder recorder(sdp.c_str());
        Pusher video{recorder.pWriter};
        Pusher audio{recorder.pWriter, 'a'};
        ASSERT_EQ(1, video.Send({Nal(7, 20, 1)}));
        std::string all;
        for (uint32_t i = 0; i < 40; i++) {
            std::string aligned = "\xF0";
            std::string speech = Noise(2 * (c.nFrame - 1), i);
            aligned += static_cast<char>(c.nToc | 0x80);
            aligned += static_cast<char>(c.nToc);
            ASSERT_EQ(1, audio.Send({aligned + speech}));
            for (int k = 0; k < 2; k++)
                all += static_cast<char>(c.nToc) +
                       speech.substr(static_cast<size_t>(k) * (c.nFrame - 1), c.nFrame - 1);
            audio.nTimeMs += 40;
        }
        std::vector<Sample> recorded = recorder.Finish();
        ASSERT_EQ(2U, recorded.size());
        ASSERT_EQ(all, recorded[1].data) << c.szName;
        Player player(false, c.nMediaType);
        ASSERT_EQ(6, Pack2RtpAmrBlock(&player.out, Data(all), static_cast<uint32_t>(all.size()), 0, 1));
        std::string again;
        for (const auto &packet : player.Packets()) {
            std::string payload = packet.Payload();
            size_t nFrames = (payload.size() - 1) / c.nFrame;
            for (size_t i = 0; i < nFrames; i++)
                again += static_cast<char>(payload[1 + i] & 0x7F) +
                         payload.substr(1 + nFrames + i * (c.nFrame - 1), c.nFrame - 1);
        }
        EXPECT_EQ(all, again) << c.szName;
    }
}

}  // namespace
}  // namespace orx
