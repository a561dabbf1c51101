#include "runtime/portmgr.h"

#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "support/output.h"

namespace orx {

// Pairs from one port to another, and all that can be had of them.
struct Ports {
    PortMgr mgr;
    Ports(int nStart, int nEnd) { EXPECT_EQ(1, PortMgrInit(&mgr, nStart, nEnd)); }
    ~Ports() { PortMgrFree(&mgr); }
    Ports &operator=(Ports &&) = delete;
    std::vector<int> AllocAll()
    {
        std::vector<int> ports;
        while (int nPort = PortMgrAlloc(&mgr))
            ports.push_back(nPort);
        return ports;
    }
};

TEST(PortMgr, HandsOutWholeWordsOfPairs)
{
    static const std::tuple<int, int, int, int> cases[] = {
        // the range, and the first and the last pair that it gives
        {50001, 50011, 50000, 50062},  // both made even, the last word whole
        {50000, 52000, 50000, 52046},
        {65500, 65534, 65500, 65534},
    };
    for (const auto &[nStart, nEnd, nFirst, nLast] : cases) {
        std::vector<int> expected;
        for (int nPort = nFirst; nPort <= nLast; nPort += 2)
            expected.push_back(nPort);
        Ports ports(nStart, nEnd);
        EXPECT_EQ(expected, ports.AllocAll()) << nStart << " to " << nEnd;
        // the pair that wraps to 0 is used up without being handed out; the search goes on behind its word
        EXPECT_EQ(nLast == 65534 ? 2 : 0, PortMgrAlloc(&ports.mgr));
    }
}

TEST(PortMgr, TakesBackOnlyPairsOfItsRange)
{
    for (int nPort : {50000, 50010, 50001, 50012, 50062, 49998, 0, -50000, 50000 + 65536}) {
        Ports ports(50000, 50010);
        ports.AllocAll();
        PortMgrRelease(&ports.mgr, nPort);
        EXPECT_EQ(nPort == 50000 || nPort == 50010 ? nPort : 0, PortMgrAlloc(&ports.mgr)) << nPort;
    }
}

TEST(PortMgr, DumpsItsWords)
{
    Ports four(50000, 50000 + 2 * 127), five(50000, 50000 + 2 * 128);
    const std::string line = "00000=[ffffffff]\t00001=[ffffffff]\t00002=[ffffffff]\t00003=[ffffffff]\t\r\n";
    EXPECT_EQ(line + "\r\n", Printed([&] { PortMgrDump(&four.mgr); }));
    EXPECT_EQ(line + "00004=[ffffffff]\t\r\n", Printed([&] { PortMgrDump(&five.mgr); }));
    Ports one(50000, 50010);
    PortMgrSetDebug(1);
    EXPECT_EQ("00000=[fffffffe]\t\r\n", Printed([&] { PortMgrAlloc(&one.mgr); }));
    EXPECT_EQ("00000=[ffffffff]\t\r\n", Printed([&] { PortMgrRelease(&one.mgr, 50000); }));
    PortMgrSetDebug(0);
    EXPECT_EQ("", Printed([&] { PortMgrAlloc(&one.mgr); }));
}

}  // namespace orx
