#include "runtime/portmgr.h"

#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace orx {

static std::vector<int> AllocAll(PortMgr *pPortMgr)
{
    std::vector<int> ports;
    while (int nPort = PortMgrAlloc(pPortMgr))
        ports.push_back(nPort);
    return ports;
}

TEST(PortMgr, Ranges)
{
    static const struct {
        int nStart, nEnd;
        uint16_t nEvenStart, nEvenEnd, nWords;
        size_t nPairs;
        int nFirst, nLast;
    } cases[] = {
        {50001, 50011, 50000, 50010, 1, 32, 50000, 50062},     // both made even, the last word whole
        {50000, 52000, 50000, 52000, 32, 1024, 50000, 52046},  // the default range
        {50000, 50000, 50000, 50000, 1, 32, 50000, 50062},     // no pair at all still fills a word
        {50000, 50064, 50000, 50064, 2, 64, 50000, 50126},     // 32 pairs
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(std::to_string(c.nStart) + " to " + std::to_string(c.nEnd));
        PortMgr ports;
        ASSERT_EQ(1, PortMgrInit(&ports, c.nStart, c.nEnd));
        EXPECT_EQ(c.nEvenStart, ports.nStartPort);
        EXPECT_EQ(c.nEvenEnd, ports.nEndPort);
        EXPECT_EQ(c.nWords, ports.nWords);
        std::vector<int> all = AllocAll(&ports);
        ASSERT_EQ(c.nPairs, all.size());
        EXPECT_EQ(c.nFirst, all.front());
        EXPECT_EQ(c.nLast, all.back());
        for (size_t i = 1; i < all.size(); i++)
            ASSERT_EQ(all[i - 1] + 2, all[i]);
        PortMgrFree(&ports);
    }
}

// The pair that wraps to 0 is used up without being handed out; the search goes on behind its word.
TEST(PortMgr, PairsPastTheLastPort)
{
    PortMgr ports;
    ASSERT_EQ(1, PortMgrInit(&ports, 65500, 65534));
    EXPECT_EQ(18U, AllocAll(&ports).size());  // up to 65534
    EXPECT_EQ(2, PortMgrAlloc(&ports));
    PortMgrFree(&ports);

    ASSERT_EQ(1, PortMgrInit(&ports, 0, 65535));
    EXPECT_EQ(1024, ports.nWords);
    EXPECT_EQ(64, PortMgrAlloc(&ports));
    EXPECT_EQ(2, PortMgrAlloc(&ports));
    EXPECT_EQ(32765U, AllocAll(&ports).size());
    PortMgrFree(&ports);
}

TEST(PortMgr, WhatMayBeReleased)
{
    static const struct {
        int nPort;
        bool bTaken;
    } cases[] = {
        {50000, true},  {50006, true},  {50010, true}, {50001, false},  {50012, false},
        {50062, false}, {49998, false}, {0, false},    {-50000, false}, {50000 + 65536, false},
    };
    for (const auto &c : cases) {
        PortMgr ports;
        ASSERT_EQ(1, PortMgrInit(&ports, 50000, 50010));
        AllocAll(&ports);
        PortMgrRelease(&ports, c.nPort);
        EXPECT_EQ(c.bTaken ? c.nPort : 0, PortMgrAlloc(&ports)) << c.nPort;
        EXPECT_EQ(0, PortMgrAlloc(&ports)) << c.nPort;
        PortMgrFree(&ports);
    }
}

}  // namespace orx
