#include "record/openfile.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <ctime>

#include "base/fdguard.h"
#include "record/zmfile.h"

namespace orx {

constexpr time_t kFreshSeconds = 10;  // in which a recording that goes on has changed

static int HasFinalName(const char *szFile)
{
    size_t nFile = strlen(szFile), nSuffix = strlen(kOpenSuffix);
    return nFile < nSuffix || strcmp(szFile + nFile - nSuffix, kOpenSuffix) != 0;
}

int IsBeingWritten(const char *szFile)
{
    struct stat info {};
    FdGuard file{open(szFile, O_RDONLY | O_CLOEXEC | O_NONBLOCK)};
    if (file.fd < 0 || fstat(file.fd, &info) != 0)
        return 0;
    signal(SIGIO, SIG_IGN);
    int bFresh = !HasFinalName(szFile) && time(nullptr) - info.st_mtime < kFreshSeconds;
    return fcntl(file.fd, F_SETLEASE, F_RDLCK) != 0 && (errno == EAGAIN || bFresh);
}

}  // namespace orx
