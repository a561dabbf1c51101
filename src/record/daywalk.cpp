#include "record/daywalk.h"

#include <fcntl.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <cstring>

#include "base/textbuf.h"
#include "record/storage.h"

namespace orx {

constexpr size_t kDayNameLen = 8;  // YYYYMMDD
constexpr uint32_t kFirstItems = 64;

DirReader::DirReader(const char *szDir) : pDir(opendir(szDir)) {}

DirReader::~DirReader()
{
    if (pDir)
        closedir(pDir);
}

const char *DirReader::Next(struct stat *pStat)
{
    while (const dirent *pEntry = pDir ? readdir(pDir) : nullptr) {  // NOLINT(concurrency-mt-unsafe)
        const char *szName = pEntry->d_name;
        if (strcmp(szName, ".") == 0 || strcmp(szName, "..") == 0)
            continue;
        if (fstatat(dirfd(pDir), szName, pStat, AT_SYMLINK_NOFOLLOW) == 0)
            return szName;
    }
    return nullptr;
}

static int Grow(PathList *pList)
{
    uint32_t nRoom = pList->nRoom ? pList->nRoom * 2 : kFirstItems;
    auto *pItems = static_cast<PathItem *>(realloc(pList->pItems, nRoom * sizeof(PathItem)));
    if (!pItems)
        return 0;
    pList->pItems = pItems;
    pList->nRoom = nRoom;
    return 1;
}

int PathListAdd(PathList *pList, const char *szPath, const struct stat *pInfo)
{
    if (pList->nItems == pList->nRoom && !Grow(pList))
        return 0;
    PathItem item;
    item.szPath = strdup(szPath);
    if (!item.szPath)
        return 0;
    if (pInfo) {
        item.changed = pInfo->st_mtim;
        item.nBytes = static_cast<uint64_t>(pInfo->st_size);
    }
    item.nFound = pList->nItems;
    pList->pItems[pList->nItems++] = item;
    return 1;
}

PathItem *PathListNext(PathList *pList)
{
    return pList->nNext < pList->nItems ? &pList->pItems[pList->nNext++] : nullptr;
}

int PathListPop(PathList *pList, char *szPath, size_t nSize)
{
    if (pList->nItems == 0)
        return 0;
    char *szLast = pList->pItems[--pList->nItems].szPath;
    TextCopy(szPath, nSize, szLast);
    free(szLast);
    return 1;
}

void PathListSortByAge(PathList *pList)
{
    std::sort(pList->pItems, pList->pItems + pList->nItems, [](const PathItem &a, const PathItem &b) {
        if (a.changed.tv_sec != b.changed.tv_sec)
            return a.changed.tv_sec < b.changed.tv_sec;
        if (a.changed.tv_nsec != b.changed.tv_nsec)
            return a.changed.tv_nsec < b.changed.tv_nsec;
        return a.nFound < b.nFound;
    });
}

static const char *LastPart(const char *szPath)
{
    const char *pSlash = strrchr(szPath, '/');
    return pSlash ? pSlash + 1 : szPath;
}

void PathListSortByName(PathList *pList)
{
    std::sort(pList->pItems, pList->pItems + pList->nItems, [](const PathItem &a, const PathItem &b) {
        int nOrder = strcmp(LastPart(a.szPath), LastPart(b.szPath));
        return nOrder != 0 ? nOrder < 0 : strcmp(a.szPath, b.szPath) < 0;
    });
}

void PathListFree(PathList *pList)
{
    for (uint32_t i = 0; i < pList->nItems; i++)
        free(pList->pItems[i].szPath);
    free(pList->pItems);
    *pList = PathList{};
}

int JoinPath(char *szOut, size_t nSize, const char *szDir, const char *szName)
{
    TextBuf path{szOut, nSize};
    size_t nDir = strlen(szDir);
    return TextAdd(&path, "%s%s%s", szDir, nDir > 0 && szDir[nDir - 1] == '/' ? "" : "/", szName);
}

int IsDayName(const char *szName)
{
    return strlen(szName) == kDayNameLen && (szName[0] == '1' || szName[0] == '2');
}

int IsDate(const char *szName)
{
    if (strspn(szName, "0123456789") != kDayNameLen || szName[kDayNameLen] != '\0')
        return 0;
    long nDate = strtol(szName, nullptr, 10);
    long nMonth = nDate / 100 % 100;
    long nDay = nDate % 100;
    return nDate >= 19700101 && nMonth >= 1 && nMonth <= 12 && nDay >= 1 && nDay <= 31;
}

static uint32_t CountSlashes(const char *szPath)
{
    return static_cast<uint32_t>(std::count(szPath, szPath + strlen(szPath), '/'));
}

void DayWalkBegin(DayWalk *pWalk, const char *szRoot)
{
    DayWalkFree(pWalk);
    pWalk->nTop = CountSlashes(szRoot);
    pWalk->bRoot = 1;
    PathListAdd(&pWalk->pending, szRoot, nullptr);
}

int DayWalkStep(DayWalk *pWalk)
{
    char szDir[kStoragePathSize];
    char szPath[kStoragePathSize];
    struct stat info {};
    if (!PathListPop(&pWalk->pending, szDir, sizeof(szDir)))
        return 0;
    DirReader dir(szDir);
    int bRoot = pWalk->bRoot;  // what lies in it are programs, whatever they are called
    pWalk->bRoot = 0;
    while (const char *szName = dir.Next(&info)) {
        if (!S_ISDIR(info.st_mode) || szName[0] == '.' || !JoinPath(szPath, sizeof(szPath), szDir, szName))
            continue;
        if (!bRoot && IsDate(szName))
            PathListAdd(&pWalk->days, szPath, &info);
        else if (CountSlashes(szPath) - pWalk->nTop <= kMaxDirDepth)
            PathListAdd(&pWalk->pending, szPath, nullptr);
    }
    return pWalk->pending.nItems > 0;
}

void DayWalkFree(DayWalk *pWalk)
{
    PathListFree(&pWalk->pending);
    PathListFree(&pWalk->days);
}

}  // namespace orx
