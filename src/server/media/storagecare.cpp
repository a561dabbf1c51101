#include "server/media/storagecare.h"

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <new>
#include <utility>

#include "base/console.h"
#include "base/printable.h"
#include "base/textbuf.h"
#include "record/recordevents.h"
#include "record/storage.h"
#include "record/storagekeep.h"
#include "record/zmfrepair.h"
#include "runtime/diskthread.h"
#include "runtime/task.h"
#include "server/core/registry.h"
#include "server/core/settings.h"

namespace orx {

constexpr uint32_t kKeepEveryMs = 3600 * 1000;
constexpr int64_t kProgressMs = 5000;  // between two lines about one file

static std::atomic<int> g_bStop{0};  // set by the main thread

// --- Repair ---

// It frees itself when it is done. The lane has no other job.
struct RepairAll {
    DiskJob job;  // first
    DiskLane lane;
    PathList files;
    const char *szFile = nullptr;  // under way, the list's; null: none
    ZMFRepair repair;
    int64_t nSaidMs = 0;
};

// Goes on to the next file. Returns 0 when there is none.
static int NextFile(RepairAll *p)
{
    struct stat info {};
    const PathItem *pItem = PathListNext(&p->files);
    if (!pItem)
        return 0;
    if (stat(pItem->szPath, &info) != 0 ||  // it made room meanwhile
        (info.st_size < kRecoverMinBytes && StorageDropKeyless(pItem->szPath)))
        return 1;
    PrintableText file(pItem->szPath);
    p->nSaidMs = RecordSteadyMs();
    p->repair = ZMFRepair{};
    if (ZMFRepairOpen(&p->repair, pItem->szPath)) {
        p->szFile = pItem->szPath;
        return 1;
    }
    int nErrno = errno;
    print("The interrupted file (%s) is left as it is: %s.\r\n", file.sz,
          nErrno ? strerror(nErrno) : "it is no recording");
    RecordSay(EventLevel::Warn, "recording.not_repaired",
              {nullptr, pItem->szPath, nErrno ? "it cannot be read" : "it is no recording", nErrno});
    ZMFRepairClose(&p->repair);
    return 1;
}

static void TellResult(const RepairAll *p, ZMFRepairResult nResult)
{
    PrintableText file(p->szFile);
    const ZMFRepair *pRepair = &p->repair;
    if (nResult == ZMF_REPAIR_BROKEN) {
        print("The interrupted file (%s) is left as it is: %s.\r\n", file.sz, pRepair->szReason);
        RecordSay(EventLevel::Warn, "recording.not_repaired", {nullptr, p->szFile, pRepair->szReason});
    } else if (nResult == ZMF_REPAIR_DONE) {
        print("The interrupted file (%s) is repaired: %u s.\r\n", file.sz, pRepair->head.uDuration / 1000);
        log("The interrupted file (%s) is repaired: %u s.", file.sz, pRepair->head.uDuration / 1000);
        RecordSay(EventLevel::Info, "recording.repaired",
                  {nullptr, p->szFile, nullptr, 0, static_cast<int>(pRepair->head.uDuration / 1000)});
    }
}

static void TellProgress(RepairAll *p)
{
    int64_t nNow = RecordSteadyMs();
    if (nNow - p->nSaidMs < kProgressMs || p->repair.nBytes == 0)
        return;
    p->nSaidMs = nNow;
    print("The interrupted file (%s): %u %% are looked through.\r\n", PrintableText(p->szFile).sz,
          static_cast<unsigned>(p->repair.nDone * 100 / p->repair.nBytes));
}

static int RunRepair(DiskJob *pJob)
{
    auto *p = reinterpret_cast<RepairAll *>(pJob);
    if (!g_bStop && !p->szFile)
        return !NextFile(p);
    ZMFRepairResult nResult = g_bStop ? ZMF_REPAIR_WHOLE : ZMFRepairStep(&p->repair);
    if (nResult == ZMF_REPAIR_MORE) {
        TellProgress(p);
        return 0;
    }
    if (p->szFile)
        TellResult(p, nResult);
    ZMFRepairClose(&p->repair);
    p->szFile = nullptr;
    return g_bStop;
}

static void OnRepaired(DiskJob *pJob)
{
    auto *p = reinterpret_cast<RepairAll *>(pJob);
    PathListFree(&p->files);
    delete p;
}

static void StartRepair(PathList *pInterrupted)
{
    if (pInterrupted->nItems == 0)
        return;
    auto *p = new (std::nothrow) RepairAll;
    if (!p) {
        PathListFree(pInterrupted);
        return;
    }
    p->files = std::exchange(*pInterrupted, PathList{});
    p->job.pfnRun = RunRepair;
    p->job.pfnDone = OnRepaired;
    DiskPost(&p->lane, &p->job);
}

// --- Days ---

struct KeepAll {
    DiskJob job;  // first
    DiskLane lane;
    StorageKeep keep;
    int bBegun = 0;
    char szRoot[kRecordPathSize] = "";  // as the settings were when it was posted
    uint32_t nDays = 0;
};

static Task *g_pKeep = nullptr;  // looks each hour; null: nothing is too old. Scheduler thread

static int RunKeep(DiskJob *pJob)
{
    auto *p = reinterpret_cast<KeepAll *>(pJob);
    if (!p->bBegun)
        StorageKeepBegin(&p->keep, p->szRoot, p->nDays);
    p->bBegun = 1;
    if (!g_bStop && StorageKeepStep(&p->keep))
        return 0;
    StorageKeepFree(&p->keep);
    return 1;
}

static void OnKept(DiskJob *pJob)
{
    delete reinterpret_cast<KeepAll *>(pJob);
}

// Should one take longer than an hour, the next only goes over what it has left.
static int OnKeepDue(Task *, uint32_t, uint32_t, uint32_t)
{
    if (g_settings.nKeepDays == 0) {
        g_pKeep = nullptr;
        return -1;
    }
    auto *p = new (std::nothrow) KeepAll;
    if (p) {
        TextCopy(p->szRoot, sizeof(p->szRoot), g_settings.szRecordPath);
        p->nDays = g_settings.nKeepDays;
        p->job.pfnRun = RunKeep;
        p->job.pfnDone = OnKept;
        DiskPost(&p->lane, &p->job);
    }
    return kKeepEveryMs;
}

void StorageCareStart(PathList *pInterrupted)
{
    g_bStop = 0;
    StartRepair(pInterrupted);
    g_pKeep = nullptr;
    StorageCareFollowSettings();
}

void StorageCareFollowSettings()
{
    if (!g_pKeep && g_settings.nKeepDays > 0)
        g_pKeep = TaskSchedule(&g_server.scheduler, OnKeepDue, 0, 0, nullptr);
}

void StorageCareStop()
{
    g_bStop = 1;
}

}  // namespace orx
