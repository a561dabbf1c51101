#include "record/keyindex.h"

#include <cstring>

#include "base/bytes.h"

namespace orx {

int KeyIndexIsFull(const KeyIndex *pIndex)
{
    return pIndex->nUsed >= DEF_IDX_COUNT &&
           pIndex->nInterval < 0x8000;  // 16 bits, so that it doubles up to that
}

void KeyIndexHalve(KeyIndex *pIndex)
{
    for (uint32_t i = 0; i < DEF_IDX_COUNT / 2; i++)
        pIndex->entries[i] = pIndex->entries[2 * i];
    pIndex->nUsed = DEF_IDX_COUNT / 2;
    pIndex->nInterval = static_cast<uint16_t>(pIndex->nInterval * 2);
}

void KeyIndexAdd(KeyIndex *pIndex, uint32_t uKeyFrames, uint64_t nPos, uint32_t nTimeMs)
{
    int bTurn = uKeyFrames % pIndex->nInterval == 0 && pIndex->nUsed < DEF_IDX_COUNT;
    if (bTurn && nPos <= UINT32_MAX)  // beyond 4 GB a seek walks on from the last entry
        pIndex->entries[pIndex->nUsed++] = ZMFIndexEntry{static_cast<uint32_t>(nPos), nTimeMs};
}

void KeyIndexEncode(const KeyIndex *pIndex, uint8_t *pOut)
{
    memset(pOut, 0, kZmfIdxBytes);
    for (uint32_t i = 0; i < pIndex->nUsed; i++) {
        PutBe(pOut + size_t{i} * kZmfEntryBytes, 4, pIndex->entries[i].nPos);
        PutBe(pOut + size_t{i} * kZmfEntryBytes + 4, 4, pIndex->entries[i].nTimeMs);
    }
}

}  // namespace orx
