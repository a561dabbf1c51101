// Recorded sound that is decoded and encoded anew by Debian's libavcodec, which keeps its place in time: what
// is missing becomes silence. One thread at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "record/codec.h"

struct AVCodecContext;
struct AVFrame;
struct AVPacket;

namespace orx {

// Takes what was encoded, with times in samples. Returns 1, or 0 to end the work.
using SoundCodedProc = int (*)(void *pContext, AVPacket *pPacket);

struct SoundCoder {
    SoundCodedProc pfnCoded = nullptr;
    void *pContext = nullptr;
    AVCodecContext *pDecoder = nullptr;  // owned, as those that follow
    AVCodecContext *pEncoder = nullptr;
    AVFrame *pDecoded = nullptr;
    AVFrame *pFrame = nullptr;  // handed to the encoder
    AVPacket *pPacket = nullptr;
    std::vector<float> waiting;  // samples not yet encoded
    int64_t nEnd = -1;           // place of the sample behind the last one taken; -1 before the first
    int64_t nSilence = 0;        // samples that may still be put where nothing was recorded
};

// What libavcodec calls a codec, as its number; 0 for one that is not recorded.
int SoundCoderId(const Codec *pCodec);

// Readies it for the pieces of a recording of nFileBytes. bPcm: the result is PCM, which has no delay and
// loses nothing, else AAC. bGlobalHead: its configuration stands in pEncoder->extradata alone. Returns 1 or
// 0; SoundCoderFree in either case.
int SoundCoderOpen(SoundCoder *pCoder, const Codec *pFrom, int bPcm, int bGlobalHead, uint64_t nFileBytes);
void SoundCoderFree(SoundCoder *pCoder);

// A piece (see soundpiece.h), to lie at nAt and to end nLonger samples later than it does by itself. What
// cannot be decoded is left out. Returns 1 or 0.
int SoundCoderPut(SoundCoder *pCoder, const uint8_t *pData, size_t nBytes, int64_t nAt, int64_t nLonger);
// Has everything encoded that was put; nothing may follow. Returns 1 or 0.
int SoundCoderEnd(SoundCoder *pCoder);

}  // namespace orx
