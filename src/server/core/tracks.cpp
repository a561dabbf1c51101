#include "server/core/tracks.h"

#include <algorithm>
#include <cstdlib>

namespace orx {

void SessionCopyTracks(Session *pSession, const Program *pProg)
{
    pSession->out.nTracks = std::min(pProg->nTrackCount, kMaxTracks);
    for (int i = 0; i < pSession->out.nTracks; i++) {
        const MediaInfo *pInfo = &pProg->mediaInfos[i];
        RtpTrack *pTrack = &pSession->out.tracks[i];
        pTrack->nMediaType = pInfo->nMediaType;
        pTrack->nPayloadType = static_cast<uint8_t>(pInfo->nPayloadType);
        pTrack->nTimeScale = pInfo->nTimeScale;
        pSession->tracks[i].nTrackId = pInfo->nTrackId;
        pSession->tracks[i].nRtpChannel = pInfo->nRtpChannel;
        pSession->tracks[i].nRtcpChannel = pInfo->nRtcpChannel;
    }
}

void SessionEnterTrack(Session *pSession, int i)
{
    const Program *pProg = pSession->pProg;
    RtpTrack *pTrack = &pSession->out.tracks[i];
    pTrack->nSsrc = pProg->bLive ? pProg->ssrc : static_cast<uint32_t>(rand());
    pTrack->nNextSeq = pProg->bLive ? 0 : static_cast<uint16_t>(rand());
    pTrack->bSetUp = 1;
    pSession->tracks[i].nFirstSeq = pTrack->nNextSeq;
    pSession->nMediaMask |= pTrack->nMediaType;
    pSession->nSetupCount++;
    pSession->nState = STATE_SETUP;
}

}  // namespace orx
