#include "server/core/doubts.h"

#include <algorithm>
#include <cstdlib>

#include "base/textbuf.h"

namespace orx {

DoubtList g_doubts;

// A file that is none (a picture, a log) would have millions.
constexpr size_t kMostDoubts = 1000;

void DoubtAdd(DoubtList *pList, int bRefuses, const char *szText)
{
    DoubtAddAt(pList, bRefuses, 0, szText);
}

int DoubtsFull(const DoubtList *pList)
{
    return pList->nDoubts >= kMostDoubts;
}

void DoubtAddAt(DoubtList *pList, int bRefuses, unsigned nLine, const char *szText)
{
    if (DoubtsFull(pList))
        return;
    if (pList->nDoubts == kMostDoubts - 1) {
        szText = "There are more doubts: the others are not listed";
        bRefuses = 1;
        nLine = 0;
    }
    auto *pGrown = static_cast<Doubt *>(realloc(pList->pDoubts, (pList->nDoubts + 1) * sizeof(Doubt)));
    if (!pGrown)
        return;
    pList->pDoubts = pGrown;
    Doubt *pDoubt = &pGrown[pList->nDoubts++];
    pDoubt->nLine = nLine;
    pDoubt->bRefuses = bRefuses;
    TextCopy(pDoubt->szText, sizeof(pDoubt->szText), szText);
}

void DoubtsSort(DoubtList *pList)
{
    auto isBefore = [](const Doubt &one, const Doubt &other) { return one.nLine - 1 < other.nLine - 1; };
    std::stable_sort(pList->pDoubts, pList->pDoubts + pList->nDoubts, isBefore);
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
