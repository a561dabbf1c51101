#include "server/core/doubts.h"

#include <cstdlib>

#include "base/textbuf.h"

namespace orx {

DoubtList g_doubts;

void DoubtAdd(DoubtList *pList, int bRefuses, const char *szText)
{
    auto *pGrown = static_cast<Doubt *>(realloc(pList->pDoubts, (pList->nDoubts + 1) * sizeof(Doubt)));
    if (!pGrown)
        return;
    pList->pDoubts = pGrown;
    Doubt *pDoubt = &pGrown[pList->nDoubts++];
    pDoubt->bRefuses = bRefuses;
    TextCopy(pDoubt->szText, sizeof(pDoubt->szText), szText);
}

void DoubtsFree(DoubtList *pList)
{
    free(pList->pDoubts);
    *pList = DoubtList();
}

int DoubtsRefuse(const DoubtList *pList)
{
    for (size_t i = 0; i < pList->nDoubts; i++)
        if (pList->pDoubts[i].bRefuses)
            return 1;
    return 0;
}

static int g_bStrict = 0;  // main thread, before others run

void DoubtsSetStrict(int bStrict)
{
    g_bStrict = bStrict;
}

int DoubtsStrict(int bStrictConfig)
{
    return g_bStrict || bStrictConfig;
}

}  // namespace orx
