// Guards that close a descriptor or a stream on every way out of a function. Any thread.
#pragma once

#include <cerrno>
#include <cstdio>
#include <memory>
#include <utility>

#include <unistd.h>

namespace orx {

struct FdGuard {
    int fd;  // negative: nothing to close
    explicit FdGuard(int nFd) : fd(nFd) {}
    FdGuard(FdGuard &&) = delete;  // neither copied nor moved
    FdGuard &operator=(FdGuard &&) = delete;
    ~FdGuard()
    {
        int nError = errno;  // the caller wants to know why it failed, not how the closing went
        if (fd >= 0)
            close(fd);
        errno = nError;
    }
    int Release() { return std::exchange(fd, -1); }
};

struct FileCloser {
    void operator()(FILE *pFile) const { fclose(pFile); }
};
using FileGuard = std::unique_ptr<FILE, FileCloser>;

}  // namespace orx
