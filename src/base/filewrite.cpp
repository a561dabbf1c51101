#include "base/filewrite.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "base/fdguard.h"
#include "base/textbuf.h"

namespace orx {

constexpr size_t kMaxPath = 256;

static int WriteAll(int fd, const void *pData, size_t nLen)
{
    auto *p = static_cast<const char *>(pData);
    while (nLen > 0) {
        ssize_t n = write(fd, p, nLen);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return 0;
        p += n;
        nLen -= static_cast<size_t>(n);
    }
    return 1;
}

// Writes, and closes with what only that tells: some file systems say late that they are full.
static int WriteAndClose(FdGuard *pOut, const void *pData, size_t nLen)
{
    int bWritten = WriteAll(pOut->fd, pData, nLen) && fsync(pOut->fd) == 0;
    return close(pOut->Release()) == 0 && bWritten;
}

// A rename lasts only once the directory is on the storage.
static void SyncDirectoryOf(char *szPath)
{
    char *pSlash = nullptr;
    for (char *p = szPath; *p; p++)
        if (*p == '/')
            pSlash = p;
    if (pSlash)
        pSlash[pSlash == szPath] = '\0';
    FdGuard dir{open(pSlash ? szPath : ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC)};
    if (dir.fd >= 0)
        fsync(dir.fd);
}

int FileReplace(const char *szPath, const void *pData, size_t nLen)
{
    char path[kMaxPath];
    TextBuf text{path, sizeof(path)};
    if (!TextAdd(&text, "%s.new", szPath))
        return 0;
    FdGuard out{open(path, O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0644)};
    if (out.fd < 0)
        return 0;
    if (!WriteAndClose(&out, pData, nLen) || rename(path, szPath) != 0) {
        unlink(path);
        return 0;
    }
    SyncDirectoryOf(path);
    return 1;
}

int FileCreateTemp(char *szTemplate, int nSuffix, const void *pData, size_t nLen)
{
    FdGuard out{mkostemps(szTemplate, nSuffix, O_CLOEXEC)};
    if (out.fd < 0)
        return 0;
    if (WriteAndClose(&out, pData, nLen))
        return 1;
    unlink(szTemplate);
    return 0;
}

int DirTakesFiles(const char *szDir)
{
    if (access(szDir, W_OK | X_OK) != 0)
        return 0;
    FdGuard unnamed{open(szDir, O_TMPFILE | O_WRONLY | O_CLOEXEC, 0600)};
    if (unnamed.fd >= 0)
        return 1;
    char szProbe[512];  // not every file system has files without a name
    TextBuf path{szProbe, sizeof(szProbe)};
    if (!TextAdd(&path, "%s/.orx-XXXXXX", szDir)) {
        errno = ENAMETOOLONG;
        return 0;
    }
    return mkdtemp(szProbe) && rmdir(szProbe) == 0;
}

}  // namespace orx
