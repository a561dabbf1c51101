#include "base/console.h"

#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include <atomic>

#include <poll.h>
#include <pthread.h>
#include <unistd.h>

#include "base/textbuf.h"

namespace orx {

constexpr long kLogMaxBytes = 204800;  // a larger log is trimmed: it may lie on a RAM disk of some megabytes
constexpr long kLogDropBytes = 51200;  // a quarter at a time, so that the file is seldom written anew
constexpr size_t kLogMessageSize = 1024;  // longer messages are cut
constexpr size_t kPrintRoom = 1024;       // longer prints, such as dumped requests, are formatted on the heap

constexpr int kStallMs = 1000;  // how long a full pipe is waited for: a reader that is alive reads sooner
constexpr size_t kPieceBytes = PIPE_BUF;  // what a pipe that polls writable takes without blocking

static std::atomic<int> g_bDaemon{0};  // written at start-up, read by any thread
static pthread_mutex_t g_printMutex = PTHREAD_MUTEX_INITIALIZER;
static pthread_mutex_t g_logMutex = PTHREAD_MUTEX_INITIALIZER;

// The log file. Set at start-up, the date key then changed under g_logMutex.
static char g_szLogPath[256] = "";
static int g_nLogEnabled = 0;
static int g_nLogDateKey = 0;  // day of the last line; 0 before the first

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

// Waits until standard output takes more. 0 when it does not: a pipe that nobody empties must not hold up the
// server, so one that has stalled for a second loses what is printed until somebody reads again. A pipe whose
// reader has gone is not written to: each write raises SIGPIPE, whose handler prints in turn, without end.
static int WaitForOutput()
{
    static std::atomic<int> g_bStalled{0};
    pollfd out{STDOUT_FILENO, POLLOUT, 0};
    int bReady = poll(&out, 1, g_bStalled ? 0 : kStallMs) > 0 && !(out.revents & POLLERR);
    g_bStalled = !bReady;
    return bReady;
}

// Writes all of it to standard output unless that breaks or stalls. Safe in a signal handler.
static void WriteOut(const char *szText, size_t nLen)
{
    while (nLen > 0 && WaitForOutput()) {
        size_t nPiece = nLen < kPieceBytes ? nLen : kPieceBytes;
        ssize_t n = write(STDOUT_FILENO, szText, nPiece);
        if (n > 0) {
            szText += n;
            nLen -= size_t(n);
        } else if (n == 0 || (errno != EINTR && errno != EAGAIN)) {
            return;
        }
    }
}

// Formatted before the lock is taken and written past stdio, so that a pipe or file has it at once and no
// lock of stdio is held when a signal or a cancellation comes.
void print(const char *szFormat, ...)
{
    if (g_bDaemon.load(std::memory_order_relaxed))
        return;
    char room[kPrintRoom];
    va_list args;
    va_start(args, szFormat);
    int n = vsnprintf(room, sizeof(room), szFormat, args);
    va_end(args);
    if (n < 0)
        return;
    auto nLen = size_t(n);
    char *pLong = nullptr;
    if (nLen >= sizeof(room) && (pLong = static_cast<char *>(malloc(nLen + 1)))) {
        va_start(args, szFormat);
        vsnprintf(pLong, nLen + 1, szFormat, args);
        va_end(args);
    } else if (nLen >= sizeof(room)) {
        nLen = sizeof(room) - 1;  // no memory: better cut than silent
    }
    {
        OutputLock lock(&g_printMutex);
        WriteOut(pLong ? pLong : room, nLen);
    }
    free(pLong);
}

void ConsoleWriteRaw(const char *szText, size_t nLen)
{
    if (g_bDaemon.load(std::memory_order_relaxed))
        return;
    int nErrno = errno;  // the interrupted code may be about to look at it
    WriteOut(szText, nLen);
    errno = nErrno;
}

void ConsoleSetDaemon(int bDaemon)
{
    g_bDaemon.store(bDaemon, std::memory_order_relaxed);
}

void LogSetup(const char *szPath, int nEnabled)
{
    OutputLock lock(&g_logMutex);
    TextCopy(g_szLogPath, sizeof(g_szLogPath), szPath);
    g_nLogEnabled = nEnabled;
    g_nLogDateKey = 0;
}

// Rewrites an over-long log without its oldest part; the rest starts at a line. Returns the open file, or
// null when it could not be opened again. Without memory the log just grows.
static FILE *TrimLog(FILE *pFile, long nBytes)
{
    auto nKeep = size_t(nBytes - kLogDropBytes);
    char *pKeep = static_cast<char *>(malloc(nKeep));
    if (!pKeep)
        return pFile;
    fseek(pFile, kLogDropBytes, SEEK_SET);
    nKeep = fread(pKeep, 1, nKeep, pFile);
    fclose(pFile);
    pFile = fopen(g_szLogPath, "wbe");
    if (pFile) {
        const void *pEol = memmem(pKeep, nKeep, "\r\n", 2);
        size_t nSkip = pEol ? size_t(static_cast<const char *>(pEol) - pKeep) + 2 : 0;
        fwrite(pKeep + nSkip, 1, nKeep - nSkip, pFile);
    }
    free(pKeep);
    return pFile;
}

static FILE *OpenLog()
{
    FILE *pFile = fopen(g_szLogPath, "a+be");
    if (!pFile)
        return nullptr;
    fseek(pFile, 0, SEEK_END);
    long nBytes = ftell(pFile);
    return nBytes > kLogMaxBytes ? TrimLog(pFile, nBytes) : pFile;
}

static void WriteLogLine(FILE *pFile, const char *szMessage)
{
    time_t tNow = time(nullptr);
    tm now{};
    localtime_r(&tNow, &now);
    int nDateKey = now.tm_year * 10000 + now.tm_mon * 100 + now.tm_mday;
    if (nDateKey != g_nLogDateKey) {
        g_nLogDateKey = nDateKey;
        fprintf(pFile, "\r\n%04d-%02d-%02d\r\n", now.tm_year + 1900, now.tm_mon + 1, now.tm_mday);
    }
    fprintf(pFile, "%02d:%02d:%02d: %s\r\n", now.tm_hour, now.tm_min, now.tm_sec, szMessage);
}

void log(const char *szFormat, ...)
{
    if (!g_nLogEnabled)
        return;
    char message[kLogMessageSize] = "";
    va_list args;
    va_start(args, szFormat);
    vsnprintf(message, sizeof(message), szFormat, args);
    va_end(args);

    OutputLock lock(&g_logMutex);
    FILE *pFile = OpenLog();
    if (!pFile)
        return;
    WriteLogLine(pFile, message);
    fclose(pFile);
}

}  // namespace orx
