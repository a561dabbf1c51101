// What standard encoders send and files of version 101 hold, from packets to files and back to packets.
#include <algorithm>
#include <map>
#include <sstream>
#include <tuple>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "record/aac.h"
#include "recordkit.h"

namespace orx {

using testing::ElementsAre;

static const std::string kTracks[] = {
    "v=0\r\nm=video 0 RTP/AVP 96\r\na=rtpmap:96 H264/90000\r\n",
    "v=0\r\nm=video 0 RTP/AVP 96\r\na=rtpmap:96 H265/90000\r\n",
    "v=0\r\nm=video 0 RTP/AVP 26\r\na=rtpmap:26 JPEG/90000\r\n"
    "m=audio 0 RTP/AVP 97\r\na=rtpmap:97 mpeg4-generic/44100/2\r\n"
    "a=fmtp:97 mode=AAC-hbr; SizeLength=13;indexlength=3;indexdeltalength=3;config=1210\r\n",
    "v=0\r\nm=video 0 RTP/AVP 26\r\na=rtpmap:26 JPEG/90000\r\nm=audio 0 RTP/AVP 0\r\na=rtpmap:0 PCMU/8000\r\n",
    "v=0\r\nm=video 0 RTP/AVP 26\r\na=rtpmap:26 JPEG/90000\r\nm=audio 0 RTP/AVP 97\r\na=rtpmap:97 AMR/8000\r\n",
};
enum { H264, H265, AAC, G711, AMR };

// A recording by rules, fed with packets.
struct Fed : Recorder {
    uint16_t nSeq[128] = {};

    explicit Fed(const std::string &sdp, RecordRules rules) : Recorder(nullptr)
    {
        pWriter->rules = rules;
        EXPECT_EQ(1, ZMFWriterSetSdp(pWriter, sdp.c_str()));
        EXPECT_EQ(1, ZMFWriterWriteHead(pWriter));
    }
    int Feed(char chMedia, uint32_t nTimeMs, const std::string &payload, bool bMarker = true)
    {
        std::string packet = MakeRtp({96, nSeq[static_cast<int>(chMedia)]++, nTimeMs * 90, bMarker}, payload);
        std::vector<uint8_t> exact(packet.begin(), packet.end());
        return ZMFWriterWriteRtpPacket(pWriter, exact.data(), Size(packet), chMedia, nTimeMs);
    }
    int FeedImage(uint32_t nTimeMs) { return Feed('v', nTimeMs, std::string(8, '\0') + "image"); }
    int FeedFragments(uint32_t nTimeMs, const std::string &unit)
    {
        int nResult = 1;
        std::vector<std::string> parts = unit.size() > 1400 ? Fragments(unit, 1400) : std::vector{unit};
        for (size_t i = 0; i < parts.size() && nResult == 1; i++)
            nResult = Feed('v', nTimeMs, parts[i], i + 1 == parts.size());
        return nResult;
    }
    std::vector<uint32_t> Times(char chMedia)
    {
        std::vector<uint32_t> out;
        for (const MediaSample &sample : FinishedSamples())
            if (sample.chMedia == chMedia)
                out.push_back(sample.nTimeMs);
        return out;
    }
};

static constexpr RecordRules kAll = {.bNeverLose = 1, .bWideUnits = 1, .bStandardPushers = 1};

static std::string WideUnit(const std::string &unit)
{
    return Size(unit) + 2 <= 0xFFFF ? Prefixed(unit) : Be(0, 2) + Be(Size(unit), 4) + unit;
}

static std::string Nal265(uint32_t nType, size_t nBytes)
{
    return Be(nType << 1, 1) + "\x01" + "\x80" + Pattern(nBytes - 3, nType);
}

// The packets that a player gets of a sample become the same sample in a file, whatever the sizes.
TEST(Wide, PicturesGoRound)
{
    static const std::vector<size_t> sizes[] = {{20, 6, 90},       {1461},           {1462},   {5000, 5},
                                                {65533, 65534, 9}, {70000, 1400000}, {4194000}};
    for (int nCodec : {H264, H265}) {
        for (const auto &units : sizes) {
            Fed fed(kTracks[nCodec], kAll);
            std::string sample;
            for (size_t i = 0; i < units.size(); i++)
                sample += WideUnit(nCodec == H265 ? Nal265(i + 1 < units.size() ? 39 : 20, units[i])
                                                  : Nal(i == 0 ? 7 : 5, units[i], 1));
            if (nCodec == H264 && units.size() == 1)
                sample = WideUnit(Nal(5, units[0], 1));
            Player player(90000);
            EXPECT_LT(0, player.Pack(nCodec == H265 ? Pack2Rtp265Block : Pack2Rtp264Block, sample));
            for (const auto &packet : player.Packets())
                EXPECT_EQ(1, fed.Feed('v', 0, packet.Payload(), packet.Marker()));
            EXPECT_EQ(1, std::ranges::count(player.Packets(), true, &Player::Packet::Marker));
            auto samples = fed.FinishedSamples();
            ASSERT_EQ(1U, samples.size()) << nCodec << " " << units[0];
            EXPECT_TRUE(samples[0].data == sample && samples[0].nFlags == ZMF_KEY) << nCodec << " " << units[0];
            bool bWide = nCodec == H265 || sample.size() > 65535;
            EXPECT_EQ(bWide ? 101U : 100U, GetBe(ReadFile(fed.path).data() + 6, 2)) << nCodec << " " << units[0];
        }
    }
}

// Pictures of certain sizes at 0, 1, 2.. s, key ones with *: which are left?
TEST(Wide, PicturesTooLargeAreLeftOutUpToTheNextKeyFrame)
{
    static const std::tuple<RecordRules, const char *, std::vector<uint32_t>, int> cases[] = {
        {{.bNeverLose = 1}, "*100 100 70000 100 *100 100", {0, 1, 4, 5}, 1},
        {{.bNeverLose = 1}, "*100 *65600 100 *100", {0, 3}, 1},
        {{.bWideUnits = 1}, "*100 70000 *5000000 100 *100", {0, 1, 4}, 1},
        {{.bStandardPushers = 1}, "*100 70000 100", {0}, -1},
        {{}, "*100 70000 100", {0}, -1},
    };
    for (const auto &[rules, szPictures, left, nLast] : cases) {
        Fed fed(kTracks[H264], rules);
        std::istringstream words(szPictures);
        uint32_t nTimeMs = 0;
        int nResult = 1;
        PeerFaults([&, &out = nResult] {
            for (std::string word; out == 1 && words >> word; nTimeMs++) {
                bool bKey = word[0] == '*';
                size_t nBytes = std::stoul(word.substr(bKey));
                if (bKey)
                    out = fed.Feed('v', nTimeMs, Nal(7, 20, 1), false);
                if (out == 1)
                    out = fed.FeedFragments(nTimeMs, Nal(bKey ? 5 : 1, nBytes, nTimeMs));
            }
        });
        EXPECT_EQ(nLast, nResult) << szPictures;
        EXPECT_EQ(left, fed.Times('v')) << szPictures;
    }
}

// Single units by the time of their picture, ! for the marker; what the recording holds, key pictures with *.
TEST(Wide, KeyFramesBeginWithTheirParameterSets)
{
    const std::string told = ";sprop-parameter-sets=Z0I=,aEM=\r\n";  // 67 42, 68 43
    const std::string told265 = "sprop-vps=QAEB; sprop-sps=QgEC; sprop-pps=RAED\r\n";
    const std::map<std::string, std::string> units = {
        {"sps", "\x67Q"},        {"pps", "\x68R"},          {"idr", "\x65\x88"},      {"p", "\x41\x9A"},
        {"aud", "\x09\xF0"},     {"sei", "\x06z"},          {"SPS", "\x67\x42"},      {"PPS", "\x68\x43"},
        {"cra", "\x2A\x01\x80"}, {"trail", "\x02\x01\x80"}, {"VPS5", "\x40\x01\x01"}, {"SPS5", "\x42\x01\x02"},
        {"PPS5", "\x44\x01\x03"}};
    const std::tuple<int, std::string, const char *, const char *> cases[] = {
        {H264, told, "0:sei 0:idr! 1:p!", "*SPS,PPS,sei,idr p"},
        {H264, told, "0:aud 0:sps 0:pps 0:sei 0:idr! 1:aud 1:p! 2:idr!", "*sps,pps,sei,idr aud,p *sps,pps,idr"},
        {H264, "\r\n", "0:p! 1:sps! 1:pps! 1:idr! 2:p!", "*sps,pps,idr p"},
        {H264, "\r\n", "0:sps 0:pps 0:idr 1:p 2:p!", "*sps,pps,idr p p"},  // without markers
        {H264, told, "0:sps 0:idr! 1:sps 1:pps 1:idr!", "*sps,PPS,idr *sps,pps,idr"},
        {H265, told265, "0:trail! 1:cra! 2:trail!", "*VPS5,SPS5,PPS5,cra trail"},
    };
    for (const auto &[nCodec, format, szPackets, szHeld] : cases) {
        Fed fed(kTracks[nCodec] + "a=fmtp:96 packetization-mode=1;" + format, kAll);
        std::istringstream words(szPackets);
        for (std::string word; words >> word;) {
            bool bMarker = word.back() == '!';
            EXPECT_EQ(1, fed.Feed('v', static_cast<uint32_t>(word[0] - '0') * 40,
                                  units.at(word.substr(2, word.size() - 2 - bMarker)), bMarker));
        }
        std::string held;
        for (const MediaSample &sample : fed.FinishedSamples()) {
            held += sample.nFlags ? "*" : "";
            for (size_t nPos = 0; nPos < sample.data.size(); nPos += GetBe(sample.data.data() + nPos, 2)) {
                std::string unit = sample.data.substr(nPos + 2, GetBe(sample.data.data() + nPos, 2) - 2);
                held += (nPos ? "," : "") +
                        std::ranges::find(units, unit, &std::pair<const std::string, std::string>::second)->first;
            }
            held += " ";
        }
        EXPECT_EQ(szHeld + std::string(" "), held) << szPackets;
    }
}

// Sound as packets at certain times becomes blocks, which end at a gap.
TEST(Wide, SoundIsKeptAsItComes)
{
    auto aac = [](std::vector<size_t> sizes) {
        std::string heads = Be(static_cast<uint32_t>(sizes.size()) * 16, 2), media;
        for (size_t n : sizes) {
            heads += Be(static_cast<uint32_t>(n) << 3, 2);
            media += Pattern(n, 3);
        }
        return heads + media;
    };
    const std::string cut = aac({3000}), speech(12, 'x');
    using Packets = std::vector<std::tuple<uint32_t, std::string>>;
    const std::tuple<const char *, int, Packets, std::vector<std::pair<uint32_t, size_t>>> cases[] = {
        // what comes; and the time and size of each block
        {"units in a row, then a gap",
         AAC,
         {{0, aac({200, 300})}, {46, aac({100})}, {93, aac({50})}},
         {{0, 606}, {93, 52}}},
        {"cut units", AAC, {{0, cut.substr(0, 1404)}, {0, cut.substr(0, 4) + cut.substr(1404)}}, {{0, 3002}}},
        {"a part of one", AAC, {{0, cut.substr(0, 1404)}, {23, aac({100})}, {46, aac({20}).substr(0, 6)}}, {{23, 102}}},
        {"no marker, any length", G711, {{0, std::string(240, 'x')}, {30, std::string(77, 'y')}}, {{0, 317}}},
        {"too much at once", G711, {{0, std::string(40000, 'x')}, {30, std::string(77, 'y')}}, {{30, 77}}},
        {"no speech",
         AMR,
         {{0, "\xF0\xBC\xFC\x3C" + speech + std::string(50, 'z')}, {60, "\xF0\x7C"}},
         {{0, 32}, {40, 32}}},
        {"a damaged packet",
         AMR,
         {{0, "\xF0\x3C"}, {20, "\xF0\x5C" + speech}, {40, "\xF0\x04" + std::string(12, 'z')}},
         {{40, 13}}},
    };
    for (const auto &[szWhat, nTrack, packets, blocks] : cases) {
        Fed fed(kTracks[nTrack], kAll);
        fed.FeedImage(0);
        for (const auto &[nTimeMs, payload] : packets)
            EXPECT_EQ(1, fed.Feed('a', nTimeMs, payload, false)) << szWhat;
        std::vector<std::pair<uint32_t, size_t>> held;
        for (const MediaSample &sample : fed.FinishedSamples())
            if (sample.chMedia == 'a')
                held.emplace_back(sample.nTimeMs, sample.data.size());
        EXPECT_EQ(blocks, held) << szWhat;
    }
}

// What cannot be used costs itself, and nothing but itself, only by the rules.
TEST(Wide, WhatCannotBeUsedCostsItselfOnly)
{
    const std::string strange =
        "v=0\r\nm=video 0 RTP/AVP 96\r\na=rtpmap:96 VP8/90000\r\nm=audio 0 RTP/AVP 97\r\n"
        "a=rtpmap:97 opus/48000\r\n";
    const std::tuple<std::string, char, std::string> cases[] = {
        {kTracks[H264], 'v', Nal(25, 20, 1)},
        {kTracks[H264], 'v', Nal(30, 20, 1)},
        {kTracks[H264], 'v', "\x7C\x85start"},
        {strange, 'v', "any"},
        {strange, 'a', "any"},
        {kTracks[AAC], 'a', "\x7F\xFFnot so many"},
        {kTracks[G711], 'a', std::string(160, 'x')},
        {kTracks[AMR], 'a', "\xF0\x5C..."},
    };
    for (const auto &[sdp, chMedia, payload] : cases) {
        Fed fed(sdp, kAll);
        EXPECT_EQ(1, fed.Feed(chMedia, 0, payload)) << payload;
        if (sdp == kTracks[H264]) {
            EXPECT_EQ(1, fed.Feed('v', 40, Nal(7, 3000, 1), false));
            EXPECT_EQ(1, fed.Feed('v', 40, Nal(5, 3000, 1)));
        } else {
            EXPECT_EQ(1, fed.FeedImage(40));
        }
        EXPECT_THAT(fed.Times('v').size(), sdp == strange ? 0U : 1U) << payload;
    }
    Fed fed(strange, {});
    EXPECT_EQ(-1, fed.Feed('a', 0, "any"));
}

// Stamps count on the clock of the track, and units too large for a packet are cut up.
TEST(Wide, AacPackets)
{
    Player player(44100);
    player.track.nUnitTicks = AacUnitTicks("mode=AAC-hbr;config=1210", 44100);
    EXPECT_EQ(
        4, player.Pack(Pack2RtpAacBlock, Prefixed(Pattern(100, 1)) + Prefixed(Pattern(2000, 2)) + Prefixed("x"), 1000));
    std::vector<uint32_t> stamps;
    std::string markers;
    for (const auto &packet : player.Packets()) {
        stamps.push_back(GetBe(packet.data.data() + 4, 4));
        markers += packet.Marker() ? "!" : "-";
    }
    EXPECT_THAT(stamps, ElementsAre(44100, 45124, 45124, 46148));
    EXPECT_EQ("!-!!", markers);
    EXPECT_EQ(Be(16, 2) + Be(100 << 3, 2) + Pattern(100, 1), player.Packets()[0].Payload());
    EXPECT_EQ(0, player.Pack(Pack2RtpAacBlock, Be(9, 2) + "short"));

    EXPECT_EQ(2048U, AacUnitTicks("config=2B11", 48000)) << "its sampling rate is doubled";
    EXPECT_EQ(960U, AacUnitTicks("config=1214", 44100));
    EXPECT_EQ(1024U, AacUnitTicks("", 8000));
    for (const char *szOther :
         {"", "mode=AAC-lbr;sizelength=6", "mode=AAC-hbr;sizelength=6", "mode=AAC-hbr;ctsdeltalength=4"})
        EXPECT_FALSE(AacIsRecorded(szOther)) << szOther;
}

}  // namespace orx
