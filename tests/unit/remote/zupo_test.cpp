#include "remote/zupo.h"

#include <string>

#include <gtest/gtest.h>

namespace orx {

using namespace std::string_literals;

TEST(Zupo, EveryPacketToTheByte)
{
    const ZupoAddress address{0xC0A80105, 0x18B3};
    DeviceInfo info;
    snprintf(info.szGuid, sizeof(info.szGuid), "box-0123456789abcdef-01");
    info.nPrivateIp = 0x0A000002;
    info.nPort = 554;
    info.nMappedPort = 0x8001;
    const std::string guid = info.szGuid + std::string(9, '\0');
    const std::string device = guid + "\x0A\0\0\x02\x02\x2A\x80\x01"s;
    uint8_t p[kZupoPacketSize];
    auto text = [&](size_t nLen) { return std::string(reinterpret_cast<char *>(p), nLen); };
    EXPECT_EQ("\0\0\1\0\0\0\0\0\0\0\x03\xEB\0\0\0\0"s, text(ZupoEncode(p, ZUPO_HEARTBEAT, 0)));
    EXPECT_EQ("\0\0\1\0\0\0\0\x28\0\0\x03\xE9\0\0\0\0"s + device, text(ZupoEncodeRegister(p, &info)));
    EXPECT_EQ("\0\0\1\0\0\0\0\x06\0\0\x03\xEA\0\0\0\1\xC0\xA8\1\5\x18\xB3"s,
              text(ZupoEncodeAddress(p, ZUPO_REGISTER_REPLY, kZupoAccepted, &address)));
    EXPECT_EQ("\0\0\1\0\0\0\0\x06\0\0\x04\xB1\0\0\0\0\xC0\xA8\1\5\x18\xB3"s,
              text(ZupoEncodeAddress(p, ZUPO_PUNCH, 0, &address)));
    EXPECT_EQ("\0\0\1\0\0\0\0\x20\0\0\x07\xD1\0\0\0\0"s + guid, text(ZupoEncodeFind(p, info.szGuid)));
    EXPECT_EQ("\0\0\1\0\0\0\0\x2E\0\0\x07\xD2\0\0\0\1\xC0\xA8\1\5\x18\xB3"s + device,
              text(ZupoEncodeFound(p, &address, &info)));
}

}  // namespace orx
