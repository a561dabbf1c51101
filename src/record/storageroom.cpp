#include "record/storageroom.h"

#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "base/assertion.h"
#include "base/console.h"
#include "base/printable.h"
#include "base/textbuf.h"
#include "record/recordevents.h"

namespace orx {

constexpr char kExtension[] = ".zmf";
constexpr size_t kExtensionLen = 4;

int StorageFindOldestDay(char *szDay, size_t nSize, const char *szProgramDir, const char *szSkip)
{
    char szDir[kStoragePathSize];
    if (!TextCopy(szDir, sizeof(szDir), szProgramDir))
        return 0;
    size_t nDir = strlen(szDir);
    if (nDir > 1 && szDir[nDir - 1] == '/')
        szDir[nDir - 1] = '\0';
    struct stat info {};
    if (stat(szDir, &info) != 0)
        return 0;
    DirReader dir(szDir);
    if (!dir.pDir) {
        print("opendir(%s) failed!\n", PrintableText(szDir).sz);
        return 0;
    }
    char szOldest[sizeof(StorageRoom::szSkip)] = "";
    while (const char *szName = dir.Next(&info)) {
        if (!S_ISDIR(info.st_mode) || !IsDayName(szName) || (szSkip && strcmp(szName, szSkip) == 0))
            continue;
        if (!*szOldest || strcmp(szName, szOldest) < 0)
            TextCopy(szOldest, sizeof(szOldest), szName);
    }
    if (!*szOldest || !JoinPath(szDay, nSize, szDir, szOldest))
        return 0;
    print("The oldest path is %s.\n", PrintableText(szDay).sz);
    return 1;
}

static int IsRecording(const char *szName, const struct stat *pInfo)
{
    size_t nLen = strlen(szName);
    return !S_ISDIR(pInfo->st_mode) && nLen > kExtensionLen &&
           strcmp(szName + nLen - kExtensionLen, kExtension) == 0;
}

// The recordings of a directory, the oldest first.
static void ListFiles(PathList *pFiles, const char *szDir, int bOnlyScheduled)
{
    DirReader dir(szDir);
    if (!dir.pDir)
        print("opendir(%s) failed!\n", PrintableText(szDir).sz);
    char szFile[kStoragePathSize];
    struct stat info {};
    while (const char *szName = dir.Next(&info))
        if (IsRecording(szName, &info) && (!bOnlyScheduled || szName[0] == 'S') &&
            JoinPath(szFile, sizeof(szFile), szDir, szName))
            PathListAdd(pFiles, szFile, &info);
    PathListSortByAge(pFiles);
}

static int DeleteFile(const char *szFile, const char *szDir, int bLog)
{
    if (unlink(szFile) != 0) {
        RecordSay(EventLevel::Error, "recording.not_deleted", {nullptr, szFile, nullptr, errno});
        print("Remove the oldest file (%s) failed!\n", PrintableText(szFile).sz);
        return 0;
    }
    print("The oldest file (%s) is removed.\n", PrintableText(szFile).sz);
    if (bLog)
        log("The oldest file (%s) is removed.", PrintableText(szFile).sz);
    RecordSay(EventLevel::Info, "recording.deleted", {nullptr, szFile, "to make room"});
    rmdir(szDir);  // goes only when empty, and so never while a file in it is being written
    return 1;
}

int StorageDeleteOldestFile(const char *szDir, int bOnlyScheduled)
{
    PathList files;
    ListFiles(&files, szDir, bOnlyScheduled);
    int bDeleted = files.nItems > 0 && DeleteFile(files.pItems[0].szPath, szDir, 0);
    if (files.nItems == 0)
        rmdir(szDir);
    PathListFree(&files);
    return bDeleted;
}

static void ForgetFiles(StorageRoom *pRoom)
{
    PathListFree(&pRoom->files);
    pRoom->szFilesDir[0] = '\0';
}

// Remembers how the directory of the list was left.
static void NoteChanged(StorageRoom *pRoom)
{
    struct stat info {};
    if (stat(pRoom->szFilesDir, &info) != 0)
        pRoom->szFilesDir[0] = '\0';
    pRoom->filesChanged = info.st_mtim;
}

// Whether the list still tells what is in the directory.
static int IsListed(const StorageRoom *pRoom, const char *szDir)
{
    struct stat info {};
    return pRoom->szFilesDir[0] && strcmp(szDir, pRoom->szFilesDir) == 0 && stat(szDir, &info) == 0 &&
           info.st_mtim.tv_sec == pRoom->filesChanged.tv_sec &&
           info.st_mtim.tv_nsec == pRoom->filesChanged.tv_nsec;
}

// The oldest file of the directory that is still there, with what lstat says of it; null without one. A list
// that is used up is read anew, for what was finished meanwhile.
static const char *OldestFile(StorageRoom *pRoom, const char *szDir, struct stat *pInfo)
{
    for (int nRead = 0; nRead < 2; nRead++) {
        if (strcmp(szDir, pRoom->szFilesDir) == 0)
            while (const PathItem *pItem = PathListNext(&pRoom->files))
                if (lstat(pItem->szPath, pInfo) == 0)
                    return pItem->szPath;
        ForgetFiles(pRoom);
        if (nRead > 0)
            break;
        TextCopy(pRoom->szFilesDir, sizeof(pRoom->szFilesDir), szDir);
        NoteChanged(pRoom);  // before the reading: what comes during it is a change
        ListFiles(&pRoom->files, szDir, 0);
        TextCopy(pRoom->szFilesDir, sizeof(pRoom->szFilesDir), szDir);
    }
    return nullptr;
}

// Bytes free for anybody at all: those kept for the administrator count, as a deletion fills them up first.
static uint64_t FreeBytes(const char *szDir)
{
    struct statvfs info {};
    if (statvfs(szDir, &info) != 0)
        return 0;
    return uint64_t{info.f_bfree} * (info.f_frsize ? info.f_frsize : info.f_bsize);
}

// Before a deletion: a row begins with the first, and anew when the last one was long ago.
static void WatchBefore(StorageRoom *pRoom, int64_t nNowMs)
{
    if (pRoom->nDeleted == 0 || nNowMs - pRoom->nLastMs > kVainPauseMs) {
        pRoom->nDeleted = 0;
        pRoom->nHeld = 0;
        pRoom->nFreeBefore = FreeBytes(pRoom->szDir) + StorageRecordedBytes();
    }
    pRoom->nLastMs = nNowMs;
}

// After it: what goes elsewhere as fast as it is freed is no room to be made. Our own recordings take their
// part, so that what they wrote counts as free; and half is enough, as file systems have their ways.
static void WatchAfter(StorageRoom *pRoom, uint64_t nHeld)
{
    pRoom->nHeld += nHeld;
    if (++pRoom->nDeleted < kVainDeletions)
        return;
    pRoom->nDeleted = 0;
    if (FreeBytes(pRoom->szDir) + StorageRecordedBytes() >= pRoom->nFreeBefore + pRoom->nHeld / 2)
        return;
    pRoom->nPauseUntilMs = pRoom->nLastMs + kVainPauseMs;
    PrintableText dir(pRoom->szDir);
    print("%u deletions for %s gave no room, the next one waits a minute.\r\n", kVainDeletions, dir.sz);
    log("%u deletions for %s gave no room, the next one waits a minute.", kVainDeletions, dir.sz);
    RecordSay(EventLevel::Warn, "storage.no_gain",
              {nullptr, pRoom->szDir, "ten deletions gave no room: the next one waits a minute"});
}

static int IsPausing(StorageRoom *pRoom)
{
    if (pRoom->nPauseUntilMs && RecordSteadyMs() >= pRoom->nPauseUntilMs)
        pRoom->nPauseUntilMs = 0;
    return pRoom->nPauseUntilMs != 0;
}

// Deletes one recording of the directory, or finds that there is none. Returns 1 when one was deleted.
static int DeleteOne(StorageRoom *pRoom, const char *szDir)
{
    struct stat info {};
    const char *szFile = OldestFile(pRoom, szDir, &info);
    if (!szFile) {
        rmdir(szDir);
        return 0;
    }
    if (pRoom->bWatch)
        WatchBefore(pRoom, RecordSteadyMs());
    if (!DeleteFile(szFile, szDir, pRoom->bLog)) {
        ForgetFiles(pRoom);
        return 0;
    }
    NoteChanged(pRoom);
    if (pRoom->bWatch)
        WatchAfter(pRoom, static_cast<uint64_t>(info.st_blocks) * 512);
    return 1;
}

static RoomResult End(StorageRoom *pRoom, RoomResult eResult)
{
    pRoom->eStage = RoomStage::Idle;
    DayWalkFree(&pRoom->walk);
    return eResult;
}

static RoomResult LookAtSpace(StorageRoom *pRoom)
{
    if (IsEnoughFreeDiskSpace(pRoom->szDir, pRoom->nMB) != 0)
        return End(pRoom, RoomResult::There);
    return pRoom->bWatch && IsPausing(pRoom) ? End(pRoom, RoomResult::None) : RoomResult::More;
}

// The program has nothing more to give.
static RoomResult GoOnWithOthers(StorageRoom *pRoom)
{
    if (!pRoom->szRoot[0])
        return End(pRoom, RoomResult::None);
    DayWalkBegin(&pRoom->walk, pRoom->szRoot);
    pRoom->eStage = RoomStage::Search;
    return RoomResult::More;
}

static RoomResult StepOwn(StorageRoom *pRoom)
{
    char *szSkip = pRoom->szSkip;
    if (!DeleteOne(pRoom, pRoom->szDay)) {
        if (!StorageSetDayAside(pRoom->szDay)) {
            if (*szSkip)
                return GoOnWithOthers(pRoom);
            TextCopy(szSkip, sizeof(pRoom->szSkip), strrchr(pRoom->szDay, '/') + 1);
        }
        if (!StorageFindOldestDay(pRoom->szDay, sizeof(pRoom->szDay), pRoom->szDir,
                                  *szSkip ? szSkip : nullptr))
            return GoOnWithOthers(pRoom);
    }
    return LookAtSpace(pRoom);
}

static RoomResult StepSearch(StorageRoom *pRoom)
{
    if (DayWalkStep(&pRoom->walk))
        return RoomResult::More;
    PathListSortByName(&pRoom->walk.days);
    pRoom->szDay[0] = '\0';
    pRoom->eStage = RoomStage::Others;
    return RoomResult::More;
}

static RoomResult StepOthers(StorageRoom *pRoom)
{
    if (!pRoom->szDay[0] || !DeleteOne(pRoom, pRoom->szDay)) {
        const PathItem *pDay = PathListNext(&pRoom->walk.days);
        if (!pDay)
            return End(pRoom, RoomResult::None);
        TextCopy(pRoom->szDay, sizeof(pRoom->szDay), pDay->szPath);
        return RoomResult::More;
    }
    return LookAtSpace(pRoom);
}

RoomResult StorageRoomStep(StorageRoom *pRoom)
{
    switch (pRoom->eStage) {
        case RoomStage::Idle:
            return RoomResult::None;
        case RoomStage::Plain:
            return DeleteOne(pRoom, pRoom->szDir) ? LookAtSpace(pRoom) : End(pRoom, RoomResult::None);
        case RoomStage::Own:
            return StepOwn(pRoom);
        case RoomStage::Search:
            return StepSearch(pRoom);
        case RoomStage::Others:
            return StepOthers(pRoom);
    }
    return RoomResult::None;
}

static RoomResult BeginByDays(StorageRoom *pRoom, const char *szDir)
{
    if (!StorageDirOf(pRoom->szDir, sizeof(pRoom->szDir), szDir))
        return End(pRoom, RoomResult::None);
    pRoom->eStage = RoomStage::Own;
    pRoom->szSkip[0] = '\0';
    if (!StorageFindOldestDay(pRoom->szDay, sizeof(pRoom->szDay), pRoom->szDir, nullptr))
        return GoOnWithOthers(pRoom);
    return RoomResult::More;
}

RoomResult StorageRoomBegin(StorageRoom *pRoom, const char *szDir, int bDateLayout, uint32_t nMB, int bDelete,
                            const RecordRules *pRules, const char *szRoot)
{
    ORX_ASSERT(nMB > 0, "nSpaceInMB > 0");
    End(pRoom, RoomResult::None);
    pRoom->nMB = nMB;
    pRoom->bLog = pRoom->bWatch = pRules && pRules->bNeverLose;
    TextCopy(pRoom->szRoot, sizeof(pRoom->szRoot), pRoom->bWatch && szRoot ? szRoot : "");
    if (IsEnoughFreeDiskSpace(szDir, nMB) != 0)
        return RoomResult::There;
    if (!bDelete || (pRoom->bWatch && IsPausing(pRoom)) ||
        !TextCopy(pRoom->szDir, sizeof(pRoom->szDir), szDir))
        return RoomResult::None;
    if (pRoom->szFilesDir[0] && !IsListed(pRoom, pRoom->szFilesDir))
        ForgetFiles(pRoom);
    if (bDateLayout)
        return BeginByDays(pRoom, szDir);
    pRoom->eStage = RoomStage::Plain;
    return RoomResult::More;
}

void StorageRoomFree(StorageRoom *pRoom)
{
    End(pRoom, RoomResult::None);
    ForgetFiles(pRoom);
}

int StorageMakeRoom(const char *szDir, int bDateLayout, uint32_t nMB, int bDelete)
{
    StorageRoom room;
    RoomResult eResult = StorageRoomBegin(&room, szDir, bDateLayout, nMB, bDelete);
    while (eResult == RoomResult::More)
        eResult = StorageRoomStep(&room);
    StorageRoomFree(&room);
    return eResult == RoomResult::There;
}

int CheckPathReserveSpace(const char *szRoot, const char *szSubPath, int bDateLayout, uint32_t nMB,
                          int bDelete)
{
    char szDir[kStoragePathSize];
    ORX_ASSERT(nMB > 0, "nSpaceInMB > 0");
    if (!JoinPath(szDir, sizeof(szDir), szRoot, szSubPath))
        return 0;
    size_t nDir = strlen(szDir);
    if (nDir > 1 && szDir[nDir - 1] == '/')
        szDir[nDir - 1] = '\0';
    return StorageMakeRoom(szDir, bDateLayout, nMB, bDelete);
}

}  // namespace orx
