#include "client/rtppacket.h"

#include <ctime>

#include "base/bytes.h"

namespace orx {

constexpr uint32_t kNtpOffset = 2208988800U;  // seconds from 1900 to 1970

int RtpParseHead(const void *pPacket, size_t nBytes, RtpHead *pOut)
{
    ByteReader in{static_cast<const uint8_t *>(pPacket), nBytes};
    RtpHead head;
    uint32_t nFlags = ReadBe(&in, 1);
    uint32_t nType = ReadBe(&in, 1);
    head.bMarker = nType >> 7;
    head.nPayloadType = nType & 0x7F;
    head.nSequence = static_cast<uint16_t>(ReadBe(&in, 2));
    head.nTimestamp = ReadBe(&in, 4);
    head.nSsrc = ReadBe(&in, 4);
    ReadBytes(&in, size_t{4} * (nFlags & 0x0F));  // contributing sources
    if (nFlags & 0x10) {
        ReadBytes(&in, 2);
        ReadBytes(&in, size_t{4} * ReadBe(&in, 2));
    }
    if (in.bFailed || nFlags >> 6 != 2)
        return 0;
    head.nHeadBytes = nBytes - in.nLeft;
    *pOut = head;
    return 1;
}

void RtpWriteHead(void *pPacket, const RtpHead *pHead)
{
    auto *p = static_cast<uint8_t *>(pPacket);
    p[0] = 0x80;
    p[1] = static_cast<uint8_t>((pHead->bMarker ? 0x80 : 0) | (pHead->nPayloadType & 0x7F));
    PutBe(p + 2, 2, pHead->nSequence);
    PutBe(p + 4, 4, pHead->nTimestamp);
    PutBe(p + 8, 4, pHead->nSsrc);
}

void FrameAddHead(std::string *pOut, int nChannel, size_t nBytes)
{
    char head[kFrameHeadBytes] = {'$', static_cast<char>(nChannel)};
    PutBe(head + 2, 2, static_cast<uint32_t>(nBytes));
    pOut->append(head, sizeof head);
}

static void AddBe(std::string *pOut, size_t nBytes, uint32_t nValue)
{
    char bytes[4];
    PutBe(bytes, nBytes, nValue);
    pOut->append(bytes, nBytes);
}

static void AddDescription(std::string *pOut, uint32_t nSsrc, const std::string &name)
{
    size_t nItem = 2 + name.size() + 1;  // type, length, text, the null item that ends the chunk
    size_t nChunk = 4 + (nItem + 3) / 4 * 4;
    AddBe(pOut, 2, 0x81CA);
    AddBe(pOut, 2, static_cast<uint32_t>(nChunk / 4));
    AddBe(pOut, 4, nSsrc);
    AddBe(pOut, 1, 1);  // CNAME
    AddBe(pOut, 1, static_cast<uint32_t>(name.size()));
    pOut->append(name);
    pOut->append(nChunk - 4 - 2 - name.size(), '\0');
}

std::string RtcpReceiverReport(uint32_t nOwnSsrc, uint32_t nSourceSsrc, uint32_t nHighestSequence)
{
    std::string out;
    AddBe(&out, 2, 0x81C9);
    AddBe(&out, 2, 7);
    AddBe(&out, 4, nOwnSsrc);
    AddBe(&out, 4, nSourceSsrc);
    AddBe(&out, 4, 0);  // nothing lost
    AddBe(&out, 4, nHighestSequence);
    for (int i = 0; i < 3; i++)
        AddBe(&out, 4, 0);  // jitter, and no sender report answered
    AddDescription(&out, nOwnSsrc, "player");
    return out;
}

std::string RtcpSenderReport(uint32_t nSsrc, uint32_t nRtpTime, uint32_t nPackets, uint32_t nOctets,
                             const char *szName)
{
    timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    std::string out;
    AddBe(&out, 2, 0x80C8);
    AddBe(&out, 2, 6);
    AddBe(&out, 4, nSsrc);
    AddBe(&out, 4, static_cast<uint32_t>(now.tv_sec) + kNtpOffset);
    AddBe(&out, 4, static_cast<uint32_t>((static_cast<uint64_t>(now.tv_nsec) << 32) / 1000000000U));
    AddBe(&out, 4, nRtpTime);
    AddBe(&out, 4, nPackets);
    AddBe(&out, 4, nOctets);
    AddDescription(&out, nSsrc, szName);
    return out;
}

}  // namespace orx
