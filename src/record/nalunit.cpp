#include "record/nalunit.h"

#include "record/rtppacket.h"

namespace orx {

static NalKind KindH264(uint32_t nType)
{
    switch (nType) {
        case 1:
        case 2:
            return NAL_IS_SLICE;
        case NAL_IDR:
            return NAL_IS_KEY_SLICE;
        case NAL_SPS:
            return NAL_IS_SEQUENCE_SET;
        case 8:
            return NAL_IS_PICTURE_SET;
        case 9:
            return NAL_IS_DELIMITER;
        default:
            return NAL_IS_OTHER;
    }
}

// ITU-T H.265, table 7-1.
static NalKind KindH265(uint32_t nType)
{
    static const NalKind kinds[] = {NAL_IS_VIDEO_SET, NAL_IS_SEQUENCE_SET, NAL_IS_PICTURE_SET,
                                    NAL_IS_DELIMITER};
    if (nType <= 9)
        return NAL_IS_SLICE;
    if (nType >= 16 && nType <= 23)
        return NAL_IS_KEY_SLICE;
    return nType >= 32 && nType <= 35 ? kinds[nType - 32] : NAL_IS_OTHER;
}

const NalForm g_h264Form = {.nHead = 1,
                            .nTypeShift = 0,
                            .nTypeMask = 0x1F,
                            .nLastSingle = NAL_LAST_SINGLE,
                            .nFirstSingle = 1,
                            .nAggregate = NAL_STAP_A,
                            .nFragment = NAL_FU_A,
                            .nInfo = 6,
                            .nForeign = 30,
                            .pfnKind = KindH264};
const NalForm g_h265Form = {.nHead = 2,
                            .nTypeShift = 1,
                            .nTypeMask = 0x3F,
                            .nLastSingle = 47,
                            .nFirstSingle = 0,
                            .nAggregate = 48,
                            .nFragment = 49,
                            .nInfo = 39,
                            .nForeign = 51,
                            .pfnKind = KindH265};

// A number of a message's head: as many 255s as there are, and the byte behind them.
static uint32_t ReadSpread(ByteReader *pIn)
{
    uint32_t nSum = 0;
    uint32_t n;
    do {
        n = ReadBe(pIn, 1);
        nSum += n;
    } while (n == 0xFF);
    return nSum;
}

int NalIsRecoveryPoint(const NalForm *pForm, const uint8_t *pUnit, uint32_t nBytes)
{
    constexpr uint32_t kRecoveryPoint = 6;
    ByteReader in{pUnit, nBytes};
    const uint8_t *pHead = ReadBytes(&in, pForm->nHead);
    if (!pHead || NalType(pForm, *pHead) != pForm->nInfo)
        return 0;
    while (!in.bFailed && in.nLeft > 2) {  // less is the end of the unit
        uint32_t nType = ReadSpread(&in);
        uint32_t nSize = ReadSpread(&in);
        if (!in.bFailed && nType == kRecoveryPoint)
            return 1;
        ReadBytes(&in, nSize);
    }
    return 0;
}

const uint8_t *NalNext(ByteReader *pIn, uint32_t *pnBytes)
{
    ByteReader in = *pIn;
    uint32_t nLength = ReadBe(&in, 2);
    uint32_t nUnit = nLength == 0 ? ReadBe(&in, 4) : nLength > kUnitHeadBytes ? nLength - kUnitHeadBytes : 0;
    const uint8_t *pUnit = nUnit > 0 ? ReadBytes(&in, nUnit) : nullptr;
    if (!pUnit)
        return nullptr;
    *pIn = in;
    *pnBytes = nUnit;
    return pUnit;
}

NalSummary NalSummarise(const NalForm *pForm, const uint8_t *pPicture, uint32_t nBytes)
{
    NalSummary found;
    ByteReader in{pPicture, nBytes};
    uint32_t nUnit = 0;
    for (int bFirst = 1; const uint8_t *pUnit = NalNext(&in, &nUnit); bFirst = 0) {
        NalKind nKind = pForm->pfnKind(NalType(pForm, *pUnit));
        found.bSlice |= nKind == NAL_IS_SLICE || nKind == NAL_IS_KEY_SLICE;
        found.bKey |= nKind == NAL_IS_KEY_SLICE || nKind == NAL_IS_SEQUENCE_SET || nKind == NAL_IS_VIDEO_SET;
        found.nSets |= IsNalSet(nKind) ? NalSetBit(nKind) : 0;
        if (bFirst) {
            found.bSequenceFirst = nKind == NAL_IS_SEQUENCE_SET;
            found.bSetFirst = found.bSequenceFirst || nKind == NAL_IS_VIDEO_SET;
        }
    }
    return found;
}

}  // namespace orx
