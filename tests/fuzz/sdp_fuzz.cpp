// Session descriptions: whatever the text, what is described makes sense and stays within its fields.
#include "server/core/sdp.h"

#include <vector>

#include "fuzz/fuzz.h"
#include "record/sdpreader.h"
#include "record/sdpscan.h"
#include "server/core/settings.h"

using namespace orx;

static void CheckTrack(const MediaInfo *pInfo, int i)
{
    ORX_ASSERT(pInfo->nMediaType != 0 && pInfo->nTimeScale != 0, "every track has a kind and a clock");
    ORX_ASSERT(memchr(pInfo->szEncoding, 0, sizeof(pInfo->szEncoding)), "the name ends");
    ORX_ASSERT(pInfo->nRtpChannel == 2 * i && pInfo->nRtcpChannel == 2 * i + 1, "channels follow the index");
}

// What a recording does with the text: its codecs, and the range line in a block with room for one.
static void Record(const std::string &text)
{
    SdpCodecs codecs;
    SdpScanCodecs(text.c_str(), &codecs);
    ORX_ASSERT(!codecs.audio.pCodec || codecs.audio.pCodec->pfnDepacket, "what is taken can be recorded");
    std::vector<char> block(text.c_str(), text.c_str() + strlen(text.c_str()) + 1);
    SdpRemoveRange(block.data());
    ORX_ASSERT(!SdpHasRange(block.data()), "no range line is left");
    block.resize(strlen(block.data()) + 32);
    if (SdpInsertRange(block.data(), block.size(), 12500))
        ORX_ASSERT(SdpHasRange(block.data()), "the range line is in");
}

// As one reader takes it: that of live programs or of recordings, of our own pushers or of all.
static void Read(const char *szText, int bLive, int bStandard)
{
    Description desc;
    if (!SdpParse(&desc, szText, bLive, 0, bStandard))
        return;
    ORX_ASSERT(desc.nTrackCount >= 1 && desc.nTrackCount <= kMaxMediaInfos, "one to eight tracks");
    for (int i = 0; i < desc.nTrackCount; i++)
        CheckTrack(&desc.mediaInfos[i], i);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *pData, size_t nBytes)
{
    const std::string text = Text(pData, nBytes);
    Record(text);
    for (int bStandard : {0, 1})
        for (int bLive : {0, 1})
            Read(text.c_str(), bLive, bStandard);
    std::unique_ptr<char, void (*)(void *)> mapped(SdpWithStaticMaps(text.c_str()), free);
    Read(mapped.get(), 1, 1);
    return 0;
}
