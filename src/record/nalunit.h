// Units of H.264 and H.265: what their headers say, in RTP payloads (RFC 6184, RFC 7798) and in recordings.
// The two differ in a few numbers, a row each. Any thread.
#pragma once

#include <cstdint>

#include "base/bytes.h"

namespace orx {

// What a unit is for.
enum NalKind : uint8_t {
    NAL_IS_OTHER,
    NAL_IS_SLICE,
    NAL_IS_KEY_SLICE,  // of a picture that can be decoded alone
    NAL_IS_DELIMITER,  // says nothing that a record does not
    NAL_IS_VIDEO_SET,  // parameter sets, in the order in which they are sent
    NAL_IS_SEQUENCE_SET,
    NAL_IS_PICTURE_SET,
};

struct NalForm {
    uint8_t nHead;        // bytes of a unit's header, and of an aggregate's or a fragment's
    uint8_t nTypeShift;   // where the type lies in the first of them
    uint8_t nTypeMask;    // and in the byte of a fragment that names it
    uint8_t nLastSingle;  // up to this type, from nFirstSingle on, a packet holds one unit
    uint8_t nFirstSingle;
    uint8_t nAggregate;  // type of a packet with several units
    uint8_t nFragment;   // with a part of one
    uint8_t nInfo;       // supplemental information in front of a picture (SEI)
    uint8_t nForeign;    // from this type on nothing is defined: packets that are passed over
    NalKind (*pfnKind)(uint32_t nType);
};

extern const NalForm g_h264Form;
extern const NalForm g_h265Form;

inline uint32_t NalType(const NalForm *pForm, uint8_t nFirstByte)
{
    return nFirstByte >> pForm->nTypeShift & pForm->nTypeMask;
}
// The first byte of a header with another type in it.
inline uint8_t NalWithType(const NalForm *pForm, uint8_t nFirstByte, uint32_t nType)
{
    uint32_t nMask = uint32_t{pForm->nTypeMask} << pForm->nTypeShift;
    return static_cast<uint8_t>((nFirstByte & ~nMask) | nType << pForm->nTypeShift);
}

// Whether a unit of supplemental information says that a decoder may begin with its picture, and will have
// all soon (recovery point: ITU-T H.264, annex D.1.8; H.265, annex D.2.8). Encoders that refresh pictures bit
// by bit have such pictures alone.
int NalIsRecoveryPoint(const NalForm *pForm, const uint8_t *pUnit, uint32_t nBytes);

constexpr uint32_t kUnitHeadBytes = 2;      // before a recorded unit: its length, which counts these two
constexpr uint32_t kWideUnitHeadBytes = 6;  // 0, and four bytes with the length of the unit alone
constexpr uint32_t kMaxNarrowUnit = 0xFFFF - kUnitHeadBytes;

// Steps over one recorded unit, which has a byte or more. Null at the end and when no whole one follows: the
// reader is then where it was.
const uint8_t *NalNext(ByteReader *pIn, uint32_t *pnBytes);

// What a recorded picture holds.
struct NalSummary {
    int bSlice = 0;
    int bKey = 0;            // a key frame: a parameter set of video or sequence, or a key slice
    uint8_t nSets = 0;       // kinds of parameter sets, a bit each: NalSetBit
    int bSetFirst = 0;       // it begins with a parameter set of video or sequence
    int bSequenceFirst = 0;  // with that of a sequence
};
NalSummary NalSummarise(const NalForm *pForm, const uint8_t *pPicture, uint32_t nBytes);

constexpr int kNalSetKinds = 3;
inline int IsNalSet(NalKind nKind)
{
    return nKind >= NAL_IS_VIDEO_SET;
}
constexpr uint8_t NalSetBit(NalKind nKind)
{
    return static_cast<uint8_t>(1U << (nKind - NAL_IS_VIDEO_SET));
}

}  // namespace orx
