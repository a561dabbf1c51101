#include "server/media/filereader.h"

#include <cstdlib>
#include <cstring>
#include <new>
#include <utility>

#include "record/recordwalk.h"
#include "record/zmfreader.h"

namespace orx {

constexpr uint32_t kReadBuffer = 204800;  // bytes that the reader of a recording keeps
constexpr size_t kBatchBytes = 65536;     // some pictures
constexpr uint32_t kBatchRecords = 64;
constexpr unsigned kBatchesAhead = 2;

// Records as they come from the file, each behind its length.
struct Batch {
    DiskJob job;  // first: it reads them; then its node is in the reader's list
    FileReader *pReader = nullptr;
    uint8_t *pData = nullptr;  // owned
    size_t nData = 0;
    size_t nTaken = 0;
    int bEnd = 0;  // nothing follows
};

static Batch *BatchOf(DiskJob *pJob)
{
    return reinterpret_cast<Batch *>(pJob);
}

static void FreeBatch(void *, void *pItem)
{
    auto *p = static_cast<Batch *>(pItem);
    free(p->pData);
    delete p;
}

// --- Opening and closing ---

static void TakeFacts(FileReader *p)
{
    p->szSdp = ZMFReaderSdp(p->pFile);
    p->uDuration = ZMFReaderDuration(p->pFile);
}

FileReader *FileReaderNew(ZMFReader *pFile)
{
    auto *p = new (std::nothrow) FileReader;
    if (!p) {
        ZMFReaderClose(pFile);
        return nullptr;
    }
    ListInit(&p->batches, nullptr);
    ListDataProc(&p->batches, FreeBatch, nullptr);
    ListUsedDefMap(&p->batches, 0);
    p->pFile = pFile;
    if (pFile)
        TakeFacts(p);
    return p;
}

struct Opening {
    HeldJob held;  // first
    FileReader *pReader = nullptr;
    char *szFile = nullptr;   // owned, as is szBelow
    char *szBelow = nullptr;  // null: anywhere
};

static int RunOpening(DiskJob *pJob)
{
    auto *p = reinterpret_cast<Opening *>(pJob);
    int bMore = 0;
    p->pReader->pFile = ZMFReaderOpenStep(p->szFile, kReadBuffer, kStepWork, &bMore, p->szBelow);
    return !bMore;
}

static void FreeOpening(HeldJob *pHeld)
{
    auto *p = reinterpret_cast<Opening *>(pHeld);
    FileReaderClose(p->pReader);
    free(p->szFile);
    free(p->szBelow);
    delete p;
}

HeldJob *FileReaderOpening(const char *szFile, const char *szBelow, DiskLane **ppLane)
{
    auto *p = new (std::nothrow) Opening;
    if (!p)
        return nullptr;
    p->held.job.pfnRun = RunOpening;
    p->held.pfnFree = FreeOpening;
    p->pReader = FileReaderNew(nullptr);
    p->szFile = strdup(szFile);
    p->szBelow = szBelow ? strdup(szBelow) : nullptr;
    if (p->pReader && p->szFile && (p->szBelow || !szBelow)) {
        *ppLane = &p->pReader->lane;
        return &p->held;
    }
    FreeOpening(&p->held);
    return nullptr;
}

FileReader *FileReaderOpened(HeldJob *pHeld)
{
    auto *p = reinterpret_cast<Opening *>(pHeld);
    FileReader *pReader = p->pReader->pFile ? std::exchange(p->pReader, nullptr) : nullptr;
    if (pReader)
        TakeFacts(pReader);
    FreeOpening(pHeld);
    return pReader;
}

struct Closing {
    DiskJob job;  // first
    FileReader *pReader;
};

static int RunClosing(DiskJob *pJob)
{
    ZMFReaderClose(reinterpret_cast<Closing *>(pJob)->pReader->pFile);
    return 1;
}

static void OnClosed(DiskJob *pJob)
{
    auto *p = reinterpret_cast<Closing *>(pJob);
    ListDestroy(&p->pReader->batches);
    delete p->pReader;
    delete p;
}

void FileReaderClose(FileReader *pReader)
{
    auto *p = pReader ? new (std::nothrow) Closing{{}, pReader} : nullptr;
    if (!p)
        return;
    pReader->pfnArrived = nullptr;
    p->job.pfnRun = RunClosing;
    p->job.pfnDone = OnClosed;
    DiskPost(&pReader->lane, &p->job);
}

// --- Reading ---

// Takes a copy of a record into the batch. Returns 0 without memory.
static int AddRecord(Batch *p, const uint8_t *pRecord, uint32_t nBytes)
{
    auto *pData = static_cast<uint8_t *>(realloc(p->pData, p->nData + sizeof(nBytes) + nBytes));
    if (!pData)
        return 0;
    memcpy(pData + p->nData, &nBytes, sizeof(nBytes));
    memcpy(pData + p->nData + sizeof(nBytes), pRecord, nBytes);
    p->pData = pData;
    p->nData += sizeof(nBytes) + nBytes;
    return 1;
}

// The next record that is to be read; null with *pbMore 1 when finding it takes another step.
static const uint8_t *ReadRecord(FileReader *p, int *pnBytes, int *pbMore)
{
    *pbMore = 0;
    if (p->nDirection == 0)
        return ZMFReaderNextSample(p->pFile, pnBytes);
    return ZMFReaderNextKey(p->pFile, p->nDirection, p->nGapMs, kStepWork, pnBytes, pbMore);
}

static int RunReading(DiskJob *pJob)
{
    Batch *p = BatchOf(pJob);
    for (uint32_t i = 0; i < kBatchRecords && p->nData < kBatchBytes && !p->bEnd; i++) {
        int nBytes = 0;
        int bMore = 0;
        const uint8_t *pRecord = ReadRecord(p->pReader, &nBytes, &bMore);
        if (bMore)
            return i > 0;
        p->bEnd = !pRecord || !AddRecord(p, pRecord, static_cast<uint32_t>(nBytes));
    }
    return 1;
}

static void OnBatchRead(DiskJob *pJob)
{
    Batch *p = BatchOf(pJob);
    FileReader *pReader = p->pReader;
    pReader->bReading = 0;
    pReader->bEnd = p->bEnd;
    ListAppend(&pReader->batches, p);
    if (std::exchange(pReader->bWanted, 0) && pReader->pfnArrived)
        pReader->pfnArrived(pReader->pProg);
}

// Has more read when little is left.
static void ReadAhead(FileReader *pReader)
{
    if (pReader->bEnd || pReader->bReading || pReader->bSeeking ||
        ListCount(&pReader->batches) >= kBatchesAhead)
        return;
    auto *p = new (std::nothrow) Batch;
    if (!p)
        return;
    p->pReader = pReader;
    p->job.pfnRun = RunReading;
    p->job.pfnDone = OnBatchRead;
    pReader->bReading = 1;
    DiskPost(&pReader->lane, &p->job);
}

// The first batch that has records; those without, and those that are used up, go.
static Batch *FirstBatch(FileReader *pReader)
{
    Batch *p;
    while ((p = ListFirstOf<Batch>(&pReader->batches)) && p->nTaken == p->nData)
        ListFree(&pReader->batches, p);
    return p;
}

const uint8_t *FileReaderNext(FileReader *pReader, uint32_t *pnBytes, int *pbEnd)
{
    Batch *p = FirstBatch(pReader);
    ReadAhead(pReader);
    if (!p)
        p = FirstBatch(pReader);
    *pbEnd = !p && pReader->bEnd && !pReader->bSeeking;
    pReader->bWanted = !p && !*pbEnd;
    if (!p)
        return nullptr;
    memcpy(pnBytes, p->pData + p->nTaken, sizeof(*pnBytes));
    const uint8_t *pRecord = p->pData + p->nTaken + sizeof(*pnBytes);
    p->nTaken += sizeof(*pnBytes) + *pnBytes;
    return pRecord;
}

// --- Seeking ---

struct Seeking {
    HeldJob held;  // first
    FileReader *pReader = nullptr;
    FileSeek seek;
    uint32_t nReachedMs = 0;
    int bReached = 0;
};

static int RunSeeking(DiskJob *pJob)
{
    auto *p = reinterpret_cast<Seeking *>(pJob);
    int bMore = 0;
    FileReader *pReader = p->pReader;
    pReader->pFile->bExactSeek = p->seek.bExact;
    p->bReached =
        ZMFReaderSeekStep(pReader->pFile, p->seek.nMs, kStepWork, &p->nReachedMs, &bMore) != nullptr;
    if (p->bReached) {
        pReader->nDirection = p->seek.nDirection;
        pReader->nGapMs = p->seek.nGapMs;
        ZMFReaderBeginKeys(pReader->pFile);
    }
    return !bMore;
}

// What was read ahead is from before the jump, if there was one.
static void FreeSeeking(HeldJob *pHeld)
{
    auto *p = reinterpret_cast<Seeking *>(pHeld);
    p->pReader->bSeeking = 0;
    if (p->bReached) {
        ListEmpty(&p->pReader->batches);
        p->pReader->bEnd = 0;
        p->pReader->nInRefill = 0;
    }
    delete p;
}

HeldJob *FileReaderSeeking(FileReader *pReader, const FileSeek *pSeek)
{
    auto *p = new (std::nothrow) Seeking;
    if (!p)
        return nullptr;
    p->held.job.pfnRun = RunSeeking;
    p->held.pfnFree = FreeSeeking;
    p->pReader = pReader;
    p->seek = *pSeek;
    pReader->bSeeking = 1;
    return &p->held;
}

int FileReaderSought(HeldJob *pHeld, uint32_t *pReachedMs)
{
    auto *p = reinterpret_cast<Seeking *>(pHeld);
    int bReached = p->bReached;
    *pReachedMs = p->nReachedMs;
    FreeSeeking(pHeld);
    return bReached;
}

}  // namespace orx
