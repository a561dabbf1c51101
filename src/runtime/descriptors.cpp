#include "runtime/descriptors.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>

#include "base/console.h"
#include "base/eventlog.h"
#include "base/fdguard.h"

namespace orx {

constexpr int kSomeMore = 8;  // above those that are kept: the shortage is over

static std::atomic<int> g_bShort{0};  // the shortage that lasts has been printed

// The lowest free number, where /proc cannot be read: so many are open at least. nLimit when there is none.
static int LowestFree(int nLimit)
{
    FdGuard probe(open("/dev/null", O_RDONLY | O_CLOEXEC));
    return probe.fd < 0 ? nLimit : probe.fd;
}

// Open descriptors, or nLimit when there are so many that they cannot be counted.
static int CountOpen(int nLimit)
{
    DIR *pDir = opendir("/proc/self/fd");
    if (!pDir)
        return LowestFree(nLimit);
    int nOpen = -1;  // that of the directory itself does not count
    while (const dirent *pEntry = readdir(pDir))
        nOpen += pEntry->d_name[0] != '.';
    closedir(pDir);
    return nOpen;
}

int DescriptorsLeft()
{
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0)
        return 0;
    constexpr rlim_t kMost = 1 << 30;
    int nLimit = static_cast<int>(limit.rlim_cur < kMost ? limit.rlim_cur : kMost);
    int nOpen = CountOpen(nLimit);
    return nOpen < nLimit ? nLimit - nOpen : 0;
}

int DescriptorsSpare(int nWanted)
{
    int nLeft = DescriptorsLeft();
    int bShort = nLeft < kDescriptorsKept + nWanted;
    if (bShort && !g_bShort.exchange(1)) {
        print("Only %d descriptors are left: no more connections by the web port and the relay.\r\n", nLeft);
        EventSayBounded(EventLevel::Warn, "descriptors.short", {EventNumber("left", nLeft)});
    }
    if (nLeft > kDescriptorsKept + kSomeMore)
        g_bShort = 0;
    return !bShort;
}

}  // namespace orx
