// Room for recordings: the oldest ones are deleted until enough is free, in steps, so that a thread that
// serves many recordings never stays long with one. A directory is read once and remembered while it does not
// change otherwise. No locking inside: the thread that records only.
#pragma once

#include <cstddef>
#include <cstdint>
#include <ctime>

#include "record/daywalk.h"
#include "record/rules.h"
#include "record/storage.h"

namespace orx {

enum class RoomResult {
    More,   // another step is needed
    There,  // the room is there, or that cannot be told
    None,   // it is not, and nothing (more) may be deleted
};

enum class RoomStage {
    Idle,    // nothing is under way
    Plain,   // deletes from one directory
    Own,     // deletes from the days of the program
    Search,  // looks for the days of all programs
    Others,  // deletes from those
};

constexpr uint32_t kVainDeletions = 10;  // in a row that give no room: somebody else takes it
constexpr int64_t kVainPauseMs = 60000;  // without deletions then; and longer apart they are not in a row

struct StorageRoom {
    RoomStage eStage = RoomStage::Idle;
    uint32_t nMB = 0;
    char szDir[kStoragePathSize] = "";   // whose file system is asked
    char szDay[kStoragePathSize] = "";   // that is deleted from
    char szSkip[9] = "";                 // day of the program that can neither be emptied nor set aside
    char szRoot[kStoragePathSize] = "";  // of all programs; empty: others keep theirs
    int bLog = 0;                        // says in the log file, too, what goes
    int bWatch = 0;                      // pauses when deletions give no room
    DayWalk walk;

    PathList files;                          // recordings of a directory, the oldest first
    char szFilesDir[kStoragePathSize] = "";  // that directory; empty: not read
    timespec filesChanged{};                 // when it was changed last, as far as is known

    uint32_t nDeleted = 0;      // in a row
    uint64_t nHeld = 0;         // bytes that they held
    uint64_t nFreeBefore = 0;   // with what was recorded until then
    int64_t nLastMs = 0;        // RecordSteadyMs of the last one
    int64_t nPauseUntilMs = 0;  // 0: no pause
};

// Begins to make nMB (>0) megabytes free for a file in szDir, by deleting the oldest recordings when bDelete:
// of szDir itself, or with bDateLayout of the program whose day szDir is, and then, with szRoot, of any
// program below it. pRules: null, or how. The record may be used again and again. Returns what
// StorageRoomStep does.
RoomResult StorageRoomBegin(StorageRoom *pRoom, const char *szDir, int bDateLayout, uint32_t nMB, int bDelete,
                            const RecordRules *pRules = nullptr, const char *szRoot = nullptr);
// One step: one deletion, or one directory read.
RoomResult StorageRoomStep(StorageRoom *pRoom);
void StorageRoomFree(StorageRoom *pRoom);

// The oldest day below the directory of a program, szSkip (8 characters, or null) left out. Returns 1 with
// its path, or 0 when there is none.
int StorageFindOldestDay(char *szDay, size_t nSize, const char *szProgramDir, const char *szSkip);

// Deletes the recording of the directory that was changed first; with bOnlyScheduled only names that begin
// with 'S' count. A directory that this leaves empty goes, too. Returns 1 when a file was deleted, else 0.
int StorageDeleteOldestFile(const char *szDir, int bOnlyScheduled);

// All steps at once. Returns 1, or 0 when there is no room.
int StorageMakeRoom(const char *szDir, int bDateLayout, uint32_t nMB, int bDelete);
// The same for a directory given as root and sub-path.
int CheckPathReserveSpace(const char *szRoot, const char *szSubPath, int bDateLayout, uint32_t nMB,
                          int bDelete);

}  // namespace orx
