// Who is on a list of addresses and networks.
#include "net/addrlist.h"

#include <gtest/gtest.h>

#include "runtime/sockutil.h"

namespace orx {

TEST(AddrList, NamesAddressesAndNetworks)
{
    static const struct {
        const char *szList, *szAddr;
        int bHas, nLeftOut, bIpv6 = 0;
    } cases[] = {
        {"192.168.0.0/16 127.0.0.1", "192.168.255.255", 1, 0},
        {"192.168.0.0/16\t127.0.0.1 ", "127.0.0.1", 1, 0},
        {"  192.168.0.0/16  127.0.0.1", "127.0.0.2", 0, 0},
        {"192.168.0.0/16", "192.169.0.0", 0, 0},
        {"10.9.8.7/8", "10.0.0.1", 1, 0},  // the bits behind the mask do not count
        {"0.0.0.0/0", "255.255.255.255", 1, 0},
        {"172.16.0.0/12", "172.32.0.0", 0, 0},
        {"1.2.3.4/32", "1.2.3.5", 0, 0},
        {"", "1.2.3.4", 0, 0},
        {"1.2.3.4/33 5.6.7.8", "1.2.3.4", 0, 1},
        {"1.2.3.4/33 5.6.7.8", "5.6.7.8", 1, 1},
        {"1.2.3.4/ 1.2.3.4/-1 1.2.3.4/032 1.2.3 1.2.3.4,5.6.7.8 localhost ::1 /8", "1.2.3.4", 0, 8},
        {"1.2.3.4000000000000000000000000000000000000000000000", "1.2.3.4", 0, 1},
        {"1.2.3.4000000000000000000000000000000000000000000000", "1.2.3.4", 0, 1, 1},
        {"1.2.3.4/032 1.2.3.4/128", "1.2.3.4", 0, 2, 1},
        {"::1 fe80::/10", "febf::1", 1, 0, 1},
        {"::1 fe80::/10", "fec0::1", 0, 0, 1},
        {"0.0.0.0/0", "::1", 0, 0, 1},
        {"::/0", "0.0.0.1", 0, 0, 1},
        {"::/0", "::ffff:1.2.3.4", 0, 0, 1},
        {"1.2.3.0/24", "::ffff:1.2.3.4", 1, 0, 1},
        {"2001:db8::5", "2001:db8::5", 1, 0, 1},
        {"2001:db8::5/127", "2001:db8::6", 0, 0, 1},
        {"2001:db8::/129 [::1] ::1%lo :: 1:2", "::1", 0, 4, 1},
    };
    for (const auto &c : cases) {
        AddrList list;
        NetAddr addr;
        ASSERT_EQ(1, SockSetAddrEx(&addr, c.szAddr, 1, 1));
        EXPECT_EQ(c.nLeftOut, AddrListParse(&list, c.szList, "Key", c.bIpv6)) << c.szList;
        EXPECT_EQ(c.bHas, AddrListHas(&list, &addr)) << c.szList << " " << c.szAddr;
        EXPECT_EQ(*c.szList != '\0', list.bGiven) << c.szList;
    }
}

}  // namespace orx
