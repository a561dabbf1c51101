#include "record/confine.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "base/fdguard.h"
#include "base/textbuf.h"

namespace orx {

constexpr int kOpenDir = O_PATH | O_DIRECTORY | O_CLOEXEC;
constexpr int kMaxParents = 128;  // of a directory, up to its root: a bound
constexpr unsigned kDaySeconds = 86400;
constexpr size_t kNameSize = 256;

static int IsSame(int fdA, int fdB)
{
    struct stat a {};
    struct stat b {};
    return fstat(fdA, &a) == 0 && fstat(fdB, &b) == 0 && a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

int ConfineIsBelow(int fdRoot, int fdDir)
{
    FdGuard at{-1};
    for (int i = 0; i < kMaxParents; i++) {
        int fdHere = at.fd >= 0 ? at.fd : fdDir;
        if (IsSame(fdHere, fdRoot))
            return 1;
        FdGuard parent{openat(fdHere, "..", kOpenDir)};
        if (parent.fd < 0 || IsSame(parent.fd, fdHere))  // at the top
            return 0;
        std::swap(at.fd, parent.fd);
    }
    return 0;
}

int ConfineOpenDir(const char *szRoot, const char *szDir)
{
    FdGuard root{open(szRoot, kOpenDir)};
    FdGuard dir{open(szDir, kOpenDir)};
    return root.fd >= 0 && dir.fd >= 0 && ConfineIsBelow(root.fd, dir.fd) ? dir.Release() : -1;
}

int ConfineOpenFile(const char *szRoot, const char *szFile)
{
    char szReal[PATH_MAX];
    if (!realpath(szFile, szReal))
        return -1;
    char *pSlash = strrchr(szReal, '/');
    *pSlash = '\0';
    FdGuard dir{ConfineOpenDir(szRoot, *szReal ? szReal : "/")};
    return dir.fd < 0 ? -1 : openat(dir.fd, pSlash + 1, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOFOLLOW);
}

int ConfineMakeDir(const char *szRoot, const char *szRelative)
{
    FdGuard root{open(szRoot, kOpenDir)};
    FdGuard at{open(szRoot, kOpenDir)};
    const char *p = szRelative;
    while (at.fd >= 0 && *p) {
        size_t nLen = strcspn(p, "/");
        char szName[kNameSize];
        TextBuf name{szName, sizeof(szName)};
        if (!TextAddBytes(&name, p, nLen))
            return 0;
        p += nLen + (p[nLen] == '/');
        if (nLen == 0)
            continue;
        mkdirat(at.fd, szName, 0755);
        FdGuard next{openat(at.fd, szName, kOpenDir)};
        if (next.fd < 0 || !ConfineIsBelow(root.fd, next.fd))
            return 0;
        std::swap(at.fd, next.fd);
    }
    return root.fd >= 0 && at.fd >= 0;
}

static int AreDigits(const char *p, int nDigits)
{
    while (nDigits > 0 && isdigit(static_cast<unsigned char>(*p))) {
        p++;
        nDigits--;
    }
    return nDigits == 0;
}

// Where the time of the day stands in a name like "S235959.zmf" or "x-20260131-235959.zmf", or null.
static const char *FindClock(const char *szName)
{
    size_t nLen = strlen(szName);
    const char *p = szName + nLen - strlen("235959.zmf");
    if (nLen < strlen("S235959.zmf") || !AreDigits(p, 6) || strcmp(p + 6, ".zmf") != 0)
        return nullptr;
    if (p == szName + 1)
        return p;
    const char *pDate = p - strlen("-20260131-");
    return pDate > szName && *pDate == '-' && AreDigits(pDate + 1, 8) && p[-1] == '-' ? p : nullptr;
}

// The second of the day that six digits tell.
static unsigned ClockOf(const char *pDigits)
{
    unsigned nHour = 0, nMinute = 0, nSecond = 0;
    sscanf(pDigits, "%2u%2u%2u", &nHour, &nMinute, &nSecond);  // NOLINT(cert-err34-c): they are digits
    return (nHour * 60 + nMinute) * 60 + nSecond;
}

int ConfineVariant(char *szOut, size_t nSize, const char *szPath, unsigned nVariant)
{
    TextBuf text{szOut, nSize};
    const char *pSlash = strrchr(szPath, '/');
    const char *szName = pSlash ? pSlash + 1 : szPath;
    const char *pClock = FindClock(szName);
    unsigned nLater = pClock ? ClockOf(pClock) + nVariant : kDaySeconds;
    if (nVariant == 0)
        return TextAdd(&text, "%s", szPath);
    if (!TextAddBytes(&text, szPath, static_cast<size_t>(szName - szPath)))
        return 0;
    if (nLater < kDaySeconds)
        return TextAddBytes(&text, szName, static_cast<size_t>(pClock - szName)) &&
               TextAdd(&text, "%02u%02u%02u.zmf", nLater / 3600, nLater / 60 % 60, nLater % 60);
    const char *pDot = strrchr(szName, '.');
    size_t nStem = pDot ? static_cast<size_t>(pDot - szName) : strlen(szName);
    return TextAddBytes(&text, szName, nStem) && TextAdd(&text, "-%u%s", nVariant, szName + nStem);
}

static int IsFree(int fdDir, const char *szName)
{
    struct stat info {};
    return fstatat(fdDir, szName, &info, AT_SYMLINK_NOFOLLOW) != 0 && errno == ENOENT;
}

int ConfineCreate(int fdDir, const char *szName, const char *szSuffix, char *szOut, size_t nSize)
{
    for (unsigned i = 0; i <= kMaxVariants; i++) {
        char szOpen[kNameSize];
        TextBuf open{szOpen, sizeof(szOpen)};
        if (!ConfineVariant(szOut, nSize, szName, i) || !TextAdd(&open, "%s%s", szOut, szSuffix))
            return -1;
        if (!IsFree(fdDir, szOut))
            continue;
        int fd = openat(fdDir, szOpen, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644);
        if (fd >= 0 || errno != EEXIST)
            return fd;
    }
    return -1;
}

// Renames to a name that is free. Some file systems have no such call, and some no links: they are asked
// whether it is.
static int RenameNew(int fdDir, const char *szFrom, const char *szTo)
{
    if (renameat2(fdDir, szFrom, fdDir, szTo, RENAME_NOREPLACE) == 0)
        return 1;
    if (errno != EINVAL && errno != ENOSYS)
        return 0;
    if (IsFree(fdDir, szTo))
        return renameat(fdDir, szFrom, fdDir, szTo) == 0;
    errno = EEXIST;
    return 0;
}

int ConfineRename(int fdDir, const char *szFrom, const char *szTo, char *szOut, size_t nSize)
{
    for (unsigned i = 0; i <= kMaxVariants && ConfineVariant(szOut, nSize, szTo, i); i++) {
        if (RenameNew(fdDir, szFrom, szOut))
            return 1;
        if (errno != EEXIST)
            return 0;
    }
    return 0;
}

}  // namespace orx
