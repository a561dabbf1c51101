#include "client/rtppack.h"

#include <algorithm>
#include <cmath>

#include "base/bytes.h"
#include "client/h264file.h"
#include "client/rtppacket.h"

namespace orx {

constexpr char kStapA = 24, kFuA = 28;
constexpr size_t kStapUnitHead = 2, kFuHead = 2;

static void AddPacket(RtpStream *pStream, std::string_view payload, int bMarker, uint32_t nTimestamp,
                      RtpPackets *pOut)
{
    char head[kRtpHeadBytes];
    RtpHead fields;
    fields.bMarker = bMarker;
    fields.nPayloadType = pStream->nPayloadType;
    fields.nSequence = pStream->nSequence++;
    fields.nTimestamp = nTimestamp;
    fields.nSsrc = pStream->nSsrc;
    RtpWriteHead(head, &fields);
    std::string packet(head, sizeof head);
    packet.append(payload);
    pOut->push_back(std::move(packet));
    pStream->nPackets++;
    pStream->nOctets += static_cast<uint32_t>(payload.size());
}

struct H264Packer {
    RtpStream *pStream;
    uint32_t nTimestamp;
    RtpPackets *pOut;
    std::vector<std::string_view> group{};  // small units waiting for one packet
    size_t nGroupBytes = 1;                 // as a STAP-A
};

static size_t Room(const H264Packer *pPacker)
{
    return pPacker->pStream->nMaxPacket - kRtpHeadBytes;
}

static void FlushGroup(H264Packer *pPacker)
{
    if (pPacker->group.empty())
        return;
    std::string payload(1, kStapA);
    char nImportance = 0;
    for (std::string_view unit : pPacker->group) {
        char size[kStapUnitHead];
        PutBe(size, sizeof size, static_cast<uint32_t>(unit.size()));
        nImportance = std::max<char>(nImportance, static_cast<char>(unit[0] & 0x60));
        payload.append(size, sizeof size);
        payload.append(unit);
    }
    payload[0] = static_cast<char>(kStapA | nImportance);
    AddPacket(pPacker->pStream, pPacker->group.size() == 1 ? pPacker->group[0] : payload, 0,
              pPacker->nTimestamp, pPacker->pOut);
    pPacker->group.clear();
    pPacker->nGroupBytes = 1;
}

static void AddFragments(H264Packer *pPacker, std::string_view unit)
{
    size_t nPiece = Room(pPacker) - kFuHead;
    char nIndicator = static_cast<char>((unit[0] & 0x60) | kFuA);
    char nType = static_cast<char>(unit[0] & 0x1F);
    for (size_t nAt = 1; nAt < unit.size(); nAt += nPiece) {
        std::string payload{nIndicator, nType};
        if (nAt == 1)
            payload[1] |= static_cast<char>(0x80);
        if (nAt + nPiece >= unit.size())
            payload[1] |= 0x40;
        payload.append(unit.substr(nAt, nPiece));
        AddPacket(pPacker->pStream, payload, 0, pPacker->nTimestamp, pPacker->pOut);
    }
}

static void AddUnit(H264Packer *pPacker, std::string_view unit)
{
    if (unit.size() > Room(pPacker)) {
        FlushGroup(pPacker);
        AddFragments(pPacker, unit);
        return;
    }
    if (pPacker->pStream->bSingle || pPacker->nGroupBytes + kStapUnitHead + unit.size() > Room(pPacker))
        FlushGroup(pPacker);
    pPacker->group.push_back(unit);
    pPacker->nGroupBytes += kStapUnitHead + unit.size();
}

// A filler data unit (ITU-T H.264, 7.3.2.7) of nBytes, at least 2.
static std::string FillerUnit(size_t nBytes)
{
    std::string unit(nBytes, '\xFF');
    unit.front() = H264_FILLER;
    unit.back() = '\x80';
    return unit;
}

static size_t PackedBytes(const RtpPackets &packets, size_t nFrom)
{
    size_t nBytes = 0;
    for (size_t i = nFrom; i < packets.size(); i++)
        nBytes += packets[i].size();
    return nBytes;
}

void PackH264(RtpStream *pStream, const std::vector<std::string_view> &units, uint32_t nTimestamp,
              size_t nFillBytes, RtpPackets *pOut)
{
    H264Packer packer{pStream, nTimestamp, pOut};
    size_t nFirst = pOut->size();
    for (std::string_view unit : units)
        AddUnit(&packer, unit);
    std::string filler;
    size_t nTaken = packer.nGroupBytes + kStapUnitHead;
    if (nFillBytes && !pStream->bSingle && !packer.group.empty() && Room(&packer) >= nTaken + 2 &&
        PackedBytes(*pOut, nFirst) + pStream->nMaxPacket <= nFillBytes) {
        filler = FillerUnit(Room(&packer) - nTaken);
        AddUnit(&packer, filler);
    }
    FlushGroup(&packer);
    for (size_t n = PackedBytes(*pOut, nFirst); n + pStream->nMaxPacket <= nFillBytes;
         n += pStream->nMaxPacket)
        AddPacket(pStream, FillerUnit(Room(&packer)), 0, nTimestamp, pOut);
    if (pOut->size() > nFirst)
        pOut->back()[1] |= static_cast<char>(0x80);
}

static std::string JpegHead(const JpegPicture *pPicture, size_t nOffset)
{
    char head[8] = {};
    PutBe(head + 1, 3, static_cast<uint32_t>(nOffset));
    head[4] = static_cast<char>(pPicture->nType);
    head[5] = static_cast<char>(255);  // the tables are in the packet
    head[6] = static_cast<char>((pPicture->nWidth + 7) / 8);
    head[7] = static_cast<char>((pPicture->nHeight + 7) / 8);
    std::string out(head, sizeof head);
    if (pPicture->nRestart) {
        char restart[4];
        PutBe(restart, 2, static_cast<uint32_t>(pPicture->nRestart));
        PutBe(restart + 2, 2, 0xFFFF);  // intervals are cut at any byte
        out.append(restart, sizeof restart);
    }
    if (nOffset == 0) {
        char tables[4] = {};
        PutBe(tables + 2, 2, static_cast<uint32_t>(pPicture->tables.size()));
        out.append(tables, sizeof tables);
        out += pPicture->tables;
    }
    return out;
}

void PackJpeg(RtpStream *pStream, const JpegPicture *pPicture, uint32_t nTimestamp, RtpPackets *pOut)
{
    size_t nOffset = 0;
    do {
        std::string payload = JpegHead(pPicture, nOffset);
        std::string_view piece =
            pPicture->scan.substr(nOffset, pStream->nMaxPacket - kRtpHeadBytes - payload.size());
        payload.append(piece);
        nOffset += piece.size();
        AddPacket(pStream, payload, nOffset == pPicture->scan.size(), nTimestamp, pOut);
    } while (nOffset < pPicture->scan.size());
}

void PackPlain(RtpStream *pStream, std::string_view payload, int bMarker, uint32_t nTimestamp,
               RtpPackets *pOut)
{
    AddPacket(pStream, payload, bMarker, nTimestamp, pOut);
}

uint8_t EncodeALaw(int nSample)
{
    int nSign = nSample >= 0 ? 0x80 : 0;
    int nSize = std::min(nSample >= 0 ? nSample : -nSample - 1, 32767) >> 3;  // 12 bits
    int nSegment = 0;
    while (nSize >> (nSegment + 5))
        nSegment++;
    int nStep = nSize >> std::max(nSegment, 1) & 0x0F;  // the two lowest segments have the same step
    return static_cast<uint8_t>((nSign | nSegment << 4 | nStep) ^ 0x55);
}

std::string ToneALaw(uint64_t nFirst, size_t nSamples, int nHertz)
{
    std::string out;
    for (size_t i = 0; i < nSamples; i++) {
        double nPhase = 2 * M_PI * nHertz * static_cast<double>((nFirst + i) % 8000) / 8000;
        out += static_cast<char>(EncodeALaw(static_cast<int>(8000 * std::sin(nPhase))));
    }
    return out;
}

}  // namespace orx
