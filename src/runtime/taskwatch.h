// The watch over the scheduler thread, which does all of the server's work: how long each task holds it.
// Builds that define ORX_WATCH_TASKS (debug and the sanitizers) print every task over the bound on standard
// error, one line each that begins with "TaskWatch: ", and stop at ten times the bound, so that tests find
// what stalls. A shipped build takes no times. Scheduler thread only.
#pragma once

#include <cstdint>

namespace orx {

#ifdef ORX_WATCH_TASKS
inline constexpr bool kWatchTasks = true;
#else
inline constexpr bool kWatchTasks = false;
#endif

// A task that runs. Its processor time counts, so that a busy machine does not.
struct TaskWatch {
    int64_t nCpuNs = 0;   // the thread's processor time at the begin
    int64_t nWallNs = 0;  // the monotonic clock then
    long nWaits = 0;      // voluntary context switches of the thread then
};

void TaskWatchBegin(TaskWatch *pWatch);
// Prints what was over: pfnRun (the task's procedure) with its processor time, or with the time for which it
// waited for a file, a name or a process. Does not return when the former is ten times the bound.
void TaskWatchEnd(const TaskWatch *pWatch, void (*pfnRun)());

// The bound in microseconds of processor time; for tests of the watch itself. 0: what the build has.
void TaskWatchSetBound(int64_t nBoundUs);

// Says what a task is at, for the line that may be printed: szWork (a literal) counts until the next one or
// the task's end, and the longest is named.
void TaskWatchNote(const char *szWork);
inline void WatchNote([[maybe_unused]] const char *szWork)
{
    if constexpr (kWatchTasks)
        TaskWatchNote(szWork);
}

}  // namespace orx
