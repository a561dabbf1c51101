// Session descriptions: whatever the text, what is described makes sense and stays within its fields.
#include "server/core/sdp.h"

#include "fuzz/fuzz.h"

using namespace orx;

static void CheckTrack(const MediaInfo *pInfo, int i)
{
    ORX_ASSERT(pInfo->nMediaType != 0 && pInfo->nTimeScale != 0, "every track has a kind and a clock");
    ORX_ASSERT(memchr(pInfo->szEncoding, 0, sizeof(pInfo->szEncoding)), "the name ends");
    ORX_ASSERT(pInfo->nRtpChannel == 2 * i && pInfo->nRtcpChannel == 2 * i + 1, "channels follow the index");
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *pData, size_t nBytes)
{
    const std::string text = Text(pData, nBytes);
    for (int bLive = 0; bLive < 2; bLive++) {
        Program prog;
        if (!SdpParse(&prog, text.c_str(), bLive, 0))
            continue;
        ORX_ASSERT(prog.nTrackCount >= 1 && prog.nTrackCount <= kMaxMediaInfos, "one to four tracks");
        for (int i = 0; i < prog.nTrackCount; i++)
            CheckTrack(&prog.mediaInfos[i], i);
    }
    return 0;
}
