#include "runtime/taskwatch.h"

#include <dlfcn.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "runtime/clock.h"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
extern "C" void __sanitizer_symbolize_pc(void *pCode, const char *szFormat, char *szOut, size_t nOut);
#endif

namespace orx {

static constexpr int64_t kBoundUs = 20000;  // of a shipped build: between two pictures of 50 a second
// How many times slower code may run in this build, generously: what the sanitizers cost depends on the code,
// and what is to be found here is work that grows with its input.
#if defined(__SANITIZE_THREAD__)
static constexpr int64_t kSlowdown = 10;
#elif defined(__SANITIZE_ADDRESS__)
static constexpr int64_t kSlowdown = 5;
#elif !defined(__OPTIMIZE__)
static constexpr int64_t kSlowdown = 3;
#else
static constexpr int64_t kSlowdown = 1;
#endif
static constexpr int kFatalTimes = 10;

static int64_t g_nBoundUs = kBoundUs * kSlowdown;
// Of the task that runs.
static const char *g_szWork = nullptr;     // what it is at now
static int64_t g_nWorkFromNs = 0;          // since when
static const char *g_szLongest = nullptr;  // what took longest
static int64_t g_nLongestNs = 0;

static long Waits()
{
    rusage usage{};
    getrusage(RUSAGE_THREAD, &usage);
    return usage.ru_nvcsw;
}

void TaskWatchSetBound(int64_t nBoundUs)
{
    g_nBoundUs = nBoundUs ? nBoundUs : kBoundUs * kSlowdown;
}

void TaskWatchNote(const char *szWork)
{
    int64_t nNow = ClockNs(CLOCK_THREAD_CPUTIME_ID);
    if (g_szWork && nNow - g_nWorkFromNs > g_nLongestNs) {
        g_szLongest = g_szWork;
        g_nLongestNs = nNow - g_nWorkFromNs;
    }
    g_szWork = szWork;
    g_nWorkFromNs = nNow;
}

void TaskWatchBegin(TaskWatch *pWatch)
{
    g_szWork = g_szLongest = nullptr;
    g_nLongestNs = 0;
    pWatch->nWaits = Waits();
    pWatch->nWallNs = ClockNs();
    pWatch->nCpuNs = ClockNs(CLOCK_THREAD_CPUTIME_ID);
}

// The procedure's name where the build can tell it, else where it lies in the program.
static void NameOf(void *pCode, char *szOut, size_t nOut)
{
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    __sanitizer_symbolize_pc(pCode, "%f", szOut, nOut);
#else
    Dl_info info{};
    int bFound = dladdr(pCode, &info);
    auto nOffset = static_cast<const char *>(pCode) - static_cast<const char *>(info.dli_fbase);
    snprintf(szOut, nOut, "%s+0x%llx", bFound ? info.dli_fname : "?",
             static_cast<unsigned long long>(nOffset));
#endif
}

// One write, so that no other line gets into it.
static void Say(void (*pfnRun)(), const char *szWhat, int64_t nUs, long nWaits)
{
    char name[256];
    char line[512];
    NameOf(reinterpret_cast<void *>(pfnRun), name, sizeof(name));
    int n = snprintf(line, sizeof(line), "TaskWatch: %s (%s) %s %lld us (bound %lld us, %ld waits)\n", name,
                     g_szLongest ? g_szLongest : "-", szWhat, static_cast<long long>(nUs),
                     static_cast<long long>(g_nBoundUs), nWaits);
    if (n > 0 && write(STDERR_FILENO, line, static_cast<size_t>(n)) < 0)
        return;  // nobody to tell
}

void TaskWatchEnd(const TaskWatch *pWatch, void (*pfnRun)())
{
    int64_t nCpuUs = (ClockNs(CLOCK_THREAD_CPUTIME_ID) - pWatch->nCpuNs) / 1000;
    int64_t nWaitedUs = (ClockNs() - pWatch->nWallNs) / 1000 - nCpuUs;
    if (nCpuUs <= g_nBoundUs && nWaitedUs <= g_nBoundUs)
        return;
    TaskWatchNote(nullptr);
    long nWaits = Waits() - pWatch->nWaits;
    if (nCpuUs > g_nBoundUs)
        Say(pfnRun, "held the scheduler for", nCpuUs, nWaits);
    else if (nWaits > 0)  // otherwise others had the processor meanwhile
        Say(pfnRun, "waited for", nWaitedUs, nWaits);
    if (nCpuUs > kFatalTimes * g_nBoundUs)
        abort();
}

}  // namespace orx
