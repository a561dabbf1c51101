// The parameter sets that a video track's decoder needs, as its description tells them or a picture last had
// them: not every encoder sends them with each key frame, and a recording may begin with any. One thread at a
// time.
#pragma once

#include <cstdint>
#include <string_view>

#include "record/nalunit.h"

namespace orx {

struct ParamSets {
    struct {
        uint8_t *pUnits = nullptr;  // owned; as they are recorded
        uint32_t nBytes = 0;
    } kinds[kNalSetKinds];
};

void ParamSetsFree(ParamSets *pSets);
// Takes over those of a format line ("sprop-parameter-sets" of RFC 6184, "sprop-vps", "-sps", "-pps" of RFC
// 7798). What is no parameter set is passed over.
void ParamSetsFromFormat(ParamSets *pSets, const NalForm *pForm, std::string_view format);
// Takes over a parameter set, in the place of those of its kind before; beside them when *pnFresh, the kinds
// that the same picture has so far, has it.
void ParamSetsAdd(ParamSets *pSets, NalKind nKind, const uint8_t *pUnit, uint32_t nBytes, uint8_t *pnFresh);
// Takes over those of a recorded picture, kind by kind in the place of those before.
void ParamSetsNote(ParamSets *pSets, const NalForm *pForm, const uint8_t *pPicture, uint32_t nBytes);

// The kinds that are there, a bit each (NalSetBit), and what they come to.
uint8_t ParamSetsKinds(const ParamSets *pSets);
uint32_t ParamSetsBytes(const ParamSets *pSets);
// Takes the parameter sets and delimiters out of a recorded picture. Returns the bytes left.
uint32_t ParamSetsStrip(const NalForm *pForm, uint8_t *pPicture, uint32_t nBytes);
// Writes all of them, ParamSetsBytes() bytes.
void ParamSetsPut(const ParamSets *pSets, uint8_t *pOut);

}  // namespace orx
