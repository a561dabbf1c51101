#include "server/media/ingest.h"

#include "base/assertion.h"
#include "base/bytes.h"
#include "base/console.h"
#include "runtime/clock.h"
#include "server/core/settings.h"
#include "server/media/distribute.h"

namespace orx {

// The RTP clock extended to 64 bits, so that its wrap after some hours does not show. One that a peer makes
// run away is brought back by 2^29 seconds, which are 125 turns of the 32-bit clock of milliseconds.
static int64_t ExtendTime(MediaClock *pClock, uint32_t nTimeScale, uint32_t nRtpTime)
{
    int64_t nFar = int64_t{nTimeScale} << 29;
    pClock->nExtTime = pClock->bTimeKnown
                           ? pClock->nExtTime + static_cast<int32_t>(nRtpTime - pClock->nLastRtpTime)
                           : int64_t{nRtpTime};
    if (pClock->nExtTime >= nFar || pClock->nExtTime <= -nFar)
        pClock->nExtTime %= nFar;
    pClock->nLastRtpTime = nRtpTime;
    pClock->bTimeKnown = 1;
    return pClock->nExtTime;
}

// Standard encoders start every track's clock at a random value (RFC 3550, section 5.1), and have rates such
// as 44100. What they send is put on one time line: a track's first packet has the time of its arrival.
static uint32_t AlignedTime(MediaClock *pClock, uint32_t nTimeScale, uint32_t nRtpTime)
{
    int bFirst = !pClock->bTimeKnown;
    int64_t nTime = ExtendTime(pClock, nTimeScale, nRtpTime);
    auto nMs = static_cast<uint32_t>(nTime / nTimeScale * 1000 + nTime % nTimeScale * 1000 / nTimeScale);
    if (bFirst)
        pClock->nTimeShift = ClockMs() - nMs;
    return nMs + pClock->nTimeShift;
}

// The packet's media time in milliseconds. Returns 1, or 0 when the track's clock rate cannot be scaled.
static int MediaTime(MediaInfo *pInfo, uint32_t nRtpTime, uint32_t *pMs)
{
    if (g_settings.bStandardPushers) {
        *pMs = AlignedTime(&pInfo->clock, pInfo->nTimeScale, nRtpTime);
        return 1;
    }
    int64_t nTime = ExtendTime(&pInfo->clock, pInfo->nTimeScale, nRtpTime);
    if (pInfo->nTimeScale != 1000) {
        if (!ORX_PEER_ASSERT(pInfo->nTimeScale >= 1000 && (pInfo->nTimeScale % 1000) == 0,
                             "(pProg->mediaInfos[nTrackId].nTimeScale % 1000) == 0"))
            return 0;
        nTime /= pInfo->nTimeScale / 1000;
    }
    *pMs = static_cast<uint32_t>(nTime);
    return 1;
}

// Says whether a '$' frame of the program's video track starts a key frame.
static int IsKeyFrame(Program *pProg, const uint8_t *pFrame, uint32_t nBytes)
{
    RtpPacket packet;
    return pProg->desc.pfnIsKeyFrame &&
           RtpPacketParse(pFrame + kInterleaveBytes, nBytes - kInterleaveBytes, &packet) &&
           pProg->desc.pfnIsKeyFrame(&pProg->keyWatch, &packet);
}

int FeedProgram(Session *pSession, unsigned nTrack, const uint8_t *pFrame, uint32_t nBytes)
{
    Program *pProg = pSession->pProg;
    int bUsable = (pSession->nFlags & SESSION_PUSHER) && pProg &&
                  static_cast<int>(nTrack) < pProg->desc.nTrackCount &&
                  nBytes >= kInterleaveBytes + kRtpHeaderBytes;
    if (!bUsable)
        return 1;
    uint32_t nTime;
    if (!MediaTime(&pProg->desc.mediaInfos[nTrack], GetBe(pFrame + 8, 4), &nTime))
        return 0;
    int bVideo = static_cast<int>(nTrack) == pProg->desc.nVideoTrack;
    int bKey = bVideo && IsKeyFrame(pProg, pFrame, nBytes);
    DataBlock *pBlock = MakeDataBlock(pFrame, nBytes, 1, bVideo, bKey);
    if (!pBlock) {
        print("MakeDataBlock() failed and Destroy the Session!\r\n");
        return 0;
    }
    pBlock->nTimestamp = nTime;
    CachePacketEx(pProg, pBlock);
    return 1;
}

void FlushAfterRead(Session *pSession)
{
    if (!(pSession->nFlags & SESSION_PUSHER) || pSession->nState != STATE_PLAYING || !pSession->pProg)
        return;
    // Every second time: a picture often comes in two reads, and one write for both halves the cost of
    // sending. The first read counts, so that a player does not wait for a slow pusher's second.
    pSession->flow.nReads++;
    if (pSession->flow.nReads & 1)
        FlushPlayers(pSession->pProg);
}

}  // namespace orx
