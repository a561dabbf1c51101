#include "record/zmfile.h"

#include <cstring>

#include "base/bytes.h"

namespace orx {

namespace {

enum FieldKind : uint8_t { FIELD_16, FIELD_32, FIELD_TEXT };

// Where each field of the header lies in the file and in the record; everything between them is 0.
struct HeaderField {
    uint32_t nFileOffset;
    size_t nOffset;
    FieldKind nKind;
    uint32_t nBytes;
};

const HeaderField g_fields[] = {
    {0, offsetof(ZMFileHeader, nMagic), FIELD_32, 4},
    {4, offsetof(ZMFileHeader, nHeadSize), FIELD_16, 2},
    {6, offsetof(ZMFileHeader, nVersion), FIELD_16, 2},
    {8, offsetof(ZMFileHeader, nIdxSize), FIELD_16, 2},
    {10, offsetof(ZMFileHeader, nSdpSize), FIELD_16, 2},
    {12, offsetof(ZMFileHeader, nAppDataBytes), FIELD_16, 2},
    {20, offsetof(ZMFileHeader, szStartTime), FIELD_TEXT, 16},
    {36, offsetof(ZMFileHeader, nRecordKind), FIELD_16, 2},
    {40, offsetof(ZMFileHeader, uDuration), FIELD_32, 4},
    {44, offsetof(ZMFileHeader, uVideoSamples), FIELD_32, 4},
    {48, offsetof(ZMFileHeader, uReservedSamples), FIELD_32, 4},
    {52, offsetof(ZMFileHeader, uTextSamples), FIELD_32, 4},
    {56, offsetof(ZMFileHeader, uUserSamples), FIELD_32, 4},
    {60, offsetof(ZMFileHeader, szLabel), FIELD_TEXT, 32},
    {128, offsetof(ZMFileHeader, uKeyFrames), FIELD_32, 4},
    {132, offsetof(ZMFileHeader, nIdxInterval), FIELD_16, 2},
    {134, offsetof(ZMFileHeader, nFileSeq), FIELD_16, 2},
};

}  // namespace

void ZMFileHeaderEncode(const ZMFileHeader *pHead, uint8_t *pOut)
{
    memset(pOut, 0, kZmfHeadBytes);
    for (const HeaderField &field : g_fields) {
        const char *pFrom = reinterpret_cast<const char *>(pHead) + field.nOffset;
        uint8_t *pTo = pOut + field.nFileOffset;
        if (field.nKind == FIELD_16)
            PutBe(pTo, 2, *reinterpret_cast<const uint16_t *>(pFrom));
        else if (field.nKind == FIELD_32)
            PutBe(pTo, 4, *reinterpret_cast<const uint32_t *>(pFrom));
        else
            memcpy(pTo, pFrom, field.nBytes);
    }
}

int ZMFileHeaderDecode(const uint8_t *pData, size_t nBytes, ZMFileHeader *pHead)
{
    if (nBytes < kZmfFixedHeadBytes || GetBe(pData, 4) != kZmfMagic ||
        GetBe(pData + 4, 2) < kZmfFixedHeadBytes)
        return 0;
    uint8_t bytes[kZmfHeadBytes] = {};
    memcpy(bytes, pData, nBytes < sizeof(bytes) ? nBytes : sizeof(bytes));
    for (const HeaderField &field : g_fields) {
        char *pTo = reinterpret_cast<char *>(pHead) + field.nOffset;
        const uint8_t *pFrom = bytes + field.nFileOffset;
        if (field.nKind == FIELD_16)
            *reinterpret_cast<uint16_t *>(pTo) = static_cast<uint16_t>(GetBe(pFrom, 2));
        else if (field.nKind == FIELD_32)
            *reinterpret_cast<uint32_t *>(pTo) = GetBe(pFrom, 4);
        else
            memcpy(pTo, pFrom, field.nBytes);
    }
    return 1;
}

uint32_t ZMFileDataOffset(const ZMFileHeader *pHead)
{
    return uint32_t{pHead->nHeadSize} + pHead->nIdxSize + pHead->nSdpSize + pHead->nAppDataBytes;
}

void ZMFRecordHeadEncode(const ZMFRecordHead *pHead, uint8_t *pOut)
{
    PutBe(pOut, 2, pHead->nLength);
    pOut[2] = static_cast<uint8_t>(pHead->chMedia);
    pOut[3] = static_cast<uint8_t>((pHead->nFlags & 0xC0) | (pHead->nLength >> 16 & 0x3F));
    PutBe(pOut + 4, 4, pHead->nTimeMs);
}

void ZMFRecordHeadDecode(const uint8_t *pData, ZMFRecordHead *pHead)
{
    pHead->nLength = GetBe(pData, 2) | (pData[3] & 0x3FU) << 16;
    pHead->chMedia = static_cast<char>(pData[2]);
    pHead->nFlags = pData[3] & 0xC0;
    pHead->nTimeMs = GetBe(pData + 4, 4);
}

}  // namespace orx
