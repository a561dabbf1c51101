#include "record/storagekeep.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <ctime>

#include "base/console.h"
#include "base/printable.h"
#include "base/textbuf.h"
#include "record/recordevents.h"
#include "record/storage.h"

namespace orx {

void StorageKeepBegin(StorageKeep *pKeep, const char *szRoot, uint32_t nDays)
{
    StorageKeepFree(pKeep);
    time_t tNow = RecordTime();
    tm day{};
    localtime_r(&tNow, &day);
    day.tm_mday -= static_cast<int>(nDays);
    day.tm_hour = 12;  // far from the hours that a change of daylight saving moves
    day.tm_isdst = -1;
    mktime(&day);
    TextBuf first{pKeep->szFirst, sizeof(pKeep->szFirst)};
    if (!TextAdd(&first, "%04d%02d%02d", day.tm_year + 1900, day.tm_mon + 1, day.tm_mday))
        return;
    DayWalkBegin(&pKeep->walk, szRoot);
    pKeep->bWalking = 1;
}

// Lists a directory with all that is in it, following no link.
static void ListTree(PathList *pTree, const char *szDir, int nDepth)
{
    {
        DirReader dir(szDir);
        char szPath[kStoragePathSize];
        struct stat info {};
        while (const char *szName = dir.Next(&info)) {
            if (!JoinPath(szPath, sizeof(szPath), szDir, szName))
                continue;
            if (!S_ISDIR(info.st_mode))
                PathListAdd(pTree, szPath, &info);
            else if (nDepth < kMaxDirDepth)
                ListTree(pTree, szPath, nDepth + 1);
        }
    }
    PathListAdd(pTree, szDir, nullptr);
}

// Goes on to the next day that is old enough. Returns 1, or 0 when there is none.
static int BeginDay(StorageKeep *pKeep)
{
    PathListFree(&pKeep->tree);
    const PathItem *pDay = PathListNext(&pKeep->walk.days);
    if (!pDay || strcmp(strrchr(pDay->szPath, '/') + 1, pKeep->szFirst) >= 0)  // they are in order
        return 0;
    pKeep->szDay = pDay->szPath;
    if (!StorageIsHeld(pKeep->szDay))
        ListTree(&pKeep->tree, pKeep->szDay, 0);
    return 1;
}

static void Delete(const char *szPath)
{
    if (rmdir(szPath) == 0 || unlink(szPath) != 0)
        return;
    print("The old file (%s) is removed.\r\n", PrintableText(szPath).sz);
    log("The old file (%s) is removed.", PrintableText(szPath).sz);
    RecordSay(EventLevel::Info, "recording.deleted", {nullptr, szPath, "it was older than KeepDays"});
}

int StorageKeepStep(StorageKeep *pKeep)
{
    if (pKeep->bWalking) {
        pKeep->bWalking = DayWalkStep(&pKeep->walk);
        if (!pKeep->bWalking)
            PathListSortByName(&pKeep->walk.days);
        return 1;
    }
    const PathItem *pItem = PathListNext(&pKeep->tree);
    if (pItem && !StorageIsHeld(pKeep->szDay)) {
        Delete(pItem->szPath);
        return 1;
    }
    return BeginDay(pKeep);
}

void StorageKeepFree(StorageKeep *pKeep)
{
    DayWalkFree(&pKeep->walk);
    PathListFree(&pKeep->tree);
    *pKeep = StorageKeep{};
}

}  // namespace orx
