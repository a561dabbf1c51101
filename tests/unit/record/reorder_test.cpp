#include "record/reorder.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace orx {

struct Taken {
    std::vector<int> numbers;
    int nMost = 1 << 20;
};

static int Take(void *pContext, const uint8_t *pData, size_t nBytes)
{
    auto *pTaken = static_cast<Taken *>(pContext);
    EXPECT_EQ(2U, nBytes);
    pTaken->numbers.push_back(pData[0] << 8 | pData[1]);
    return static_cast<int>(pTaken->numbers.size()) < pTaken->nMost;
}

static int Put(Reorder *pReorder, int nNumber, uint32_t nNowMs, Taken *pTaken)
{
    ReorderSink sink{Take, pTaken};
    const uint8_t data[] = {static_cast<uint8_t>(nNumber >> 8), static_cast<uint8_t>(nNumber)};
    return ReorderPut(pReorder, static_cast<uint16_t>(nNumber), data, sizeof(data), nNowMs, &sink);
}

static std::vector<int> Range(int nFirst, int nEnd, std::vector<int> head = {})
{
    for (int i = nFirst; i < nEnd; i++)
        head.push_back(i);
    return head;
}

// Packets a millisecond apart, but for -1, which stands for 50 ms, as behind the first one.
TEST(Reorder, HandsOnEachPacketOnceAndInOrder)
{
    static const struct {
        const char *szCase;
        std::vector<int> come, go;
        uint32_t nHeld, nLate, nLost;
    } cases[] = {
        {"in order", {5, 6, 7}, {5, 6, 7}, 0, 0, 0},
        {"exchanged, across the wrap", {65534, 0, 65535, 2, 1}, {65534, 65535, 0, 1, 2}, 0, 0, 0},
        {"twice, held and handed on", {1, 3, 3, 1, 2, 3}, {1, 2, 3}, 0, 0, 0},
        {"not yet", {1, 3, 4}, {1}, 2, 0, 0},
        {"lost, by time", {1, 3, 4, -1, 5, 2}, {1, 3, 4, 5}, 0, 1, 1},
        {"two holes, one old", {1, 3, -1, 5, 2, 4}, {1, 3, 4, 5}, 0, 1, 1},
        {"lost, by number", Range(3, 35, {1}), Range(3, 35, {1}), 0, 0, 1},
        {"one below that", Range(3, 34, {1}), {1}, 31, 0, 0},
        {"a burst is lost", {1, 3, 2001, -1}, {1, 3, 2001}, 0, 0, 1998},
        {"one from elsewhere", {1, 40000, 2}, {1, 2}, 0, 1, 0},
        {"counted anew, with what waits",
         {100, 102, 40000, 40001, 40003, 40002, -1},
         {100, 102, 40001, 40002, 40003},
         0,
         1,
         1},
        {"back, but not far", {500, 401, 402, 501}, {500, 501}, 0, 2, 0},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.szCase);
        Reorder reorder;
        Taken taken;
        ReorderSink sink{Take, &taken};
        uint32_t nNow = UINT32_MAX - 20;
        Put(&reorder, c.come[0], nNow, &taken);
        ReorderExpire(&reorder, nNow += 50, &sink);
        for (int nNumber : std::vector<int>(c.come.begin() + 1, c.come.end())) {
            EXPECT_EQ(
                1, nNumber >= 0 ? Put(&reorder, nNumber, ++nNow, &taken) : ReorderExpire(&reorder, nNow += 50, &sink));
        }
        EXPECT_EQ(c.go, taken.numbers);
        EXPECT_EQ(c.nHeld, reorder.nHeld);
        EXPECT_EQ(c.nLate, reorder.nLate);
        EXPECT_EQ(c.nLost, reorder.nLost);
        EXPECT_EQ(c.nHeld > 0, ReorderDueMs(&reorder, nNow) >= 0);
        ReorderReset(&reorder);
    }
}

TEST(Reorder, WaitsForItsTimeAndNoLonger)
{
    Reorder reorder;
    Taken taken;
    ReorderSink sink{Take, &taken};
    Put(&reorder, 2, 0, &taken);
    Put(&reorder, 1, 1, &taken);
    EXPECT_EQ(1, ReorderExpire(&reorder, 50, &sink));
    EXPECT_EQ(std::vector<int>({1, 2}), taken.numbers);
    Put(&reorder, 4, 53, &taken);
    Put(&reorder, 6, 55, &taken);
    EXPECT_EQ(48, ReorderDueMs(&reorder, 55));
    EXPECT_EQ(1, ReorderExpire(&reorder, 102, &sink));
    EXPECT_EQ(std::vector<int>({1, 2}), taken.numbers);
    EXPECT_EQ(1, ReorderExpire(&reorder, 103, &sink));
    EXPECT_EQ(std::vector<int>({1, 2, 4}), taken.numbers);
    EXPECT_EQ(2, ReorderDueMs(&reorder, 103));
    ReorderReset(&reorder);
}

// A sink that wants no more may have taken the record with it: nothing is touched any more.
TEST(Reorder, StopsWhereTheSinkDoes)
{
    Reorder reorder;
    Taken taken{{}, 2};
    ReorderSink sink{Take, &taken};
    Put(&reorder, 1, 0, &taken);
    ReorderExpire(&reorder, 50, &sink);
    for (int nNumber : {3, 4})
        EXPECT_EQ(1, Put(&reorder, nNumber, 0, &taken));
    EXPECT_EQ(0, Put(&reorder, 2, 0, &taken));
    EXPECT_EQ(std::vector<int>({1, 2}), taken.numbers);
    ReorderReset(&reorder);
}

}  // namespace orx
