#include "server/core/retire.h"

namespace orx {

static Retired *g_pRetired =
    nullptr;  // newest first; scheduler thread, or the main thread once that has ended

void Retire(Retired *pRetired, void *pRecord, void (*pfnFree)(void *pRecord))
{
    *pRetired = {g_pRetired, pRecord, pfnFree};
    g_pRetired = pRetired;
}

void FreeRetired()
{
    while (Retired *p = g_pRetired) {
        g_pRetired = p->pNext;
        p->pfnFree(p->pRecord);
    }
}

}  // namespace orx
