#include "record/jpegparts.h"

#include "base/bytes.h"

namespace orx {

constexpr uint8_t MARKER_SOF0 = 0xC0;
constexpr uint8_t MARKER_SOI = 0xD8;
constexpr uint8_t MARKER_SOS = 0xDA;
constexpr uint8_t MARKER_DQT = 0xDB;

// The tables of one segment, all of one size. A file may keep both in one segment or each in its own.
static void TakeTables(ByteReader segment, JpegImage *pOut)
{
    while (segment.nLeft > 0 && !segment.bFailed) {
        uint32_t nTable = ReadBe(&segment, 1) >> 4 ? 128 : 64;  // 16-bit or 8-bit values
        const uint8_t *pTable = ReadBytes(&segment, nTable);
        if (!pTable || (pOut->pLuma && nTable != pOut->nTable))
            return;
        pOut->nTable = nTable;
        if (!pOut->pLuma)
            pOut->pLuma = pTable;
        else if (!pOut->pChroma)
            pOut->pChroma = pTable;
    }
}

static void TakeSize(ByteReader segment, JpegImage *pOut)
{
    ReadBe(&segment, 1);  // bits per value
    uint32_t nHeight = ReadBe(&segment, 2);
    uint32_t nWidth = ReadBe(&segment, 2);
    if (segment.bFailed)
        return;
    pOut->nHeight = nHeight;
    pOut->nWidth = nWidth;
}

void JpegImageParse(const uint8_t *pData, size_t nBytes, JpegImage *pOut)
{
    ByteReader in{pData, nBytes};
    *pOut = JpegImage{};
    while (!in.bFailed && in.nLeft > 0) {
        if (ReadBe(&in, 1) != 0xFF)
            return;
        uint32_t nMarker = ReadBe(&in, 1);
        while (nMarker == 0xFF)  // fill bytes
            nMarker = ReadBe(&in, 1);
        if (nMarker == MARKER_SOI)
            continue;
        uint32_t nSegment = ReadBe(&in, 2);
        const uint8_t *pSegment = nSegment < 2 ? nullptr : ReadBytes(&in, nSegment - 2);
        if (!pSegment)
            return;
        ByteReader segment{pSegment, nSegment - 2};
        if (nMarker == MARKER_DQT)
            TakeTables(segment, pOut);
        else if (nMarker == MARKER_SOF0)
            TakeSize(segment, pOut);
        if (nMarker == MARKER_SOS) {
            pOut->pScan = in.p;
            pOut->nScan = in.nLeft;
            return;
        }
    }
}

// Whether the main header at p is that of the same image, for data at the offset.
static int IsHeaderAt(const uint8_t *p, const uint8_t *pFirst, uint32_t nOffset)
{
    return p[0] == pFirst[0] && GetBe(p + 1, 3) == nOffset && GetBe(p + 4, 4) == GetBe(pFirst + 4, 4);
}

// Bytes of headers in front of the image data of a payload; 0 when they are not all there.
static size_t HeadBytes(const uint8_t *pData, size_t nBytes, uint32_t nOffset)
{
    if (nBytes < kJpegHeadBytes)
        return 0;
    size_t nHead = kJpegHeadBytes;
    if (pData[4] >= 64 && pData[4] < 128)
        nHead += kJpegRestartBytes;
    if (nOffset == 0 && pData[5] >= 128) {
        if (nBytes < nHead + kJpegQuantHeadBytes)
            return 0;
        nHead += kJpegQuantHeadBytes + GetBe(pData + nHead + 2, 2);
    }
    return nHead <= nBytes ? nHead : 0;
}

int JpegNextFragment(JpegFragments *pIn, JpegFragment *pOut)
{
    const uint8_t *p = pIn->pData;
    size_t nHead = HeadBytes(p, pIn->nLeft, pIn->nOffset);
    if (nHead == 0 || GetBe(p + 1, 3) != pIn->nOffset)
        return 0;
    // The next payload begins where the header comes again and names as offset what has passed by then.
    size_t nEnd = nHead + 1;
    while (nEnd + kJpegHeadBytes <= pIn->nLeft &&
           !IsHeaderAt(p + nEnd, p, static_cast<uint32_t>(pIn->nOffset + nEnd - nHead)))
        nEnd++;
    pOut->bLast = nEnd + kJpegHeadBytes > pIn->nLeft;
    if (pOut->bLast)
        nEnd = pIn->nLeft;
    pOut->pData = p;
    pOut->nBytes = nEnd;
    pOut->nHead = nHead;
    pIn->nOffset += static_cast<uint32_t>(nEnd - nHead);
    pIn->pData += nEnd;
    pIn->nLeft -= nEnd;
    return 1;
}

}  // namespace orx
