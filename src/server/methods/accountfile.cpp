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
    int bTake = 0;  // the configuration was read as well
};

struct Accounts {
    FileState eState = FileState::Missing;
    AccountTable *pTable = nullptr;  // owned by all that hold it; null without memory, too
};

static struct AccountFile {
    Look look;
    DiskLane lane;
    int bLooking = 0;
    int bLooked = 0;
    uint32_t nAskedMs = 0;  // ClockMs at which the last look began
    int bTakeNext = 0;      // the next look takes, see Look
    int bKept = 0;          // what was taken counts, not what is in the file
    Accounts now, taken;
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

static void BeginLook();

static void Hold(Accounts *pSlot, const Accounts &accounts)
{
    AccountTable *pOld = std::exchange(*pSlot, accounts).pTable;
    if (pOld != g_file.now.pTable && pOld != g_file.taken.pTable)
        AccountTableFree(pOld);
}

static void OnLooked(DiskJob *pJob)
{
    auto *p = reinterpret_cast<Look *>(pJob);
    g_file.bLooking = 0;
    g_file.bLooked = 1;
    if (std::exchange(p->bAnew, 0))
        Hold(&g_file.now, {p->eState, std::exchange(p->pTable, nullptr)});
    if (p->bTake)
        Hold(&g_file.taken, g_file.now);
    if (g_file.bTakeNext)  // asked for while it looked
        BeginLook();
}

static void BeginLook()
{
    g_file.bLooking = 1;
    g_file.nAskedMs = ClockMs();
    g_file.look.bTake = std::exchange(g_file.bTakeNext, 0);
    DiskPost(&g_file.lane, &g_file.look.job);
}

int AccountFileReady()
{
    if (!g_file.bLooking && (!g_file.bLooked || ClockMs() - g_file.nAskedMs >= kLookMs))
        BeginLook();
    return !g_file.bLooking || ClockMs() - g_file.nAskedMs >= kMostWaitMs;
}

void AccountFileFollowSettings()
{
    g_file.bKept = 0;
    g_file.bTakeNext = 1;
    g_file.nAskedMs = ClockMs() - kLookMs;
    AccountFileReady();
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
    g_file.bTakeNext = 1;
    AccountFileReady();
}

void AccountFileFree()
{
    if (g_file.bLooking)
        return;  // the disk thread was left to itself, and has it
    Hold(&g_file.now, g_file.taken);
    AccountTableFree(g_file.taken.pTable);
    g_file.now = g_file.taken = Accounts();
    g_file.look = Look();
    g_file.bLooked = g_file.bKept = 0;
}

int AccountFileFind(const char *szUser, Account *pOut)
{
    const Accounts *pAccounts = g_file.bKept ? &g_file.taken : &g_file.now;
    if (pAccounts->eState == FileState::Missing)
        print("fopen(%s) failed!\n", g_file.look.szPath);
    return pAccounts->eState == FileState::Read ? AccountTableFind(pAccounts->pTable, szUser, pOut) : -1;
}

}  // namespace orx
