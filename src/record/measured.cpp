#include "record/measured.h"

#include <algorithm>

#include "record/recordwalk.h"
#include "runtime/clock.h"

namespace orx {

// A file under its identity: when it changes it is another one.
struct Entry {
    struct stat info {};  // of which device, number, size and time of the last change count
    uint64_t nBegin = 0;
    uint64_t nNext = 0;      // where the walk goes on
    uint32_t nLatest = 0;    // latest time of the records since the first key frame
    uint32_t nLastUse = 0;   // 0: free
    uint32_t nLastStep = 0;  // ClockMs
    int bDone = 0;
    Measured result;
};

static constexpr int32_t kWaitMs = 1000;  // between two steps for somebody who waits there is much less

static Entry g_entries[8];  // scheduler thread only, as is the number
static uint32_t g_nUses = 0;

static int IsSame(const Entry *pEntry, const struct stat *pInfo, uint64_t nBegin)
{
    const struct stat *p = &pEntry->info;
    return pEntry->nLastUse && pEntry->nBegin == nBegin && p->st_dev == pInfo->st_dev &&
           p->st_ino == pInfo->st_ino && p->st_size == pInfo->st_size &&
           p->st_mtim.tv_sec == pInfo->st_mtim.tv_sec && p->st_mtim.tv_nsec == pInfo->st_mtim.tv_nsec;
}

// Whether a file is being walked through for somebody who waits.
static int IsAtWork(const Entry *pEntry)
{
    return pEntry->nLastUse && !pEntry->bDone && ClockDiff(ClockMs(), pEntry->nLastStep) < kWaitMs;
}

// The file's entry; a new one takes the place of the one that was asked for longest ago. Null while all are
// at work: who took the place of one of them would lose it in the same way, and nobody came to an end.
static Entry *FindEntry(const struct stat *pInfo, uint64_t nBegin)
{
    Entry *pOldest = nullptr;
    for (Entry &entry : g_entries) {
        if (IsSame(&entry, pInfo, nBegin))
            return &entry;
        if (!IsAtWork(&entry) && (!pOldest || entry.nLastUse < pOldest->nLastUse))
            pOldest = &entry;
    }
    if (!pOldest)
        return nullptr;
    *pOldest = Entry{};
    pOldest->info = *pInfo;
    pOldest->nBegin = pOldest->nNext = nBegin;
    return pOldest;
}

// Keeps every second point when all are in use, so that they reach over a file of any length.
static void AddKeyFrame(Entry *pEntry, uint64_t nPos, uint32_t nTimeMs)
{
    Measured *p = &pEntry->result;
    if (p->uKeyFrames++ % p->nInterval != 0)
        return;
    if (p->nPoints == kSeekPoints) {
        for (uint32_t i = 0; i < kSeekPoints / 2; i++)
            p->points[i] = p->points[2 * i];
        p->nPoints = kSeekPoints / 2;
        p->nInterval *= 2;
    }
    p->points[p->nPoints++] = SeekPoint{nPos, pEntry->nLatest, nTimeMs};
}

static void AddRecord(Entry *pEntry, const ZMFRecordHead *pHead, uint64_t nPos)
{
    Measured *p = &pEntry->result;
    p->uDuration = std::max(p->uDuration, pHead->nTimeMs);
    p->uVideoSamples += pHead->chMedia == 'v' ? 1 : 0;
    p->uTextSamples += pHead->chMedia == 't' ? 1 : 0;
    p->uUserSamples += pHead->chMedia == 'u' ? 1 : 0;
    if (IsKeyRecord(pHead))
        AddKeyFrame(pEntry, nPos, pHead->nTimeMs);
    if (p->uKeyFrames > 0)  // before the first one no seek ends
        pEntry->nLatest = std::max(pEntry->nLatest, pHead->nTimeMs);
}

const Measured *MeasureStep(int fd, const struct stat *pInfo, uint64_t nBegin, uint32_t nWork)
{
    Entry *pEntry = FindEntry(pInfo, nBegin);
    if (!pEntry)
        return nullptr;
    pEntry->nLastUse = ++g_nUses;
    pEntry->nLastStep = ClockMs();
    if (pEntry->bDone)
        return &pEntry->result;
    RecordWalk walk = RecordWalkFrom(fd, static_cast<uint64_t>(pInfo->st_size), pEntry->nNext, nWork);
    ZMFRecordHead head;
    int nResult;
    while ((nResult = RecordWalkNext(&walk, &head)) > 0)
        AddRecord(pEntry, &head, walk.nPos);
    pEntry->nNext = walk.nNext;
    pEntry->bDone = nResult == 0;
    return pEntry->bDone ? &pEntry->result : nullptr;
}

uint64_t MeasuredSeekStart(const Measured *pMeasured, uint32_t nTimeMs, uint64_t nStart, int bExact)
{
    const SeekPoint *pEnd =
        std::lower_bound(pMeasured->points, pMeasured->points + pMeasured->nPoints, nTimeMs,
                         [](const SeekPoint &point, uint32_t nWanted) { return point.nBefore < nWanted; });
    while (bExact && pEnd != pMeasured->points && pEnd[-1].nTimeMs > nTimeMs)
        pEnd--;
    return pEnd == pMeasured->points ? nStart : std::max(nStart, pEnd[-1].nPos);
}

}  // namespace orx
