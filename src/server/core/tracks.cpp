#include "server/core/tracks.h"

#include <algorithm>
#include <cstdlib>

#include "server/core/settings.h"

namespace orx {

constexpr int kPlainTracks = 3;  // without StandardPushers

void SessionCopyTracks(Session *pSession, const Program *pProg)
{
    int nMost = pProg->standards.bPushers ? kMaxTracks : kPlainTracks;
    pSession->out.nTracks = std::min(pProg->desc.nTrackCount, nMost);
    for (int i = 0; i < pSession->out.nTracks; i++) {
        const MediaInfo *pInfo = &pProg->desc.mediaInfos[i];
        SessionTrack *pTrack = &pSession->tracks[i];
        pTrack->nMediaType = pInfo->nMediaType;
        pTrack->pCodec = pInfo->pCodec;
        pTrack->nPayloadType = static_cast<uint8_t>(pInfo->nPayloadType);
        pTrack->nTimeScale = pInfo->nTimeScale;
        pTrack->nUnitTicks = pInfo->nUnitTicks;
        pTrack->nTrackId = pInfo->nTrackId;
        pTrack->nRtpChannel = pInfo->nRtpChannel;
        pTrack->nRtcpChannel = pInfo->nRtcpChannel;
    }
}

// The source of a live track: the program's first packet tells of one for all, standard players look for that
// of each.
static uint32_t LiveSource(const Session *pSession, int i)
{
    const Program *pProg = pSession->pProg;
    const TrackReport *pReport = &pProg->desc.mediaInfos[i].report;
    return pSession->standards.bPlayers && pReport->nPackets > 0 ? pReport->nSsrc : pProg->cache.ssrc;
}

void SessionEnterTrack(Session *pSession, int i)
{
    const Program *pProg = pSession->pProg;
    SessionTrack *pTrack = &pSession->tracks[i];
    int bGoesOn = pSession->nState == STATE_PAUSED || pSession->nState == STATE_FINISHED;
    if (!bGoesOn)
        pSession->nState = STATE_SETUP;
    if (pTrack->bSetUp && IsStandardPeer(pSession))
        return;
    pTrack->nSsrc = pProg->bLive ? LiveSource(pSession, i) : static_cast<uint32_t>(rand());
    pTrack->nNextSeq = pProg->bLive ? 0 : static_cast<uint16_t>(rand());
    pTrack->reception = Reception();
    pTrack->bSetUp = 1;
    pSession->play.nSetupCount++;
}

void SessionLeaveTracks(Session *pSession, int nKept)
{
    for (int i = 0; i < kMaxTracks; i++) {
        SessionTrack *pTrack = &pSession->tracks[i];
        if (i != nKept)
            SessionCloseTrackPorts(pTrack);
        pTrack->bSetUp = pTrack->bReported = 0;
        pTrack->nPackets = pTrack->nOctets = 0;
    }
    pSession->play.nSetupCount = 0;
}

}  // namespace orx
