#include "net/ifaddr.h"

#include <cstdlib>
#include <string>
#include <utility>

#include <gtest/gtest.h>

#include "net/route.h"
#include "support/namespaces.h"

namespace orx {

TEST(NetMac, Texts)
{
    uint8_t mac[kMacBytes];
    static const std::pair<const char *, const char *> good[] = {
        {"00:1a:2B:3c:4D:5e", "\x00\x1a\x2b\x3c\x4d\x5e"},
        {"0:1:a:B10:f", "\x00\x01\x0a\xb1\x00\x0f"},
        {"001a2b3c4d5", "\x00\x1a\x2b\x3c\x4d\x05"},  // the last group has one digit
    };
    for (const auto &[szText, szMac] : good) {
        EXPECT_EQ(1, NetParseMac(szText, mac)) << szText;
        EXPECT_EQ(0, memcmp(szMac, mac, sizeof(mac))) << szText;
    }
    for (const char *szBad : {"00:1a:2b:3c:4d", "00:1a:2b:3c:4d:5e:", "00::1a:2b:3c:4d:5e", "0g:1a:2b:3c:4d:5e"})
        EXPECT_EQ(0, NetParseMac(szBad, mac)) << szBad;
}

// The interface cam0 in a network of its own.
struct NetInterface : testing::Test {
    void SetUp() override
    {
        if (!EnterNamespaces(CLONE_NEWNET) || system("ip link add cam0 type veth && ip link set cam0 up") != 0)
            GTEST_SKIP() << "needs the right to make a network namespace and an interface in it";
    }
    // What an operation reads, or its result.
    static std::string Read(int (*pfnGet)(const char *, char *, size_t), const char *szInterface = "cam0")
    {
        char text[kIpTextSize] = "";
        int nResult = pfnGet(szInterface, text, sizeof(text));
        return nResult == 0 ? text : std::to_string(nResult);
    }
    static int GetGateway(const char *, char *szOut, size_t nOut) { return NetGetGateway(szOut, nOut); }
};

TEST_F(NetInterface, ReadsWhatWasSet)
{
    EXPECT_EQ("-1", Read(NetGetAddress)) << "none yet";
    ASSERT_EQ(0, NetSetAddress("cam0", "10.9.0.1"));
    ASSERT_EQ(0, NetSetNetmask("cam0", "255.255.255.0"));
    EXPECT_EQ("255.255.255.0", Read(NetGetNetmask));
    EXPECT_EQ("10.9.0.255", Read(NetGetBroadcast));
    EXPECT_EQ("-1", Read(NetGetAddress, "a-name-that-is-too-long"));
    char small[9] = "kept";
    EXPECT_EQ(-1, NetGetAddress("cam0", small, 8));  // one less than it takes
    EXPECT_STREQ("kept", small);
    for (const char *szBad : {"", "10.9.0", "10.9.0.256", "10.9.0.1x", "box.local"})
        EXPECT_EQ(-1, NetSetAddress("cam0", szBad)) << szBad;
    EXPECT_EQ(-1, NetSetNetmask("cam0", "255.0.255.0"));
    EXPECT_EQ("10.9.0.1", Read(NetGetAddress));

    EXPECT_EQ(0, NetSetMac("cam0", "02:A0:b:0c:0D:e"));
    EXPECT_EQ(-2, NetSetMac("cam0", "02:a0:0b:0c:0d"));
    EXPECT_EQ(-3, NetSetMac("cam0", "ff:ff:ff:ff:ff:ff")) << "no interface's own address";
    EXPECT_EQ("02a00b0c0d0e", Read(NetGetMac));
}

TEST_F(NetInterface, KeepsTheGatewayAcrossAnAddress)
{
    ASSERT_EQ(0, NetSetAddress("cam0", "10.9.0.1"));
    EXPECT_EQ("", Read(GetGateway));
    EXPECT_EQ(0, NetSetGateway("10.9.0.253"));
    EXPECT_EQ(0, NetSetGateway("10.9.0.254"));
    for (const char *szBad : {"192.168.7.1", "0.0.0.0", "10.9.0", ""})  // out of reach, or no address
        EXPECT_EQ(-1, NetSetGateway(szBad)) << szBad;
    EXPECT_EQ("10.9.0.254", Read(GetGateway));
    EXPECT_EQ(0, NetSetAddress("cam0", "10.9.0.2"));
    EXPECT_EQ(0, NetSetNetmask("cam0", "255.255.0.0"));
    EXPECT_EQ(-1, NetSetAddress("nosuch0", "10.9.0.3"));
    EXPECT_EQ("10.9.0.254", Read(GetGateway));
    EXPECT_EQ(-1, NetDelGateway("10.9.0.253"));
    EXPECT_EQ(0, NetDelGateway("10.9.0.254"));
    EXPECT_EQ("", Read(GetGateway));
}

}  // namespace orx
