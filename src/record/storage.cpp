#include "record/storage.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "base/console.h"
#include "base/fdguard.h"
#include "base/printable.h"
#include "base/textbuf.h"
#include "record/confine.h"
#include "record/daywalk.h"
#include "record/recordevents.h"
#include "record/recordwalk.h"
#include "record/zmfile.h"

namespace orx {

constexpr size_t kDayNameLen = 8;  // YYYYMMDD
constexpr char kExtension[] = ".zmf";
constexpr int kOldDaysMaxAge = 1000000;  // days, far beyond the years of the calendar's four digits

static std::atomic<int64_t> g_nTimeOffset;    // these three are for tests only, set by any thread
static std::atomic<int64_t> g_nSteadyOffset;  // ms
static std::atomic<time_t> g_tHold;
static uint64_t g_nRecorded;              // bytes, the thread that records
static OpenRecording *g_pOpenRecordings;  // the thread that records

time_t RecordTime()
{
    time_t tHold = g_tHold;
    return tHold ? tHold : time(nullptr) + static_cast<time_t>(g_nTimeOffset);
}

void RecordTimeSetOffset(int64_t nSeconds)
{
    g_nTimeOffset = nSeconds;
    g_tHold = 0;
}

void RecordTimeHold(time_t tWhen)
{
    g_tHold = tWhen;
}

int64_t RecordSteadyMs()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000 + g_nSteadyOffset;
}

void RecordSteadySetOffset(int64_t nMs)
{
    g_nSteadyOffset = nMs;
}

static tm LocalTime(time_t tWhen)
{
    tm local{};
    localtime_r(&tWhen, &local);
    return local;
}

static int EndsWith(const char *szText, const char *szEnd)
{
    size_t nText = strlen(szText);
    size_t nEnd = strlen(szEnd);
    return nText >= nEnd && strcmp(szText + nText - nEnd, szEnd) == 0;
}

// A program may have its recordings below another one's day, so a directory alone tells too little.
int StorageIsHeld(const char *szDir)
{
    FdGuard dir{open(szDir, O_PATH | O_DIRECTORY | O_CLOEXEC)};
    for (const OpenRecording *p = g_pOpenRecordings; dir.fd >= 0 && p; p = p->pNext)
        if (ConfineIsBelow(dir.fd, p->fdDir))
            return 1;
    return 0;
}

// Whether a recording in progress has the name in this very directory; null: any name.
static int IsDirectoryHeld(const struct stat *pDir, const char *szName)
{
    for (const OpenRecording *p = g_pOpenRecordings; p; p = p->pNext)
        if (p->nDevice == pDir->st_dev && p->nDirectory == pDir->st_ino &&
            (!szName || strcmp(p->szName, szName) == 0))
            return 1;
    return 0;
}

void StorageHold(OpenRecording *pOpen, const char *szDir, const char *szName)
{
    struct stat info {};
    if (pOpen->bHeld)
        return;
    FdGuard dir{open(*szDir ? szDir : ".", O_PATH | O_DIRECTORY | O_CLOEXEC)};
    if (dir.fd < 0 || fstat(dir.fd, &info) != 0)
        return;
    TextCopy(pOpen->szName, sizeof(pOpen->szName), szName);
    pOpen->fdDir = dir.Release();
    pOpen->nDevice = info.st_dev;
    pOpen->nDirectory = info.st_ino;
    pOpen->bHeld = 1;
    pOpen->pNext = g_pOpenRecordings;
    g_pOpenRecordings = pOpen;
}

uint64_t StorageRecordedBytes()
{
    return g_nRecorded;
}

void StorageCountRecorded(uint64_t nBytes)
{
    g_nRecorded += nBytes;
}

void StorageRelease(OpenRecording *pOpen)
{
    for (OpenRecording **pp = &g_pOpenRecordings; *pp; pp = &(*pp)->pNext) {
        if (*pp == pOpen) {
            *pp = pOpen->pNext;
            break;
        }
    }
    FdGuard dir{pOpen->fdDir};
    *pOpen = OpenRecording{};
}

int IsEnoughFreeDiskSpace(const char *szPath, uint32_t nMB)
{
    if (!szPath || !*szPath) {
        print("IsEnoughFreeDiskSpace(null): invalid path to check!!!\r");
        return -1;
    }
    struct statvfs info {};
    if (statvfs(szPath, &info) != 0 || info.f_blocks == 0) {
        print("statvfs(%s) failed!\r\n", PrintableText(szPath).sz);
        return -1;
    }
    uint64_t nBlockBytes = info.f_frsize ? info.f_frsize : info.f_bsize;  // the unit that f_bavail counts in
    return uint64_t{info.f_bavail} * (nBlockBytes / 1024) >= uint64_t{nMB} * 1024;
}

int StorageMakeDir(const char *szPath)
{
    char szLevel[kStoragePathSize];
    if (!TextCopy(szLevel, sizeof(szLevel), szPath))
        return 0;
    for (char *p = szLevel; *p; p++) {
        if (*p != '/' || p == szLevel)
            continue;
        *p = '\0';
        mkdir(szLevel, 0755);  // a level that fails shows in the last one
        *p = '/';
    }
    mkdir(szLevel, 0755);
    struct stat info {};
    return stat(szLevel, &info) == 0 && S_ISDIR(info.st_mode);
}

int StorageDirOf(char *szDir, size_t nSize, const char *szPath)
{
    const char *pSlash = strrchr(szPath, '/');
    size_t nLen = pSlash ? static_cast<size_t>(pSlash - szPath) : 0;
    TextBuf dir{szDir, nSize};
    szDir[0] = '\0';
    if (!pSlash)
        return 0;
    return TextAddBytes(&dir, szPath, nLen > 0 ? nLen : 1);
}

int StorageIsInside(const char *szName)
{
    for (const char *p = szName; p; p = strchr(p, '/')) {
        if (*p == '/')
            p++;
        if (p[0] == '.' && (p[1] == '/' || p[1] == '\0' || (p[1] == '.' && (p[2] == '/' || p[2] == '\0'))))
            return 0;
    }
    return 1;
}

int StorageProgramPath(char *szOut, size_t nSize, const char *szUri)
{
    TextBuf path{szOut, nSize};
    szOut[0] = '\0';
    for (const char *p = szUri; *p;) {
        size_t nPart = strcspn(p, "/");
        if (nPart > 0 && (!TextAdd(&path, "%s", path.nLen > 0 ? "/" : "") || !TextAddBytes(&path, p, nPart)))
            return 0;
        p += nPart + (p[nPart] == '/');
    }
    return 1;
}

int StorageNamePath(char *szPath, size_t nSize, const char *szRoot, const char *szProgram, int nKind)
{
    static const char letters[] = {'S', 'A', 'M'};
    if (nKind < RECORD_SCHEDULED || nKind > RECORD_MANUAL)
        return 0;
    tm now = LocalTime(RecordTime());
    int bTree = szRoot && *szRoot && szProgram && *szProgram;
    TextBuf path{szPath, nSize};
    if (bTree) {
        if (!StorageIsInside(szProgram) || !TextAdd(&path, "%s%s", szRoot, szProgram))
            return 0;
        if (!TextAdd(&path, "%c%04u%02u%02u", '/', static_cast<unsigned>(now.tm_year + 1900),
                     static_cast<unsigned>(now.tm_mon + 1), static_cast<unsigned>(now.tm_mday)))
            return 0;
    } else {
        path.nLen = strnlen(szPath, nSize - 1);
    }
    if (!TextAdd(&path, "%s%c%02u%02u%02u%s", bTree ? "/" : "", letters[nKind - 1],
                 static_cast<unsigned>(now.tm_hour), static_cast<unsigned>(now.tm_min),
                 static_cast<unsigned>(now.tm_sec), kExtension))
        return 0;
    return 1;
}

static int IsThere(const char *szPath, const char *szSuffix)
{
    char szFile[kStoragePathSize];
    TextBuf path{szFile, sizeof(szFile)};
    struct stat info {};
    return TextAdd(&path, "%s%s", szPath, szSuffix) && lstat(szFile, &info) == 0;
}

int StorageFreePath(char *szPath, size_t nSize, int bKeep)
{
    char szDir[kStoragePathSize];
    char szFree[kStoragePathSize];
    struct stat dir {};
    if (!StorageDirOf(szDir, sizeof(szDir), szPath))
        TextCopy(szDir, sizeof(szDir), ".");
    if (stat(szDir, &dir) != 0)  // nothing in it has a name
        return 1;
    for (unsigned i = 0; i <= kMaxVariants && ConfineVariant(szFree, sizeof(szFree), szPath, i); i++) {
        const char *pSlash = strrchr(szFree, '/');
        if (IsDirectoryHeld(&dir, pSlash ? pSlash + 1 : szFree))
            continue;
        if (!bKeep || (!IsThere(szFree, "") && !IsThere(szFree, kOpenSuffix)))
            return TextCopy(szPath, nSize, szFree);
    }
    return 0;
}

int StorageNextPath(char *szPath, size_t nSize, const char *szRoot, const char *szProgram, int nKind,
                    int bKeep)
{
    char szDir[kStoragePathSize];
    if (!StorageNamePath(szPath, nSize, szRoot, szProgram, nKind))
        return 0;
    if (szRoot && *szRoot && szProgram && *szProgram && StorageDirOf(szDir, sizeof(szDir), szPath))
        StorageMakeDir(szDir);
    if (!StorageFreePath(szPath, nSize, bKeep))
        return 0;
    if (!bKeep)
        unlink(szPath);
    return 1;
}

int StorageSetDayAside(const char *szDay)
{
    struct stat info {};
    if (lstat(szDay, &info) != 0)
        return 1;
    char szBad[kStoragePathSize];
    TextBuf bad{szBad, sizeof(szBad)};
    return !StorageIsHeld(szDay) && TextAdd(&bad, "%s.bad", szDay) && rename(szDay, szBad) == 0;
}

static constexpr char kNoPicture[] = "it was interrupted and held no picture";

// Gives one interrupted file its final name or deletes it.
static void Settle(const char *szFile, const struct stat *pInfo, int bKeep, PathList *pRepair)
{
    char szFinal[kStoragePathSize];
    char szFree[kStoragePathSize];
    TextBuf path{szFinal, sizeof(szFinal)};
    int64_t nLeast = pRepair ? kZmfHeadBytes : kRecoverMinBytes;
    if (pInfo->st_size < nLeast || !TextAddBytes(&path, szFile, strlen(szFile) - strlen(kOpenSuffix))) {
        if (unlink(szFile) == 0 && pRepair) {
            log("The interrupted file (%s) held no picture and is removed.", PrintableText(szFile).sz);
            RecordSay(EventLevel::Info, "recording.deleted", {nullptr, szFile, kNoPicture});
        }
        return;
    }
    int bNamed = bKeep ? ConfineRename(AT_FDCWD, szFile, szFinal, szFree, sizeof(szFree))
                       : rename(szFile, szFinal) == 0;
    if (pRepair)
        PathListAdd(pRepair, !bNamed ? szFile : bKeep ? szFree : szFinal, pInfo);
}

static void RecoverBelow(const char *szDir, int nDepth, int bKeep, PathList *pRepair)
{
    DirReader dir(szDir);
    struct stat self {};
    if (!dir.pDir || fstat(dirfd(dir.pDir), &self) != 0 || IsDirectoryHeld(&self, nullptr))
        return;
    char szPath[kStoragePathSize];
    struct stat info {};
    while (const char *szName = dir.Next(&info)) {
        if (!JoinPath(szPath, sizeof(szPath), szDir, szName))
            continue;
        if (S_ISDIR(info.st_mode) && szName[0] != '.' && nDepth < kMaxDirDepth)
            RecoverBelow(szPath, nDepth + 1, bKeep, pRepair);
        else if (S_ISREG(info.st_mode) && EndsWith(szName, kOpenSuffix))
            Settle(szPath, &info, bKeep, pRepair);
    }
}

void StorageRecover(const char *szRoot, int bKeep, PathList *pRepair)
{
    if (szRoot && *szRoot)
        RecoverBelow(szRoot, 0, bKeep, pRepair);
}

// Whether the file was read and holds no key frame. One that the disk does not give is kept.
static int IsKeyless(int fd)
{
    uint8_t bytes[kZmfHeadBytes];
    ZMFileHeader head;
    struct stat info {};
    if (fstat(fd, &info) != 0)
        return 0;
    size_t nRead = ReadAt(fd, 0, bytes, sizeof(bytes));
    if (!ZMFileHeaderDecode(bytes, nRead, &head))
        return nRead == std::min<uint64_t>(static_cast<uint64_t>(info.st_size), sizeof(bytes));
    RecordWalk walk =
        RecordWalkFrom(fd, static_cast<uint64_t>(info.st_size), ZMFileDataOffset(&head), kAllWork);
    ZMFRecordHead record;
    while (RecordWalkNext(&walk, &record) == 1)
        if (IsKeyRecord(&record))
            return 0;
    return walk.nFileBytes < walk.nNext + kZmfRecordHeadBytes || RecordWalkHolds(&walk);
}

int StorageDropKeyless(const char *szFile)
{
    FdGuard file{open(szFile, O_RDONLY | O_NOFOLLOW | O_CLOEXEC)};
    if (file.fd < 0 || !IsKeyless(file.fd) || unlink(szFile) != 0)
        return 0;
    log("The interrupted file (%s) held no picture and is removed.", PrintableText(szFile).sz);
    RecordSay(EventLevel::Info, "recording.deleted", {nullptr, szFile, kNoPicture});
    return 1;
}

// Removes a directory with everything in it, following no link.
static void RemoveTree(const char *szDir)
{
    {
        DirReader dir(szDir);
        char szPath[kStoragePathSize];
        struct stat info {};
        while (const char *szName = dir.Next(&info)) {
            if (!JoinPath(szPath, sizeof(szPath), szDir, szName))
                continue;
            if (S_ISDIR(info.st_mode))
                RemoveTree(szPath);
            else
                unlink(szPath);
        }
    }
    rmdir(szDir);
}

struct OldDays {
    char names[kOldDaysSpan + 1][kDayNameLen + 1] = {};  // empty: none, the date has not that many digits
};

static void NameOldDays(OldDays *pDays, int nFirstAge)
{
    const tm today = LocalTime(RecordTime());
    if (nFirstAge < -kOldDaysMaxAge || nFirstAge > kOldDaysMaxAge)
        return;
    for (char(&szDay)[kDayNameLen + 1] : pDays->names) {
        tm day = today;
        day.tm_mday -= nFirstAge++;
        day.tm_hour = 12;  // far from the hours that a change of daylight saving moves
        day.tm_isdst = -1;
        mktime(&day);
        TextBuf name{szDay, sizeof(szDay)};
        TextAdd(&name, "%04u%02u%02u", static_cast<unsigned>(day.tm_year + 1900),
                static_cast<unsigned>(day.tm_mon + 1), static_cast<unsigned>(day.tm_mday));
    }
}

static void RemoveDays(const char *szProgramDir, const OldDays *pDays)
{
    for (const auto &szDay : pDays->names) {
        char szPath[kStoragePathSize];
        struct stat info {};
        if (*szDay && JoinPath(szPath, sizeof(szPath), szProgramDir, szDay) && lstat(szPath, &info) == 0 &&
            S_ISDIR(info.st_mode) && !StorageIsHeld(szPath))
            RemoveTree(szPath);
    }
}

// Program names may hold slashes, so every directory that is not a day itself may be a program's.
static void RemoveDaysBelow(const char *szDir, const OldDays *pDays, int nDepth)
{
    RemoveDays(szDir, pDays);
    DirReader dir(szDir);
    char szPath[kStoragePathSize];
    struct stat info {};
    while (const char *szName = dir.Next(&info)) {
        if (!S_ISDIR(info.st_mode) || szName[0] == '.' || IsDayName(szName) || nDepth >= kMaxDirDepth)
            continue;
        if (JoinPath(szPath, sizeof(szPath), szDir, szName))
            RemoveDaysBelow(szPath, pDays, nDepth + 1);
    }
}

void StorageDeleteOldDays(const char *szRoot, const char *szProgram, int nFirstAge)
{
    OldDays days;
    NameOldDays(&days, nFirstAge);
    if (!szProgram) {
        RemoveDaysBelow(szRoot, &days, 0);
        return;
    }
    char szProgramDir[kStoragePathSize];
    if (StorageIsInside(szProgram) && JoinPath(szProgramDir, sizeof(szProgramDir), szRoot, szProgram))
        RemoveDays(szProgramDir, &days);
}

}  // namespace orx
