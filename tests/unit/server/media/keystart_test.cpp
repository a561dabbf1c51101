#include "server/media/keystart.h"

#include <sstream>

#include <gtest/gtest.h>

#include "record/codec.h"
#include "server/media/ingest.h"
#include "support/playerkit.h"

namespace orx {

static std::string Unit(int bWide, const std::string &word)
{
    auto nType = static_cast<uint32_t>(atoi(word.c_str()));
    size_t nMore = word.back() == 'L' ? 3000 : 0;
    if (word.back() == 'R')  // a message of another kind, and a recovery point
        return (bWide ? Be(nType << 1, 1) + "\1" : Be(nType, 1)) +
               std::string("\xFF\x01\x03\x06\x01\x01\x06\x01\xC4\x80", 10);
    if (word.back() == 'N')  // the same without
        return (bWide ? Be(nType << 1, 1) + "\1" : Be(nType, 1)) + std::string("\xFF\x01\x03\x06\x01\x01\x80", 7);
    return (bWide ? Be(nType << 1, 1) + "\1" : Be(0x60 | nType, 1)) + "\x80" + std::string(nMore, 'u');
}

// The payload that a word means: a unit by its type, "6+7" an aggregate, "F5" the start of a fragmented unit,
// "f5" what follows.
static std::string Payload(int bWide, const std::string &word)
{
    if (word[0] == 'F' || word[0] == 'f')
        return Unit(bWide, bWide ? "49" : "28").substr(0, bWide ? 2 : 1) +
               Be((word[0] == 'F' ? 0x80u : 0u) | static_cast<uint32_t>(atoi(word.c_str() + 1)), 1) + "p";
    if (word.find('+') == std::string::npos)
        return Unit(bWide, word);
    std::istringstream parts(word);
    std::string all = Unit(bWide, bWide ? "48" : "24").substr(0, bWide ? 2 : 1);
    for (std::string part; std::getline(parts, part, '+');)
        all += Be(static_cast<uint32_t>(Unit(bWide, part).size()), 2) + Unit(bWide, part);
    return all;
}

// A cached packet in words: its type, ' for a unit that ends as those of the description do, * where players
// start. Its number is to follow the one before.
static std::string Told(int bWide, const DataBlock *pBlock, int nSeq)
{
    const uint8_t *p = BlockData(pBlock) + 16;
    EXPECT_EQ(static_cast<uint16_t>(nSeq), GetBe(BlockData(pBlock) + 6, 2));
    uint32_t nType = bWide ? *p >> 1 & 0x3Fu : *p & 0x1Fu;
    return std::to_string(nType) + (BlockData(pBlock)[pBlock->len - 1] == 9 ? "'" : "") +
           (pBlock->nFlags & DB_KEY ? "*" : "") + (BlockData(pBlock)[5] & 0x80 ? "!" : "");
}

TEST(KeyStart, PlayersStartWithAllThatAKeyPictureNeeds)
{
    static const struct {
        int bWide;
        const char *szFormat, *szPushed, *szCached;  // pushed: each packet behind the stamp of its picture
    } cases[] = {
        {0, "Zwk=,aAk=", "1:6 1:F5 1:f5! 2:1! 3:F5 3:f5!", "7'* 8' 6 28 28! 1! 7'* 8' 28 28!"},
        {0, "Zwk=,aAk=", "1:7+8+6 1:F5! 2:7+8 2:F5! 3:6+7+8 3:5! 4:9+7+8+6 4:5!", "24* 28! 24* 28! 24* 5! 24* 5!"},
        {0, "", "1:9 1:7 1:8 1:6 1:5! 2:9 2:1! 3:9 3:5!", "9* 7 8 6 5! 9 1! 9* 7 8 5!"},
        {0, "", "1:5! 2:1!", "5*! 1!"},
        {0, "Zwk=,aAk=", "1:7 1:5! 2:5!", "7* 8' 7 5! 7* 8' 5!"},   // one that lacks
        {0, "Zwk=,aAk=", "1:7 1:8! 2:5! 2:5!", "7 8! 7* 8 5! 5!"},  // sets of a time of their own
        {0, "Zwk=,aAk=", "1:7! 1:8! 1:5! 1:7! 1:5!", "7*! 8! 5! 7* 8 7! 5!"},
        {0, "Zwk=,aAk=", "1:7 1:1! 2:f5 2:5!", "7* 8' 7 1! 28 5!"},  // without IDR; a picture whose start was lost
        {0, "", "1:7L 1:8 1:5! 2:5!", "7* 8 5! 28* 28 28 8 5!"},
        {0, "Zwk=,aAk=", "1:29 1:26 2:6! 3:6!", "29 26 6!"},  // nobody waits for what is not known
        {0, "Zwk=", "1:6 1:6 1:6 1:6 1:6 1:6 1:6 1:6 1:6 1:6 1:6 1:6 1:6 1:6 1:6 1:6 1:5!",
         "6 6 6 6 6 6 6 6 6 6 6 6 6 6 6 6 7'* 5!"},
        {0, "Zwk=,aAk=", "1:6R 1:1! 2:1! 3:9+6R 3:1! 4:9+6N 4:1!", "7'* 8' 6 1! 1! 7'* 8' 24 1! 24 1!"},
        {1, "QAEJ;sprop-sps=QgEJ;sprop-pps=RAEJ", "1:39R 1:1! 2:39N 2:1!", "32'* 33' 34' 39 1! 39 1!"},
        {1, "QAEJ;sprop-sps=QgEJ;sprop-pps=RAEJ", "1:F20 1:f20! 2:1! 3:35 3:39 3:21!",
         "32'* 33' 34' 49 49! 1! 35* 32' 33' 34' 39 21!"},
        {1, "", "1:32 1:33 1:34 1:F19! 2:F1! 3:32+33+34 3:16! 4:23!", "32* 33 34 49! 49! 48* 16! 32* 33 34 23!"},
    };
    g_settings.bStandardPushers = 1;
    for (const auto &c : cases) {
        Session session;
        session.nFlags = SESSION_PUSHER;
        Program *pProg = session.pProg = ProgramNew("/cam", &g_testOps);
        pProg->cache.nCacheLimit = 1U << 30;
        pProg->desc.nTrackCount = 1;
        pProg->desc.nVideoTrack = 0;
        MediaInfo *pInfo = &pProg->desc.mediaInfos[0];
        pInfo->nTimeScale = 90000;
        pInfo->nMediaType = MEDIA_VIDEO_OTHER;
        pInfo->pCodec = CodecByName(MEDIA_VIDEO_OTHER, c.bWide ? "H265" : "H264", CODEC_WIDE_PROGRAM);
        pProg->desc.szSdp = strdup((std::string("m=video 0 RTP/AVP 96\r\na=fmtp:96 ") +
                                    (c.bWide ? "sprop-vps=" : "sprop-parameter-sets=") + c.szFormat + "\r\n")
                                       .c_str());
        KeyStartInit(pProg);
        std::istringstream words(c.szPushed);
        uint16_t nSeq = 65534;
        for (std::string word; words >> word;) {
            RtpFields head{96, nSeq++, static_cast<uint32_t>(atoi(word.c_str())), word.back() == '!'};
            std::string frame = Frame(0, MakeRtp(head, Payload(c.bWide, word.substr(2, word.find('!') - 2))));
            EXPECT_EQ(1, FeedProgram(&session, 0, reinterpret_cast<const uint8_t *>(frame.data()),
                                     static_cast<uint32_t>(frame.size()), nullptr));
        }
        std::string told;
        int nExpected = 65534;
        for (auto *p = ListFirstOf<DataBlock>(&pProg->cache.Pktq); p; p = NextBlock(p))
            told += (told.empty() ? "" : " ") + Told(c.bWide, p, nExpected++);
        EXPECT_EQ(c.szCached, told) << c.szPushed;
        ProgramDiscard(pProg);
    }
    g_settings.bStandardPushers = 0;
}

}  // namespace orx
