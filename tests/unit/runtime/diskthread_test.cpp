#include "runtime/diskthread.h"

#include <gtest/gtest.h>

#include <atomic>
#include <string>

#include "runtime/task.h"

namespace orx {

// Jobs write their names into a text, as often as they take steps.
struct Note {
    DiskJob job;
    char ch;
    int nSteps;
    std::string *pText;
    std::atomic<int> *pDone;
};

static int RunNote(DiskJob *pJob)
{
    auto *p = reinterpret_cast<Note *>(pJob);
    if (p->ch == '#')  // until everything is posted
        p->pDone->wait(0);
    else
        *p->pText += p->ch;
    if (--p->nSteps > 0)
        return 0;
    if (!p->job.pfnDone)
        delete p;
    return 1;
}

static void NoteDone(DiskJob *pJob)
{
    auto *p = reinterpret_cast<Note *>(pJob);
    (*p->pDone)++;
    p->pDone->notify_all();
    delete p;
}

struct DiskThreadTest : testing::Test {
    Scheduler scheduler;
    DiskLane one, other, gate;
    std::string text;  // of the disk thread until a job is done
    std::atomic<int> nDone{0};

    Note *Make(char ch, int nSteps = 1, int bTold = 0)
    {
        auto *p = new Note{{}, ch, nSteps, &text, &nDone};
        p->job.pfnRun = RunNote;
        p->job.pfnDone = bTold ? NoteDone : nullptr;
        p->job.nBytes = 10;
        return p;
    }
    void Await(int n)
    {
        for (int nNow = nDone; nNow < n; nNow = nDone)
            nDone.wait(nNow);
    }
    void Open()
    {
        nDone++;
        nDone.notify_all();
    }
};

TEST_F(DiskThreadTest, LanesTakeTurnsAndKeepTheirOrder)
{
    ThreadAllowNoPriority(1);
    ASSERT_EQ(1, SchedulerCreate(&scheduler));
    ASSERT_EQ(1, DiskStart(&scheduler));
    DiskPost(&gate, &Make('#')->job);
    DiskPostLazy(&one, &Make('a', 3)->job);
    DiskPostLazy(&one, &Make('b')->job);
    DiskPostLazy(&other, &Make('x', 2)->job);
    DiskPost(&one, &Make('c', 1, 1)->job);
    Open();
    Await(2);
    std::string order[2];
    for (char ch : text)
        order[ch == 'x'] += ch;
    EXPECT_EQ("aaabc", order[0]);
    EXPECT_EQ("xx", order[1]);
    EXPECT_LT(text.rfind('x'), text.find('b')) << "a long job held up another lane: " << text;
    EXPECT_EQ(0U, DiskBytesWaiting());
    DiskDetach();
    SchedulerDestroy(&scheduler);
    DiskPostLazy(&one, &Make('d', 2)->job);
    DiskPostLazy(&one, &Make('e', 1, 1)->job);
    EXPECT_EQ(0U, DiskStop(10000));
    EXPECT_EQ(3, nDone) << "told by the end at the latest";
    EXPECT_EQ("dde", text.substr(7));
}

TEST_F(DiskThreadTest, WorksAtOnceWithoutAThread)
{
    DiskPost(&one, &Make('a', 3, 1)->job);
    DiskPostLazy(&one, &Make('b')->job);
    EXPECT_EQ("aaab", text);
    EXPECT_EQ(1, nDone);
}

}  // namespace orx
