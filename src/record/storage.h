// Where recordings lie: names and directories, free space, and what an interrupted run left behind. The tree
// is <root><program>/<YYYYMMDD>/<letter><hhmmss>.zmf, one letter per kind of recording. Directories that hold
// a file which this process is writing, at any depth, are neither renamed nor removed, whatever else is in
// them. The thread that records only, StorageRecover at start-up.
#pragma once

#include <cstddef>
#include <cstdint>
#include <ctime>

namespace orx {

struct PathList;  // see daywalk.h

constexpr size_t kStoragePathSize = 1024;    // room for any path that is built here
constexpr int64_t kRecoverMinBytes = 65536;  // an interrupted file of fewer holds a picture or two at best
constexpr int kOldDaysSpan = 7;              // a week's days are caught up on by one StorageDeleteOldDays

// Wall-clock seconds as names and limits of recordings see them. For tests: it runs nSeconds ahead from now
// on.
time_t RecordTime();
void RecordTimeSetOffset(int64_t nSeconds);
void RecordTimeHold(time_t tWhen);  // it stands there, until an offset is set

// Milliseconds of a clock that nobody sets: lengths of recordings and files are counted by it. For tests: it
// runs nMs ahead.
int64_t RecordSteadyMs();
void RecordSteadySetOffset(int64_t nMs);

// Whether the file system that holds szPath has nMB megabytes available to ordinary users: 1 or 0, and -1
// when that cannot be told (printed). Callers ask for 0 only, so that a query which fails never stops a
// recording.
int IsEnoughFreeDiskSpace(const char *szPath, uint32_t nMB);

// Whether a name that a peer gave, such as a program's, stays below the directory that it is put behind: none
// of its parts is "." or "..".
int StorageIsInside(const char *szName);

// Makes the path of the next recording: szRoot (ending in '/') + program + day + name, directories made as
// needed, under the next second that no recording in progress has; a finished file of that name is removed
// or, with bKeep, passed over as well. Without szRoot or szProgram the name alone is appended to the text
// that szPath holds. Returns 1, or 0 for a kind other than 1..3, a program name that would leave the root, or
// a path longer than nSize.
int StorageNextPath(char *szPath, size_t nSize, const char *szRoot, const char *szProgram, int nKind,
                    int bKeep = 0);

// The path alone: nothing is made and nothing removed.
int StorageNamePath(char *szPath, size_t nSize, const char *szRoot, const char *szProgram, int nKind);

// Changes the name in a path to the first variant (see confine.h) that no recording in progress has and, with
// bKeep, that no file has. Returns 1, or 0 when none is free or fits.
int StorageFreePath(char *szPath, size_t nSize, int bKeep);

// The path of a program in the one form that the disk knows it by: no slash at its ends, and one between its
// parts. Returns 1, or 0 when it is too long.
int StorageProgramPath(char *szOut, size_t nSize, const char *szUri);

// Makes every missing directory of the path, mode 0755. Returns 1 when it is there, else 0.
int StorageMakeDir(const char *szPath);

// The directory part of a path, without the slash behind it ("/" stays), into szDir. Returns 1, or 0 when the
// path has no slash or szDir is too small; szDir is then empty.
int StorageDirOf(char *szDir, size_t nSize, const char *szPath);

// Takes a day that holds nothing to delete out of the search for the oldest, by another name, unless a file
// in or below it is being written. Returns 1 when it is gone under that name.
int StorageSetDayAside(const char *szDay);

// Settles files that were being written when the process ended: those worth keeping get their final name, the
// others are deleted. Nothing else below the root is touched; with bKeep a file that has such a name already
// stays, and the other gets the next free one. Reads directories only. With pRepair, which receives the new
// paths in any order, small files are kept as well, for StorageDropKeyless and the repair to look into.
void StorageRecover(const char *szRoot, int bKeep = 0, PathList *pRepair = nullptr);

// Deletes a recording without any key frame, of which nothing could be shown, and logs it. For files of fewer
// than kRecoverMinBytes, as it may read all of them. Returns 1 when it is gone, else 0.
int StorageDropKeyless(const char *szFile);

// Deletes the days that are nFirstAge to nFirstAge + 7 days old, of one program or (null) of all below the
// root.
void StorageDeleteOldDays(const char *szRoot, const char *szProgram, int nFirstAge);

// A file that this process is writing; the writer embeds it.
struct OpenRecording {
    OpenRecording *pNext = nullptr;
    int fdDir = -1;        // the directory that holds the file, owned
    uint64_t nDevice = 0;  // and inode of that directory
    uint64_t nDirectory = 0;
    char szName[256] = "";  // that the file will have
    int bHeld = 0;
};
// From hold to release neither the directory szDir nor one above it is renamed or removed, and no other
// recording takes the name.
void StorageHold(OpenRecording *pOpen, const char *szDir, const char *szName = "");
void StorageRelease(OpenRecording *pOpen);
// Whether this process is writing a file in the directory or, at any depth, below it.
int StorageIsHeld(const char *szDir);

// Bytes that this process has recorded in all. Whoever frees space takes them into account.
uint64_t StorageRecordedBytes();
void StorageCountRecorded(uint64_t nBytes);

}  // namespace orx
