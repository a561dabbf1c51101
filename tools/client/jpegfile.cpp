#include "client/jpegfile.h"

#include <cstring>

#include "base/bytes.h"

namespace orx {

enum {
    JPEG_SOF0 = 0xC0,
    JPEG_DHT = 0xC4,
    JPEG_SOI = 0xD8,
    JPEG_EOI = 0xD9,
    JPEG_SOS = 0xDA,
    JPEG_DQT = 0xDB,
    JPEG_DRI = 0xDD
};

constexpr size_t kTableBytes = 64;
constexpr int kMaxSide = 2040;  // the header counts in blocks of 8, in one byte

struct JpegScan {
    JpegPicture *pOut;
    std::string tables[4];     // by number
    int nTableOf[2] = {0, 0};  // of luminance and chrominance
    int bFrame = 0;
    const char *szProblem = nullptr;
};

static void ReadTables(JpegScan *pScan, ByteReader in)
{
    while (in.nLeft > 0) {
        uint32_t nHead = ReadBe(&in, 1);
        const uint8_t *pTable = ReadBytes(&in, kTableBytes);
        if (!pTable || nHead > 3) {
            pScan->szProblem = "a quantisation table of 16 bits or too short";
            return;
        }
        pScan->tables[nHead].assign(reinterpret_cast<const char *>(pTable), kTableBytes);
    }
}

static void ReadFrame(JpegScan *pScan, ByteReader in)
{
    uint32_t nBits = ReadBe(&in, 1);
    pScan->pOut->nHeight = static_cast<int>(ReadBe(&in, 2));
    pScan->pOut->nWidth = static_cast<int>(ReadBe(&in, 2));
    uint32_t nComponents = ReadBe(&in, 1);
    uint32_t sampling[3] = {}, table[3] = {};
    for (int i = 0; i < 3; i++) {
        ReadBe(&in, 1);
        sampling[i] = ReadBe(&in, 1);
        table[i] = ReadBe(&in, 1);
    }
    if (in.bFailed || nBits != 8 || nComponents != 3 || table[0] > 3 || table[1] > 3 || table[1] != table[2])
        pScan->szProblem = "not three components of 8 bits";
    else if (sampling[1] != 0x11 || sampling[2] != 0x11 || (sampling[0] != 0x21 && sampling[0] != 0x22))
        pScan->szProblem = "colour sampling other than 4:2:0 and 4:2:2";
    else if (pScan->pOut->nWidth > kMaxSide || pScan->pOut->nHeight > kMaxSide)
        pScan->szProblem = "wider or higher than 2040";
    else
        pScan->bFrame = 1;
    pScan->pOut->nType = sampling[0] == 0x22;
    pScan->nTableOf[0] = static_cast<int>(table[0] & 3);
    pScan->nTableOf[1] = static_cast<int>(table[1] & 3);
}

// The receiver knows the tables of the standard's annex K only; they are told apart by their counts of code
// lengths.
static void CheckHuffman(JpegScan *pScan, ByteReader in)
{
    static const struct {
        uint32_t nHead;
        uint8_t counts[16];
    } standard[] = {
        {0x00, {0, 1, 5, 1, 1, 1, 1, 1, 1, 0, 0, 0, 0, 0, 0, 0}},
        {0x01, {0, 3, 1, 1, 1, 1, 1, 1, 1, 1, 1, 0, 0, 0, 0, 0}},
        {0x10, {0, 2, 1, 3, 3, 2, 4, 3, 5, 5, 4, 4, 0, 0, 1, 0x7D}},
        {0x11, {0, 2, 1, 2, 4, 4, 3, 4, 7, 5, 4, 4, 0, 1, 2, 0x77}},
    };
    while (in.nLeft > 0 && !pScan->szProblem) {
        uint32_t nHead = ReadBe(&in, 1);
        const uint8_t *pCounts = ReadBytes(&in, 16);
        size_t nCodes = 0;
        for (int i = 0; pCounts && i < 16; i++)
            nCodes += pCounts[i];
        int bKnown = 0;
        for (const auto &table : standard)
            bKnown |= pCounts && table.nHead == nHead && memcmp(table.counts, pCounts, 16) == 0;
        ReadBytes(&in, nCodes);
        if (!bKnown || in.bFailed)
            pScan->szProblem = "Huffman tables of its own";
    }
}

static void ReadSegment(JpegScan *pScan, uint32_t nMarker, ByteReader in)
{
    switch (nMarker) {
        case JPEG_DQT:
            ReadTables(pScan, in);
            break;
        case JPEG_SOF0:
            ReadFrame(pScan, in);
            break;
        case JPEG_DHT:
            CheckHuffman(pScan, in);
            break;
        case JPEG_DRI:
            pScan->pOut->nRestart = static_cast<int>(ReadBe(&in, 2));
            break;
        default:
            if (nMarker > JPEG_SOF0 && nMarker < 0xD0 && nMarker != 0xC8 && nMarker != 0xCC)
                pScan->szProblem = "not a baseline picture";
    }
}

static const char *Finish(JpegScan *pScan, ByteReader in)
{
    JpegPicture *pOut = pScan->pOut;
    for (int nTable : pScan->nTableOf)
        pOut->tables += pScan->tables[nTable];
    if (!pScan->bFrame || pOut->tables.size() != 2 * kTableBytes)
        return "no frame header or no quantisation tables";
    if (pOut->nRestart)
        pOut->nType += 64;
    pOut->scan = std::string_view(reinterpret_cast<const char *>(in.p), in.nLeft);
    size_t nEnd = pOut->scan.rfind(std::string_view("\xFF\xD9", 2));
    pOut->scan = pOut->scan.substr(0, nEnd);
    return nullptr;
}

const char *JpegParse(std::string_view data, JpegPicture *pOut)
{
    *pOut = JpegPicture();
    JpegScan scan{pOut, {}};
    ByteReader in{reinterpret_cast<const uint8_t *>(data.data()), data.size()};
    if (ReadBe(&in, 2) != (0xFF00U | JPEG_SOI))
        return "not a JPEG picture";
    for (;;) {
        uint32_t nFill = ReadBe(&in, 1);
        uint32_t nMarker = ReadBe(&in, 1);
        uint32_t nLen = ReadBe(&in, 2);
        const uint8_t *pSegment = nLen < 2 ? nullptr : ReadBytes(&in, nLen - 2);
        if (!pSegment || nFill != 0xFF)
            return "it ends too early";
        if (nMarker == JPEG_SOS)
            return Finish(&scan, in);
        ReadSegment(&scan, nMarker, {pSegment, nLen - 2});
        if (scan.szProblem)
            return scan.szProblem;
    }
}

}  // namespace orx
