#include "soundcoder.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/channel_layout.h>
}

#include <algorithm>
#include <cmath>
#include <cstring>

namespace orx {

constexpr int kAacBitRate = 32000;
constexpr int kPcmFrame = 1024;              // samples in one packet
constexpr int64_t kSilenceSeconds = 10;      // a longer pause is left out, which the time stamps tell
constexpr int64_t kSilenceFrom = 60 * 8000;  // samples of silence that the smallest recording may become

int SoundCoderId(const Codec *pCodec)
{
    const char *szName = pCodec ? pCodec->exported.szAvName : nullptr;
    const AVCodecDescriptor *pDescriptor = szName ? avcodec_descriptor_get_by_name(szName) : nullptr;
    return pDescriptor ? pDescriptor->id : AV_CODEC_ID_NONE;
}

static int OpenDecoder(SoundCoder *pCoder, const Codec *pFrom)
{
    const AVCodec *pCodec = avcodec_find_decoder(static_cast<AVCodecID>(SoundCoderId(pFrom)));
    AVCodecContext *pContext = pCodec ? avcodec_alloc_context3(pCodec) : nullptr;
    pCoder->pDecoder = pContext;
    if (!pContext)
        return 0;
    pContext->sample_rate = pFrom->nSampleRate;
    av_channel_layout_default(&pContext->ch_layout, 1);
    return avcodec_open2(pContext, pCodec, nullptr) == 0;
}

static int OpenEncoder(SoundCoder *pCoder, const Codec *pFrom, int bPcm, int bGlobalHead)
{
    const AVCodec *pCodec = avcodec_find_encoder(bPcm ? AV_CODEC_ID_PCM_S16LE : AV_CODEC_ID_AAC);
    AVCodecContext *pContext = pCodec ? avcodec_alloc_context3(pCodec) : nullptr;
    pCoder->pEncoder = pContext;
    if (!pContext)
        return 0;
    pContext->sample_rate = pFrom->nSampleRate;
    pContext->sample_fmt = bPcm ? AV_SAMPLE_FMT_S16 : AV_SAMPLE_FMT_FLTP;
    pContext->bit_rate = bPcm ? 0 : kAacBitRate;
    pContext->time_base = AVRational{1, pContext->sample_rate};
    av_channel_layout_default(&pContext->ch_layout, 1);
    if (bGlobalHead)
        pContext->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
    return avcodec_open2(pContext, pCodec, nullptr) == 0;
}

int SoundCoderOpen(SoundCoder *pCoder, const Codec *pFrom, int bPcm, int bGlobalHead, uint64_t nFileBytes)
{
    pCoder->nSilence = kSilenceFrom + static_cast<int64_t>(nFileBytes);
    pCoder->pDecoded = av_frame_alloc();
    pCoder->pFrame = av_frame_alloc();
    pCoder->pPacket = av_packet_alloc();
    return pCoder->pDecoded && pCoder->pFrame && pCoder->pPacket && OpenDecoder(pCoder, pFrom) &&
           OpenEncoder(pCoder, pFrom, bPcm, bGlobalHead);
}

void SoundCoderFree(SoundCoder *pCoder)
{
    avcodec_free_context(&pCoder->pDecoder);
    avcodec_free_context(&pCoder->pEncoder);
    av_frame_free(&pCoder->pDecoded);
    av_frame_free(&pCoder->pFrame);
    av_packet_free(&pCoder->pPacket);
}

static int HandOut(SoundCoder *pCoder)
{
    int nResult = avcodec_receive_packet(pCoder->pEncoder, pCoder->pPacket);
    for (; nResult == 0; nResult = avcodec_receive_packet(pCoder->pEncoder, pCoder->pPacket)) {
        int bTaken = pCoder->pfnCoded(pCoder->pContext, pCoder->pPacket);
        av_packet_unref(pCoder->pPacket);
        if (!bTaken)
            return 0;
    }
    return nResult == AVERROR(EAGAIN) || nResult == AVERROR_EOF;
}

static void FillFrame(AVFrame *pFrame, const float *pSamples, size_t nSamples)
{
    auto *pPcm = reinterpret_cast<int16_t *>(pFrame->data[0]);
    if (pFrame->format == AV_SAMPLE_FMT_FLTP)
        memcpy(pFrame->data[0], pSamples, nSamples * sizeof(float));
    else
        for (size_t i = 0; i < nSamples; i++)
            pPcm[i] =
                static_cast<int16_t>(std::lrint(std::clamp(pSamples[i] * 32768.0F, -32768.0F, 32767.0F)));
}

static size_t FrameOf(const SoundCoder *pCoder)
{
    return static_cast<size_t>(pCoder->pEncoder->frame_size > 0 ? pCoder->pEncoder->frame_size : kPcmFrame);
}

// Hands full frames to the encoder, at the end (bAll) also what is left.
static int Encode(SoundCoder *pCoder, int bAll)
{
    size_t nFrame = FrameOf(pCoder);
    while (pCoder->waiting.size() >= nFrame || (bAll && !pCoder->waiting.empty())) {
        size_t nTake = std::min(nFrame, pCoder->waiting.size());
        AVFrame *pFrame = pCoder->pFrame;
        av_frame_unref(pFrame);
        pFrame->nb_samples = static_cast<int>(nTake);
        pFrame->format = pCoder->pEncoder->sample_fmt;
        pFrame->sample_rate = pCoder->pEncoder->sample_rate;
        av_channel_layout_default(&pFrame->ch_layout, 1);
        if (av_frame_get_buffer(pFrame, 0) < 0)
            return 0;
        FillFrame(pFrame, pCoder->waiting.data(), nTake);
        pFrame->pts = pCoder->nEnd - static_cast<int64_t>(pCoder->waiting.size());
        pCoder->waiting.erase(pCoder->waiting.begin(), pCoder->waiting.begin() + static_cast<long>(nTake));
        if (avcodec_send_frame(pCoder->pEncoder, pFrame) < 0 || !HandOut(pCoder))
            return 0;
    }
    return 1;
}

static void TakeDecoded(SoundCoder *pCoder)
{
    const AVFrame *pFrame = pCoder->pDecoded;
    for (int i = 0; i < pFrame->nb_samples; i++) {
        float fValue = 0;
        if (pFrame->format == AV_SAMPLE_FMT_S16)
            fValue = static_cast<float>(reinterpret_cast<const int16_t *>(pFrame->data[0])[i]) / 32768.0F;
        else if (pFrame->format == AV_SAMPLE_FMT_FLT || pFrame->format == AV_SAMPLE_FMT_FLTP)
            fValue = reinterpret_cast<const float *>(pFrame->data[0])[i];
        pCoder->waiting.push_back(fValue);
    }
    pCoder->nEnd += pFrame->nb_samples;
}

// Appends silence, or takes samples off the end, until it lies at nEnd, without more than a frame waiting.
static int MoveEnd(SoundCoder *pCoder, int64_t nEnd)
{
    for (; pCoder->nEnd > nEnd && !pCoder->waiting.empty(); pCoder->nEnd--)
        pCoder->waiting.pop_back();
    while (pCoder->nEnd < nEnd) {
        int64_t nPart = std::min<int64_t>(nEnd - pCoder->nEnd, static_cast<int64_t>(FrameOf(pCoder)));
        pCoder->waiting.insert(pCoder->waiting.end(), static_cast<size_t>(nPart), 0.0F);
        pCoder->nEnd += nPart;
        if (!Encode(pCoder, 0))
            return 0;
    }
    return 1;
}

// Goes on at nAt, where a packet's sound begins. What is missing there becomes silence, which keeps players
// in step that look at no time stamps; but no more of it than the recording is long.
static int GoOnAt(SoundCoder *pCoder, int64_t nAt)
{
    int64_t nRate = pCoder->pEncoder->sample_rate;
    auto nFrame = static_cast<int64_t>(FrameOf(pCoder));
    if (pCoder->nEnd < 0)
        pCoder->nEnd = nAt;
    int64_t nMissing = nAt - pCoder->nEnd;
    if (nMissing <= nFrame)
        return nMissing <= 0 || MoveEnd(pCoder, nAt);
    if (nMissing <= kSilenceSeconds * nRate && nMissing <= pCoder->nSilence) {
        pCoder->nSilence -= nMissing;
        return MoveEnd(pCoder, nAt);
    }
    auto nWaiting = static_cast<int64_t>(pCoder->waiting.size());
    if (!MoveEnd(pCoder, pCoder->nEnd + (nFrame - nWaiting % nFrame) % nFrame))
        return 0;
    pCoder->nEnd = nAt;
    return 1;
}

int SoundCoderPut(SoundCoder *pCoder, const uint8_t *pData, size_t nBytes, int64_t nAt, int64_t nLonger)
{
    AVPacket *pPacket = pCoder->pPacket;
    if (!GoOnAt(pCoder, nAt) || av_new_packet(pPacket, static_cast<int>(nBytes)) < 0)
        return 0;
    memcpy(pPacket->data, pData, nBytes);
    int64_t nBefore = pCoder->nEnd;
    int bSent = avcodec_send_packet(pCoder->pDecoder, pPacket) == 0;
    av_packet_unref(pPacket);
    while (bSent && avcodec_receive_frame(pCoder->pDecoder, pCoder->pDecoded) == 0)
        TakeDecoded(pCoder);
    if (pCoder->nEnd == nBefore)
        return 1;  // speech that cannot be decoded is left out
    for (; nLonger > 0 && !pCoder->waiting.empty(); nLonger--, pCoder->nEnd++)
        pCoder->waiting.push_back(pCoder->waiting.back());
    return MoveEnd(pCoder, pCoder->nEnd + nLonger) && Encode(pCoder, 0);
}

int SoundCoderEnd(SoundCoder *pCoder)
{
    return Encode(pCoder, 1) && avcodec_send_frame(pCoder->pEncoder, nullptr) == 0 && HandOut(pCoder);
}

}  // namespace orx
