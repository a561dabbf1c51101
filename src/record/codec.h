// The codecs that this system knows: one table, one row each. What is known about a codec anywhere, from its
// names in a description to the files that tools export, is in its row, and a new codec is a new row. Any
// thread.
#pragma once

#include <cstdint>
#include <span>

#include "base/mediatype.h"
#include "record/depacketise.h"
#include "record/keyframe.h"

namespace orx {

struct RtpOut;

// The two that look codecs up by name.
enum CodecUser : uint8_t {
    CODEC_PROGRAM = 1,    // the tracks of a program, live or recorded
    CODEC_RECORDING = 2,  // what a recording can hold
    CODEC_ALL = 3,
};

constexpr int kMaxCodecAliases = 3;

struct CodecAlias {
    const char *szName = nullptr;  // in a description, compared without regard to case
    CodecUser nUsers = CODEC_ALL;  // who knows it
    int bPrefix = 0;               // names that begin so are meant, too
};

// How a recorded sample is made up.
enum SampleForm : uint8_t {
    FORM_NONE,   // not recorded
    FORM_UNITS,  // units of H.264, each behind 2 bytes of length that count themselves
    FORM_JPEG,   // RTP payloads of one image, or a JFIF file
    FORM_AMR,    // frames in storage form
    FORM_G711,   // a byte per sampling
};

// How tools take a codec out of recordings.
struct CodecExport {
    const char *szEnding = nullptr;  // of a file of the bare media; null: it is not exported
    const char *szHolds = nullptr;   // what such a file holds, for messages
    const char *szHead = "";         // what such a file begins with
    const char *szAvName = nullptr;  // the codec in libavcodec's words
};

using PackProc = int (*)(RtpOut *pOut, const uint8_t *pData, uint32_t nLenIn, uint32_t nTimeMs, int nTrackId);

struct Codec {
    const char *szName = nullptr;  // in normal form: as recordings and messages name it
    uint32_t nMediaType = 0;       // MEDIA_...; that of its kind when it has no code of its own
    CodecAlias aliases[kMaxCodecAliases] = {};
    int bKeepSpelling = 0;               // a program's track keeps the name that it came with
    int nStaticType = 0;                 // a recording takes this payload type without a name; 0: none
    KeyFrameProc pfnIsKey = nullptr;     // every video codec has one
    DepacketProc pfnDepacket = nullptr;  // null: it cannot be recorded
    PackProc pfnPack = nullptr;          // null: recordings of it cannot be played
    SampleForm nForm = FORM_NONE;
    int nSampleRate = 0;  // of recorded audio, Hz
    CodecExport exported = {};
};

std::span<const Codec> Codecs();

// The codec that a description means by a name. nKind is MEDIA_VIDEO_OTHER or MEDIA_AUDIO_OTHER. Null for a
// name that nUser (one of the two) does not know.
const Codec *CodecByName(uint32_t nKind, const char *szName, CodecUser nUser);
// The codec of a static payload type (RFC 3551) that a recording takes without a name, or null.
const Codec *CodecByStaticType(int nPayloadType);
// The row of media whose codec is not known: of video the one whose key test fits any; of audio null.
const Codec *CodecUnknown(uint32_t nKind);

// AMR whose frames have the sizes of AMR-WB. pCodec may be null.
inline int CodecIsWideband(const Codec *pCodec)
{
    return pCodec && pCodec->nMediaType == MEDIA_AMR_WB;
}

}  // namespace orx
