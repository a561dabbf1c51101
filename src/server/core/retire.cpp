#include "server/core/retire.h"

#include "runtime/slice.h"
#include "server/core/giveback.h"
#include "server/core/registry.h"

namespace orx {

// Scheduler thread, or the main thread once that has ended.
static Retired *g_pRetired = nullptr;  // newest first
static int g_bSliceDue = 0;            // the task that brings the next slice is scheduled

void Retire(Retired *pRetired, void *pRecord, void (*pfnFree)(void *pRecord))
{
    *pRetired = {g_pRetired, pRecord, pfnFree};
    g_pRetired = pRetired;
}

static void FreeNewest()
{
    Retired *p = g_pRetired;
    g_pRetired = p->pNext;
    p->pfnFree(p->pRecord);
}

// Ends at once: the slice follows it as every callback.
static int OnNextSlice(Task *, uint32_t, uint32_t, uint32_t)
{
    g_bSliceDue = 0;
    return -1;
}

void FreeRetiredSlice()
{
    if (!g_pRetired) {
        GiveMemoryBack();
        return;
    }
    Slice slice = SliceBegin();
    do
        FreeNewest();
    while (g_pRetired && !SliceOver(&slice, kSliceLook));
    if (!g_pRetired || g_bSliceDue)
        return;
    g_bSliceDue = 1;
    TaskSchedule(&g_server.scheduler, OnNextSlice, 1, 0, nullptr);
}

void FreeRetired()
{
    g_bSliceDue = 0;
    while (g_pRetired)
        FreeNewest();
}

}  // namespace orx
