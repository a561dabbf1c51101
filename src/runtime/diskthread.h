// The disk thread: while the server serves, everything that touches files runs on it, so that nobody waits
// for a disk. Work comes as jobs in lanes. The jobs of a lane run one after the other, in the order in which
// they were posted, and lanes take turns, a step of a job each.
//
// While the thread does not run (before DiskStart, after DiskStop) a job that is posted runs at once, to its
// end.
#pragma once

#include <cstddef>
#include <cstdint>

#include "base/linkedlist.h"

namespace orx {

struct Scheduler;

struct DiskJob {
    ListNode node;  // first
    // One step, on the disk thread: some milliseconds unless the disk stalls. Returns 1 when the job is done,
    // 0 when it takes another step.
    int (*pfnRun)(DiskJob *pJob) = nullptr;
    // Called on the scheduler thread when the job is done, which is the owner's again. Null: nobody waits for
    // it, and pfnRun frees it when it returns 1.
    void (*pfnDone)(DiskJob *pJob) = nullptr;
    size_t nBytes = 0;  // of memory that it holds, for DiskBytesWaiting
};

// An owner's sequence of jobs. It lives as long as a job is in it: who frees it does so in the pfnDone of the
// last one.
struct DiskLane {
    ListNode node;  // first: in the list of lanes that wait for their turn
    List jobs;      // guarded by the thread's mutex, as is the rest
    int bTurn = 0;  // waits for its turn, or has it
    DiskLane();
};

// Starts the thread, which reports to the scheduler. Returns 1 or 0.
int DiskStart(Scheduler *pScheduler);

// Gives a job to the thread; the lane's memory and the job's are the thread's until the job is done. Any
// thread; all jobs of a lane come from one.
void DiskPost(DiskLane *pLane, DiskJob *pJob);
// The same for work that may wait a little (20 ms), so that a stream of it wakes the thread seldom.
void DiskPostLazy(DiskLane *pLane, DiskJob *pJob);

// Has pfnTick called between jobs: in nMs for the first time, and then after as many milliseconds as it
// returns, until that is negative. There is one such procedure. Called on the disk thread; without the thread
// nothing is called.
void DiskTick(int (*pfnTick)(), uint32_t nMs);

// The memory that all jobs hold which are not done. Any thread.
size_t DiskBytesWaiting();

// Waits until all jobs are done, at most nMostMs. Returns how many are not. Not on the threads of disk and
// scheduler.
size_t DiskAwait(uint32_t nMostMs);

// The scheduler is about to end: what is done waits for DiskStop. Main thread, as the next.
void DiskDetach();
// DiskAwait; then ends the thread and calls each pfnDone that is left. Returns the bytes of the jobs that are
// not done; when there are any, or the disk still stalls, the thread is left to itself, with what it holds:
// the process is about to end.
size_t DiskStop(uint32_t nMostMs);

}  // namespace orx
