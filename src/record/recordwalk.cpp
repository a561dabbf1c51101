#include "record/recordwalk.h"

#include <unistd.h>

#include <cerrno>

namespace orx {

RecordWalk RecordWalkFrom(int fd, uint64_t nFileBytes, uint64_t nPos, uint32_t nWork)
{
    RecordWalk walk;
    walk.fd = fd;
    walk.nFileBytes = nFileBytes;
    walk.nNext = nPos;
    walk.nWork = nWork;
    return walk;
}

// Spends some of the step's work. Returns 0 when it is used up.
static int Spend(RecordWalk *pWalk, uint32_t nWork)
{
    if (pWalk->nWork == kAllWork)
        return 1;
    if (pWalk->nWork == 0)
        return 0;
    pWalk->nWork -= nWork < pWalk->nWork ? nWork : pWalk->nWork;
    return 1;
}

int RecordWalkHolds(const RecordWalk *pWalk)
{
    return pWalk->nNext >= pWalk->nChunkPos &&
           pWalk->nNext + kZmfRecordHeadBytes <= pWalk->nChunkPos + pWalk->nChunk;
}

static uint8_t *Room(RecordWalk *pWalk)
{
    return pWalk->pBlock ? pWalk->pBlock : pWalk->chunk;
}

// Has the head of the next record in the chunk. Results of RecordWalkNext.
static int Fill(RecordWalk *pWalk)
{
    if (RecordWalkHolds(pWalk))
        return 1;
    if (!Spend(pWalk, kChunkWork))
        return -1;
    size_t nRoom = pWalk->pBlock ? pWalk->nBlock : sizeof(pWalk->chunk);
    pWalk->nChunkPos = pWalk->nNext;
    pWalk->nChunk = static_cast<uint32_t>(ReadAt(pWalk->fd, pWalk->nNext, Room(pWalk), nRoom));
    return pWalk->nChunk >= kZmfRecordHeadBytes;
}

int RecordWalkNext(RecordWalk *pWalk, ZMFRecordHead *pHead)
{
    int nResult = Spend(pWalk, 1) ? Fill(pWalk) : -1;
    if (nResult < 1)
        return nResult;
    ZMFRecordHeadDecode(Room(pWalk) + (pWalk->nNext - pWalk->nChunkPos), pHead);
    if (pHead->nLength < kZmfRecordHeadBytes || pWalk->nNext + pHead->nLength > pWalk->nFileBytes)
        return 0;
    pWalk->nPos = pWalk->nNext;
    pWalk->nNext += pHead->nLength;
    return 1;
}

size_t ReadAt(int fd, uint64_t nPos, void *pOut, size_t nBytes)
{
    size_t nDone = 0;
    while (nDone < nBytes) {
        ssize_t n =
            pread(fd, static_cast<uint8_t *>(pOut) + nDone, nBytes - nDone, static_cast<off_t>(nPos + nDone));
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            break;
        nDone += static_cast<size_t>(n);
    }
    return nDone;
}

}  // namespace orx
