#include "record/picturesize.h"

#include <algorithm>
#include <iterator>

#include "record/jpegparts.h"

namespace orx {

static constexpr uint32_t kMaxSide = 16384;  // what is larger was misread
static constexpr uint32_t kMaxSet = 256;     // bytes that are looked at: the size stands near the front

// The bits of a parameter set without what keeps start codes out of it.
struct Bits {
    uint8_t bytes[kMaxSet];
    uint32_t nBits = 0;
    uint32_t nAt = 0;
    int bFailed = 0;
};

static void Unescape(Bits *pOut, const uint8_t *pUnit, uint32_t nBytes)
{
    uint32_t nZeros = 0, nOut = 0;
    for (uint32_t i = 0; i < nBytes && nOut < kMaxSet; i++) {
        if (nZeros >= 2 && pUnit[i] == 3) {
            nZeros = 0;
            continue;
        }
        nZeros = pUnit[i] == 0 ? nZeros + 1 : 0;
        pOut->bytes[nOut++] = pUnit[i];
    }
    pOut->nBits = nOut * 8;
}

static uint32_t Take(Bits *p, uint32_t n)
{
    uint32_t nValue = 0;
    if (n > p->nBits - p->nAt)
        p->bFailed = 1;
    for (uint32_t i = 0; i < n && !p->bFailed; i++, p->nAt++)
        nValue = nValue << 1 | (p->bytes[p->nAt / 8] >> (7 - p->nAt % 8) & 1);
    return p->bFailed ? 0 : nValue;
}

static void Skip(Bits *p, uint32_t n)
{
    if (n > p->nBits - p->nAt)
        p->bFailed = 1;
    else
        p->nAt += n;
}

// Exponential Golomb code.
static uint32_t TakeUe(Bits *p)
{
    uint32_t nZeros = 0;
    while (!p->bFailed && Take(p, 1) == 0)
        if (++nZeros > 31)
            p->bFailed = 1;
    return p->bFailed ? 0 : (1U << nZeros) - 1 + Take(p, nZeros);
}

static int TakeSe(Bits *p)
{
    uint32_t n = TakeUe(p);
    return n & 1 ? static_cast<int>(n / 2 + 1) : -static_cast<int>(n / 2);
}

static void SkipScalingList(Bits *p, uint32_t nSize)
{
    int nLast = 8, nNext = 8;
    for (uint32_t i = 0; i < nSize && !p->bFailed; i++) {
        if (nNext != 0)
            nNext = (nLast + TakeSe(p) + 256) % 256;
        nLast = nNext == 0 ? nLast : nNext;
    }
}

// What only the higher profiles have. Returns chroma_format_idc.
static uint32_t SkipHighProfile(Bits *p)
{
    uint32_t nChroma = TakeUe(p);
    if (nChroma == 3)
        Skip(p, 1);
    TakeUe(p);
    TakeUe(p);
    Skip(p, 1);
    if (Take(p, 1))
        for (uint32_t i = 0; i < (nChroma == 3 ? 12U : 8U); i++)
            if (Take(p, 1))
                SkipScalingList(p, i < 6 ? 16 : 64);
    return nChroma;
}

static int IsHighProfile(uint32_t nProfile)
{
    static const uint8_t profiles[] = {100, 110, 122, 244, 44, 83, 86, 118, 128, 138, 139, 134, 135};
    return std::find(std::begin(profiles), std::end(profiles), nProfile) != std::end(profiles);
}

static void SkipPictureOrder(Bits *p)
{
    uint32_t nType = TakeUe(p);
    if (nType == 0)
        TakeUe(p);
    if (nType != 1)
        return;
    Skip(p, 1);
    TakeUe(p);
    TakeUe(p);
    for (uint32_t n = std::min(TakeUe(p), 255U); n > 0 && !p->bFailed; n--)
        TakeUe(p);
}

struct Crop {
    uint32_t nLeft = 0, nRight = 0, nTop = 0, nBottom = 0;
};

static Crop TakeCrop(Bits *p)
{
    Crop crop;
    if (!Take(p, 1))
        return crop;
    for (uint32_t *pn : {&crop.nLeft, &crop.nRight, &crop.nTop, &crop.nBottom})
        *pn = std::min(TakeUe(p), kMaxSide);
    return crop;
}

static int Finish(const Bits *p, uint64_t nWidth, uint64_t nHeight, uint64_t nCropX, uint64_t nCropY,
                  uint32_t *pnWidth, uint32_t *pnHeight)
{
    if (p->bFailed || nCropX >= nWidth || nCropY >= nHeight || nWidth > kMaxSide || nHeight > kMaxSide)
        return 0;
    *pnWidth = static_cast<uint32_t>(nWidth - nCropX);
    *pnHeight = static_cast<uint32_t>(nHeight - nCropY);
    return 1;
}

static int SizeOfH264(Bits *p, uint32_t *pnWidth, uint32_t *pnHeight)
{
    Skip(p, 8);
    uint32_t nProfile = Take(p, 8);
    Skip(p, 16);
    TakeUe(p);
    uint32_t nChroma = IsHighProfile(nProfile) ? SkipHighProfile(p) : 1;
    TakeUe(p);
    SkipPictureOrder(p);
    TakeUe(p);
    Skip(p, 1);
    uint64_t nWidth = (uint64_t{TakeUe(p)} + 1) * 16;
    uint64_t nMaps = uint64_t{TakeUe(p)} + 1;
    uint32_t nFields = 2 - Take(p, 1);  // pictures of fields have maps of half the height
    if (nFields == 2)
        Skip(p, 1);
    Skip(p, 1);
    Crop crop = TakeCrop(p);
    uint32_t nUnitX = nChroma == 1 || nChroma == 2 ? 2 : 1;
    uint32_t nUnitY = (nChroma == 1 ? 2 : 1) * nFields;
    return Finish(p, nWidth, nMaps * 16 * nFields, uint64_t{crop.nLeft + crop.nRight} * nUnitX,
                  uint64_t{crop.nTop + crop.nBottom} * nUnitY, pnWidth, pnHeight);
}

// Levels of the layers below the highest.
static void SkipSubLayers(Bits *p, uint32_t nSubLayers)
{
    uint32_t profiles = 0, levels = 0;
    for (uint32_t i = 0; i < nSubLayers; i++) {
        profiles = profiles << 1 | Take(p, 1);
        levels = levels << 1 | Take(p, 1);
    }
    for (uint32_t i = nSubLayers; nSubLayers > 0 && i < 8; i++)
        Skip(p, 2);
    for (uint32_t i = nSubLayers; i-- > 0;)
        Skip(p, (profiles >> i & 1 ? 88 : 0) + (levels >> i & 1 ? 8 : 0));
}

static int SizeOfH265(Bits *p, uint32_t *pnWidth, uint32_t *pnHeight)
{
    Skip(p, 16 + 4);
    uint32_t nSubLayers = Take(p, 3);
    Skip(p, 1 + 96);
    SkipSubLayers(p, nSubLayers);
    TakeUe(p);
    uint32_t nChroma = TakeUe(p);
    if (nChroma == 3)
        Skip(p, 1);
    uint32_t nWidth = TakeUe(p);
    uint32_t nHeight = TakeUe(p);
    Crop crop = TakeCrop(p);
    return Finish(p, nWidth, nHeight,
                  uint64_t{crop.nLeft + crop.nRight} * (nChroma == 1 || nChroma == 2 ? 2 : 1),
                  uint64_t{crop.nTop + crop.nBottom} * (nChroma == 1 ? 2 : 1), pnWidth, pnHeight);
}

int PictureSizeOfSequence(const NalForm *pForm, const uint8_t *pUnit, uint32_t nBytes, uint32_t *pnWidth,
                          uint32_t *pnHeight)
{
    Bits bits;
    Unescape(&bits, pUnit, nBytes);
    return pForm == &g_h265Form ? SizeOfH265(&bits, pnWidth, pnHeight) : SizeOfH264(&bits, pnWidth, pnHeight);
}

int PictureSizeOfJpeg(const uint8_t *pPayload, uint32_t nBytes, uint32_t *pnWidth, uint32_t *pnHeight)
{
    if (nBytes < kJpegHeadBytes || pPayload[6] == 0 || pPayload[7] == 0)
        return 0;
    *pnWidth = uint32_t{pPayload[6]} * 8;
    *pnHeight = uint32_t{pPayload[7]} * 8;
    return 1;
}

}  // namespace orx
