#include "net/ifaddr.h"

#include <string>

#include <gtest/gtest.h>

#include "net/route.h"
#include "unit/net/vethpair.h"

namespace orx {
namespace {

// What an operation reads, or its result.
template <typename Operation>
std::string Read(Operation operation, const char *szInterface)
{
    char text[kIpTextSize] = "";
    int nResult = operation(szInterface, text, sizeof(text));
    return nResult == 0 ? text : std::to_string(nResult);
}

std::string Gateway()
{
    char text[kIpTextSize] = "none";
    int nResult = NetGetGateway(text, sizeof(text));
    return nResult == 0 ? text : std::to_string(nResult);
}

TEST(NetMac, Texts)
{
    static const struct {
        const char *szText, *szMac;  // null: malformed
    } cases[] = {
        {"00:1a:2B:3c:4D:5e", "001a2b3c4d5e"},
        {"001a2B3c4D5e", "001a2b3c4d5e"},
        {"0:1:a:B:10:f", "00010a0b100f"},
        {"001a2b3c4d5", "001a2b3c4d05"},  // the last group has one digit
        {"", nullptr},
        {"00:1a:2b:3c:4d", nullptr},
        {"00:1a:2b:3c:4d:5e:", nullptr},
        {"00:1a:2b:3c:4d:5e:6f", nullptr},
        {"00:1a:2b:3c:4d:5e ", nullptr},
        {"00::1a:2b:3c:4d:5e", nullptr},
        {"0g:1a:2b:3c:4d:5e", nullptr},
    };
    for (const auto &c : cases) {
        uint8_t mac[kMacBytes];
        EXPECT_EQ(c.szMac != nullptr, NetParseMac(c.szText, mac) == 1) << c.szText;
        std::string digits;
        for (size_t i = 0; c.szMac && i < kMacBytes; i++)
            for (int nDigit : {mac[i] >> 4, mac[i] & 15})
                digits += "0123456789abcdef"[nDigit];
        EXPECT_EQ(c.szMac ? c.szMac : "", digits) << c.szText;
    }
}

struct NetInterface : VethTest {};

TEST_F(NetInterface, ReadsWhatWasSet)
{
    EXPECT_EQ("-1", Read(NetGetAddress, "cam0"));  // none yet
    ASSERT_EQ(0, NetSetAddress("cam0", "10.9.0.1"));
    ASSERT_EQ(0, NetSetNetmask("cam0", "255.255.255.0"));
    EXPECT_EQ("10.9.0.1", Read(NetGetAddress, "cam0"));
    EXPECT_EQ("255.255.255.0", Read(NetGetNetmask, "cam0"));
    EXPECT_EQ("10.9.0.255", Read(NetGetBroadcast, "cam0"));
    EXPECT_EQ("-1", Read(NetGetAddress, "lo"));
    EXPECT_EQ("none", Gateway());

    char small[9] = "kept";
    EXPECT_EQ(-1, NetGetAddress("cam0", small, 8));  // one less than it takes
    EXPECT_STREQ("kept", small);
    EXPECT_EQ(0, NetGetAddress("cam0", small, sizeof(small)));
    for (const char *szBad : {"", "10.9.0", "10.9.0.256", "10.9.0.1x", "box.local"}) {
        EXPECT_EQ(-1, NetSetAddress("cam0", szBad)) << szBad;
        EXPECT_EQ(-1, NetSetNetmask("cam0", szBad)) << szBad;
    }
    EXPECT_EQ(-1, NetSetNetmask("cam0", "255.0.255.0"));
    EXPECT_EQ("10.9.0.1", Read(NetGetAddress, "cam0"));
}

TEST_F(NetInterface, SetsTheMac)
{
    EXPECT_EQ(0, NetSetMac("cam0", "02:A0:b:0c:0D:e"));
    EXPECT_EQ("02a00b0c0d0e", Read(NetGetMac, "cam0"));
    EXPECT_EQ(-2, NetSetMac("cam0", "02:a0:0b:0c:0d"));
    EXPECT_EQ(-3, NetSetMac("cam0", "ff:ff:ff:ff:ff:ff"));  // no interface's own address
    EXPECT_EQ("02a00b0c0d0e", Read(NetGetMac, "cam0"));
    char small[kMacTextSize - 1];
    EXPECT_EQ(-1, NetGetMac("cam0", small, sizeof(small)));
}

TEST_F(NetInterface, SetsTheGateway)
{
    ASSERT_EQ(0, NetSetAddress("cam0", "10.9.0.1"));
    EXPECT_EQ("none", Gateway());
    EXPECT_EQ(-1, NetDelGateway("10.9.0.254"));
    EXPECT_EQ(0, NetSetGateway("10.9.0.254"));
    EXPECT_EQ("10.9.0.254", Gateway());
    EXPECT_EQ(0, NetSetGateway("10.9.0.254"));
    EXPECT_EQ(0, NetSetGateway("10.9.0.253"));
    EXPECT_EQ("10.9.0.253", Gateway());
    for (const char *szBad : {"192.168.7.1", "0.0.0.0", "10.9.0", ""}) {  // out of reach, or no address
        EXPECT_EQ(-1, NetSetGateway(szBad)) << szBad;
        EXPECT_EQ("10.9.0.253", Gateway()) << szBad;
    }
    EXPECT_EQ(-1, NetDelGateway("10.9.0.254"));
    EXPECT_EQ(-1, NetDelGateway("10.9.0"));
    EXPECT_EQ(0, NetDelGateway("10.9.0.253"));
    EXPECT_EQ("none", Gateway());
}

TEST_F(NetInterface, KeepsTheGatewayAcrossAnAddress)
{
    ASSERT_EQ(0, NetSetAddress("cam0", "10.9.0.1"));
    ASSERT_EQ(0, NetSetNetmask("cam0", "255.255.255.0"));
    ASSERT_EQ(0, NetSetGateway("10.9.0.254"));
    EXPECT_EQ(0, NetSetAddress("cam0", "10.9.0.2"));
    EXPECT_EQ("10.9.0.254", Gateway());
    EXPECT_EQ(0, NetSetNetmask("cam0", "255.255.0.0"));
    EXPECT_EQ("10.9.0.254", Gateway());
    EXPECT_EQ(-1, NetSetAddress("nosuch0", "10.9.0.3"));
    EXPECT_EQ("10.9.0.254", Gateway());
    EXPECT_EQ(0, NetSetAddress("cam0", "192.168.7.1"));  // from where it cannot be reached
    EXPECT_EQ("none", Gateway());
    EXPECT_EQ("192.168.7.1", Read(NetGetAddress, "cam0"));
}

}  // namespace
}  // namespace orx
