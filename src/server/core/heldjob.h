// What a request needs of the disk: a job that its session waits for. The handler asks, returns
// Verdict::Later, and is called once more with the same request when the job is done. Scheduler thread only.
#pragma once

#include "runtime/diskthread.h"
#include "server/core/session.h"

namespace orx {

struct HeldJob {
    DiskJob job;                                // first; the owner fills in pfnRun and nBytes
    void (*pfnFree)(HeldJob *pHeld) = nullptr;  // gives everything back, done or not
    uint32_t nSession = 0;                      // handle of who waits
    int bDone = 0;
};
static_assert(offsetof(HeldJob, job) == 0, "a job is found by its held one");

// Has the disk thread do what the session's request at hand needs; pHeld is given away. Returns it, the
// caller's again, when it is done already. Else null: the handler sends nothing and returns Verdict::Later.
HeldJob *HeldJobPost(Session *pSession, DiskLane *pLane, HeldJob *pHeld);
// What was posted for the request at hand and is done; the caller's. Null: nothing was posted yet.
HeldJob *HeldJobTake(Session *pSession);

}  // namespace orx
