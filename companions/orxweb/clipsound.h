// Recorded sound that browsers cannot play, turned to AAC. Without libavcodec at build time there is none,
// and clips of such recordings are silent. One thread at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "record/codec.h"

namespace orx {

struct ClipSound;

// Which encoder it is: another one makes other bytes.
const char *ClipSoundMaker();

// Takes a frame that begins at nAt, in samples. Returns 1, or 0 to end the work.
using ClipSoundProc = int (*)(void *pContext, const uint8_t *pData, size_t nBytes, int64_t nAt);

// Null when the codec cannot be decoded. nFileBytes: of the recording. Free with ClipSoundFree, which accepts
// null.
ClipSound *ClipSoundCreate(const Codec *pFrom, uint64_t nFileBytes, ClipSoundProc pfnFrame, void *pContext);
void ClipSoundFree(ClipSound *pSound);

std::string ClipSoundConfig(const ClipSound *pSound);  // of the AAC
uint32_t ClipSoundFrame(const ClipSound *pSound);      // samples in a frame

// See SoundCoderPut and SoundCoderEnd.
int ClipSoundPut(ClipSound *pSound, const uint8_t *pData, size_t nBytes, int64_t nAt, int64_t nLonger);
int ClipSoundEnd(ClipSound *pSound);

}  // namespace orx
