#include "server/methods/accountfile.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <ctime>
#include <utility>

#include "base/console.h"
#include "base/fdguard.h"
#include "base/inifile.h"
#include "base/textbuf.h"
#include "runtime/clock.h"
#include "runtime/diskthread.h"

namespace orx {

constexpr uint32_t kLookMs = 500;      // so old a look is good
constexpr uint32_t kMostWaitMs = 100;  // for a look
constexpr int64_t kYoungSeconds = 2;   // a file so young may change again without showing it

// By what a file is known to be the one that was read.
struct FileSign {
    dev_t nDevice = 0;
    ino_t nInode = 0;
    off_t nBytes = -1;
    timespec changed{};
    timespec written{};
};

enum class FileState {
    Missing,
    Empty,  // or as good as that
    Read,
};

// A look at the file, on the disk thread: one at a time.
struct Look {
    DiskJob job;  // first
    char szPath[256] = "";
    FileSign sign;   // of what was read last
    int bYoung = 0;  // it was young then
    FileState eState = FileState::Missing;
    AccountTable *pTable = nullptr;  // what was read anew; owned
    int bAnew = 0;
};

static struct AccountFile {
    Look look;
    DiskLane lane;
    int bLooking = 0;
    int bLooked = 0;
    uint32_t nAskedMs = 0;  // ClockMs at which the last look began
    FileState eState = FileState::Missing;
    AccountTable *pTable = nullptr;  // owned; null without memory, too
    AccountTable *pTaken = nullptr;  // as the configuration was read last; owned
    int bKept = 0;                   // what was taken counts, not what is in the file
} g_file;

static int SameTime(const timespec &a, const timespec &b)
{
    return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
}

static int SameFile(const FileSign &a, const FileSign &b)
{
    return a.nDevice == b.nDevice && a.nInode == b.nInode && a.nBytes == b.nBytes &&
           SameTime(a.changed, b.changed) && SameTime(a.written, b.written);
}

static void ReadAnew(Look *p)
{
    p->bAnew = 1;
    AccountTableFree(std::exchange(p->pTable, nullptr));
    Profile *pProfile = p->eState == FileState::Missing ? nullptr : ProfileInit(p->szPath);
    if (!pProfile)
        return;
    p->eState = FileState::Read;
    p->pTable = AccountTableParse(pProfile->text);
    ProfileFree(pProfile);
}

// A file that cannot be opened is not tried to be read, which would be said on the console each time.
static int RunLook(DiskJob *pJob)
{
    auto *p = reinterpret_cast<Look *>(pJob);
    struct stat info {};
    FileSign sign;
    FdGuard file{open(p->szPath, O_RDONLY | O_CLOEXEC | O_NONBLOCK)};
    int bThere = file.fd >= 0 && fstat(file.fd, &info) == 0;
    if (bThere)
        sign = {info.st_dev, info.st_ino, info.st_size, info.st_ctim, info.st_mtim};
    if (!p->bYoung && SameFile(sign, p->sign))
        return 1;
    p->sign = sign;
    p->bYoung = bThere && time(nullptr) - info.st_ctim.tv_sec < kYoungSeconds;
    p->eState = bThere ? FileState::Empty : FileState::Missing;
    ReadAnew(p);
    return 1;
}

static void OnLooked(DiskJob *pJob)
{
    auto *p = reinterpret_cast<Look *>(pJob);
    g_file.bLooking = 0;
    g_file.bLooked = 1;
    if (!std::exchange(p->bAnew, 0))
        return;
    g_file.eState = p->eState;
    AccountTableFree(std::exchange(g_file.pTable, std::exchange(p->pTable, nullptr)));
}

int AccountFileReady()
{
    uint32_t nNow = ClockMs();
    if (!g_file.bLooking && (!g_file.bLooked || nNow - g_file.nAskedMs >= kLookMs)) {
        g_file.bLooking = 1;
        g_file.nAskedMs = nNow;
        DiskPost(&g_file.lane, &g_file.look.job);
    }
    return !g_file.bLooking || nNow - g_file.nAskedMs >= kMostWaitMs;
}

AccountTable *AccountFileRead(const char *szPath)
{
    FdGuard file{open(szPath, O_RDONLY | O_CLOEXEC | O_NONBLOCK)};
    Profile *pProfile = file.fd >= 0 ? ProfileInit(szPath) : nullptr;
    if (!pProfile)
        return nullptr;
    AccountTable *pTable = AccountTableParse(pProfile->text);
    ProfileFree(pProfile);
    return pTable;
}

void AccountFileTake(AccountTable *pTable)
{
    AccountTableFree(std::exchange(g_file.pTaken, pTable));
    g_file.bKept = 0;
    g_file.nAskedMs = ClockMs() - kLookMs;
}

void AccountFileKeep()
{
    g_file.bKept = 1;
}

void AccountFileLoad(const char *szPath)
{
    AccountFileFree();
    TextCopy(g_file.look.szPath, sizeof(g_file.look.szPath), szPath);
    g_file.look.job.pfnRun = RunLook;
    g_file.look.job.pfnDone = OnLooked;
    g_file.pTaken = AccountFileRead(szPath);
    AccountFileReady();
}

void AccountFileFree()
{
    if (g_file.bLooking)
        return;  // the disk thread was left to itself, and has it
    AccountTableFree(std::exchange(g_file.pTable, nullptr));
    AccountTableFree(std::exchange(g_file.pTaken, nullptr));
    g_file.look = Look();
    g_file.bLooked = g_file.bKept = 0;
    g_file.eState = FileState::Missing;
}

int AccountFileFind(const char *szUser, Account *pOut)
{
    if (g_file.bKept)
        return g_file.pTaken ? AccountTableFind(g_file.pTaken, szUser, pOut) : -1;
    if (g_file.eState == FileState::Missing)
        print("fopen(%s) failed!\n", g_file.look.szPath);
    return g_file.eState == FileState::Read ? AccountTableFind(g_file.pTable, szUser, pOut) : -1;
}

int AccountFileHasSuper()
{
    return g_file.eState == FileState::Read && AccountTableHasSuper(g_file.pTable);
}

}  // namespace orx
