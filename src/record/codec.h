// The codecs that this system knows: one table, one row each. What is known about a codec anywhere, from its
// names in a description to the files that tools export, is in its row, and a new codec is a new row. Any
// thread.
#pragma once

#include <cstdint>
#include <span>

#include "base/mediatype.h"
#include "record/depacketise.h"
#include "record/keyframe.h"
#include "record/nalunit.h"

namespace orx {

struct RtpOut;

// The two that look codecs up by name.
enum CodecUser : uint8_t {
    CODEC_PROGRAM = 1,    // the tracks of a program, live or recorded
    CODEC_RECORDING = 2,  // what a recording can hold
    CODEC_ALL = 3,
    // The same two where WideUnits is set or a recording is played: files of version 101 hold more codecs. A
    // name with CODEC_WIDE in it is known to none else.
    CODEC_WIDE = 4,
    CODEC_WIDE_PROGRAM = CODEC_PROGRAM | CODEC_WIDE,
    CODEC_WIDE_RECORDING = CODEC_RECORDING | CODEC_WIDE,
    CODEC_WIDE_ALL = CODEC_ALL | CODEC_WIDE,
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
    FORM_UNITS,  // units of H.264 or H.265, each behind its length (see NalNext)
    FORM_JPEG,   // RTP payloads of one image, or a JFIF file
    FORM_AMR,    // frames in storage form
    FORM_G711,   // a byte per sampling
    FORM_AAC,    // units, each behind 2 bytes of length that count themselves
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
    int nSampleRate = 0;            // of recorded audio, Hz; 0 when the description tells it
    const NalForm *pNal = nullptr;  // of FORM_UNITS
    CodecExport exported = {};
};

std::span<const Codec> Codecs();

// The codec that a description means by a name. nKind is MEDIA_VIDEO_OTHER or MEDIA_AUDIO_OTHER. Null for a
// name that nUser (a single one of them) does not know.
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
