#include "record/zmfrepair.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <utility>

#include "record/sdpreader.h"

namespace orx {

constexpr char kMediaKinds[] = {'v', 'a', 't', 'u'};

static ZMFRepairResult Break(ZMFRepair *pRepair, const char *szReason)
{
    pRepair->szReason = szReason;
    return ZMF_REPAIR_BROKEN;
}

static ZMFRepairResult Enter(ZMFRepair *pRepair, ZMFRepairStage nStage)
{
    pRepair->nStage = nStage;
    return ZMF_REPAIR_MORE;
}

// --- Opening ---

// The header, when it is of the one form that writers make: only there is known where the counters go.
static int ReadHead(ZMFRepair *pRepair)
{
    uint8_t bytes[kZmfHeadBytes];
    ZMFileHeader *pHead = &pRepair->head;
    if (ReadAt(pRepair->fd, 0, bytes, sizeof(bytes)) != sizeof(bytes) ||
        !ZMFileHeaderDecode(bytes, sizeof(bytes), pHead) || pHead->nHeadSize != kZmfHeadBytes ||
        pHead->nIdxSize != kZmfIdxBytes || ZMFileDataOffset(pHead) > pRepair->nBytes)
        return 0;
    pRepair->before = *pHead;
    pHead->uDuration = pHead->uVideoSamples = pHead->uTextSamples = pHead->uUserSamples = pHead->uKeyFrames =
        0;
    if (pRepair->before.uDuration > 0) {  // which only a close writes
        pRepair->nStage = REPAIR_END;
        pRepair->nResult = ZMF_REPAIR_WHOLE;
    }
    pRepair->walk.fd = pRepair->fd;
    pRepair->walk.nFileBytes = pRepair->nBytes;
    pRepair->walk.nNext = ZMFileDataOffset(pHead);
    pRepair->walk.nWork = kAllWork;
    pRepair->walk.pBlock = pRepair->pBlock;
    pRepair->walk.nBlock = kRepairBlockBytes;
    return 1;
}

int ZMFRepairOpen(ZMFRepair *pRepair, const char *szFile)
{
    pRepair->pBlock = static_cast<uint8_t *>(malloc(kRepairBlockBytes));
    // A link of that name may lead out of the recordings, and a FIFO must not hold us up.
    pRepair->fd = open(szFile, O_RDWR | O_CLOEXEC | O_NONBLOCK | O_NOFOLLOW);
    if (!pRepair->pBlock || pRepair->fd < 0 || fstat(pRepair->fd, &pRepair->info) != 0)
        return 0;
    errno = 0;
    pRepair->nBytes = static_cast<uint64_t>(pRepair->info.st_size);
    if (!S_ISREG(pRepair->info.st_mode) || !ReadHead(pRepair)) {
        errno = 0;
        return 0;
    }
    return 1;
}

void ZMFRepairClose(ZMFRepair *pRepair)
{
    if (pRepair->fd >= 0)
        close(std::exchange(pRepair->fd, -1));
    free(std::exchange(pRepair->pBlock, nullptr));
}

// --- Reading ---

static void CountRecord(ZMFRepair *pRepair, const ZMFRecordHead &record)
{
    ZMFileHeader *pHead = &pRepair->head;
    pHead->uDuration = std::max(pHead->uDuration, record.nTimeMs);
    pHead->uVideoSamples += record.chMedia == 'v' ? 1 : 0;
    pHead->uTextSamples += record.chMedia == 't' ? 1 : 0;
    pHead->uUserSamples += record.chMedia == 'u' ? 1 : 0;
    if (!IsKeyRecord(&record))
        return;
    if (KeyIndexIsFull(&pRepair->index))
        KeyIndexHalve(&pRepair->index);
    KeyIndexAdd(&pRepair->index, pHead->uKeyFrames++, pRepair->walk.nPos - ZMFileDataOffset(pHead),
                record.nTimeMs);
}

// Whether what follows the last whole record is the beginning of another, of which the rest was not written.
static int IsUnfinished(const ZMFRepair *pRepair)
{
    const RecordWalk *pWalk = &pRepair->walk;
    if (pRepair->nBytes - pWalk->nNext < kZmfRecordHeadBytes)
        return 1;
    ZMFRecordHead record;
    ZMFRecordHeadDecode(pRepair->pBlock + (pWalk->nNext - pWalk->nChunkPos), &record);
    return record.nLength >= kZmfRecordHeadBytes &&
           std::find(std::begin(kMediaKinds), std::end(kMediaKinds), record.chMedia) != std::end(kMediaKinds);
}

// What comes after the walk.
static ZMFRepairResult EndWalk(ZMFRepair *pRepair)
{
    const RecordWalk *pWalk = &pRepair->walk;
    const ZMFileHeader &head = pRepair->head;
    const ZMFileHeader &before = pRepair->before;
    if (pRepair->nBytes >= pWalk->nNext + kZmfRecordHeadBytes && !RecordWalkHolds(pWalk))
        return Break(pRepair, "it cannot be read");
    pRepair->nDone = pWalk->nNext;
    if (pWalk->nNext == pRepair->nBytes && head.uDuration == 0 &&
        before.uVideoSamples == head.uVideoSamples && before.uKeyFrames == head.uKeyFrames &&
        before.uTextSamples == head.uTextSamples && before.uUserSamples == head.uUserSamples)
        return ZMF_REPAIR_WHOLE;
    if (!IsUnfinished(pRepair))
        return Enter(pRepair, REPAIR_TAIL);
    pRepair->nCut = pRepair->nBytes - pWalk->nNext;
    return Enter(pRepair, REPAIR_TABLES);
}

// Counts the records of one block.
static ZMFRepairResult WalkStep(ZMFRepair *pRepair)
{
    RecordWalk *pWalk = &pRepair->walk;
    ZMFRecordHead record;
    for (int nReads = 0;;) {
        if (!RecordWalkHolds(pWalk) && nReads++ > 0) {
            pRepair->nDone = pWalk->nNext;
            return ZMF_REPAIR_MORE;
        }
        if (RecordWalkNext(pWalk, &record) < 1)
            return EndWalk(pRepair);
        CountRecord(pRepair, record);
    }
}

// A power cut leaves zeros where a file had grown and nothing had been written: they go. Anything else that
// is no record stays, since records may follow it.
static ZMFRepairResult TailStep(ZMFRepair *pRepair)
{
    size_t nPart = std::min<uint64_t>(kRepairBlockBytes, pRepair->nBytes - pRepair->nDone);
    if (ReadAt(pRepair->fd, pRepair->nDone, pRepair->pBlock, nPart) != nPart)
        return Break(pRepair, "it cannot be read");
    int bZeros = std::all_of(pRepair->pBlock, pRepair->pBlock + nPart, [](uint8_t n) { return n == 0; });
    pRepair->nDone += nPart;
    if (bZeros && pRepair->nDone < pRepair->nBytes)
        return ZMF_REPAIR_MORE;
    (bZeros ? pRepair->nCut : pRepair->nLost) = pRepair->nBytes - pRepair->walk.nNext;
    return Enter(pRepair, REPAIR_TABLES);
}

// --- Writing ---

static int WriteAt(int fd, uint64_t nPos, const uint8_t *pData, size_t nBytes)
{
    while (nBytes > 0) {
        ssize_t n = pwrite(fd, pData, nBytes, static_cast<off_t>(nPos));
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return 0;
        pData += n;
        nPos += static_cast<uint64_t>(n);
        nBytes -= static_cast<size_t>(n);
    }
    return 1;
}

// Nobody has changed the file since it was opened: its writer may live, and there may be a second repair.
static int IsUntouched(const ZMFRepair *pRepair)
{
    struct stat now {};
    const struct stat &then = pRepair->info;
    return fstat(pRepair->fd, &now) == 0 && now.st_size == then.st_size &&
           now.st_mtim.tv_sec == then.st_mtim.tv_sec && now.st_mtim.tv_nsec == then.st_mtim.tv_nsec;
}

// The description with the range line; one without room for it stays as it is.
static int WriteSdp(ZMFRepair *pRepair)
{
    const ZMFileHeader &head = pRepair->head;
    auto *szSdp = reinterpret_cast<char *>(pRepair->pBlock);
    uint64_t nPos = kZmfHeadBytes + kZmfIdxBytes;
    memset(szSdp, 0, head.nSdpSize + size_t{1});
    if (ReadAt(pRepair->fd, nPos, szSdp, head.nSdpSize) != head.nSdpSize)
        return 0;
    SdpRemoveRange(szSdp);
    size_t nText = strlen(szSdp);
    memset(szSdp + nText, 0, head.nSdpSize - nText);
    return head.uDuration == 0 || !SdpInsertRange(szSdp, head.nSdpSize + size_t{1}, head.uDuration) ||
           WriteAt(pRepair->fd, nPos, pRepair->pBlock, head.nSdpSize);
}

// An index whose first key frame is not the first record is taken for broken: such a file goes without one,
// and says that its index does not name every key frame.
static void DropLateIndex(KeyIndex *pIndex)
{
    if (pIndex->nUsed == 0 || pIndex->entries[0].nPos == 0)
        return;
    pIndex->nUsed = 0;
    pIndex->nInterval = 2;
}

// All but the header.
static ZMFRepairResult TablesStep(ZMFRepair *pRepair)
{
    uint8_t bytes[kZmfIdxBytes];
    DropLateIndex(&pRepair->index);
    KeyIndexEncode(&pRepair->index, bytes);
    if (!IsUntouched(pRepair))
        return Break(pRepair, "it is being written");
    int bWritten =
        (pRepair->nCut == 0 || ftruncate(pRepair->fd, static_cast<off_t>(pRepair->walk.nNext)) == 0) &&
        WriteSdp(pRepair) && WriteAt(pRepair->fd, kZmfHeadBytes, bytes, sizeof(bytes)) &&
        fdatasync(pRepair->fd) == 0;
    return bWritten ? Enter(pRepair, REPAIR_HEAD) : Break(pRepair, "write error");
}

static ZMFRepairResult HeadStep(ZMFRepair *pRepair)
{
    uint8_t bytes[kZmfHeadBytes];
    pRepair->head.nIdxInterval = pRepair->index.nInterval;
    ZMFileHeaderEncode(&pRepair->head, bytes);
    if (!WriteAt(pRepair->fd, 0, bytes, sizeof(bytes)))
        return Break(pRepair, "write error");
    // The oldest recordings make room, and this one is as old as it was.
    const timespec times[2] = {{0, UTIME_OMIT}, pRepair->info.st_mtim};
    futimens(pRepair->fd, times);
    return fsync(pRepair->fd) == 0 ? ZMF_REPAIR_DONE : Break(pRepair, "write error");
}

ZMFRepairResult ZMFRepairStep(ZMFRepair *pRepair)
{
    switch (pRepair->nStage) {
        case REPAIR_WALK:
            pRepair->nResult = WalkStep(pRepair);
            break;
        case REPAIR_TAIL:
            pRepair->nResult = TailStep(pRepair);
            break;
        case REPAIR_TABLES:
            pRepair->nResult = TablesStep(pRepair);
            break;
        case REPAIR_HEAD:
            pRepair->nResult = HeadStep(pRepair);
            break;
        case REPAIR_END:
            return pRepair->nResult;
    }
    if (pRepair->nResult != ZMF_REPAIR_MORE)
        Enter(pRepair, REPAIR_END);
    return pRepair->nResult;
}

}  // namespace orx
