#include "orxweb/clipsound.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/log.h>
}

#include <new>

#include "orxzmf/soundcoder.h"

namespace orx {

struct ClipSound {
    SoundCoder coder;
    ClipSoundProc pfnFrame = nullptr;
    void *pContext = nullptr;
};

static int TakeCoded(void *pContext, AVPacket *pPacket)
{
    auto *pSound = static_cast<ClipSound *>(pContext);
    return pSound->pfnFrame(pSound->pContext, pPacket->data, static_cast<size_t>(pPacket->size),
                            pPacket->pts);
}

const char *ClipSoundMaker()
{
    return LIBAVCODEC_IDENT;
}

ClipSound *ClipSoundCreate(const Codec *pFrom, uint64_t nFileBytes, ClipSoundProc pfnFrame, void *pContext)
{
    av_log_set_level(AV_LOG_QUIET);  // the encoder tells how it did
    auto *pSound = new (std::nothrow) ClipSound;
    if (!pSound)
        return nullptr;
    pSound->pfnFrame = pfnFrame;
    pSound->pContext = pContext;
    pSound->coder.pfnCoded = TakeCoded;
    pSound->coder.pContext = pSound;
    if (SoundCoderOpen(&pSound->coder, pFrom, 0, 1, nFileBytes))
        return pSound;
    ClipSoundFree(pSound);
    return nullptr;
}

void ClipSoundFree(ClipSound *pSound)
{
    if (!pSound)
        return;
    SoundCoderFree(&pSound->coder);
    delete pSound;
}

std::string ClipSoundConfig(const ClipSound *pSound)
{
    const AVCodecContext *pEncoder = pSound->coder.pEncoder;
    return {reinterpret_cast<const char *>(pEncoder->extradata),
            static_cast<size_t>(pEncoder->extradata_size)};
}

uint32_t ClipSoundFrame(const ClipSound *pSound)
{
    return static_cast<uint32_t>(pSound->coder.pEncoder->frame_size);
}

int ClipSoundPut(ClipSound *pSound, const uint8_t *pData, size_t nBytes, int64_t nAt, int64_t nLonger)
{
    return SoundCoderPut(&pSound->coder, pData, nBytes, nAt, nLonger);
}

int ClipSoundEnd(ClipSound *pSound)
{
    return SoundCoderEnd(&pSound->coder);
}

}  // namespace orx
