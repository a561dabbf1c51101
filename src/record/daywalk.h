// What lies below the root of the recordings, found in steps: directories as they are read, lists of paths,
// and a walk that gathers the days of every program. No locking inside: one thread at a time.
#pragma once

#include <dirent.h>
#include <sys/stat.h>

#include <cstddef>
#include <cstdint>

namespace orx {

constexpr int kMaxDirDepth = 16;  // of directories below the root: a bound, far beyond what is made here

// A directory while it is read; closed on every way out.
struct DirReader {
    DIR *pDir;  // null when it cannot be read
    explicit DirReader(const char *szDir);
    ~DirReader();
    DirReader(const DirReader &) = delete;
    DirReader &operator=(const DirReader &) = delete;
    // The next entry but "." and "..", with what lstat says of it; null at the end.
    const char *Next(struct stat *pStat);
};

struct PathItem {
    char *szPath = nullptr;  // owned
    timespec changed{};
    uint64_t nBytes = 0;  // its length
    uint32_t nFound = 0;  // its number in the order of finding
};

struct PathList {
    PathItem *pItems = nullptr;  // owned
    uint32_t nItems = 0;
    uint32_t nRoom = 0;
    uint32_t nNext = 0;  // for who works through the list
};

// Returns 1, or 0 without memory. pInfo may be null.
int PathListAdd(PathList *pList, const char *szPath, const struct stat *pInfo);
// The item to be worked on next, or null at the end. It stays the list's.
PathItem *PathListNext(PathList *pList);
// Takes the last item off; its path goes to szPath. Returns 1, or 0 when the list is empty.
int PathListPop(PathList *pList, char *szPath, size_t nSize);
void PathListSortByAge(PathList *pList);   // changed first comes first, of equal ones the one found first
void PathListSortByName(PathList *pList);  // by the last part of the paths, then by the whole
void PathListFree(PathList *pList);        // empties the list; it can be used again

// szDir + "/" + szName, with one slash between them. Returns 1, or 0 when it does not fit.
int JoinPath(char *szOut, size_t nSize, const char *szDir, const char *szName);

// Whether a name may be a day's as directories are searched for them: 8 characters that begin with 1 or 2.
int IsDayName(const char *szName);
// Whether it is a date since 1970, YYYYMMDD. Names of programs may well look like days otherwise.
int IsDate(const char *szName);

struct DayWalk {
    PathList pending;   // directories to be read
    PathList days;      // what was found
    uint32_t nTop = 0;  // slashes in the root's path
    int bRoot = 0;      // the next directory to be read is the root itself
};
// Begins anew. Program names may hold slashes, so every directory that is not a day itself may be a
// program's.
void DayWalkBegin(DayWalk *pWalk, const char *szRoot);
// Reads one directory. Returns 1 while there are more, then 0.
int DayWalkStep(DayWalk *pWalk);
void DayWalkFree(DayWalk *pWalk);

}  // namespace orx
