#include "server/front/statusdisk.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <new>

#include "base/fdguard.h"
#include "base/filewrite.h"
#include "base/textbuf.h"
#include "record/confine.h"
#include "record/recordwalk.h"
#include "record/zmfile.h"
#include "runtime/diskthread.h"
#include "runtime/mutexguard.h"
#include "server/media/recorder.h"

namespace orx {

constexpr int kMaxProbes = 12;          // questions that the disk has not answered
constexpr int kMaxWalks = 2;            // the same that take many steps: between them a probe has its turn
constexpr uint32_t kLookMs = 100;       // between two looks at whether an answer or a place is there
constexpr uint32_t kHeadsPerStep = 16;  // files that are opened
constexpr int64_t kNsPerSecond = 1000000000;

static std::atomic<int> g_nProbes{0}, g_nWalks{0};
static std::atomic<int> g_bStop{0};  // see DiskAskStop

enum class ListStage { Begin, Days, Files, Heads };

struct DiskAsk {
    DiskJob job;  // first
    DiskLane lane;
    std::atomic<int> nHolders{2};  // who waits, and the disk
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    pthread_cond_t answered = PTHREAD_COND_INITIALIZER;
    int bDone = 0;
    DiskQuestion eQuestion = DISK_PROBE;
    char szRoot[kStoragePathSize] = "";
    char szProgram[kStoragePathSize] = "";
    char szDay[16] = "";
    char szAfter[kStoragePathSize] = "";
    DiskAnswer answer;
    // The disk thread's.
    ListStage eStage = ListStage::Begin;
    DayWalk walk;
    PathList files;  // of the day at hand, by name
};

static void Release(DiskAsk *p)
{
    if (--p->nHolders > 0)
        return;
    PathListFree(&p->answer.days);
    PathListFree(&p->files);
    DayWalkFree(&p->walk);
    free(p->answer.pOpen);
    free(p->answer.pListed);
    pthread_mutex_destroy(&p->mutex);
    pthread_cond_destroy(&p->answered);
    delete p;
}

static std::atomic<int> *PlacesOf(DiskQuestion eQuestion)
{
    return eQuestion == DISK_PROBE ? &g_nProbes : &g_nWalks;
}

static void OnAnswered(DiskJob *pJob)
{
    auto *p = reinterpret_cast<DiskAsk *>(pJob);
    --*PlacesOf(p->eQuestion);
    Release(p);
}

// Nobody waits for the answer any more: what is left of the work would only keep the place of others.
static int IsPointless(const DiskAsk *p)
{
    return g_bStop || p->nHolders == 1;
}

static int Answered(DiskAsk *p)
{
    MutexGuard lock(&p->mutex);
    p->bDone = 1;
    pthread_cond_signal(&p->answered);
    return 1;
}

static void Probe(DiskAsk *p)
{
    struct statvfs info {};
    if (!DirTakesFiles(p->szRoot))
        p->answer.nErrno = errno;
    if (statvfs(p->szRoot, &info) != 0)
        return;
    p->answer.nFreeBytes = uint64_t{info.f_bavail} * info.f_frsize;
    p->answer.nTotalBytes = uint64_t{info.f_blocks} * info.f_frsize;
    if (p->answer.nErrno == 0 && (info.f_flag & ST_RDONLY))
        p->answer.nErrno = EROFS;
}

// --- All days ---

static void TakeOpen(void *pContext, const RecorderFacts *pFacts)
{
    DiskAnswer *pAnswer = &static_cast<DiskAsk *>(pContext)->answer;
    void *pNew = realloc(pAnswer->pOpen, (pAnswer->nOpen + 1) * sizeof(OpenFacts));
    if (!pNew)
        return;
    pAnswer->pOpen = static_cast<OpenFacts *>(pNew);
    OpenFacts *pOut = &pAnswer->pOpen[pAnswer->nOpen++];
    *pOut = OpenFacts();
    TextCopy(pOut->szProgram, sizeof(pOut->szProgram), pFacts->szProgram);
    TextCopy(pOut->szFile, sizeof(pOut->szFile), pFacts->szFile);
    pOut->nKind = pFacts->nKind;
    pOut->nBytes = pFacts->nBytes;
    pOut->nSeconds = pFacts->nSeconds;
}

// What the walk has found, below the root.
static void KeepDays(DiskAsk *p)
{
    size_t nRoot = strlen(p->szRoot);
    while (const PathItem *pItem = PathListNext(&p->walk.days)) {
        const char *szBelow = pItem->szPath + std::min(nRoot, strlen(pItem->szPath));
        szBelow += strspn(szBelow, "/");
        const char *szName = strrchr(szBelow, '/');
        if (szName && IsDate(szName + 1) && p->answer.days.nItems < kMaxDays)
            PathListAdd(&p->answer.days, szBelow, nullptr);
    }
    PathItem *pItems = p->answer.days.pItems;
    std::sort(pItems, pItems + p->answer.days.nItems,
              [](const PathItem &a, const PathItem &b) { return strcmp(a.szPath, b.szPath) < 0; });
}

static int RunFacts(DiskJob *pJob)
{
    auto *p = reinterpret_cast<DiskAsk *>(pJob);
    if (p->eStage == ListStage::Begin) {
        Probe(p);
        RecorderEachOpen(TakeOpen, p);
        DayWalkBegin(&p->walk, p->szRoot);
        p->eStage = ListStage::Days;
        return 0;
    }
    if (!IsPointless(p) && DayWalkStep(&p->walk))
        return 0;
    KeepDays(p);
    return Answered(p);
}

static int RunProbe(DiskJob *pJob)
{
    auto *p = reinterpret_cast<DiskAsk *>(pJob);
    Probe(p);
    RecorderEachOpen(TakeOpen, p);
    return Answered(p);
}

// --- A list ---

static int IsRecordingName(const char *szName)
{
    size_t n = strlen(szName);
    return (n > 4 && strcmp(szName + n - 4, ".zmf") == 0) ||
           (n > 8 && strcmp(szName + n - 8, ".zmf.tm!") == 0);
}

// The entries of a directory below the root, which no link leads out of.
static int ReadDir(DiskAsk *p, const char *szBelow,
                   int (*pfnTake)(DiskAsk *, const char *, const struct stat *))
{
    char szDir[kStoragePathSize];
    struct stat info {};
    if (!JoinPath(szDir, sizeof(szDir), p->szRoot, szBelow))
        return 0;
    FdGuard below{ConfineOpenDir(p->szRoot, szDir)};
    DirReader reader(szDir);
    if (below.fd < 0 || !reader.pDir)
        return 0;
    while (const char *szName = reader.Next(&info))
        pfnTake(p, szName, &info);
    return 1;
}

static int TakeDay(DiskAsk *p, const char *szName, const struct stat *pInfo)
{
    char szPath[kStoragePathSize];
    if (!S_ISDIR(pInfo->st_mode) || !IsDate(szName) || (p->szDay[0] && strcmp(szName, p->szDay) != 0) ||
        !JoinPath(szPath, sizeof(szPath), p->szProgram, szName))
        return 0;
    // days before that of the last file told are through
    if (p->szAfter[0] && strncmp(szPath, p->szAfter, strlen(szPath)) < 0)
        return 0;
    return PathListAdd(&p->answer.days, szPath, nullptr);
}

static int TakeFile(DiskAsk *p, const char *szName, const struct stat *pInfo)
{
    char szPath[kStoragePathSize];
    const char *szDay = p->answer.days.pItems[p->answer.days.nNext - 1].szPath;
    if (!S_ISREG(pInfo->st_mode) || !IsRecordingName(szName) ||
        !JoinPath(szPath, sizeof(szPath), szDay, szName) ||
        (p->szAfter[0] && strcmp(szPath, p->szAfter) <= 0))
        return 0;
    return PathListAdd(&p->files, szPath, pInfo);
}

static ListedFacts *NewListed(DiskAnswer *pAnswer)
{
    if (pAnswer->nListed % 64 == 0) {
        void *pNew = realloc(pAnswer->pListed, (pAnswer->nListed + 64) * sizeof(ListedFacts));
        if (!pNew)
            return nullptr;
        pAnswer->pListed = static_cast<ListedFacts *>(pNew);
    }
    ListedFacts *pOut = &pAnswer->pListed[pAnswer->nListed++];
    *pOut = ListedFacts();
    return pOut;
}

static void ReadHead(const DiskAsk *p, ListedFacts *pOut)
{
    char szFile[kStoragePathSize];
    uint8_t bytes[kZmfHeadBytes];
    ZMFileHeader head;
    size_t n = strlen(pOut->szFile);
    int bOpen = n > strlen(kOpenSuffix) && strcmp(pOut->szFile + n - strlen(kOpenSuffix), kOpenSuffix) == 0;
    pOut->szState = "unreadable";
    if (!JoinPath(szFile, sizeof(szFile), p->szRoot, pOut->szFile))
        return;
    FdGuard fd{ConfineOpenFile(p->szRoot, szFile)};
    if (fd.fd < 0 || ReadAt(fd.fd, 0, bytes, sizeof(bytes)) != sizeof(bytes) ||
        !ZMFileHeaderDecode(bytes, sizeof(bytes), &head))
        return;
    TextCopy(pOut->szStart, sizeof(pOut->szStart),
             std::string_view(head.szStartTime, strnlen(head.szStartTime, sizeof(head.szStartTime))));
    pOut->nDurationMs = head.uDuration;
    pOut->nKind = head.nRecordKind;
    pOut->szState = bOpen ? "writing" : head.uDuration == 0 ? "interrupted" : "complete";
}

// The next files of the day. Returns 1 when the list is full.
static int ListSome(DiskAsk *p)
{
    DiskAnswer *pAnswer = &p->answer;
    for (uint32_t i = 0; i < kHeadsPerStep; i++) {
        const PathItem *pItem = PathListNext(&p->files);
        if (!pItem) {
            PathListFree(&p->files);
            p->eStage = ListStage::Files;
            return 0;
        }
        ListedFacts *pOut = pAnswer->nListed < kMaxListed ? NewListed(pAnswer) : nullptr;
        if (!pOut) {
            pAnswer->bMore = 1;
            return 1;
        }
        TextCopy(pOut->szFile, sizeof(pOut->szFile), pItem->szPath);
        pOut->nBytes = pItem->nBytes;
        ReadHead(p, pOut);
    }
    return 0;
}

static int RunList(DiskJob *pJob)
{
    auto *p = reinterpret_cast<DiskAsk *>(pJob);
    switch (IsPointless(p) ? ListStage::Days : p->eStage) {
        case ListStage::Begin:
            p->answer.bThere = ReadDir(p, p->szProgram, TakeDay);
            PathListSortByName(&p->answer.days);
            p->eStage = ListStage::Files;
            return 0;
        case ListStage::Files: {
            const PathItem *pDay = PathListNext(&p->answer.days);
            if (!pDay)
                return Answered(p);
            ReadDir(p, pDay->szPath, TakeFile);
            PathListSortByName(&p->files);
            p->eStage = ListStage::Heads;
            return 0;
        }
        case ListStage::Heads:
            return ListSome(p) ? Answered(p) : 0;
        case ListStage::Days:
            break;
    }
    return Answered(p);
}

// --- Asking ---

static timespec After(uint32_t nMs)
{
    timespec at{};
    clock_gettime(CLOCK_REALTIME, &at);
    int64_t nNs = at.tv_nsec + int64_t{nMs} * 1000000;
    at.tv_sec += static_cast<time_t>(nNs / kNsPerSecond);
    at.tv_nsec = static_cast<long>(nNs % kNsPerSecond);
    return at;
}

// Returns 1 when it is answered.
static int Await(DiskAsk *p, uint32_t nMostMs)
{
    MutexGuard lock(&p->mutex);
    for (uint32_t nMs = 0; !p->bDone && nMs < nMostMs && !g_bStop; nMs += kLookMs) {
        timespec until = After(kLookMs);
        pthread_cond_timedwait(&p->answered, &p->mutex, &until);
    }
    return p->bDone;
}

// A place among those that the disk has not answered; walks wait for one. Returns 1, with the time that is
// left.
static int TakePlace(DiskQuestion eQuestion, uint32_t *pnMostMs)
{
    std::atomic<int> *pnTaken = PlacesOf(eQuestion);
    int nMost = eQuestion == DISK_PROBE ? kMaxProbes : kMaxWalks;
    while (pnTaken->fetch_add(1) >= nMost) {
        --*pnTaken;
        if (eQuestion == DISK_PROBE || *pnMostMs <= kLookMs || g_bStop)
            return 0;
        usleep(kLookMs * 1000);
        *pnMostMs -= kLookMs;
    }
    return 1;
}

DiskAsk *DiskAskFor(DiskQuestion eQuestion, const char *szRoot, const char *szProgram, const char *szDay,
                    const char *szAfter, uint32_t nMostMs)
{
    static int (*const procs[])(DiskJob *) = {RunProbe, RunFacts, RunList};
    if (!TakePlace(eQuestion, &nMostMs))
        return nullptr;
    auto *p = new (std::nothrow) DiskAsk;
    if (!p) {
        --*PlacesOf(eQuestion);
        return nullptr;
    }
    p->eQuestion = eQuestion;
    TextCopy(p->szRoot, sizeof(p->szRoot), szRoot);
    TextCopy(p->szProgram, sizeof(p->szProgram), szProgram);
    TextCopy(p->szDay, sizeof(p->szDay), szDay);
    TextCopy(p->szAfter, sizeof(p->szAfter), szAfter);
    p->job.pfnRun = procs[eQuestion];
    p->job.pfnDone = OnAnswered;
    DiskPost(&p->lane, &p->job);
    if (Await(p, nMostMs))
        return p;
    Release(p);
    return nullptr;
}

const DiskAnswer *DiskAnswerOf(const DiskAsk *pAsk)
{
    return &pAsk->answer;
}

void DiskAskFree(DiskAsk *pAsk)
{
    if (pAsk)
        Release(pAsk);
}

void DiskAskStop(int bStop)
{
    g_bStop = bStop;
}

}  // namespace orx
