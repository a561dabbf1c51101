#include "shared/loop.h"

#include <gtest/gtest.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <functional>
#include <memory>
#include <random>
#include <thread>
#include <vector>

using namespace orx;

static void Call(void *pUser)
{
    (*static_cast<std::function<void()> *>(pUser))();
}

static void CallReady(void *pUser, uint32_t)
{
    Call(pUser);
}

struct LoopTest : testing::Test {
    Loop *pLoop = LoopOpen();
    std::function<void()> stop = [this] { LoopStop(pLoop); };
    ~LoopTest() override { LoopClose(pLoop); }
};

// A heap of many timers, some set again and some cleared: what is left comes in the order of its times.
TEST_F(LoopTest, TimersComeInOrder)
{
    struct Item {
        LoopTimer timer;
        std::function<void()> due;
    };
    std::vector<std::unique_ptr<Item>> items;
    std::vector<uint64_t> seen;
    std::mt19937 random(1);
    size_t nLeft = 0;
    for (int i = 0; i < 300; i++) {
        items.push_back(std::make_unique<Item>());
        Item *pItem = items.back().get();
        pItem->due = [&, pItem] {
            seen.push_back(pItem->timer.nDueMs);
            if (--nLeft == 0)
                LoopStop(pLoop);
        };
        pItem->timer = LoopTimer{Call, &pItem->due};
        LoopSetTimer(pLoop, &pItem->timer, random() % 30);
    }
    for (auto &pItem : items) {
        if (random() % 3 == 0)
            LoopSetTimer(pLoop, &pItem->timer, random() % 30);
        if (random() % 3 == 0)
            LoopClearTimer(pLoop, &pItem->timer);
        LoopClearTimer(pLoop, random() % 5 == 0 ? &pItem->timer : &items[0]->timer);
    }
    for (auto &pItem : items)
        nLeft += pItem->timer.nPlace != 0;
    size_t nWanted = nLeft;
    ASSERT_GT(nWanted, 50U);
    LoopRun(pLoop);
    EXPECT_EQ(nWanted, seen.size());
    EXPECT_TRUE(std::is_sorted(seen.begin(), seen.end()));
}

TEST_F(LoopTest, ATimerMayFreeItselfAndClearOthers)
{
    auto pFirst = std::make_unique<LoopTimer>();
    int nCalls = 0;
    std::function<void()> never = [&] { nCalls += 100; };
    LoopTimer second{Call, &never}, last{Call, &stop};
    std::function<void()> first = [&] {
        nCalls++;
        pFirst.reset();
        LoopClearTimer(pLoop, &second);  // due as well by now
    };
    *pFirst = LoopTimer{Call, &first};
    LoopSetTimer(pLoop, pFirst.get(), 0);
    LoopSetTimer(pLoop, &second, 0);
    LoopSetTimer(pLoop, &last, 5);
    LoopRun(pLoop);
    EXPECT_EQ(1, nCalls);
}

// Both descriptors are ready in one round; whichever is served first ends both.
TEST_F(LoopTest, ARemovedWatchIsNotCalledInItsRound)
{
    int one[2], other[2], nCalls = 0;
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, one));
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, other));
    LoopWatch watches[2];
    std::function<void()> ready = [&] {
        nCalls++;
        for (LoopWatch &watch : watches)
            EXPECT_TRUE(LoopSetWatch(pLoop, &watch, 0));
    };
    watches[0] = LoopWatch{one[0], CallReady, &ready};
    watches[1] = LoopWatch{other[0], CallReady, &ready};
    for (LoopWatch &watch : watches)
        ASSERT_TRUE(LoopSetWatch(pLoop, &watch, EPOLLIN));
    ASSERT_EQ(1, write(one[1], "x", 1));
    ASSERT_EQ(1, write(other[1], "x", 1));
    LoopTimer last{Call, &stop};
    LoopSetTimer(pLoop, &last, 20);
    LoopRun(pLoop);
    EXPECT_EQ(1, nCalls);
    for (int fd : {one[0], one[1], other[0], other[1]})
        close(fd);
}

TEST_F(LoopTest, WorkOfOtherThreadsComesInOrder)
{
    std::vector<int> seen;
    std::vector<std::function<void()>> works;
    for (int i = 0; i < 1000; i++)
        works.push_back([&seen, i] { seen.push_back(i); });
    std::thread thread([&] {
        for (auto &work : works)
            LoopPost(pLoop, Call, &work);
        LoopPost(pLoop, Call, &stop);
    });
    LoopRun(pLoop);
    thread.join();
    ASSERT_EQ(1000U, seen.size());
    EXPECT_TRUE(std::is_sorted(seen.begin(), seen.end()));
}
