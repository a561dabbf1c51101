// Lines that wait in memory until somebody who may wait for a disk writes them: what the log file and the log
// of events have in common.
#pragma once

#include <cstddef>
#include <ctime>

#include <pthread.h>

namespace orx {

// Holds a mutex with thread cancellation off: writing to a file or pipe is where a cancelled thread stops,
// and it would die with the mutex held.
struct OutputLock {
    pthread_mutex_t *pMutex;
    int nCancelState = PTHREAD_CANCEL_ENABLE;

    explicit OutputLock(pthread_mutex_t *pMutexToHold) : pMutex(pMutexToHold)
    {
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &nCancelState);
        pthread_mutex_lock(pMutex);
    }
    ~OutputLock()
    {
        pthread_mutex_unlock(pMutex);
        pthread_setcancelstate(nCancelState, nullptr);
    }
    OutputLock(const OutputLock &) = delete;
    OutputLock &operator=(const OutputLock &) = delete;
};

struct HeldLine;

// The lines of one log that wait, up to kLinesHeldBytes of memory. Lives as long as the process.
constexpr size_t kLinesHeldBytes = 262144;
struct LineLog {
    // Writes one line that was said at tSaid; blocks as long as the disk does.
    void (*pfnWrite)(time_t tSaid, const char *szLine);
    // Writes that so many lines were lost between the one before and the one said at tSaid.
    void (*pfnWriteLost)(time_t tSaid, unsigned nLost);
    // Guarded by the mutex, under which nothing blocks.
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    HeldLine *pFirst = nullptr;  // owned
    HeldLine *pLast = nullptr;
    size_t nBytes = 0;
    unsigned nLost = 0;  // since the last line that waits
    int bCalled = 0;     // LineLogWriteSome is to be called, or is at it
    void (*pfnCall)() = nullptr;
};

// Says a line: it waits when others are to write it, else it is written here. Any thread.
void LineLogSay(LineLog *pLog, time_t tSaid, const char *szLine);

// Has lines wait until LineLogWriteSome writes them. pfnCall asks for that when a line waits, once until
// LineLogWriteSome returns 1; any thread. What does not fit is counted, and said in its place. Null: whoever
// says a line writes it again, and what waits is written at once. Main thread.
void LineLogDivert(LineLog *pLog, void (*pfnCall)());

// Writes some of the lines that wait. Returns 1 when none is left, else 0. One thread at a time.
int LineLogWriteSome(LineLog *pLog);

}  // namespace orx
