#include "record/fileout.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace orx {

static_assert(sizeof(off_t) == 8, "recordings pass 2 GB, on 32-bit machines as well");

constexpr uint32_t kBufferBytes = 32768;  // at most this much is lost when the process is killed

// Writes both pieces. Returns how many bytes of them were written, fewer than all on an error.
static size_t WriteAll(int fd, const uint8_t *pFirst, size_t nFirst, const uint8_t *pSecond, size_t nSecond)
{
    size_t nDone = 0;
    while (nFirst + nSecond > 0) {
        iovec pieces[2] = {{const_cast<uint8_t *>(pFirst), nFirst},
                           {const_cast<uint8_t *>(pSecond), nSecond}};
        ssize_t n = writev(fd, pieces, 2);
        if (n < 0 && errno == EINTR)
            continue;
        if (n == 0)
            errno = ENOSPC;
        if (n <= 0)
            break;
        nDone += static_cast<size_t>(n);
        size_t nOfFirst = static_cast<size_t>(n) < nFirst ? static_cast<size_t>(n) : nFirst;
        size_t nOfSecond = static_cast<size_t>(n) - nOfFirst;
        pFirst += nOfFirst;
        nFirst -= nOfFirst;
        if (nOfSecond > 0)
            pSecond += nOfSecond;
        nSecond -= nOfSecond;
    }
    return nDone;
}

// Empties the buffer into the file, with more bytes behind it.
static int Drain(FileOut *pFile, const void *pMore, size_t nMore)
{
    size_t nDone =
        WriteAll(pFile->fd, pFile->pBuffer, pFile->nBuffered, static_cast<const uint8_t *>(pMore), nMore);
    if (nDone < pFile->nBuffered + nMore) {
        pFile->nErrno = errno;
        pFile->bFailed = 1;
        pFile->nReached = nDone;
        return 0;
    }
    pFile->nWritten += pFile->nBuffered + nMore;
    pFile->nBuffered = 0;
    if (pFile->nMark <= pFile->nWritten)
        pFile->nKeep = pFile->nMark;
    return 1;
}

int FileOutOpen(FileOut *pFile, const char *szPath)
{
    unlink(szPath);
    int fd = open(szPath, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (FileOutTake(pFile, fd))
        return 1;
    if (fd >= 0)
        unlink(szPath);
    return 0;
}

int FileOutTake(FileOut *pFile, int fd)
{
    *pFile = FileOut{};
    pFile->fd = fd;
    if (fd < 0)
        return 0;
    pFile->pBuffer = static_cast<uint8_t *>(malloc(kBufferBytes));
    if (pFile->pBuffer)
        return 1;
    FileOutClose(pFile);
    return 0;
}

static void Buffer(FileOut *pFile, const void *pData, size_t nData)
{
    if (nData > 0)
        memcpy(pFile->pBuffer + pFile->nBuffered, pData, nData);
    pFile->nBuffered += static_cast<uint32_t>(nData);
}

int FileOutWrite(FileOut *pFile, const void *pHead, size_t nHead, const void *pData, size_t nData)
{
    if (pFile->fd < 0 || pFile->bFailed || nHead > kBufferBytes)
        return 0;
    if (nHead > kBufferBytes - pFile->nBuffered && !Drain(pFile, nullptr, 0))
        return 0;
    Buffer(pFile, pHead, nHead);
    if (nData > kBufferBytes - pFile->nBuffered)
        return Drain(pFile, pData, nData);
    Buffer(pFile, pData, nData);
    return 1;
}

void FileOutCommit(FileOut *pFile)
{
    pFile->nMark = FileOutPos(pFile);
    if (pFile->nBuffered == 0)
        pFile->nKeep = pFile->nMark;
}

int FileOutFlush(FileOut *pFile)
{
    return pFile->fd >= 0 && !pFile->bFailed && Drain(pFile, nullptr, 0);
}

int FileOutCut(FileOut *pFile, uint64_t nBytes)
{
    if (pFile->fd < 0 || !pFile->bFailed || ftruncate(pFile->fd, static_cast<off_t>(nBytes)) != 0 ||
        lseek(pFile->fd, static_cast<off_t>(nBytes), SEEK_SET) < 0)
        return 0;
    pFile->nWritten = pFile->nMark = pFile->nKeep = nBytes;
    pFile->nBuffered = 0;
    pFile->nReached = 0;
    pFile->bFailed = 0;
    return 1;
}

int FileOutPatch(FileOut *pFile, uint64_t nPos, const void *pData, size_t nData)
{
    if (pFile->fd < 0 || (!pFile->bFailed && !FileOutFlush(pFile)))
        return 0;
    const auto *p = static_cast<const uint8_t *>(pData);
    while (nData > 0) {
        ssize_t n = pwrite(pFile->fd, p, nData, static_cast<off_t>(nPos));
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return 0;
        p += n;
        nPos += static_cast<uint64_t>(n);
        nData -= static_cast<size_t>(n);
    }
    return 1;
}

uint64_t FileOutPos(const FileOut *pFile)
{
    return pFile->nWritten + pFile->nBuffered;
}

int FileOutIsAt(const FileOut *pFile, int fdDir, const char *szPath)
{
    struct stat open {};
    struct stat named {};
    return pFile->fd >= 0 && fstat(pFile->fd, &open) == 0 &&
           fstatat(fdDir, szPath, &named, AT_SYMLINK_NOFOLLOW) == 0 && open.st_dev == named.st_dev &&
           open.st_ino == named.st_ino;
}

int FileOutClose(FileOut *pFile)
{
    if (pFile->fd < 0)
        return 1;
    int bWhole = FileOutFlush(pFile);
    if (pFile->bFailed) {
        // A disk that ran full left half a record behind: the file ends with the last whole one.
        struct stat info {};
        if (fstat(pFile->fd, &info) == 0 && static_cast<uint64_t>(info.st_size) > pFile->nKeep &&
            ftruncate(pFile->fd, static_cast<off_t>(pFile->nKeep)) != 0)
            bWhole = 0;
    }
    if (close(pFile->fd) != 0)
        bWhole = 0;
    free(pFile->pBuffer);
    *pFile = FileOut{};
    return bWhole;
}

}  // namespace orx
