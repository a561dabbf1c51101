#include "server/media/ingest.h"

#include "base/assertion.h"
#include "base/bytes.h"
#include "base/console.h"
#include "runtime/clock.h"
#include "server/core/settings.h"
#include "server/media/distribute.h"
#include "server/media/keystart.h"
#include "server/media/rewrite.h"

namespace orx {

constexpr int32_t kAheadMs = 10000;  // by which stamps may run ahead of the time that goes by between packets
constexpr int32_t kBackMs = 1000;    // and go back, as they do where pictures are shown in another order
// The tracks of a camera whose clock is set jump one after the other within this, and often by the same.
constexpr uint32_t kOneJumpMs = 5000;
constexpr int32_t kSameJumpMs = 1000;

// How far the clock has gone on since the last packet. Half a turn of it and more is told by the time that
// went by, where nothing is to be lost.
static int64_t ClockStep(const MediaClock *pClock, uint32_t nTimeScale, uint32_t nRtpTime)
{
    uint32_t nStep = nRtpTime - pClock->nLastRtpTime;
    if (!g_settings.bNeverLose)
        return static_cast<int32_t>(nStep);
    int64_t nDue = int64_t{ClockMs() - pClock->nArrivedMs} * nTimeScale / 1000;
    return nDue + static_cast<int32_t>(nStep - static_cast<uint32_t>(nDue));
}

// The RTP clock extended to 64 bits, so that its wrap after some hours does not show. One that a peer makes
// run away is brought back by 2^29 seconds, which are 125 turns of the 32-bit clock of milliseconds.
static int64_t ExtendTime(MediaClock *pClock, uint32_t nTimeScale, uint32_t nRtpTime)
{
    int64_t nFar = int64_t{nTimeScale} << 29;
    pClock->nExtTime =
        pClock->bTimeKnown ? pClock->nExtTime + ClockStep(pClock, nTimeScale, nRtpTime) : int64_t{nRtpTime};
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
    *pMs = static_cast<uint32_t>(nTime) + pInfo->clock.nTimeShift;
    return 1;
}

// The time that goes on from a packet's (of nMs, which came at nArrivedMs) until now.
static uint32_t TimeNow(uint32_t nMs, uint32_t nArrivedMs)
{
    return nMs + ClockMs() - nArrivedMs;
}

// A track's first packet. Returns what is to be added, so that it lies near what the others send.
static uint32_t JoinLine(const MediaLine *pLine, uint32_t nMs)
{
    uint32_t nDue = pLine->bKnown ? TimeNow(pLine->nMs, pLine->nArrivedMs) : nMs;
    int32_t nOff = ClockDiff(nMs, nDue);
    return nOff > kAheadMs || nOff < -kAheadMs ? nDue - nMs : 0;
}

// A jump of a track by nJump ms. Where another's was the same shortly before, sets it to that, so that they
// stay together. Returns the block's flags.
static uint32_t NoteJump(MediaLine *pLine, unsigned nTrack, uint32_t *pnJump)
{
    int32_t nOff = ClockDiff(*pnJump, pLine->nJump);
    if (pLine->bJumped && pLine->nJumpTrack != nTrack && ClockMs() - pLine->nJumpedMs < kOneJumpMs) {
        if (nOff < kSameJumpMs && nOff > -kSameJumpMs)
            *pnJump = pLine->nJump;
        return DB_JUMP;
    }
    pLine->bJumped = 1;
    pLine->nJumpTrack = nTrack;
    pLine->nJumpedMs = ClockMs();
    pLine->nJump = *pnJump;
    return DB_JUMP | DB_SPLIT;
}

// Keeps a track on one time line: where its stamps jump, that goes on with the time of arrival. A peer that
// was held up and then sends what it has does not jump, as its stamps say. Returns DB_JUMP and DB_SPLIT as
// they are due.
static uint32_t FollowLine(Program *pProg, unsigned nTrack, int bFirst, uint32_t *pMs)
{
    MediaClock *pClock = &pProg->desc.mediaInfos[nTrack].clock;
    MediaLine *pLine = &pProg->line;
    uint32_t nFlags = 0;
    uint32_t nJump = 0;
    if (bFirst) {
        nJump = JoinLine(pLine, *pMs);
    } else if (ClockDiff(*pMs, TimeNow(pClock->nMs, pClock->nArrivedMs)) > kAheadMs ||
               ClockDiff(*pMs, pClock->nMs) < -kBackMs) {
        uint32_t nDue = TimeNow(pClock->nMs, pClock->nArrivedMs) + 1;  // behind one that came with it
        nJump = nDue - *pMs;
        uint32_t nKind = pProg->desc.mediaInfos[nTrack].nMediaType;
        int bAside = static_cast<int>(nTrack) == pProg->desc.nDataTrack || nKind == MEDIA_CARRIED;
        nFlags = bAside ? DB_JUMP : NoteJump(pLine, nTrack, &nJump);
    }
    pClock->nTimeShift += nJump;
    *pMs += nJump;
    pClock->nMs = pLine->nMs = *pMs;
    pClock->nArrivedMs = pLine->nArrivedMs = ClockMs();
    pLine->bKnown = 1;
    return nFlags;
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
    MediaInfo *pInfo = &pProg->desc.mediaInfos[nTrack];
    int bFirst = !pInfo->clock.bTimeKnown;
    if (!MediaTime(pInfo, GetBe(pFrame + 8, 4), &nTime))
        return 0;
    uint32_t nJump = g_settings.bNeverLose ? FollowLine(pProg, nTrack, bFirst, &nTime) : 0;
    int bVideo = static_cast<int>(nTrack) == pProg->desc.nVideoTrack;
    int bStart = bVideo && KeyStartWanted(pProg);
    int bKey = bVideo && !bStart && IsKeyFrame(pProg, pFrame, nBytes);
    DataBlock *pBlock = MakeDataBlock(pFrame, nBytes, 1, bVideo, bKey);
    if (!pBlock) {
        print("MakeDataBlock() failed and Destroy the Session!\r\n");
        return 0;
    }
    pBlock->nTimestamp = nTime;
    pBlock->nFlags |= nJump;
    if (bStart) {
        KeyStartTake(pProg, pBlock);
        return 1;
    }
    RewritePacket(&pInfo->rewrite, BlockData(pBlock) + kInterleaveBytes, pBlock->len - kInterleaveBytes);
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
