#include "record/playline.h"

#include <algorithm>

namespace orx {

// Further than the writer lets a camera's clock jump: what is in a file is one, or a camera that was away.
constexpr int32_t kJumpAheadMs = 10000;
constexpr int32_t kJumpBackMs = 1000;  // pictures may be stored in another order than they are shown
constexpr uint32_t kStepMs = 40;       // from picture to picture where nothing tells
constexpr uint32_t kStandsAfter = 32;  // records: one picture in slices, pictures that others refer to

static int32_t Ahead(uint32_t nMs, uint32_t nOf)
{
    return static_cast<int32_t>(nMs - nOf);
}

void PlayLineBegin(PlayLine *pLine, uint32_t nMs, int nScale)
{
    *pLine = PlayLine();
    pLine->nScale = nScale;
    pLine->nStart = pLine->nLatest = nMs;
}

// Rounded so that PlayLineMedia never comes to lie before the record.
static uint32_t Scaled(const PlayLine *pLine, uint32_t nMs)
{
    int32_t nFrom = Ahead(nMs, pLine->nStart);
    int nScale = pLine->nScale;
    int32_t nLine = nFrom / nScale;
    if (nScale > 1 && nFrom > 0 && nFrom % nScale != 0)
        nLine++;
    return pLine->nStart + static_cast<uint32_t>(nLine);
}

uint32_t PlayLineMedia(const PlayLine *pLine, uint32_t nLineMs)
{
    if (pLine->nScale == 1)
        return nLineMs - pLine->nShift;
    int64_t nFrom = Ahead(nLineMs - pLine->nShift, pLine->nStart);
    return static_cast<uint32_t>(std::max(pLine->nStart + nFrom * pLine->nScale, int64_t{0}));
}

// Whether a time is none that follows. A long step of a track is usual when the one before was as long: a
// camera may send a picture now and then.
static int Jumps(const PlayLine *pLine, const PlayLineTrack *pTrack, uint32_t nMs)
{
    int32_t nStep = pTrack->bKnown ? Ahead(nMs, pTrack->nLast) : kJumpAheadMs;
    if (nStep < -kJumpBackMs)
        return 1;
    int bUsual = pTrack->bKnown && nStep <= 2 * static_cast<int64_t>(pTrack->nStep);
    return !bUsual && Ahead(nMs + pTrack->nShift, pLine->nLatest) > kJumpAheadMs;
}

// Lets a track go on behind a jump: with the others where they have jumped likewise, so that they stay
// together.
static PlayLineFault Rejoin(PlayLine *pLine, PlayLineTrack *pTrack, uint32_t nMs)
{
    int32_t nAhead = Ahead(nMs + pLine->nShift, pLine->nLatest);
    int bTogether = pTrack->nShift != pLine->nShift && nAhead >= -kJumpBackMs && nAhead <= kJumpAheadMs;
    if (!bTogether)
        pLine->nShift = pLine->nLatest + kStepMs - nMs;
    pTrack->nShift = pLine->nShift;
    return bTogether ? LINE_FOLLOWS : LINE_JUMPS;
}

// Takes every track a picture's time further than it would come.
static uint32_t GoOn(PlayLine *pLine, uint32_t nLineMs)
{
    uint32_t nFurther = pLine->nLatest + kStepMs - nLineMs;
    pLine->nShift += nFurther;
    for (PlayLineTrack &track : pLine->tracks)
        track.nShift += nFurther;
    return nLineMs + nFurther;
}

uint32_t PlayLineTime(PlayLine *pLine, int nTrack, int bPicture, uint32_t nMs, PlayLineFault *pFault)
{
    PlayLineTrack *pTrack = &pLine->tracks[nTrack];
    uint32_t nOwn = Scaled(pLine, nMs);
    *pFault = Jumps(pLine, pTrack, nOwn) ? Rejoin(pLine, pTrack, nOwn) : LINE_FOLLOWS;
    if (Ahead(nOwn, pTrack->nLast) > 0 && pTrack->bKnown)
        pTrack->nStep = nOwn - pTrack->nLast;
    pTrack->nLast = nOwn;
    pTrack->bKnown = 1;
    pLine->bPictures |= bPicture;
    uint32_t nLine = nOwn + pTrack->nShift;
    if (Ahead(nLine, pLine->nLatest) > 0)
        pLine->nStands = 0;
    else if (++pLine->nStands >= kStandsAfter && (bPicture || !pLine->bPictures)) {
        *pFault = pLine->nStands == kStandsAfter ? LINE_STANDS : *pFault;
        nLine = GoOn(pLine, nLine);
    }
    pLine->nLatest += static_cast<uint32_t>(std::max(Ahead(nLine, pLine->nLatest), 0));
    return nLine;
}

}  // namespace orx
