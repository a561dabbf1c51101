// Live programs as fragments: made of packets as encoders send them, taken apart again.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "base/bytes.h"
#include "client/h264file.h"
#include "client/rtppack.h"
#include "orxweb/liveclock.h"
#include "orxweb/livestill.h"
#include "orxweb/livestream.h"

using namespace orx;
using testing::ElementsAre;
using testing::StartsWith;

static uint32_t Field(const std::string &text, size_t nAt)
{
    return nAt + 4 <= text.size() ? GetBe(reinterpret_cast<const uint8_t *>(text.data()) + nAt, 4) : 0;
}

struct Piece {
    uint32_t nTrack = 0;
    uint64_t nFrom = 0;  // ticks of the track
    uint32_t nLater = 0;
    int bKey = 0;
};

static PlayTrack Track(const char *szMedia, const char *szEncoding, int nType, int nRate, const char *szFormat = "")
{
    PlayTrack track;
    track.media = szMedia;
    track.encoding = szEncoding;
    track.nPayloadType = nType;
    track.nClockRate = nRate;
    track.fmtp = szFormat;
    return track;
}

// A stream with what it told.
struct Told {
    PlayDescription description;
    LiveStream *p = nullptr;
    std::vector<std::string> heads, codecs, pictures;
    std::vector<Piece> pieces;
    RtpStream video{.nPayloadType = 96}, audio{.nPayloadType = 8};
    uint64_t nNowMs = 1000;

    explicit Told(std::vector<PlayTrack> tracks)
    {
        static const LiveStreamProcs procs = {OnHead, OnFragment, OnPicture};
        description.tracks = std::move(tracks);
        p = LiveStreamOpen(&description, &procs, this);
    }
    ~Told() { LiveStreamClose(p); }
    Told &operator=(Told &&) = delete;

    static void OnHead(void *pUser, std::string head, const std::string &codecs)
    {
        static_cast<Told *>(pUser)->heads.push_back(head);
        static_cast<Told *>(pUser)->codecs.push_back(codecs);
    }
    static void OnFragment(void *pUser, std::string text, int bKey)
    {
        Piece piece;
        size_t nTime = text.find("tfdt"), nRun = text.find("trun");
        piece.nTrack = Field(text, text.find("tfhd") + 8);
        piece.nFrom = uint64_t{Field(text, nTime + 8)} << 32 | Field(text, nTime + 12);
        piece.nLater = (Field(text, nRun + 4) & 0x800) ? Field(text, text.find("mdat") - 8) : 0;
        piece.bKey = bKey;
        EXPECT_EQ(1U, Field(text, nRun + 8) ? 1U : 0U);
        EXPECT_EQ(text.size(), Field(text, 0) + Field(text, Field(text, 0))) << "moof and mdat, whole";
        static_cast<Told *>(pUser)->pieces.push_back(piece);
    }
    static void OnPicture(void *pUser, const Codec *, std::string picture)
    {
        static_cast<Told *>(pUser)->pictures.push_back(std::move(picture));
    }
    void Feed(int nTrack, const RtpPackets &packets, size_t nLost = SIZE_MAX)
    {
        for (size_t i = 0; i < packets.size(); i++)
            if (i != nLost)
                LiveStreamPacket(p, nTrack, 0, reinterpret_cast<const uint8_t *>(packets[i].data()), packets[i].size(),
                                 nNowMs);
    }
    void FeedPicture(const H264Picture &picture, uint32_t nStamp, size_t nLost = SIZE_MAX)
    {
        RtpPackets packets;
        PackH264(&video, picture.units, nStamp, 0, &packets);
        Feed(0, packets, nLost);
    }
    std::vector<uint64_t> Times(uint32_t nTrack) const
    {
        std::vector<uint64_t> times;
        for (const Piece &piece : pieces)
            if (piece.nTrack == nTrack)
                times.push_back(piece.nFrom);
        return times;
    }
};

struct LiveStreamTest : testing::Test {
    H264File clip;
    void SetUp() override { ASSERT_EQ(1, H264Load(&clip, ORX_TEST_DATA "/clip.h264")); }
};

TEST_F(LiveStreamTest, EachPictureAndPacketOfSoundIsAFragment)
{
    Told told(
        {Track("video", "H264", 96, 90000), Track("audio", "PCMA", 8, 8000), Track("application", "X", 97, 90000)});
    ASSERT_NE(nullptr, told.p);
    EXPECT_EQ(1, told.description.tracks[0].bWanted + told.description.tracks[2].bWanted);
    for (uint32_t i = 0; i < 50; i++, told.nNowMs += 40) {
        told.FeedPicture(clip.pictures[i], 4294967000U + i * 3600);  // over the wrap
        RtpPackets sound;
        PackPlain(&told.audio, ToneALaw(i * 320, 320, 440), 0, 77 + i * 320, &sound);
        told.Feed(1, sound);
    }
    ASSERT_EQ(1U, told.heads.size());
    EXPECT_THAT(told.codecs[0], testing::MatchesRegex("avc1\\.[0-9A-F]+,mp4a\\.40\\.2"));
    EXPECT_EQ(std::string::npos, told.heads[0].find("mehd")) << "nobody knows how long it will be";
    std::vector<uint64_t> video = told.Times(1), audio = told.Times(2);
    ASSERT_EQ(50U, video.size());
    for (size_t i = 0; i < video.size(); i++)
        EXPECT_EQ(i * 40, video[i]);
    ASSERT_LT(12U, audio.size());
    for (size_t i = 1; i < audio.size(); i++)
        EXPECT_EQ(audio[i - 1] + 1024, audio[i]);
    EXPECT_EQ(1, told.pieces[0].bKey);
    EXPECT_EQ(1U, told.pieces[0].nTrack);
    std::string jpeg;
    ASSERT_FALSE(told.pictures.empty());
    ASSERT_EQ(
        1, LiveStillMake(CodecByName(MEDIA_VIDEO_OTHER, "H264", CODEC_WIDE_RECORDING), told.pictures[0], 160, &jpeg));
    EXPECT_THAT(jpeg, StartsWith("\xff\xd8\xff"));
    EXPECT_EQ(0, LiveStillMake(CodecByName(MEDIA_VIDEO_OTHER, "H264", CODEC_WIDE_RECORDING), "no picture", 160, &jpeg));
}

TEST_F(LiveStreamTest, APictureThatLacksAPacketIsLeftOut)
{
    Told told({Track("video", "H264", 96, 90000)});
    for (uint32_t i = 0; i < 6; i++, told.nNowMs += 40)
        told.FeedPicture(clip.pictures[i], i * 3600, i == 3 ? 0 : SIZE_MAX);
    EXPECT_THAT(told.Times(1), ElementsAre(0, 40, 80, 160, 200));
    EXPECT_EQ(1U, told.heads.size());
}

TEST_F(LiveStreamTest, PicturesInAnotherOrderAreDecodedBeforeTheyAreShown)
{
    Told told({Track("video", "H264", 96, 90000)});
    const uint32_t shown[] = {0, 120, 40, 80, 240, 160, 200, 360, 280, 320};
    for (size_t i = 0; i < std::size(shown); i++, told.nNowMs += 40)
        told.FeedPicture(clip.pictures[i], shown[i] * 90);
    std::vector<uint64_t> sums;
    for (size_t i = 0; i < told.pieces.size(); i++) {
        sums.push_back(told.pieces[i].nFrom + told.pieces[i].nLater);
        EXPECT_TRUE(i == 0 || told.pieces[i].nFrom > told.pieces[i - 1].nFrom);
    }
    // two would have had to be decoded before one that was: the order is known only then
    EXPECT_THAT(sums, ElementsAre(0, 120, 240, 160, 200, 360, 280, 320));
}

TEST_F(LiveStreamTest, ChangedParameterSetsBeginANewHead)
{
    Told told({Track("video", "H264", 96, 90000)});
    told.FeedPicture(clip.pictures[0], 0);
    H264Picture other = clip.pictures[0];
    std::string sps(clip.sps);
    sps[3] = static_cast<char>(sps[3] + 1);  // another level
    for (std::string_view &unit : other.units)
        if (H264UnitType(unit) == H264_SPS)
            unit = sps;
    told.FeedPicture(other, 3600);
    told.FeedPicture(clip.pictures[1], 7200);
    ASSERT_EQ(2U, told.heads.size());
    EXPECT_NE(told.codecs[0], told.codecs[1]);
    EXPECT_EQ(3U, told.pieces.size());
}

TEST(LiveStream, TakesWhatItCanCarry)
{
    const char szAac[] =
        "streamtype=5;profile-level-id=1;mode=AAC-hbr;config=1210;sizelength=13;indexlength=3;indexdeltalength=3";
    Told sound({Track("audio", "MPEG4-GENERIC", 97, 44100, szAac)});
    RtpPackets packets;
    PackPlain(&sound.audio, std::string("\x00\x10\x00\x20", 4) + "abcd", 1, 5, &packets);
    PackPlain(&sound.audio, std::string("\x00\x10\x00\x20", 4) + "efgh", 1, 1029, &packets);
    sound.Feed(0, packets);
    EXPECT_THAT(sound.codecs, ElementsAre("mp4a.40.2"));
    EXPECT_THAT(sound.Times(2), ElementsAre(0, 1024));
    EXPECT_EQ(1, sound.pieces[0].bKey) << "a viewer begins anywhere";
    EXPECT_EQ(nullptr, Told({Track("audio", "MPEG4-GENERIC", 97, 44100, "mode=AAC-lbr")}).p);
    EXPECT_EQ(nullptr, Told({Track("video", "VP8", 96, 90000), Track("application", "X", 97, 90000)}).p);
    Told images({Track("video", "JPEG", 26, 90000), Track("audio", "PCMU", 0, 8000)});
    ASSERT_NE(nullptr, images.p);
    EXPECT_EQ(1, LiveStreamIsJpeg(images.p));
    EXPECT_EQ(0, images.description.tracks[1].bWanted);
}

// --- the clock ---

static std::string Report(uint32_t nSeconds, uint32_t nStamp)
{
    std::string text("\x80\xc8\x00\x06", 4);
    text.resize(28);
    PutBe(text.data() + 8, 4, nSeconds);
    PutBe(text.data() + 16, 4, nStamp);
    return text;
}

TEST(LiveClock, FollowsOneLine)
{
    LiveClock clock;
    clock.tracks[0].nRate = 90000;
    clock.tracks[1].nRate = 8000;
    auto report = [&](int nTrack, uint32_t nSeconds, uint32_t nStamp) {
        std::string text = Report(nSeconds, nStamp);
        LiveClockReport(&clock, nTrack, reinterpret_cast<const uint8_t *>(text.data()), text.size());
    };
    EXPECT_EQ(0, LiveClockPacket(&clock, 0, 500, 10000));
    EXPECT_EQ(40, LiveClockPacket(&clock, 0, 500 + 3600, 10001)) << "what waited comes at once";
    EXPECT_EQ(20, LiveClockPacket(&clock, 0, 500 + 1800, 10002));
    report(0, 1000, 500);    // stamp 500 was at second 1000
    report(1, 1001, 80000);  // and 80000 of the sound a second later
    EXPECT_EQ(500, LiveClockPacket(&clock, 1, 76000, 10010)) << "not where it came";
    EXPECT_EQ(9000, LiveClockPacket(&clock, 0, 500 + 810000, 19000)) << "a pause";
    EXPECT_EQ(9041, LiveClockPacket(&clock, 0, 77, 19040)) << "a jump goes on with the arrival";
    EXPECT_NEAR(9081, LiveClockPacket(&clock, 0, 77 + 3600, 19080), 1);
    LiveClockReport(&clock, 0, reinterpret_cast<const uint8_t *>("\x80\xc8"), 2);
}
