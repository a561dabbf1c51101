#include "base/console.h"

#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include <atomic>
#include <initializer_list>
#include <utility>

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include "base/linelog.h"
#include "base/textbuf.h"

namespace orx {

constexpr long kLogMaxBytes = 204800;  // a larger log is trimmed: it may lie on a RAM disk of some megabytes
constexpr long kLogDropBytes = 51200;  // a quarter at a time, so that the file is seldom written anew
constexpr size_t kLogMessageSize = 1024;  // longer messages are cut
constexpr size_t kPrintRoom = 1024;       // longer prints, such as dumped requests, are formatted on the heap

constexpr size_t kPieceBytes = PIPE_BUF;  // what a pipe that polls writable takes without blocking
constexpr size_t kHeldBytes = 65536;      // of text that waits for a reader: as much as the pipe itself holds
constexpr int kLastWordsMs = 1000;        // how long the end of the process waits for a reader

static std::atomic<int> g_bDaemon{0};    // written at start-up, read by any thread
static std::atomic<int> g_bQuiet{0};     // written when the configuration is read
static thread_local int g_nAnswers = 0;  // what this thread prints is said in quiet, too
static pthread_mutex_t g_printMutex = PTHREAD_MUTEX_INITIALIZER;  // of both channels: they may be one pipe
static pthread_mutex_t g_logMutex = PTHREAD_MUTEX_INITIALIZER;

// The log file. Set at start-up, the date key then changed under g_logMutex.
static char g_szLogPath[256] = "";
static int g_nLogEnabled = 0;
static int g_nLogDateKey = 0;  // day of the last line; 0 before the first

// A stream that is written without waiting. A pipe that nobody empties must not hold up the server: what it
// does not take is held, and what there is no room for is counted and said once somebody reads again. Guarded
// by g_printMutex.
struct Channel {
    const int fdStream;
    int fd = fdStream;      // owned when it is another one
    char *pHeld = nullptr;  // owned, kHeldBytes; from the first stall on
    size_t nHeld = 0;
    unsigned nLost = 0;  // texts since the last one that was taken
};
static Channel g_out{STDOUT_FILENO};
static Channel g_err{STDERR_FILENO};

// Whether a stream takes kPieceBytes without blocking: 1; 0 not within nWaitMs; -1 never again. A pipe whose
// reader has gone is not written to: each write raises SIGPIPE, whose handler prints in turn, without end.
static int CanWrite(int fd, int nWaitMs)
{
    pollfd out{fd, POLLOUT, 0};
    int nReady = poll(&out, 1, nWaitMs);
    if (nReady > 0 && (out.revents & (POLLERR | POLLNVAL)))
        return -1;
    return nReady > 0 && (out.revents & POLLOUT);
}

// Writes what a stream takes at once. Returns those bytes, all of them when it is broken. Safe in a signal
// handler.
static size_t WriteNow(int fd, const char *szText, size_t nLen, int nWaitMs)
{
    size_t nDone = 0;
    while (nDone < nLen) {
        int nReady = CanWrite(fd, nWaitMs);
        if (nReady <= 0)
            return nReady < 0 ? nLen : nDone;
        ssize_t n = write(fd, szText + nDone, nLen - nDone < kPieceBytes ? nLen - nDone : kPieceBytes);
        if (n > 0)
            nDone += size_t(n);
        else if (n < 0 && errno == EAGAIN)
            return nDone;
        else if (n == 0 || errno != EINTR)
            return nLen;
    }
    return nDone;
}

// Writes what is held, and what was lost behind it. 1 when nothing is left to be said.
static int Drain(Channel *pChannel, int nWaitMs)
{
    size_t nDone = WriteNow(pChannel->fd, pChannel->pHeld, pChannel->nHeld, nWaitMs);
    pChannel->nHeld -= nDone;
    if (nDone > 0 && pChannel->nHeld > 0)
        memmove(pChannel->pHeld, pChannel->pHeld + nDone, pChannel->nHeld);
    if (pChannel->nHeld > 0)
        return 0;
    if (pChannel->nLost > 0 && CanWrite(pChannel->fd, 0) != 0) {
        char lost[64];
        int n = snprintf(lost, sizeof(lost), "(%u messages that nobody read are lost)\r\n", pChannel->nLost);
        WriteNow(pChannel->fd, lost, size_t(n), 0);
        pChannel->nLost = 0;
    }
    return pChannel->nLost == 0;
}

// Writes a text, or holds what is not taken; a text is held whole or not at all, unless it has begun.
static void Write(Channel *pChannel, const char *szText, size_t nLen)
{
    size_t nDone = Drain(pChannel, 0) ? WriteNow(pChannel->fd, szText, nLen, 0) : 0;
    if (nDone == nLen)
        return;
    if (!pChannel->pHeld)
        pChannel->pHeld = static_cast<char *>(malloc(kHeldBytes));
    if (pChannel->nLost > 0 || !pChannel->pHeld || nLen - nDone > kHeldBytes - pChannel->nHeld) {
        pChannel->nLost++;
        return;
    }
    memcpy(pChannel->pHeld + pChannel->nHeld, szText + nDone, nLen - nDone);
    pChannel->nHeld += nLen - nDone;
}

static int IsSilent()
{
    return g_bDaemon.load(std::memory_order_relaxed) ||
           (g_bQuiet.load(std::memory_order_relaxed) && g_nAnswers == 0);
}

// Formatted before the lock is taken and written past stdio, so that a pipe or file has it at once and no
// lock of stdio is held when a signal or a cancellation comes.
void print(const char *szFormat, ...)
{
    if (IsSilent())
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
        Write(&g_out, pLong ? pLong : room, nLen);
    }
    free(pLong);
}

void ConsoleWriteRaw(const char *szText, size_t nLen)
{
    if (IsSilent())
        return;
    int nErrno = errno;  // the interrupted code may be about to look at it
    WriteNow(g_out.fd, szText, nLen, 0);
    errno = nErrno;
}

void ConsoleError(const char *szText, size_t nLen)
{
    OutputLock lock(&g_printMutex);
    Write(&g_err, szText, nLen);
}

void ConsoleFlush(int bLast)
{
    OutputLock lock(&g_printMutex);
    for (Channel *pChannel : {&g_out, &g_err})
        if (pChannel->nHeld > 0 || pChannel->nLost > 0)
            Drain(pChannel, bLast ? kLastWordsMs : 0);
}

// Opens the pipe or terminal behind a stream once more, without blocking. The stream itself is shared with
// the shell that started us, whose own reads and writes must go on to block. A file must keep its one place.
static void Unblock(Channel *pChannel, int bOn)
{
    char szPath[32];
    struct stat info {};
    TextBuf path{szPath, sizeof(szPath)};
    TextAdd(&path, "/proc/self/fd/%d", pChannel->fdStream);
    if (pChannel->fd != pChannel->fdStream)
        close(std::exchange(pChannel->fd, pChannel->fdStream));
    if (!bOn || fstat(pChannel->fdStream, &info) != 0 ||
        (!S_ISFIFO(info.st_mode) && !isatty(pChannel->fdStream)))
        return;
    int fd = open(szPath, O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (fd >= 0)
        pChannel->fd = fd;
}

void ConsoleUnblock(int bOn)
{
    OutputLock lock(&g_printMutex);
    Unblock(&g_out, bOn);
    Unblock(&g_err, bOn);
}

void ConsoleSetDaemon(int bDaemon)
{
    g_bDaemon.store(bDaemon, std::memory_order_relaxed);
}

void ConsoleSetQuiet(int bQuiet)
{
    g_bQuiet.store(bQuiet, std::memory_order_relaxed);
}

ConsoleAnswers::ConsoleAnswers()
{
    g_nAnswers++;
}

ConsoleAnswers::~ConsoleAnswers()
{
    g_nAnswers--;
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

// A line with the time at which it was said; the file's first one of a day gets a date header.
static void WriteLogLine(time_t tSaid, const char *szMessage)
{
    OutputLock lock(&g_logMutex);
    FILE *pFile = OpenLog();
    if (!pFile)
        return;
    tm said{};
    localtime_r(&tSaid, &said);
    int nDateKey = said.tm_year * 10000 + said.tm_mon * 100 + said.tm_mday;
    if (nDateKey != g_nLogDateKey) {
        g_nLogDateKey = nDateKey;
        fprintf(pFile, "\r\n%04d-%02d-%02d\r\n", said.tm_year + 1900, said.tm_mon + 1, said.tm_mday);
    }
    fprintf(pFile, "%02d:%02d:%02d: %s\r\n", said.tm_hour, said.tm_min, said.tm_sec, szMessage);
    fclose(pFile);
}

static void WriteLostLine(time_t tSaid, unsigned nLost)
{
    char lost[64];
    TextBuf text{lost, sizeof(lost)};
    TextAdd(&text, "(%u lines that waited for the disk are lost)", nLost);
    WriteLogLine(tSaid, lost);
}

static LineLog g_logLines{WriteLogLine, WriteLostLine};

int LogWriteSome()
{
    return LineLogWriteSome(&g_logLines);
}

void LogDivert(void (*pfnCall)())
{
    LineLogDivert(&g_logLines, pfnCall);
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
    LineLogSay(&g_logLines, time(nullptr), message);
}

}  // namespace orx
