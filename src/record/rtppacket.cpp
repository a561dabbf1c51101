#include "record/rtppacket.h"

#include "base/bytes.h"

namespace orx {

int RtpPacketParse(const uint8_t *pPacket, uint32_t nBytes, RtpPacket *pOut)
{
    ByteReader in{pPacket, nBytes};
    uint32_t nFlags = ReadBe(&in, 1);
    uint32_t nType = ReadBe(&in, 1);
    RtpPacket packet;
    packet.bMarker = static_cast<int>(nType >> 7);
    packet.nSeq = static_cast<uint16_t>(ReadBe(&in, 2));
    packet.nRtpTime = ReadBe(&in, 4);
    ReadBytes(&in, 4 + 4 * size_t{nFlags & 0x0F});  // SSRC, contributing sources
    if (nFlags & 0x10) {
        ReadBe(&in, 2);
        ReadBytes(&in, 4 * size_t{ReadBe(&in, 2)});  // header extension
    }
    uint32_t nPadding = (nFlags & 0x20) && in.nLeft > 0 ? in.p[in.nLeft - 1] : 0;
    if (in.bFailed || nPadding > in.nLeft)
        return 0;
    packet.pPayload = in.p;
    packet.nPayload = static_cast<uint32_t>(in.nLeft) - nPadding;
    *pOut = packet;
    return 1;
}

}  // namespace orx
