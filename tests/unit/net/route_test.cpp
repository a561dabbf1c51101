#include "net/route.h"

#include <string>
#include <tuple>

#include <gtest/gtest.h>

#include "net/ifaddr.h"
#include "support/files.h"

namespace orx {

const char *const kGateway = __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__ ? "10.9.0.254" : "254.0.9.10";

TEST(NetRoute, Tables)
{
    const std::string title = "Iface\tDestination\tGateway \tFlags\tRefCnt\tUse\tMetric\tMask\n";
    const std::string lan = "eth0\t0000090A\t00000000\t0001\t0\t0\t0\t00FFFFFF\t0\t0\t0\n";
    const std::string defaultRoute = "eth0\t00000000\tFE00090A\t0003\t0\t0\t100\t00000000\t0\t0\t0   \n";
    const std::tuple<std::string, int, const char *> cases[] = {
        {title + lan + defaultRoute, 0, kGateway},
        {title + "a-name.of:its%own \t00000000 FE00090A 3 0 0 0 0", 0, kGateway},  // the last line unfinished
        {title + "ppp0\t00000000\t00000000\t0001\t0\t0\t0\t00000000\n" + defaultRoute, 0, "0.0.0.0"},
        // one that is down
        {title + "eth1\t00000000\t0100090A\t0002\t0\t0\t0\t00000000\n" + defaultRoute, 0, kGateway},
        {title + defaultRoute + "broken\n", 0, kGateway},  // nobody looks behind the default route
        {defaultRoute, 0, "untouched"},                    // the first line is the title, whatever it says
        {title + lan, 0, "untouched"},
        {title + "eth0\n" + defaultRoute, -2, "untouched"},
        {title + "eth0\t00000000\tFE00090A\t0003\tx\t0\t0\t00000000\n", -2, "untouched"},
    };
    TempDir dir;
    for (const auto &[text, nResult, szGateway] : cases) {
        WriteFile(dir.File("route"), text);
        char gateway[kIpTextSize] = "untouched";
        EXPECT_EQ(nResult, NetReadGateway(dir.File("route").c_str(), gateway, sizeof(gateway))) << text;
        EXPECT_STREQ(szGateway, gateway) << text;
    }
}

}  // namespace orx
