#include "soundpiece.h"

#include <algorithm>

#include "record/aac.h"
#include "record/depacketise.h"
#include "record/nalunit.h"

namespace orx {

constexpr int64_t kG711PacketBytes = 160;
constexpr int kSpeechFrameMs = 20;

SoundForm SoundFormOf(const SdpCodec &audio)
{
    SoundForm form;
    if (!audio.pCodec || audio.pCodec->nForm == FORM_NONE)
        return form;
    form.pCodec = audio.pCodec;
    int bAac = form.pCodec->nForm == FORM_AAC;
    form.nRate = bAac ? static_cast<int>(audio.nRate) : form.pCodec->nSampleRate;
    form.nFrameTicks = bAac                             ? AacUnitTicks(audio.format, audio.nRate)
                       : form.pCodec->nForm == FORM_AMR ? form.pCodec->nSampleRate / 1000 * kSpeechFrameMs
                                                        : 0;
    return form;
}

int SoundNextPiece(const SoundForm *pForm, ByteReader *pBlock, ByteReader *pPiece, int64_t *pnTicks)
{
    *pnTicks = pForm->nFrameTicks;
    if (pBlock->nLeft == 0)
        return 0;
    if (pForm->pCodec->nForm == FORM_AAC) {
        uint32_t nUnit = 0;
        const uint8_t *pUnit = NalNext(pBlock, &nUnit);
        *pPiece = ByteReader{pUnit, nUnit};
        return pUnit != nullptr;
    }
    size_t nPart = std::min<size_t>(kG711PacketBytes, pBlock->nLeft);
    if (pForm->pCodec->nForm == FORM_AMR)
        nPart = AmrFrameBytes(CodecIsWideband(pForm->pCodec), pBlock->p[0] >> 3);
    else
        *pnTicks = static_cast<int64_t>(nPart);
    const uint8_t *pData = nPart > 0 ? ReadBytes(pBlock, nPart) : nullptr;
    *pPiece = ByteReader{pData, nPart};
    return pData != nullptr;
}

}  // namespace orx
