#include "base/eventlog.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <iterator>

#include <fcntl.h>
#include <pthread.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include "base/console.h"
#include "base/linelog.h"
#include "base/textbuf.h"

namespace orx {

constexpr size_t kLineBytes = 4096;
constexpr size_t kValueBytes = 512;  // of a text; the rest is cut
constexpr time_t kTryAgainSeconds = 10;
constexpr int kBoundedEvents = 16;  // kinds that are counted; a further one is not bounded
constexpr int64_t kMinuteMs = 60000;

static const char *const g_levels[] = {"error", "warn", "info", "debug"};

static std::atomic<int> g_nLevel{-1};  // the last that is written; -1: none
static std::atomic<int> g_bJson{0};
static std::atomic<int> g_bReopen{0};  // the writer is to look at the path again

static pthread_mutex_t g_pathMutex = PTHREAD_MUTEX_INITIALIZER;  // nothing blocks under it
static char g_szPath[512] = "";

// ---------------------------------------------------------------- values

// One character of UTF-8 (RFC 3629). Returns its bytes, or 0 when those at p are none.
static size_t ReadCharacter(const unsigned char *p, size_t nLeft, uint32_t *pnCode)
{
    size_t n = p[0] < 0x80 ? 1 : p[0] >= 0xF0 ? 4 : p[0] >= 0xE0 ? 3 : 2;
    if (p[0] >= 0xF5 || (p[0] >= 0x80 && p[0] < 0xC2) || n > nLeft)
        return 0;
    uint32_t nCode = n == 1 ? p[0] : p[0] & (0x7FU >> n);
    for (size_t i = 1; i < n; i++) {
        if ((p[i] & 0xC0) != 0x80)
            return 0;
        nCode = nCode << 6 | (p[i] & 0x3FU);
    }
    static constexpr uint32_t lowest[] = {0, 0, 0x80, 0x800, 0x10000};
    if (nCode < lowest[n] || nCode > 0x10FFFF || (nCode >= 0xD800 && nCode < 0xE000))
        return 0;
    *pnCode = nCode;
    return n;
}

// What commands a terminal, ends a line for some reader, or shows what follows in another order.
static int IsHidden(uint32_t nCode)
{
    return nCode < 0x20 || (nCode >= 0x7F && nCode < 0xA0) || (nCode >= 0x2028 && nCode <= 0x202E) ||
           (nCode >= 0x2066 && nCode <= 0x2069);
}

// Adds a text between quotes, as JSON has it (RFC 8259, section 7).
static int AddQuoted(TextBuf *pText, const char *szValue)
{
    auto *p = reinterpret_cast<const unsigned char *>(szValue);
    size_t nLeft = strnlen(szValue, kValueBytes);
    int bCut = szValue[nLeft] != '\0';
    TextAdd(pText, "\"");
    while (nLeft > 0) {
        uint32_t nCode = 0xFFFD;
        size_t n = ReadCharacter(p, nLeft, &nCode);
        if (n == 0 && bCut && nLeft < 4)  // the cut went through a character
            break;
        if (n == 0)
            TextAdd(pText, "\\ufffd");
        else if (IsHidden(nCode))
            TextAdd(pText, "\\u%04x", nCode);
        else
            TextAdd(pText, "%s%.*s", nCode == '"' || nCode == '\\' ? "\\" : "", static_cast<int>(n), p);
        p += std::max(n, size_t{1});
        nLeft -= std::max(n, size_t{1});
    }
    return TextAdd(pText, bCut ? "...\"" : "\"");
}

// Whether a text can stand in a line as it is.
static int IsPlain(const char *szValue)
{
    const char *p = szValue;
    while (*p > ' ' && *p < 0x7F && *p != '"' && *p != '=' && *p != '\\')
        p++;
    return *p == '\0' && p - szValue <= static_cast<ptrdiff_t>(kValueBytes);
}

// A field, or nothing of it when it does not fit before nReserve bytes.
static void AddField(TextBuf *pLine, const EventField *pField, int bJson)
{
    char value[6 * kValueBytes + 64];
    TextBuf text{value, sizeof(value)};
    if (pField->bText && (!pField->szText || !pField->szText[0]))
        return;
    TextAdd(&text, bJson ? ",\"%s\":" : " %s=", pField->szName);
    if (!pField->bText)
        TextAdd(&text, "%lld", static_cast<long long>(pField->nNumber));
    else if (!bJson && IsPlain(pField->szText))
        TextAdd(&text, "%s", pField->szText);
    else
        AddQuoted(&text, pField->szText);
    if (pLine->nLen + text.nLen + 2 < pLine->nSize)  // room for what ends the line
        TextAdd(pLine, "%s", value);
}

// Local time with its distance from UTC (RFC 3339).
static void AddTime(TextBuf *pText, const timespec *pNow)
{
    tm now{};
    localtime_r(&pNow->tv_sec, &now);
    long nMinutes = now.tm_gmtoff / 60;
    long nApart = nMinutes < 0 ? -nMinutes : nMinutes;
    TextAdd(pText, "%04d-%02d-%02dT%02d:%02d:%02d.%03ld%c%02ld:%02ld", now.tm_year + 1900, now.tm_mon + 1,
            now.tm_mday, now.tm_hour, now.tm_min, now.tm_sec, pNow->tv_nsec / 1000000,
            nMinutes < 0 ? '-' : '+', nApart / 60, nApart % 60);
}

static void MakeLine(TextBuf *pLine, const timespec *pNow, EventLevel eLevel, const char *szEvent,
                     std::initializer_list<EventField> fields)
{
    int bJson = g_bJson.load(std::memory_order_relaxed);
    if (bJson)
        TextAdd(pLine, "{\"time\":\"");
    AddTime(pLine, pNow);
    TextAdd(pLine, bJson ? "\",\"level\":\"%s\",\"event\":\"%s\"" : " %s %s",
            g_levels[static_cast<int>(eLevel)], szEvent);
    for (const EventField &field : fields)
        AddField(pLine, &field, bJson);
    TextAdd(pLine, bJson ? "}\n" : "\n");
}

// ---------------------------------------------------------------- the file

// Of whoever writes: guarded by g_fileMutex, under which the disk is waited for.
static pthread_mutex_t g_fileMutex = PTHREAD_MUTEX_INITIALIZER;
static int g_fd = -1;
static char g_szOpened[512] = "";  // the path that g_fd was opened by, or was tried
static time_t g_tFailed = 0;       // when that failed; 0: it did not
static unsigned g_nMissed = 0;     // lines that the file did not take since then
static int g_bTorn = 0;            // the last line was written in part

static void CloseFile()
{
    if (g_fd >= 0)
        close(g_fd);
    g_fd = -1;
}

// Opens the file unless it is open. A pipe or a device must not hold up the disk thread. Returns 1 or 0.
static int OpenFile(time_t tNow)
{
    if (g_fd >= 0)
        return 1;
    if (!g_szOpened[0] || (g_tFailed && tNow >= g_tFailed && tNow - g_tFailed < kTryAgainSeconds))
        return 0;
    g_fd = open(g_szOpened, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOCTTY | O_NONBLOCK, 0640);
    if (g_fd < 0 && !g_tFailed) {
        char text[640];
        TextBuf line{text, sizeof(text)};
        TextAdd(&line, "The log of events %s cannot be opened: %s.\n", g_szOpened, strerror(errno));
        ConsoleError(text, line.nLen);
    }
    g_tFailed = g_fd < 0 ? tNow : 0;
    g_bTorn = 0;
    return g_fd >= 0;
}

static void LookAtPath()
{
    if (!g_bReopen.exchange(0))
        return;
    CloseFile();
    g_tFailed = 0;
    OutputLock lock(&g_pathMutex);
    TextCopy(g_szOpened, sizeof(g_szOpened), g_szPath);
}

// A file that was deleted or is full gives way to a new one.
static void LookAtFile(size_t nMore)
{
    struct stat info {};
    if (g_fd < 0 || fstat(g_fd, &info) != 0 || !S_ISREG(info.st_mode))
        return;
    int bFull = info.st_size + static_cast<int64_t>(nMore) > kEventFileBytes;
    if (!bFull && info.st_nlink > 0)
        return;
    char szOld[sizeof(g_szOpened) + 2];
    TextBuf old{szOld, sizeof(szOld)};
    TextAdd(&old, "%s.1", g_szOpened);
    if (bFull && info.st_nlink > 0 && rename(g_szOpened, szOld) != 0 && ftruncate(g_fd, 0) != 0)
        return;
    CloseFile();
}

// Takes a part of a line, which nobody could read, out of the file. Returns 1 or 0.
static int CutBack(ssize_t nBytes)
{
    struct stat info {};
    return fstat(g_fd, &info) == 0 && S_ISREG(info.st_mode) && info.st_size >= nBytes &&
           ftruncate(g_fd, info.st_size - nBytes) == 0;
}

// Returns 1 when the whole line is in the file.
static int WriteText(const char *szText, size_t nText)
{
    if (g_bTorn && write(g_fd, "\n", 1) != 1)
        return 0;
    ssize_t n = write(g_fd, szText, nText);
    g_bTorn = n > 0 && static_cast<size_t>(n) < nText && !CutBack(n);
    return n == static_cast<ssize_t>(nText);
}

static void WriteMissed(time_t tNow, unsigned nLost)
{
    char text[256];
    TextBuf line{text, sizeof(text)};
    timespec now{tNow, 0};
    MakeLine(&line, &now, EventLevel::Warn, "log.lost", {EventNumber("lines", nLost)});
    WriteText(text, line.nLen);
}

static void WriteEventLine(time_t tSaid, const char *szLine)
{
    OutputLock lock(&g_fileMutex);
    size_t nLine = strlen(szLine);
    LookAtPath();
    if (!g_szOpened[0])
        return;
    LookAtFile(nLine);
    if (!OpenFile(time(nullptr))) {
        g_nMissed++;
        return;
    }
    if (g_nMissed > 0)
        WriteMissed(tSaid, g_nMissed);
    g_nMissed = WriteText(szLine, nLine) ? 0 : g_nMissed + 1;
}

static void WriteLostLines(time_t tSaid, unsigned nLost)
{
    OutputLock lock(&g_fileMutex);
    LookAtPath();
    if (OpenFile(time(nullptr)))
        WriteMissed(tSaid, nLost);
}

static LineLog g_lines{WriteEventLine, WriteLostLines};

// ---------------------------------------------------------------- bounds

// What was said of one event in the minute that has begun with it. Guarded by g_boundMutex.
struct EventBound {
    const char *szEvent;
    int64_t nFromMs;
    unsigned nSaid;
    unsigned nUnsaid;
};
static pthread_mutex_t g_boundMutex = PTHREAD_MUTEX_INITIALIZER;
static EventBound g_bounds[kBoundedEvents] = {};
static std::atomic<int> g_nOwed{0};  // events of which some are counted and not told

static int64_t SteadyMs()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
}

// Whether one more may be said; else it is counted.
static int MayBeSaid(const char *szEvent)
{
    OutputLock lock(&g_boundMutex);
    int64_t nNow = SteadyMs();
    EventBound *p = std::find_if(
        std::begin(g_bounds), std::end(g_bounds),
        [szEvent](const EventBound &bound) { return !bound.szEvent || strcmp(bound.szEvent, szEvent) == 0; });
    if (p == std::end(g_bounds))
        return 1;
    if (!p->szEvent || (nNow - p->nFromMs >= kMinuteMs && p->nUnsaid == 0))
        *p = {szEvent, nNow, 0, 0};
    if (p->nSaid < kEventsPerMinute) {
        p->nSaid++;
        return 1;
    }
    g_nOwed += p->nUnsaid++ == 0;
    return 0;
}

// Takes what is to be told of one event: its minute is over, or bAll. Returns 0 when there is nothing.
static int TakeOwed(int bAll, EventBound *pOut)
{
    OutputLock lock(&g_boundMutex);
    for (EventBound &bound : g_bounds) {
        if (bound.nUnsaid == 0 || (!bAll && SteadyMs() - bound.nFromMs < kMinuteMs))
            continue;
        *pOut = bound;
        bound.nUnsaid = 0;
        g_nOwed--;
        return 1;
    }
    return 0;
}

static void Say(EventLevel eLevel, const char *szEvent, std::initializer_list<EventField> fields)
{
    char text[kLineBytes];
    TextBuf line{text, sizeof(text)};
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    MakeLine(&line, &now, eLevel, szEvent, fields);
    LineLogSay(&g_lines, now.tv_sec, text);
}

static void TellOwed(int bAll)
{
    EventBound owed{};
    while (g_nOwed.load(std::memory_order_relaxed) > 0 && TakeOwed(bAll, &owed))
        Say(EventLevel::Warn, "log.unsaid",
            {EventText("of", owed.szEvent), EventNumber("events", owed.nUnsaid)});
}

// ----------------------------------------------------------------

int EventWanted(EventLevel eLevel)
{
    return static_cast<int>(eLevel) <= g_nLevel.load(std::memory_order_relaxed);
}

void EventSay(EventLevel eLevel, const char *szEvent, std::initializer_list<EventField> fields)
{
    if (!EventWanted(eLevel))
        return;
    TellOwed(0);
    Say(eLevel, szEvent, fields);
}

void EventSayBounded(EventLevel eLevel, const char *szEvent, std::initializer_list<EventField> fields)
{
    if (!EventWanted(eLevel))
        return;
    TellOwed(0);
    if (MayBeSaid(szEvent))
        Say(eLevel, szEvent, fields);
}

void EventLogOpen(const char *szLevel, const char *szPath, const char *szFormat)
{
    int nLevel = szLevel[0] && szPath[0] ? static_cast<int>(EventLevel::Info) : -1;
    for (int i = 0; nLevel >= 0 && i < 4; i++)
        if (strcasecmp(szLevel, g_levels[i]) == 0)
            nLevel = i;
    g_bJson = strcasecmp(szFormat, "json") == 0;
    {
        OutputLock lock(&g_pathMutex);
        if (strcmp(g_szPath, szPath) != 0)
            g_bReopen = 1;
        TextCopy(g_szPath, sizeof(g_szPath), szPath);
    }
    g_nLevel = nLevel;
}

void EventLogReopen()
{
    g_bReopen = 1;
}

void EventLogDivert(void (*pfnCall)())
{
    LineLogDivert(&g_lines, pfnCall);
}

int EventLogWriteSome()
{
    return LineLogWriteSome(&g_lines);
}

void EventLogTellUnsaid()
{
    if (g_nLevel >= 0)
        TellOwed(1);
}

void EventLogClose()
{
    EventLogTellUnsaid();
    EventLogOpen("", "", "");
    OutputLock lock(&g_fileMutex);
    LookAtPath();
    std::fill(std::begin(g_bounds), std::end(g_bounds), EventBound{});
    g_nOwed = 0;
}

}  // namespace orx
