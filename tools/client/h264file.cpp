#include "client/h264file.h"

#include <cstdio>

namespace orx {

int ReadWholeFile(const char *szPath, std::string *pOut)
{
    FILE *pFile = fopen(szPath, "rb");
    if (!pFile)
        return 0;
    char block[65536];
    pOut->clear();
    for (size_t n; (n = fread(block, 1, sizeof block, pFile)) > 0;)
        pOut->append(block, n);
    int bGood = !ferror(pFile);
    return fclose(pFile) == 0 && bGood;
}

static int IsSlice(std::string_view unit)
{
    int nType = H264UnitType(unit);
    return nType >= H264_SLICE && nType <= H264_IDR;
}

// A slice whose first macroblock is 0: its first Exp-Golomb number is a single 1 bit.
static int StartsPicture(std::string_view unit)
{
    return IsSlice(unit) && unit.size() > 1 && (unit[1] & 0x80);
}

static void AddUnit(H264File *pFile, std::string_view unit, int *pbSliceSeen)
{
    int nType = H264UnitType(unit);
    int bSlice = IsSlice(unit);
    int bBefore = (nType >= H264_SEI && nType <= H264_AUD) || (nType >= 14 && nType <= 18);
    if (pFile->pictures.empty() || (*pbSliceSeen && (bBefore || StartsPicture(unit)))) {
        pFile->pictures.emplace_back();
        *pbSliceSeen = 0;
    }
    H264Picture *pPicture = &pFile->pictures.back();
    pPicture->units.push_back(unit);
    *pbSliceSeen |= bSlice;
    pPicture->bKey |= nType == H264_IDR;
    if (nType == H264_SPS && pFile->sps.empty())
        pFile->sps = unit;
    if (nType == H264_PPS && pFile->pps.empty())
        pFile->pps = unit;
}

int H264Parse(H264File *pFile)
{
    std::string_view data = pFile->data;
    constexpr std::string_view kStart("\0\0\1", 3);
    int bSliceSeen = 0;
    pFile->pictures.clear();
    pFile->sps = pFile->pps = {};
    for (size_t nAt = data.find(kStart); nAt != std::string_view::npos;) {
        size_t nNext = data.find(kStart, nAt + 3);
        std::string_view unit =
            data.substr(nAt + 3, nNext == std::string_view::npos ? nNext : nNext - nAt - 3);
        while (!unit.empty() && unit.back() == '\0')  // the next start code's first byte, or padding
            unit.remove_suffix(1);
        if (!unit.empty())
            AddUnit(pFile, unit, &bSliceSeen);
        nAt = nNext;
    }
    if (!pFile->pictures.empty() && !bSliceSeen)  // parameter sets at the end belong to no picture
        pFile->pictures.pop_back();
    return !pFile->pictures.empty() && !pFile->sps.empty() && !pFile->pps.empty() &&
           H264PictureSize(pFile->sps, &pFile->nWidth, &pFile->nHeight);
}

int H264Load(H264File *pFile, const char *szPath)
{
    return ReadWholeFile(szPath, &pFile->data) && H264Parse(pFile);
}

struct BitReader {
    std::string bytes;  // emulation prevention removed
    size_t nBit = 0;
    int bFailed = 0;
};

static uint32_t ReadBits(BitReader *pIn, int nBits)
{
    uint32_t nValue = 0;
    for (; nBits > 0; nBits--, pIn->nBit++) {
        if (pIn->nBit / 8 >= pIn->bytes.size()) {
            pIn->bFailed = 1;
            return 0;
        }
        nValue =
            nValue << 1 | ((static_cast<uint8_t>(pIn->bytes[pIn->nBit / 8]) >> (7 - pIn->nBit % 8)) & 1U);
    }
    return nValue;
}

static uint32_t ReadUe(BitReader *pIn)
{
    int nZeros = 0;
    while (!ReadBits(pIn, 1)) {
        if (pIn->bFailed || ++nZeros > 31) {
            pIn->bFailed = 1;
            return 0;
        }
    }
    return (1U << nZeros) - 1 + ReadBits(pIn, nZeros);
}

static std::string WithoutEmulation(std::string_view unit)
{
    std::string out;
    for (size_t i = 0, nZeros = 0; i < unit.size(); i++) {
        if (nZeros >= 2 && unit[i] == 3) {
            nZeros = 0;
            continue;
        }
        nZeros = unit[i] ? 0 : nZeros + 1;
        out += unit[i];
    }
    return out;
}

// A signed Exp-Golomb number is stepped over as an unsigned one: its length is the same.
static void SkipScalingLists(BitReader *pIn, int nLists)
{
    for (int i = 0; i < nLists && !pIn->bFailed; i++) {
        if (!ReadBits(pIn, 1))
            continue;
        int nLast = 8, nNext = 8;
        for (int j = 0; j < (i < 6 ? 16 : 64) && nNext && !pIn->bFailed; j++) {
            uint32_t nCode = ReadUe(pIn);
            int nDelta = nCode & 1 ? static_cast<int>((nCode + 1) / 2) : -static_cast<int>(nCode / 2);
            nNext = (nLast + nDelta + 256) % 256;
            nLast = nNext ? nNext : nLast;
        }
    }
}

// What only the high profiles carry. Returns the chroma format.
static uint32_t ReadHighProfile(BitReader *pIn)
{
    uint32_t nChroma = ReadUe(pIn);
    if (nChroma == 3)
        ReadBits(pIn, 1);
    ReadUe(pIn);
    ReadUe(pIn);
    ReadBits(pIn, 1);
    if (ReadBits(pIn, 1))
        SkipScalingLists(pIn, nChroma == 3 ? 12 : 8);
    return nChroma;
}

static void SkipPictureOrder(BitReader *pIn)
{
    uint32_t nType = ReadUe(pIn);
    if (nType == 0)
        ReadUe(pIn);
    if (nType != 1)
        return;
    ReadBits(pIn, 1);
    ReadUe(pIn);
    ReadUe(pIn);
    for (uint32_t n = ReadUe(pIn); n > 0 && !pIn->bFailed; n--)
        ReadUe(pIn);
}

int H264PictureSize(std::string_view sps, int *pnWidth, int *pnHeight)
{
    BitReader in{WithoutEmulation(sps)};
    ReadBits(&in, 8);
    uint32_t nProfile = ReadBits(&in, 8);
    ReadBits(&in, 16);
    ReadUe(&in);
    static const uint32_t highProfiles[] = {100, 110, 122, 244, 44, 83, 86, 118, 128};
    uint32_t nChroma = 1;
    for (uint32_t nHigh : highProfiles)
        if (nProfile == nHigh)
            nChroma = ReadHighProfile(&in);
    ReadUe(&in);
    SkipPictureOrder(&in);
    ReadUe(&in);
    ReadBits(&in, 1);
    uint32_t nWidth = (ReadUe(&in) + 1) * 16;
    uint32_t nMapUnits = ReadUe(&in) + 1;
    uint32_t nFields = 2 - ReadBits(&in, 1);  // frames made of two fields have map units of double height
    uint32_t nHeight = nMapUnits * 16 * nFields;
    if (nFields == 2)
        ReadBits(&in, 1);
    ReadBits(&in, 1);
    if (ReadBits(&in, 1)) {
        uint32_t nUnitX = nChroma == 1 || nChroma == 2 ? 2 : 1;
        uint32_t nUnitY = (nChroma == 1 ? 2 : 1) * nFields;
        nWidth -= ReadUe(&in) * nUnitX;
        nWidth -= ReadUe(&in) * nUnitX;
        nHeight -= ReadUe(&in) * nUnitY;
        nHeight -= ReadUe(&in) * nUnitY;
    }
    if (in.bFailed || nWidth > 16384 || nHeight > 16384)
        return 0;
    *pnWidth = static_cast<int>(nWidth);
    *pnHeight = static_cast<int>(nHeight);
    return 1;
}

}  // namespace orx
