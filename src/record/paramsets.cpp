#include "record/paramsets.h"

#include <cstdlib>
#include <cstring>

#include "base/base64.h"
#include "base/textbuf.h"
#include "record/sdpreader.h"

namespace orx {

constexpr uint32_t kMaxSetsBytes = 65536;  // of one kind
constexpr size_t kMaxSetText = 4096;       // of one parameter set in a description

void ParamSetsFree(ParamSets *pSets)
{
    for (auto &kind : pSets->kinds)
        free(kind.pUnits);
    *pSets = ParamSets();
}

// Adds the units of one kind to what it has.
static void Add(ParamSets *pSets, NalKind nKind, const uint8_t *pUnit, uint32_t nBytes)
{
    auto &kind = pSets->kinds[nKind - NAL_IS_VIDEO_SET];
    uint32_t nNew = kind.nBytes + kUnitHeadBytes + nBytes;
    if (nBytes > kMaxNarrowUnit || nNew > kMaxSetsBytes)
        return;
    auto *p = static_cast<uint8_t *>(realloc(kind.pUnits, nNew));
    if (!p)
        return;
    PutBe(p + kind.nBytes, 2, nBytes + kUnitHeadBytes);
    memcpy(p + kind.nBytes + kUnitHeadBytes, pUnit, nBytes);
    kind.pUnits = p;
    kind.nBytes = nNew;
}

void ParamSetsAdd(ParamSets *pSets, NalKind nKind, const uint8_t *pUnit, uint32_t nBytes, uint8_t *pnFresh)
{
    if (!(*pnFresh & NalSetBit(nKind)))
        pSets->kinds[nKind - NAL_IS_VIDEO_SET].nBytes = 0;
    *pnFresh |= NalSetBit(nKind);
    Add(pSets, nKind, pUnit, nBytes);
}

void ParamSetsFromFormat(ParamSets *pSets, const NalForm *pForm, std::string_view format)
{
    char szText[kMaxSetText];
    char unit[kMaxSetText];
    for (const char *szName : {"sprop-parameter-sets", "sprop-vps", "sprop-sps", "sprop-pps"}) {
        std::string_view value = SdpFormatValue(format, szName);
        while (!value.empty()) {
            std::string_view text = value.substr(0, value.find(','));
            value.remove_prefix(text.size() + (text.size() < value.size()));
            if (!TextCopy(szText, sizeof(szText), text))
                continue;
            auto nUnit = static_cast<uint32_t>(Base64DecodeStrict(unit, szText));
            const auto *pUnit = reinterpret_cast<const uint8_t *>(unit);
            NalKind nKind = nUnit > pForm->nHead ? pForm->pfnKind(NalType(pForm, *pUnit)) : NAL_IS_OTHER;
            if (IsNalSet(nKind))
                Add(pSets, nKind, pUnit, nUnit);
        }
    }
}

void ParamSetsNote(ParamSets *pSets, const NalForm *pForm, const uint8_t *pPicture, uint32_t nBytes)
{
    uint8_t nFresh = 0;  // kinds that begin anew
    ByteReader in{pPicture, nBytes};
    uint32_t nUnit = 0;
    while (const uint8_t *pUnit = NalNext(&in, &nUnit)) {
        NalKind nKind = pForm->pfnKind(NalType(pForm, *pUnit));
        if (IsNalSet(nKind))
            ParamSetsAdd(pSets, nKind, pUnit, nUnit, &nFresh);
    }
}

uint8_t ParamSetsKinds(const ParamSets *pSets)
{
    uint8_t nKinds = 0;
    for (int i = 0; i < kNalSetKinds; i++)
        nKinds |= static_cast<uint8_t>(pSets->kinds[i].nBytes > 0 ? 1U << i : 0);
    return nKinds;
}

uint32_t ParamSetsBytes(const ParamSets *pSets)
{
    uint32_t nBytes = 0;
    for (const auto &kind : pSets->kinds)
        nBytes += kind.nBytes;
    return nBytes;
}

uint32_t ParamSetsStrip(const NalForm *pForm, uint8_t *pPicture, uint32_t nBytes)
{
    ByteReader in{pPicture, nBytes};
    uint32_t nUnit = 0;
    uint32_t nLeft = 0;
    const uint8_t *pFrom = pPicture;
    while (const uint8_t *pUnit = NalNext(&in, &nUnit)) {
        NalKind nKind = pForm->pfnKind(NalType(pForm, *pUnit));
        auto nWhole = static_cast<uint32_t>(in.p - pFrom);
        if (!IsNalSet(nKind) && nKind != NAL_IS_DELIMITER) {
            memmove(pPicture + nLeft, pFrom, nWhole);
            nLeft += nWhole;
        }
        pFrom = in.p;
    }
    return nLeft;
}

void ParamSetsPut(const ParamSets *pSets, uint8_t *pOut)
{
    for (const auto &kind : pSets->kinds) {
        if (kind.nBytes > 0)
            memcpy(pOut, kind.pUnits, kind.nBytes);
        pOut += kind.nBytes;
    }
}

}  // namespace orx
