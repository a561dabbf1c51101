#include "orxweb/httpserver.h"

#include <microhttpd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <condition_variable>
#include <cstring>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <thread>

#include "shared/loop.h"

namespace orx {

constexpr unsigned kServingThreads = 2;
constexpr unsigned kIdleSeconds = 60;
constexpr size_t kConnectionMemory = 64 << 10;  // request and reply heads, and what is sent at once
constexpr size_t kBlock = 48 << 10;
constexpr size_t kMostWork = 4096;
constexpr uint64_t kLaterMs = 20000;  // so long an answer may say "later"
constexpr uint64_t kStillMs = 4000;   // between two looks whether a visitor may still have an endless body

enum class Phase {
    Head,     // the request comes in
    Working,  // a worker has it; the connection is suspended
    Later,    // the worker answered so; suspended
    Done,     // the answer stands
    Sending,
};

// One request. The thread that serves the connection owns it, with a worker while phase is Working.
struct Exchange {
    uint64_t nId = 0;
    MHD_Connection *pConnection = nullptr;
    WebRequest request;
    WebAnswer answer;
    int bBadForm = 0;
    // Guarded by the mutex:
    Phase phase = Phase::Head;
    int bSuspended = 0;
    int bMore = 0;          // WebMore came while it was not suspended
    int bRevoked = 0;       // its visitor may not have the body any more
    uint64_t nSinceMs = 0;  // of Later; of Sending: the last look

    Exchange() = default;
    Exchange(const Exchange &) = delete;
    Exchange &operator=(const Exchange &) = delete;
    ~Exchange();  // never under the mutex: sources wait for those who call WebMore
};
using ExchangePtr = std::shared_ptr<Exchange>;

struct Work {
    ExchangePtr pExchange;  // its answer is wanted, or, with bLook, whether its visitor may still have it; or
    int bLook = 0;
    void (*pfnWork)(void *pContext) = nullptr;
    void *pContext = nullptr;
};

static HttpServerSettings g_settings;
static MHD_Daemon *g_pDaemon = nullptr;
static std::vector<std::thread> g_workers;
static std::thread g_keeper;
static std::mutex g_mutex;
// Guarded by it:
static std::condition_variable g_wake, g_keeperWake;
static std::map<uint64_t, ExchangePtr> g_exchanges;
static std::deque<Work> g_work;
static uint64_t g_nLastId = 0;
static int g_bQuit = 0;

Exchange::~Exchange()
{
    if (answer.pProcs)
        answer.pProcs->pfnFree(answer.pSource);
    else if (request.pKept && g_settings.pfnForget)
        g_settings.pfnForget(request.pKept);
}

// --- suspending ---

// With the mutex held, as the next. A connection that waits costs nothing; Resume has it served again.
static void Suspend(Exchange *p)
{
    p->bSuspended = 1;
    MHD_suspend_connection(p->pConnection);
}

static void Resume(Exchange *p)
{
    if (!p->bSuspended)
        return;
    p->bSuspended = 0;
    MHD_resume_connection(p->pConnection);
}

static int Queue(Work work)
{
    if (g_bQuit || g_work.size() >= kMostWork)
        return 0;
    g_work.push_back(std::move(work));
    g_wake.notify_one();
    return 1;
}

int WebWork(void (*pfnWork)(void *pContext), void *pContext)
{
    std::lock_guard lock(g_mutex);
    return Queue({nullptr, 0, pfnWork, pContext});
}

void WebMore(uint64_t nId)
{
    std::lock_guard lock(g_mutex);
    auto it = g_exchanges.find(nId);
    if (it == g_exchanges.end())
        return;
    Exchange *p = it->second.get();
    if (p->phase == Phase::Later) {
        p->phase = Phase::Working;
        p->request.bAgain = 1;
        Queue({it->second});
    } else if (p->phase == Phase::Sending && p->bSuspended) {
        Resume(p);
    } else {
        p->bMore = 1;
    }
}

void WebMoreProc(void *pContext)
{
    WebMore(reinterpret_cast<uintptr_t>(pContext));
}

// --- workers ---

// What the worker found. What said "later" goes on at once if there is more already.
static void TakeAnswer(const ExchangePtr &pExchange, WebAnswer answer)
{
    std::lock_guard lock(g_mutex);
    Exchange *p = pExchange.get();
    p->request.pKept = answer.pKept;
    if (!answer.bLater) {
        p->answer = std::move(answer);
        p->phase = Phase::Done;
        Resume(p);
        return;
    }
    if (!p->request.bAgain)
        p->nSinceMs = LoopNowMs();
    p->phase = Phase::Later;
    if (p->bMore) {
        p->bMore = 0;
        p->phase = Phase::Working;
        p->request.bAgain = 1;
        Queue({pExchange});
    }
}

static int TakeWork(Work *pOut)
{
    std::unique_lock lock(g_mutex);
    g_wake.wait(lock, [] { return g_bQuit || !g_work.empty(); });
    if (g_bQuit)
        return 0;
    *pOut = std::move(g_work.front());
    g_work.pop_front();
    return 1;
}

// Whether the visitor may still have what he is sent.
static void LookAgain(Exchange *p)
{
    int bMay = p->answer.pProcs->pfnStillMay(p->answer.pSource);
    std::lock_guard lock(g_mutex);
    p->bRevoked = !bMay;
    p->nSinceMs = LoopNowMs();
    if (!bMay)
        Resume(p);
}

static void Worker()
{
    Work work;
    while (TakeWork(&work)) {
        if (work.bLook)
            LookAgain(work.pExchange.get());
        else if (work.pExchange)
            TakeAnswer(work.pExchange, g_settings.pfnAnswer(&work.pExchange->request));
        else
            work.pfnWork(work.pContext);
        work = Work();
    }
}

// With the mutex held: what is due for one exchange.
static void KeepOne(const ExchangePtr &pExchange, uint64_t nNowMs)
{
    Exchange *p = pExchange.get();
    if (p->phase == Phase::Later && nNowMs >= p->nSinceMs + kLaterMs) {
        p->phase = Phase::Working;
        p->request.bAgain = p->request.bTimeout = 1;
        Queue({pExchange});
    } else if (p->phase == Phase::Sending && p->answer.pProcs && p->answer.pProcs->pfnStillMay &&
               nNowMs >= p->nSinceMs + kStillMs) {
        p->nSinceMs = nNowMs + kStillMs * 10;  // not while that look goes on
        Queue({pExchange, 1});
    }
}

static void Keeper()
{
    std::unique_lock lock(g_mutex);
    while (!g_bQuit) {
        uint64_t nNow = LoopNowMs();
        for (const auto &item : g_exchanges)
            KeepOne(item.second, nNow);
        g_keeperWake.wait_for(lock, std::chrono::seconds(1));
    }
}

// --- sending ---

static ssize_t ReadSource(void *pContext, uint64_t nOffset, char *pOut, size_t nSize)
{
    Exchange *p = static_cast<ExchangePtr *>(pContext)->get();
    for (;;) {
        {
            std::lock_guard lock(g_mutex);
            if (g_bQuit || p->bRevoked)
                return MHD_CONTENT_READER_END_WITH_ERROR;
            p->bMore = 0;
        }
        ssize_t n = p->answer.pProcs->pfnRead(p->answer.pSource, nOffset, pOut, nSize);
        if (n > 0)
            return n;
        if (n < 0)
            return n == -1 ? MHD_CONTENT_READER_END_OF_STREAM : MHD_CONTENT_READER_END_WITH_ERROR;
        std::lock_guard lock(g_mutex);
        if (g_bQuit || p->bRevoked)
            return MHD_CONTENT_READER_END_WITH_ERROR;
        if (!p->bMore) {
            Suspend(p);
            return 0;
        }
    }
}

static void FreeSource(void *pContext)
{
    auto *ppExchange = static_cast<ExchangePtr *>(pContext);
    delete ppExchange;
}

static MHD_Response *MakeResponse(const ExchangePtr &pExchange)
{
    WebAnswer &answer = pExchange->answer;
    if (!answer.pProcs)
        return MHD_create_response_from_buffer(answer.body.size(), answer.body.data(), MHD_RESPMEM_MUST_COPY);
    return MHD_create_response_from_callback(answer.nSize == kEndless ? MHD_SIZE_UNKNOWN : answer.nSize,
                                             kBlock, ReadSource, new ExchangePtr(pExchange), FreeSource);
}

static MHD_Result Send(const ExchangePtr &pExchange)
{
    WebAnswer &answer = pExchange->answer;
    MHD_Response *pResponse = MakeResponse(pExchange);
    if (!pResponse)
        return MHD_NO;
    for (const auto &[name, value] : answer.headers)
        MHD_add_response_header(pResponse, name.c_str(), value.c_str());
    {
        std::lock_guard lock(g_mutex);
        pExchange->phase = Phase::Sending;
        pExchange->nSinceMs = LoopNowMs();
    }
    MHD_Result result =
        MHD_queue_response(pExchange->pConnection, static_cast<unsigned>(answer.nStatus), pResponse);
    MHD_destroy_response(pResponse);
    return result;
}

static MHD_Result SendStatus(const ExchangePtr &pExchange, int nStatus)
{
    pExchange->answer = WebAnswer();
    pExchange->answer.nStatus = nStatus;
    pExchange->answer.body = std::to_string(nStatus) + "\n";
    WebHeader(&pExchange->answer, "Content-Type", "text/plain");
    WebHeader(&pExchange->answer, "Connection", "close");
    if (nStatus == 405)
        WebHeader(&pExchange->answer, "Allow", "GET, HEAD, POST");
    return Send(pExchange);
}

// --- receiving ---

static void *OnTarget(void *, const char *szTarget, MHD_Connection *pConnection)
{
    auto *ppExchange = new ExchangePtr(std::make_shared<Exchange>());
    Exchange *p = ppExchange->get();
    std::string target = szTarget;
    size_t nQuery = target.find('?');
    p->pConnection = pConnection;
    p->request.path = target.substr(0, nQuery);
    p->request.query = nQuery == std::string::npos ? "" : target.substr(nQuery + 1);
    const MHD_ConnectionInfo *pInfo = MHD_get_connection_info(pConnection, MHD_CONNECTION_INFO_CONNECTION_FD);
    if (pInfo)
        p->request.peer = DoorPeer(pInfo->connect_fd);
    std::lock_guard lock(g_mutex);
    p->nId = p->request.nId = ++g_nLastId;
    g_exchanges[p->nId] = *ppExchange;
    return ppExchange;
}

static void ReadHeaders(Exchange *p)
{
    const struct {
        const char *szName;
        std::string *pOut;
    } rows[] = {{"Host", &p->request.host},
                {"Cookie", &p->request.cookie},
                {"Authorization", &p->request.authorization},
                {"Accept-Language", &p->request.language},
                {"Range", &p->request.range},
                {"If-Range", &p->request.ifRange},
                {"If-None-Match", &p->request.ifNoneMatch},
                {"Origin", &p->request.origin},
                {"Referer", &p->request.referer},
                {"Sec-Fetch-Site", &p->request.fetchSite},
                {"X-Forwarded-Proto", &p->request.forwardedProto}};
    for (const auto &row : rows)
        if (const char *sz = MHD_lookup_connection_value(p->pConnection, MHD_HEADER_KIND, row.szName))
            *row.pOut = sz;
    if (!p->request.peer.bLocal && !p->request.peer.bFronted)
        p->request.forwardedProto.clear();  // anybody's word
}

// The head is there. Returns 0 to go on, or the status to refuse with.
static int CheckHead(Exchange *p, const char *szMethod)
{
    p->request.method = szMethod;
    ReadHeaders(p);
    if (strcmp(szMethod, "GET") != 0 && strcmp(szMethod, "HEAD") != 0 && strcmp(szMethod, "POST") != 0)
        return 405;
    const char *szLength =
        MHD_lookup_connection_value(p->pConnection, MHD_HEADER_KIND, MHD_HTTP_HEADER_CONTENT_LENGTH);
    return szLength && (strlen(szLength) > 5 || strtoul(szLength, nullptr, 10) > kMostForm) ? 413 : 0;
}

static void TakeForm(Exchange *p, const char *pData, size_t nBytes)
{
    if (p->request.form.size() + nBytes > kMostForm)
        p->bBadForm = 1;
    else
        p->request.form.append(pData, nBytes);
}

static MHD_Result BeginWork(const ExchangePtr &pExchange)
{
    {
        std::lock_guard lock(g_mutex);
        pExchange->phase = Phase::Working;
        if (Queue({pExchange})) {
            Suspend(pExchange.get());
            return MHD_YES;
        }
    }
    return SendStatus(pExchange, 503);
}

static MHD_Result OnRequest(void *, MHD_Connection *, const char *, const char *szMethod, const char *,
                            const char *pData, size_t *pnBytes, void **ppContext)
{
    const ExchangePtr pExchange = *static_cast<ExchangePtr *>(*ppContext);
    Exchange *p = pExchange.get();
    Phase phase;
    {
        std::lock_guard lock(g_mutex);
        phase = p->phase;
        if (g_bQuit)
            return MHD_NO;
    }
    if (phase == Phase::Done)
        return Send(pExchange);
    if (phase != Phase::Head)
        return MHD_YES;
    if (p->request.method.empty()) {
        int nStatus = CheckHead(p, szMethod);
        return nStatus ? SendStatus(pExchange, nStatus) : MHD_YES;
    }
    if (*pnBytes) {
        TakeForm(p, pData, *pnBytes);
        *pnBytes = 0;
        return MHD_YES;
    }
    return p->bBadForm ? SendStatus(pExchange, 413) : BeginWork(pExchange);
}

// No worker has it any more: those that do hold it by their own pointer, and find it gone from the table.
static void OnCompleted(void *, MHD_Connection *, void **ppContext, MHD_RequestTerminationCode)
{
    auto *ppExchange = static_cast<ExchangePtr *>(*ppContext);
    if (!ppExchange)
        return;
    ExchangePtr pExchange = *ppExchange;
    delete ppExchange;
    *ppContext = nullptr;
    {
        std::lock_guard lock(g_mutex);
        g_exchanges.erase(pExchange->nId);
        pExchange->bSuspended = 0;
    }
}

static void OnConnection(void *, MHD_Connection *pConnection, void **, MHD_ConnectionNotificationCode code)
{
    const MHD_ConnectionInfo *pInfo = MHD_get_connection_info(pConnection, MHD_CONNECTION_INFO_CONNECTION_FD);
    if (code == MHD_CONNECTION_NOTIFY_CLOSED && pInfo)
        DoorLeft(pInfo->connect_fd);
}

static int TakeConnection(int fd, const NetAddr *pAddr)
{
    return MHD_add_connection(g_pDaemon, fd, &pAddr->any, AddrSize(pAddr)) == MHD_YES;
}

static size_t KeepEscapes(void *, MHD_Connection *, char *sz)
{
    return strlen(sz);  // our own reader decodes
}

// --- life ---

int HttpServerStart(const HttpServerSettings *pSettings, std::string *pWhy)
{
    g_settings = *pSettings;
    g_settings.door.pfnTake = TakeConnection;
    // poll: by epoll it would not see that a visitor left behind a request that is not whole
    g_pDaemon = MHD_start_daemon(
        MHD_USE_POLL_INTERNAL_THREAD | MHD_USE_NO_LISTEN_SOCKET | MHD_ALLOW_SUSPEND_RESUME | MHD_USE_ITC, 0,
        nullptr, nullptr, OnRequest, nullptr, MHD_OPTION_THREAD_POOL_SIZE, kServingThreads,
        MHD_OPTION_CONNECTION_LIMIT, static_cast<unsigned>(g_settings.door.nMost) * kServingThreads,
        MHD_OPTION_CONNECTION_TIMEOUT, kIdleSeconds, MHD_OPTION_CONNECTION_MEMORY_LIMIT, kConnectionMemory,
        MHD_OPTION_URI_LOG_CALLBACK, OnTarget, nullptr, MHD_OPTION_NOTIFY_COMPLETED, OnCompleted, nullptr,
        MHD_OPTION_NOTIFY_CONNECTION, OnConnection, nullptr, MHD_OPTION_UNESCAPE_CALLBACK, KeepEscapes,
        nullptr, MHD_OPTION_END);
    if (!g_pDaemon) {
        *pWhy = std::string("HTTP does not start: ") + strerror(errno);
        return 0;
    }
    for (int i = 0; i < g_settings.nWorkers; i++)
        g_workers.emplace_back(Worker);
    g_keeper = std::thread(Keeper);
    if (DoorOpen(&g_settings.door, pWhy))
        return 1;
    HttpServerStop();
    return 0;
}

void HttpServerStop()
{
    DoorClose();
    {
        std::lock_guard lock(g_mutex);
        g_bQuit = 1;
        g_wake.notify_all();
        g_keeperWake.notify_all();
    }
    for (std::thread &worker : g_workers)
        worker.join();
    if (g_keeper.joinable())
        g_keeper.join();
    {
        std::lock_guard lock(g_mutex);
        for (const auto &item : g_exchanges)
            Resume(item.second.get());
    }
    MHD_stop_daemon(g_pDaemon);
    g_work.clear();
}

}  // namespace orx
