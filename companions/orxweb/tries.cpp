#include "orxweb/tries.h"

#include <algorithm>

namespace orx {

// With the mutex held, as the next: the row of a key, or null.
static TryTable::Row *Find(TryTable *pTable, const std::string &key, uint64_t nNowMs)
{
    auto it = pTable->byKey.find(key);
    if (it == pTable->byKey.end())
        return nullptr;
    TryTable::Row *pRow = &*it->second;
    if (nNowMs - pRow->nLastMs >= static_cast<uint64_t>(pTable->limits.nForgetMs))
        *pRow = {key, 0, nNowMs, 0};
    return pRow;
}

static TryTable::Row *Touch(TryTable *pTable, const std::string &key, uint64_t nNowMs)
{
    if (Find(pTable, key, nNowMs)) {
        auto it = pTable->byKey[key];
        pTable->rows.splice(pTable->rows.begin(), pTable->rows, it);
        return &*it;
    }
    if (pTable->rows.size() >= pTable->limits.nMostKept) {
        pTable->byKey.erase(pTable->rows.back().key);
        pTable->rows.pop_back();
    }
    pTable->rows.push_front({key, 0, nNowMs, 0});
    pTable->byKey[key] = pTable->rows.begin();
    return &pTable->rows.front();
}

int TryWait(TryTable *pTable, const std::string &key, uint64_t nNowMs)
{
    std::lock_guard lock(pTable->mutex);
    const TryTable::Row *pRow = Find(pTable, key, nNowMs);
    return pRow && pRow->nFreeAtMs > nNowMs ? static_cast<int>(pRow->nFreeAtMs - nNowMs) : 0;
}

void TryWrong(TryTable *pTable, const std::string &key, uint64_t nNowMs)
{
    std::lock_guard lock(pTable->mutex);
    TryTable::Row *pRow = Touch(pTable, key, nNowMs);
    const TryLimits &limits = pTable->limits;
    pRow->nLastMs = nNowMs;
    int nOver = ++pRow->nWrong - limits.nFree;
    if (nOver < 0)
        return;
    int64_t nPause = int64_t{limits.nFirstMs} << std::min(nOver, 20);
    pRow->nFreeAtMs = nNowMs + static_cast<uint64_t>(std::min<int64_t>(nPause, limits.nLongestMs));
}

void TryRight(TryTable *pTable, const std::string &key)
{
    std::lock_guard lock(pTable->mutex);
    auto it = pTable->byKey.find(key);
    if (it == pTable->byKey.end())
        return;
    pTable->rows.erase(it->second);
    pTable->byKey.erase(it);
}

}  // namespace orx
