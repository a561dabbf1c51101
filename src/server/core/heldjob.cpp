#include "server/core/heldjob.h"

#include <utility>

namespace orx {

static void OnHeldDone(DiskJob *pJob)
{
    auto *pHeld = reinterpret_cast<HeldJob *>(pJob);
    Session *pSession = FindSessionByHandle(pHeld->nSession);
    if (!pSession || pSession->hold.pJob != pHeld) {
        pHeld->pfnFree(pHeld);
        return;
    }
    pHeld->bDone = 1;
    if (pSession->hold.pPort)
        PortPostEvent(pSession->hold.pPort, EVENT_JOB_DONE, 0);
}

HeldJob *HeldJobPost(Session *pSession, DiskLane *pLane, HeldJob *pHeld)
{
    SessionForgetJob(pSession);
    pHeld->nSession = pSession->nHandle;
    pHeld->job.pfnDone = OnHeldDone;
    pSession->hold.pJob = pHeld;
    DiskPost(pLane, &pHeld->job);
    HeldJob *pDone = HeldJobTake(pSession);
    pSession->hold.bStep |= !pDone;  // this is no wait for a wrong password
    return pDone;
}

HeldJob *HeldJobTake(Session *pSession)
{
    HeldJob *pHeld = pSession->hold.pJob;
    return pHeld && pHeld->bDone ? std::exchange(pSession->hold.pJob, nullptr) : nullptr;
}

}  // namespace orx
