#include "orxweb/clipframes.h"

#include <algorithm>

#include "orxweb/clipsound.h"
#include "record/recordwalk.h"

namespace orx {

namespace {
struct Coding {
    ClipFrames *pFrames = nullptr;
    ClipFileOut *pOut = nullptr;
    ClipSound *pSound = nullptr;
    int fd = -1;
    const std::atomic<int> *pbStop = nullptr;
    void (*pfnMeanwhile)() = nullptr;
};
}  // namespace

static int TakeFrame(void *pContext, const uint8_t *pData, size_t nBytes, int64_t nAt)
{
    auto *p = static_cast<Coding *>(pContext);
    std::vector<ClipFrame> &coded = p->pFrames->coded;
    if (nAt < 0)
        return 1;  // what the encoder needs to begin with
    ClipFrame frame;
    frame.nAt = coded.empty() ? nAt : std::max(nAt, coded.back().nAt + 1);
    frame.nTicks = ClipSoundFrame(p->pSound);
    frame.nBytes = static_cast<uint32_t>(nBytes);
    frame.nSource = ClipFilePut(p->pOut, pData, nBytes);
    coded.push_back(frame);
    return !p->pOut->bFailed;
}

static int CodeBlock(Coding *p, const std::vector<uint8_t> &block, int64_t nTimeMs)
{
    const SoundForm *pForm = &p->pFrames->pSurvey->sound;
    ByteReader piece{nullptr, 0};
    int64_t nTicks = 0, nAll = 0, nAt = 0, nLonger = 0;
    for (ByteReader in{block.data(), block.size()}; SoundNextPiece(pForm, &in, &piece, &nTicks);)
        nAll += nTicks;
    SoundClockBlock(&p->pFrames->clock, nTimeMs, nAll);
    for (ByteReader in{block.data(), block.size()}; SoundNextPiece(pForm, &in, &piece, &nTicks);)
        if (SoundClockPiece(&p->pFrames->clock, nTicks, &nAt, &nLonger) &&
            !ClipSoundPut(p->pSound, piece.p, piece.nLeft, nAt, nLonger))
            return 0;
    return 1;
}

static int CodeBlocks(Coding *p)
{
    const ClipSurvey *pSurvey = p->pFrames->pSurvey;
    std::vector<uint8_t> block;
    uint64_t nPos = pSurvey->description.nDataPos;
    for (size_t i = 0; i < pSurvey->kinds.size() && !*p->pbStop; i++) {
        nPos += pSurvey->spans[i];
        if (pSurvey->kinds[i] != CLIP_SOUND)
            continue;
        block.resize(pSurvey->sizes[i]);
        if (ReadAt(p->fd, nPos + kZmfRecordHeadBytes, block.data(), block.size()) != block.size() ||
            !CodeBlock(p, block, pSurvey->timeline.times[i]))
            return 0;
        p->pfnMeanwhile();
    }
    return !*p->pbStop && ClipSoundEnd(p->pSound);
}

int ClipFramesBegin(ClipFrames *pFrames, ClipSurvey *pSurvey, int fd, uint64_t nFileBytes, ClipFileOut *pOut,
                    const std::atomic<int> *pbStop, void (*pfnMeanwhile)())
{
    pFrames->pSurvey = pSurvey;
    pFrames->clock.nRate = pSurvey->sound.nRate;
    pFrames->nPos = pSurvey->description.nDataPos;
    pFrames->bUnits = pSurvey->sound.pCodec && pSurvey->sound.pCodec->nForm == FORM_AAC;
    if (!pSurvey->sound.pCodec || pFrames->bUnits)
        return 1;
    Coding coding{pFrames, pOut, nullptr, fd, pbStop, pfnMeanwhile};
    coding.pSound = ClipSoundCreate(pSurvey->sound.pCodec, nFileBytes, TakeFrame, &coding);
    if (coding.pSound && CodeBlocks(&coding) && !pFrames->coded.empty()) {
        pSurvey->tracks.audio.config = ClipSoundConfig(coding.pSound);
    } else {
        pFrames->coded.clear();
        pSurvey->sound = SoundForm();
    }
    ClipSoundFree(coding.pSound);
    return !pOut->bFailed && !*pbStop;
}

// Steps to the next block of sound. Returns 0 behind the last one.
static int NextBlock(ClipFrames *p)
{
    const ClipSurvey *pSurvey = p->pSurvey;
    for (; p->nItem < pSurvey->kinds.size(); p->nItem++) {
        p->nPos += pSurvey->spans[p->nItem];
        if (pSurvey->kinds[p->nItem] != CLIP_SOUND)
            continue;
        p->nInItem = 0;
        SoundClockBlock(&p->clock, pSurvey->timeline.times[p->nItem],
                        pSurvey->sound.nFrameTicks * pSurvey->sizes[p->nItem]);
        return 1;
    }
    return 0;
}

static int NextUnit(ClipFrames *p, ClipFrame *pOut)
{
    int64_t nTicks = p->pSurvey->sound.nFrameTicks, nLonger = 0;
    *pOut = ClipFrame();
    while (p->nNext < p->pSurvey->units.size()) {
        if (p->nNext == 0 && p->nInItem == 0 && !NextBlock(p))
            return 0;
        if (p->nInItem == p->pSurvey->sizes[p->nItem]) {
            p->nItem++;
            if (!NextBlock(p))
                return 0;
        }
        pOut->nBytes = p->pSurvey->units[p->nNext++];
        pOut->nSkip = p->nInItem++;
        if (SoundClockPiece(&p->clock, nTicks, &pOut->nAt, &nLonger)) {
            pOut->nTicks = static_cast<uint32_t>(nTicks + nLonger);
            pOut->nSource = p->nPos;
            return 1;
        }
        pOut->nDropped++;
    }
    return 0;
}

int ClipFramesNext(ClipFrames *pFrames, ClipFrame *pOut)
{
    if (pFrames->bUnits)
        return NextUnit(pFrames, pOut);
    if (pFrames->nNext >= pFrames->coded.size())
        return 0;
    *pOut = pFrames->coded[pFrames->nNext++];
    return 1;
}

}  // namespace orx
