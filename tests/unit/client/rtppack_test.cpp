#include "client/rtppack.h"

#include <gtest/gtest.h>

#include "client/h264file.h"
#include "client/rtppacket.h"

namespace orx {
namespace {

// The receiver's side of RFC 6184: the units that a picture's packets carry.
std::vector<std::string> Unpack(const RtpPackets &packets)
{
    std::vector<std::string> units;
    for (const std::string &packet : packets) {
        std::string payload = packet.substr(kRtpHeadBytes);
        int nType = H264UnitType(payload);
        if (nType == 24) {
            for (size_t nAt = 1; nAt + 2 <= payload.size();) {
                size_t nLen = static_cast<uint8_t>(payload[nAt + 1]);  // no unit here has 256 bytes
                units.push_back(payload.substr(nAt + 2, nLen));
                nAt += 2 + nLen;
            }
        } else if (nType == 28) {
            if (payload[1] & 0x80)
                units.emplace_back(1, static_cast<char>((payload[0] & 0xE0) | (payload[1] & 0x1F)));
            units.back() += payload.substr(2);
        } else {
            units.push_back(payload);
        }
    }
    return units;
}

TEST(PackH264, EveryUnitComesBackWhole)
{
    // the room for a payload is 88 bytes here
    static const size_t sizes[] = {2, 40, 85, 86, 87, 88, 89, 90, 173, 174, 175, 1000};
    for (size_t nFirst : sizes) {
        for (size_t nSecond : sizes) {
            for (int bSingle : {0, 1}) {
                RtpStream stream;
                stream.nMaxPacket = 100;
                stream.bSingle = bSingle;
                stream.nSequence = 65535;
                std::vector<std::string> units = {"\x67" + std::string(nFirst - 1, 'x'),
                                                  "\x65" + std::string(nSecond - 1, 'y'), "\x41zz"};
                RtpPackets packets;
                PackH264(&stream, {units[0], units[1], units[2]}, 1234, 0, &packets);
                ASSERT_EQ(units, Unpack(packets)) << nFirst << " " << nSecond;
                uint16_t nSequence = 65535;
                for (const std::string &packet : packets) {
                    RtpHead head;
                    ASSERT_TRUE(RtpParseHead(packet.data(), packet.size(), &head));
                    EXPECT_LE(packet.size(), 100U);
                    EXPECT_EQ(nSequence++, head.nSequence);
                    EXPECT_EQ(&packet == &packets.back(), head.bMarker != 0);
                }
            }
        }
    }
}

}  // namespace
}  // namespace orx
