#include "runtime/portmgr.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/output.h"

namespace orx {
namespace {

// Pairs from one port to another, and all that can be had of them.
struct Ports {
    PortMgr mgr;
    Ports(int nStart, int nEnd) { EXPECT_EQ(1, PortMgrInit(&mgr, nStart, nEnd)); }
    ~Ports() { PortMgrFree(&mgr); }
    Ports(const Ports &) = delete;
    Ports &operator=(const Ports &) = delete;

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
    static const struct {
        int nStart, nEnd, nFirst, nLast;
    } cases[] = {
        {50001, 50011, 50000, 50062},  // both made even, the last word whole
        {50000, 52000, 50000, 52046},
    };
    for (const auto &c : cases) {
        std::vector<int> expected;
        for (int nPort = c.nFirst; nPort <= c.nLast; nPort += 2)
            expected.push_back(nPort);
        EXPECT_EQ(expected, Ports(c.nStart, c.nEnd).AllocAll()) << c.nStart << " to " << c.nEnd;
    }
}

// The pair that wraps to 0 is used up without being handed out; the search goes on behind its word.
TEST(PortMgr, PairsPastTheLastPort)
{
    Ports ports(65500, 65534);
    EXPECT_EQ(18U, ports.AllocAll().size());  // up to 65534
    EXPECT_EQ(2, PortMgrAlloc(&ports.mgr));
}

TEST(PortMgr, TakesBackOnlyPairsOfItsRange)
{
    static const struct {
        int nPort;
        bool bTaken;
    } cases[] = {
        {50000, true},  {50010, true}, {50001, false},  {50012, false},         {50062, false},
        {49998, false}, {0, false},    {-50000, false}, {50000 + 65536, false},
    };
    for (const auto &c : cases) {
        Ports ports(50000, 50010);
        ports.AllocAll();
        PortMgrRelease(&ports.mgr, c.nPort);
        EXPECT_EQ(c.bTaken ? c.nPort : 0, PortMgrAlloc(&ports.mgr)) << c.nPort;
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

}  // namespace
}  // namespace orx
