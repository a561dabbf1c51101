#include "server/front/status.h"

#include <pthread.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <poll.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#include "base/console.h"
#include "base/httphead.h"
#include "base/installdir.h"
#include "base/textbuf.h"
#include "runtime/clock.h"
#include "runtime/mutexguard.h"
#include "runtime/thread.h"
#include "server/core/settings.h"
#include "server/front/reload.h"
#include "server/front/statusaccess.h"
#include "server/front/statustext.h"

namespace orx {

constexpr int kReaders = 8;  // that are served at a time; further ones wait to be accepted
constexpr int kBacklog = 64;
constexpr uint32_t kHeadMs = 5000;    // for the whole of a request
constexpr uint32_t kWriteMs = 10000;  // for the whole of an answer
constexpr uint32_t kDiskMs = 3000;    // a disk that takes longer stalls
constexpr uint32_t kListMs = 20000;   // a list opens every file
constexpr uint32_t kReloadMs = 30000;
constexpr int kPollMs = 200;  // between two looks at whether to stop

struct StatusReader {
    Thread thread;
    int fd = -1;                // owned by the thread while it runs
    std::atomic<int> bDone{0};  // the thread is about to end
};

struct StatusServer {
    int fd = -1;  // owned
    char szPath[sizeof(sockaddr_un::sun_path)] = "";
    Thread thread;  // that accepts
    StatusReader readers[kReaders];
    std::atomic<int> bStop{0};
    uint32_t tStarted = 0;  // uptime in seconds
};

static StatusServer *g_pStatus = nullptr;  // main thread; its threads only read it

// --- One answer ---

struct StatusRequest {
    HttpHead head;
    std::string_view body;  // of a route that takes one; view of the reader's
};

struct StatusAnswer {
    int nStatus = 200;
    const char *szType = "text/plain; charset=utf-8";
    const char *szAllow = nullptr;  // of 405: the methods (RFC 9110, section 15.5.6)
    JsonText body;
};

static void Say(StatusAnswer *pAnswer, int nStatus, const char *szText)
{
    pAnswer->nStatus = nStatus;
    JsonReset(&pAnswer->body);
    JsonAddBytes(&pAnswer->body, szText);
    JsonAddBytes(&pAnswer->body, "\n");
}

static const char *Phrase(int nStatus)
{
    switch (nStatus) {
        case 200:
            return "OK";
        case 400:
            return "Bad Request";
        case 404:
            return "Not Found";
        case 405:
            return "Method Not Allowed";
        case 409:
            return "Conflict";
        case 413:
            return "Content Too Large";
        case 431:
            return "Request Header Fields Too Large";
        case 503:
            return "Service Unavailable";
        default:
            return "Internal Server Error";
    }
}

// Gathers what there is, and has it written.
static void WithFacts(StatusAnswer *pAnswer, DiskQuestion eQuestion,
                      void (*pfnWrite)(StatusAnswer *pAnswer, const StatusFacts *pFacts))
{
    ServerFacts server;
    ServerFactsGather(&server);
    DiskAsk *pAsk = DiskAskFor(eQuestion, server.szRecordPath, "", "", "", kDiskMs);
    if (!pAsk && eQuestion == DISK_FACTS)  // of many recordings, on a disk that is slow and does not stall
        pAsk = DiskAskFor(DISK_PROBE, server.szRecordPath, "", "", "", kDiskMs);
    StatusFacts facts{&server, pAsk ? DiskAnswerOf(pAsk) : nullptr, RemoteServicesRelay(),
                      ClockUptime() - g_pStatus->tStarted};
    pfnWrite(pAnswer, &facts);
    DiskAskFree(pAsk);
    if (server.bFailed)
        Say(pAnswer, 500, "no memory is left");
    ServerFactsFree(&server);
}

static void AnswerStatus(const StatusRequest *, StatusAnswer *pAnswer)
{
    pAnswer->szType = "application/json";
    WithFacts(pAnswer, DISK_FACTS,
              [](StatusAnswer *p, const StatusFacts *pFacts) { StatusWriteJson(&p->body, pFacts); });
}

static void AnswerMetrics(const StatusRequest *, StatusAnswer *pAnswer)
{
    pAnswer->szType = "text/plain; version=0.0.4; charset=utf-8";
    WithFacts(pAnswer, DISK_PROBE,
              [](StatusAnswer *p, const StatusFacts *pFacts) { StatusWriteMetrics(&p->body, pFacts); });
}

static void AnswerHealth(const StatusRequest *, StatusAnswer *pAnswer)
{
    WithFacts(pAnswer, DISK_PROBE, [](StatusAnswer *p, const StatusFacts *pFacts) {
        if (StatusWriteHealth(&p->body, pFacts) > 0)
            p->nStatus = 503;
        else
            Say(p, 200, "ok");
    });
}

static void AnswerRecordings(const StatusRequest *pRequest, StatusAnswer *pAnswer)
{
    char szGiven[kStoragePathSize], szProgram[kStoragePathSize], szDay[16], szAfter[kStoragePathSize],
        szRoot[kStoragePathSize];
    int nProgram = HttpQueryValue(pRequest->head.query, "program", szGiven, sizeof(szGiven));
    int nDay = HttpQueryValue(pRequest->head.query, "day", szDay, sizeof(szDay));
    int nAfter = HttpQueryValue(pRequest->head.query, "after", szAfter, sizeof(szAfter));
    if (nProgram < 0 || !StorageIsInside(szGiven) ||
        !StorageProgramPath(szProgram, sizeof(szProgram), szGiven)) {
        Say(pAnswer, 400, "program= is no name of a program");
        return;
    }
    if (nDay < 0 || nAfter < 0 || (nDay > 0 && !IsDate(szDay))) {
        Say(pAnswer, 400, "day= is a date, YYYYMMDD, and after= a file of the list before");
        return;
    }
    ServerRecordPath(szRoot);
    DiskAsk *pAsk =
        DiskAskFor(szProgram[0] ? DISK_LIST : DISK_FACTS, szRoot, szProgram, szDay, szAfter, kListMs);
    if (!pAsk) {
        Say(pAnswer, 503, "the disk does not answer");
        return;
    }
    pAnswer->szType = "application/json";
    if (!szProgram[0])
        StatusWriteDays(&pAnswer->body, DiskAnswerOf(pAsk));
    else if (DiskAnswerOf(pAsk)->bThere)
        StatusWriteRecordings(&pAnswer->body, szGiven, DiskAnswerOf(pAsk));
    DiskAskFree(pAsk);
    if (!pAnswer->body.sz) {
        pAnswer->szType = "text/plain; charset=utf-8";
        Say(pAnswer, 404, "there are no recordings of this program");
    }
}

// --- Orders ---

struct Kick {
    uint32_t nHandle;
    int bFound;
};

static void KickThere(void *pContext)
{
    auto *pKick = static_cast<Kick *>(pContext);
    Session *pSession = FindSessionByHandle(pKick->nHandle);
    pKick->bFound = pSession != nullptr;
    if (!pSession)
        return;
    SessionNoteEnd(pSession, "kicked by the administrator");
    SessionEnd(pSession);
}

static void AnswerKick(const StatusRequest *pRequest, StatusAnswer *pAnswer)
{
    char szSession[24];
    char *pEnd = szSession;
    unsigned long nHandle = 0;
    if (HttpQueryValue(pRequest->head.query, "session", szSession, sizeof(szSession)) > 0)
        nHandle = strtoul(szSession, &pEnd, 16);
    if (pEnd == szSession || *pEnd || nHandle == 0 || nHandle > UINT32_MAX) {
        Say(pAnswer, 400, "session= is the number of a session, as /status tells it");
        return;
    }
    Kick kick{static_cast<uint32_t>(nHandle), 0};
    StatusRunThere(KickThere, &kick);
    if (kick.bFound)
        Say(pAnswer, 200, "ended");
    else
        Say(pAnswer, 404, "there is no such session");
}

// Held by who waits and by the reading, which may outlast him.
struct ReloadWait {
    std::atomic<int> nHolders{2};
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    int bDone = 0;
    int bTaken = 0;
    char szText[2048] = "";
};

static void ReleaseReload(ReloadWait *p)
{
    if (--p->nHolders > 0)
        return;
    pthread_mutex_destroy(&p->mutex);
    delete p;
}

static void OnReloaded(void *pContext, const ReloadResult *pResult)
{
    auto *p = static_cast<ReloadWait *>(pContext);
    {
        MutexGuard lock(&p->mutex);
        TextBuf text{p->szText, sizeof(p->szText)};
        p->bTaken = pResult->bTaken;
        if (!pResult->bTaken)
            TextAdd(&text, "the old values hold: %s", pResult->szWhyNot ? pResult->szWhyNot : "");
        else if (pResult->szRestart && pResult->szRestart[0])
            TextAdd(&text, "read; these count from the next start: %s", pResult->szRestart);
        else
            TextAdd(&text, "read");
        p->bDone = 1;
    }
    ReleaseReload(p);
}

static int ReloadIsDone(ReloadWait *p)
{
    MutexGuard lock(&p->mutex);
    return p->bDone;
}

static void AnswerReload(const StatusRequest *, StatusAnswer *pAnswer)
{
    auto *p = new (std::nothrow) ReloadWait;
    if (!p) {
        Say(pAnswer, 500, "no memory is left");
        return;
    }
    ReloadAsk(OnReloaded, p);
    for (uint32_t nMs = 0; nMs < kReloadMs && !g_pStatus->bStop && !ReloadIsDone(p); nMs += 10)
        usleep(10000);
    if (ReloadIsDone(p))
        Say(pAnswer, p->bTaken ? 200 : 409, p->szText);
    else
        Say(pAnswer, 503, "the configuration is still being read");
    ReleaseReload(p);
}

static void AnswerAccess(const StatusRequest *pRequest, StatusAnswer *pAnswer)
{
    pAnswer->szType = "application/json";
    if (StatusWriteAccess(&pAnswer->body, pRequest->body))
        return;
    pAnswer->szType = "text/plain; charset=utf-8";
    Say(pAnswer, 400, "program= is no name of a program");
}

struct StatusRoute {
    const char *szPath;
    int bPost;  // it is an order
    void (*pfnAnswer)(const StatusRequest *pRequest, StatusAnswer *pAnswer);
    size_t nMostBody = 0;
};
static const StatusRoute g_routes[] = {
    {"/status", 0, AnswerStatus},
    {"/metrics", 0, AnswerMetrics},
    {"/health", 0, AnswerHealth},
    {"/recordings", 0, AnswerRecordings},
    {"/reload", 1, AnswerReload},
    {"/kick", 1, AnswerKick},
    {"/access", 1, AnswerAccess, kMaxAccessForm},
};

static const StatusRoute *RouteOf(const HttpHead *pHead)
{
    for (const StatusRoute &route : g_routes)
        if (pHead->path == route.szPath)
            return &route;
    return nullptr;
}

static void SayMethod(StatusAnswer *pAnswer, int bPost)
{
    Say(pAnswer, 405, bPost ? "this is an order: POST" : "this is a question: GET or HEAD");
    pAnswer->szAllow = bPost ? "POST" : "GET, HEAD";
}

// Whether the request is answered once its body is there; else what is wrong is the answer.
static int MayAnswer(const HttpHead *pHead, StatusAnswer *pAnswer)
{
    const StatusRoute *pRoute = RouteOf(pHead);
    int bGet = pHead->method == "GET" || pHead->method == "HEAD";
    if (pHead->nBody > (pRoute ? pRoute->nMostBody : 0))
        Say(pAnswer, 413,
            pRoute && pRoute->nMostBody ? "the form is too long" : "no request has a body here");
    else if (!pRoute)
        Say(pAnswer, 404,
            "there are /status, /metrics, /health, /recordings?program=&day=YYYYMMDD, and by POST /reload, "
            "/kick?session= and /access");
    else if (pRoute->bPost ? pHead->method != "POST" : !bGet)
        SayMethod(pAnswer, pRoute->bPost);
    else
        return 1;
    return 0;
}

// --- A reader ---

// Waits until the socket is ready, a deadline (ClockMs) has come or the server stops. Returns 1 or 0.
static int WaitFor(int fd, short nEvents, uint32_t nDeadline)
{
    while (!g_pStatus->bStop && ClockDiff(nDeadline, ClockMs()) > 0) {
        pollfd set{fd, nEvents, 0};
        int n = poll(&set, 1, kPollMs);
        if (n > 0)
            return 1;
        if (n < 0 && errno != EINTR)
            return 0;
    }
    return 0;
}

// Returns 1 when all of it was taken.
static int WriteAll(int fd, std::string_view bytes, uint32_t nDeadline)
{
    while (!bytes.empty()) {
        ssize_t n = send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n > 0)
            bytes.remove_prefix(static_cast<size_t>(n));
        else if (errno != EINTR && (errno != EAGAIN || !WaitFor(fd, POLLOUT, nDeadline)))
            return 0;
    }
    return 1;
}

static void WriteAnswer(int fd, const StatusAnswer *pAnswer, int bHeadOnly)
{
    char szHead[512];
    TextBuf head{szHead, sizeof(szHead)};
    TextAdd(&head,
            "HTTP/1.1 %d %s\r\nContent-Type: %s\r\nContent-Length: %zu\r\nCache-Control: no-store\r\n"
            "%s%s%sConnection: close\r\n\r\n",
            pAnswer->nStatus, Phrase(pAnswer->nStatus), pAnswer->szType, pAnswer->body.nLen,
            pAnswer->szAllow ? "Allow: " : "", pAnswer->szAllow ? pAnswer->szAllow : "",
            pAnswer->szAllow ? "\r\n" : "");
    uint32_t nDeadline = ClockMs() + kWriteMs;
    if (WriteAll(fd, {szHead, head.nLen}, nDeadline) && !bHeadOnly && pAnswer->body.nLen > 0)
        WriteAll(fd, {pAnswer->body.sz, pAnswer->body.nLen}, nDeadline);
    shutdown(fd, SHUT_WR);
}

// Room for a whole request; it may hold a password, and is wiped.
struct ReadBuffer {
    char bytes[kMaxHttpHead + kMaxAccessForm];
    size_t nLen = 0;
    uint32_t nDeadline = ClockMs() + kHeadMs;
    ~ReadBuffer() { explicit_bzero(bytes, sizeof(bytes)); }
};

// Waits for more of the request, which stays below nMost bytes. Returns 1, or 0 when there is nobody to
// answer.
static int ReadMore(int fd, ReadBuffer *p, size_t nMost)
{
    while (WaitFor(fd, POLLIN, p->nDeadline)) {
        ssize_t n = recv(fd, p->bytes + p->nLen, nMost - p->nLen, MSG_DONTWAIT);
        if (n == 0 || (n < 0 && errno != EAGAIN && errno != EINTR))
            return 0;
        if (n < 0)
            continue;
        p->nLen += static_cast<size_t>(n);
        return 1;
    }
    return 0;
}

// Reads the head of the request. Returns 1, or 0 when there is nobody to answer. What is wrong with it is the
// answer then (*pbBad).
static int ReadHead(int fd, ReadBuffer *p, HttpHead *pHead, StatusAnswer *pAnswer, int *pbBad)
{
    *pbBad = 0;
    while (ReadMore(fd, p, kMaxHttpHead)) {
        HttpHeadState eState = HttpHeadRead({p->bytes, p->nLen}, pHead);
        if (eState == HTTP_HEAD_MORE)
            continue;
        *pbBad = eState != HTTP_HEAD_WHOLE;
        if (eState == HTTP_HEAD_BAD)
            Say(pAnswer, 400, "this is no HTTP request");
        if (eState == HTTP_HEAD_TOO_LONG)
            Say(pAnswer, 431, "the head of the request is too long");
        return 1;
    }
    return 0;
}

// Reads the body of a request that may have one. Returns 1, or 0 when there is nobody to answer.
static int ReadBody(int fd, ReadBuffer *p, StatusRequest *pRequest)
{
    size_t nWhole = pRequest->head.nBytes + pRequest->head.nBody;
    while (p->nLen < nWhole)
        if (!ReadMore(fd, p, nWhole))
            return 0;
    pRequest->body = {p->bytes + pRequest->head.nBytes, pRequest->head.nBody};
    return 1;
}

// Reads a request and finds its answer. Returns 1, or 0 when there is nobody to answer.
static int Answer(int fd, StatusRequest *pRequest, ReadBuffer *pBuffer, StatusAnswer *pAnswer)
{
    int bBad;
    if (!ReadHead(fd, pBuffer, &pRequest->head, pAnswer, &bBad))
        return 0;
    if (bBad)
        pRequest->head = HttpHead();
    if (bBad || !MayAnswer(&pRequest->head, pAnswer))
        return 1;
    if (!ReadBody(fd, pBuffer, pRequest))
        return 0;
    RouteOf(&pRequest->head)->pfnAnswer(pRequest, pAnswer);
    return 1;
}

static void ReaderEntry(Thread *pThread)
{
    auto *pReader = static_cast<StatusReader *>(pThread->pArgument);
    ReadBuffer buffer;
    StatusRequest request;
    StatusAnswer answer;
    if (Answer(pReader->fd, &request, &buffer, &answer)) {
        if (answer.body.bFailed)
            Say(&answer, 500, "no memory is left");
        WriteAnswer(pReader->fd, &answer, request.head.method == "HEAD");
    }
    JsonFree(&answer.body);
    close(pReader->fd);
    pReader->bDone = 1;
}

// --- The socket ---

// A place for one more reader, or null while all are taken.
static StatusReader *FreeReader(StatusServer *p)
{
    for (StatusReader &reader : p->readers) {
        if (reader.thread.bCreated && reader.bDone)
            ThreadJoin(&reader.thread);
        if (!reader.thread.bCreated)
            return &reader;
    }
    return nullptr;
}

static void AcceptEntry(Thread *pThread)
{
    auto *p = static_cast<StatusServer *>(pThread->pArgument);
    while (!p->bStop) {
        StatusReader *pReader = FreeReader(p);
        pollfd set{p->fd, POLLIN, 0};
        if (!pReader || poll(&set, 1, kPollMs) <= 0) {
            if (!pReader)
                usleep(10000);
            continue;
        }
        int fd = accept4(p->fd, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) {
            usleep(100000);  // descriptors may come free
            continue;
        }
        pReader->fd = fd;
        pReader->bDone = 0;
        if (!ThreadCreateSmall(&pReader->thread, ReaderEntry, pReader))
            close(fd);
    }
}

// "run" below the installation directory is made.
static void MakeDirectory(const char *szPath)
{
    char szDir[sizeof(sockaddr_un::sun_path)], szRun[sizeof(szDir)];
    if (StorageDirOf(szDir, sizeof(szDir), szPath) && InstallPath(szRun, sizeof(szRun), "run") &&
        strcmp(szDir, szRun) == 0)
        mkdir(szDir, 0755);
}

// Whether a server listens on the socket file; a file without one is left over from an earlier run.
static int IsAlive(const sockaddr_un *pAddr)
{
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    int bAlive = fd >= 0 && (connect(fd, reinterpret_cast<const sockaddr *>(pAddr), sizeof(*pAddr)) == 0 ||
                             errno == EAGAIN || errno == EACCES || errno == EPERM);
    if (fd >= 0)
        close(fd);
    return bAlive;
}

// Returns 1, or 0 with errno.
static int Bind(int fd, const char *szPath)
{
    sockaddr_un addr{};
    struct stat info {};
    addr.sun_family = AF_UNIX;
    TextCopy(addr.sun_path, sizeof(addr.sun_path), szPath);
    if (lstat(szPath, &info) == 0) {
        if (!S_ISSOCK(info.st_mode) || IsAlive(&addr)) {
            errno = EADDRINUSE;
            return 0;
        }
        unlink(szPath);
    }
    if (bind(fd, reinterpret_cast<const sockaddr *>(&addr), sizeof(addr)) != 0)
        return 0;
    // connections come from here on: nobody else gets in before
    if (chmod(szPath, 0660) == 0 && listen(fd, kBacklog) == 0)
        return 1;
    int nErrno = errno;
    unlink(szPath);
    errno = nErrno;
    return 0;
}

static int OpenSocket(StatusServer *p)
{
    errno = ENAMETOOLONG;
    if (!InstallPath(p->szPath, sizeof(p->szPath), g_settings.szStatusSocket)) {
        TextCopy(p->szPath, sizeof(p->szPath), g_settings.szStatusSocket);
        return 0;
    }
    MakeDirectory(p->szPath);
    p->fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (p->fd >= 0 && Bind(p->fd, p->szPath))
        return 1;
    int nErrno = errno;
    if (p->fd >= 0)
        close(p->fd);
    p->fd = -1;
    errno = nErrno;
    return 0;
}

void StatusOpen()
{
    if (!g_settings.szStatusSocket[0])
        return;
    g_pStatus = new (std::nothrow) StatusServer;
    if (!g_pStatus)
        return;
    g_pStatus->tStarted = ClockUptime();
    DiskAskStop(0);
    int bOpen = OpenSocket(g_pStatus);
    ListenerNote("status", g_pStatus->szPath, bOpen ? 0 : errno);
}

void StatusStart()
{
    if (!g_pStatus || g_pStatus->fd < 0)
        return;
    StatusMeterStart();
    ThreadCreateSmall(&g_pStatus->thread, AcceptEntry, g_pStatus);
}

void StatusStop()
{
    if (!g_pStatus)
        return;
    g_pStatus->bStop = 1;
    DiskAskStop(1);
    ThreadJoin(&g_pStatus->thread);
    for (StatusReader &reader : g_pStatus->readers)
        ThreadJoin(&reader.thread);
    if (g_pStatus->fd >= 0) {
        unlink(g_pStatus->szPath);
        close(g_pStatus->fd);
    }
    delete g_pStatus;
    g_pStatus = nullptr;
}

}  // namespace orx
