#include "remote/fastrelays.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <new>
#include <utility>

#include "base/console.h"
#include "base/fdguard.h"
#include "remote/hostlookup.h"
#include "runtime/clock.h"
#include "runtime/mutexguard.h"
#include "runtime/sockutil.h"
#include "runtime/thread.h"

namespace orx {

constexpr size_t kReadSize = 65536;
constexpr int kUnsent = 131072;       // bytes that wait in the kernel for a client, beyond what is on its way
constexpr int32_t kLookupMs = 20;     // between two looks at a name that is looked up
constexpr int32_t kConnectMs = 2000;  // the web server is on the box or next to it
constexpr int32_t kGoodbyeMs = 2000;  // for a client to take a refusal
constexpr int32_t kAnsweredMs = 5000;  // for a client to close once the web server has
constexpr int32_t kHalfOpenMs =
    60000;  // for the rest of an answer that does not come, the client having ended

enum class FastState {
    Lookup,   // of the web server's address
    Connect,  // to it
    Carry,
    Goodbye,  // the client was told that the web server is down
    Parked,   // it is, and the client waits in vain
};

// One direction.
struct FastWay {
    uint8_t *pLeft = nullptr;  // what was read and is not yet sent; owned, from malloc
    size_t nAt = 0, nEnd = 0;  // of it
    int bEnded = 0;            // the sender has
    int bTold = 0;             // ... which the receiver knows
    int bWasted = 0;           // the receiver takes no more
};

struct FastRelay {
    ListNode node;  // first
    FastState eState = FastState::Lookup;
    int fdClient = -1;              // owned
    int fdTarget = -1;              // owned
    HostLookup *pLookup = nullptr;  // owned
    uint64_t nClientIp = 0;
    uint32_t tMoved = 0;  // ClockMs when the last byte was carried, or the state began
    FastWay up, down;     // to the web server, to the client
    unsigned nPoll = 0;   // its place among the polls of this round; those behind it come next round
};

struct FastRelays {
    Thread thread;
    const HttpRelayCommon *pCommon = nullptr;  // not owned
    int fdWake = -1;                           // event descriptor: something was added, or all are to end
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    List relays;  // FastRelay; changed with the mutex held, by the thread, but for what is added at its end
    // The rest belongs to the thread.
    pollfd *pPolls = nullptr;  // owned
    unsigned nPolls = 0, nRoom = 0;
    uint8_t buffer[kReadSize];
};

static FastRelay *Next(const FastRelay *p)
{
    return reinterpret_cast<FastRelay *>(p->node.pNext);
}

static void FreeRelay(void * /*pUser*/, void *pItem)
{
    auto *p = static_cast<FastRelay *>(pItem);
    HostLookupFree(p->pLookup);
    SockClose(p->fdClient);
    SockClose(p->fdTarget);
    free(p->up.pLeft);
    free(p->down.pLeft);
    delete p;
}

// --- To the web server ---

// It cannot be reached. Returns 1: the relay stays for a while.
static int OnDown(const HttpRelayCommon *pCommon, FastRelay *p)
{
    SockClose(std::exchange(p->fdTarget, -1));
    free(std::exchange(p->up.pLeft, nullptr));
    p->eState = pCommon->bLimited ? FastState::Goodbye : FastState::Parked;
    p->tMoved = ClockMs();
    if (pCommon->bLimited)
        HttpTellDown(p->fdClient);
    return 1;
}

// Begins to connect. Returns 1, or 0 when that failed at once.
static int BeginConnect(const HttpRelayCommon *pCommon, FastRelay *p, uint32_t nIp)
{
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(nIp);
    addr.sin_port = htons(pCommon->nTargetPort);
    p->fdTarget = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (p->fdTarget < 0)
        return 0;
    // closing resets, so that a relay that ends leaves nothing lingering at the web server
    linger reset{1, 0};
    setsockopt(p->fdTarget, SOL_SOCKET, SO_LINGER, &reset, sizeof(reset));
    // pictures are small pieces that nobody is to wait for
    SockSetOption(p->fdTarget, IPPROTO_TCP, TCP_NODELAY, 1);
    p->eState = FastState::Connect;
    p->tMoved = ClockMs();
    return connect(p->fdTarget, reinterpret_cast<const sockaddr *>(&addr), sizeof(addr)) == 0 ||
           errno == EINPROGRESS;
}

static int StepLookup(const HttpRelayCommon *pCommon, FastRelay *p)
{
    uint32_t nIp = 0;
    int nResult = p->pLookup ? HostLookupResult(p->pLookup, &nIp) : 0;
    if (nResult < 0)
        return 1;
    HostLookupFree(std::exchange(p->pLookup, nullptr));
    return nResult > 0 && BeginConnect(pCommon, p, nIp) ? 1 : OnDown(pCommon, p);
}

static int StepConnect(const HttpRelayCommon *pCommon, FastRelay *p, short nEvents)
{
    if (!nEvents)
        return ClockDiff(ClockMs(), p->tMoved) < kConnectMs ? 1 : OnDown(pCommon, p);
    if (SockTakeError(p->fdTarget) != 0)
        return OnDown(pCommon, p);
    p->eState = FastState::Carry;
    p->tMoved = ClockMs();
    return 1;
}

// --- Both ways ---

// The receiver takes no more. A web server may have answered all the same, before it had read everything:
// what the client still sends is thrown away. Returns 1, or 0 when that was the client.
static int OnRefused(const FastRelay *p, FastWay *pWay)
{
    free(std::exchange(pWay->pLeft, nullptr));
    pWay->bWasted = 1;
    return pWay == &p->up;
}

// Sends what is left of a direction. Returns 1, or 0 when the relay is over.
static int SendLeft(FastRelay *p, FastWay *pWay, int fdTo)
{
    ssize_t n = send(fdTo, pWay->pLeft + pWay->nAt, pWay->nEnd - pWay->nAt, MSG_NOSIGNAL);
    if (n < 0)
        return errno == EAGAIN || errno == EINTR || OnRefused(p, pWay);
    pWay->nAt += static_cast<size_t>(n);
    p->tMoved = ClockMs();
    if (pWay->nAt == pWay->nEnd)
        free(std::exchange(pWay->pLeft, nullptr));
    return 1;
}

// Keeps what the receiver did not take. Returns 1, or 0 without memory.
static int KeepLeft(FastWay *pWay, const uint8_t *pBytes, size_t nBytes)
{
    pWay->pLeft = static_cast<uint8_t *>(malloc(nBytes));
    if (!pWay->pLeft)
        return 0;
    memcpy(pWay->pLeft, pBytes, nBytes);
    pWay->nAt = 0;
    pWay->nEnd = nBytes;
    return 1;
}

// Sends what was read, and keeps what is not taken. Returns 1, or 0 when the relay is over.
static int SendRead(FastRelays *pRelays, FastRelay *p, FastWay *pWay, size_t nRead, int fdTo)
{
    ssize_t nSent = send(fdTo, pRelays->buffer, nRead, MSG_NOSIGNAL);
    if (nSent < 0 && errno != EAGAIN && errno != EINTR)
        return OnRefused(p, pWay);
    size_t nTaken = nSent > 0 ? static_cast<size_t>(nSent) : 0;
    return nTaken == nRead || KeepLeft(pWay, pRelays->buffer + nTaken, nRead - nTaken);
}

// Carries one read. Returns 1, or 0 when the relay is over: a client that has gone needs no answer, but of a
// web server that has the last words are still to be told.
static int ReadSome(FastRelays *pRelays, FastRelay *p, FastWay *pWay, int fdFrom, int fdTo)
{
    ssize_t nRead = recv(fdFrom, pRelays->buffer, kReadSize, 0);
    if (nRead < 0 && (errno == EAGAIN || errno == EINTR))
        return 1;
    if (nRead < 0 && pWay == &p->up)
        return 0;
    pWay->bEnded = nRead <= 0;
    if (pWay->bWasted)
        return 1;
    p->tMoved = ClockMs();
    return nRead <= 0 || SendRead(pRelays, p, pWay, static_cast<size_t>(nRead), fdTo);
}

static int StepWay(FastRelays *pRelays, FastRelay *p, FastWay *pWay, const pollfd *pFrom, const pollfd *pTo)
{
    if (pWay->pLeft) {
        if (pTo->revents && !SendLeft(p, pWay, pTo->fd))
            return 0;
    } else if (!pWay->bEnded && pFrom->revents && !ReadSome(pRelays, p, pWay, pFrom->fd, pTo->fd)) {
        return 0;
    }
    if (pWay->bEnded && !pWay->pLeft && !pWay->bTold) {
        shutdown(pTo->fd, SHUT_WR);
        pWay->bTold = 1;
    }
    return 1;
}

// For how long nothing may be carried; -1: for ever.
static int32_t SilentMs(const HttpRelayCommon *pCommon, const FastRelay *p)
{
    if (p->down.bTold)
        return kAnsweredMs;
    return p->up.bEnded && pCommon->nSilentMs < 0 ? kHalfOpenMs : pCommon->nSilentMs;
}

static int StepCarry(FastRelays *pRelays, FastRelay *p, const pollfd *pClient, const pollfd *pTarget)
{
    pollfd client = *pClient, target = *pTarget;
    client.fd = p->fdClient;  // which was not polled where nothing was wanted of it
    target.fd = p->fdTarget;
    if (!StepWay(pRelays, p, &p->up, &client, &target) || !StepWay(pRelays, p, &p->down, &target, &client))
        return 0;
    int32_t nSilentMs = SilentMs(pRelays->pCommon, p);
    return !(p->up.bTold && p->down.bTold) && (nSilentMs < 0 || ClockDiff(ClockMs(), p->tMoved) < nSilentMs);
}

// Reads on until the client has closed: closing with bytes unread would reset the connection, and the page
// with it.
static int StepGoodbye(FastRelays *pRelays, const FastRelay *p, short nEvents)
{
    ssize_t n = nEvents ? recv(p->fdClient, pRelays->buffer, kReadSize, 0) : 1;
    int bOpen = n > 0 || (n < 0 && (errno == EAGAIN || errno == EINTR));
    return bOpen && ClockDiff(ClockMs(), p->tMoved) < kGoodbyeMs;
}

// Returns 1, or 0 when the relay is over.
static int Step(FastRelays *pRelays, FastRelay *p, const pollfd *pPolls)
{
    switch (p->eState) {
        case FastState::Lookup:
            return StepLookup(pRelays->pCommon, p);
        case FastState::Connect:
            return StepConnect(pRelays->pCommon, p, pPolls[1].revents);
        case FastState::Carry:
            return StepCarry(pRelays, p, &pPolls[0], &pPolls[1]);
        case FastState::Goodbye:
            return StepGoodbye(pRelays, p, pPolls[0].revents);
        case FastState::Parked:
            return !pPolls[0].revents;
    }
    return 0;
}

// --- The thread ---

// What a relay waits for. A socket of which nothing is wanted is left out: it would say again and again that
// its peer has gone.
static void SetPolls(const FastRelay *p, pollfd *pPolls)
{
    short nClient = 0, nTarget = 0;
    auto want = [](const FastWay &in, const FastWay &out) {
        return static_cast<short>((in.bEnded || in.pLeft ? 0 : POLLIN) | (out.pLeft ? POLLOUT : 0));
    };
    if (p->eState == FastState::Carry) {
        nClient = want(p->up, p->down);
        nTarget = want(p->down, p->up);
    } else if (p->eState == FastState::Connect) {
        nTarget = POLLOUT;
    } else if (p->eState != FastState::Lookup) {
        nClient = p->eState == FastState::Parked ? POLLRDHUP : POLLIN;
    }
    pPolls[0] = {nClient ? p->fdClient : -1, nClient, 0};
    pPolls[1] = {nTarget ? p->fdTarget : -1, nTarget, 0};
}

// When a relay wants its turn without an event, in ms from now; -1: never.
static int32_t DueMs(const HttpRelayCommon *pCommon, const FastRelay *p)
{
    int32_t nMost = -1;
    switch (p->eState) {
        case FastState::Lookup:
            return kLookupMs;
        case FastState::Connect:
            nMost = kConnectMs;
            break;
        case FastState::Carry:
            nMost = SilentMs(pCommon, p);
            break;
        case FastState::Goodbye:
            nMost = kGoodbyeMs;
            break;
        case FastState::Parked:
            break;
    }
    return nMost < 0 ? -1 : std::max(nMost - ClockDiff(ClockMs(), p->tMoved), 0);
}

// Room for the polls of one more relay. Returns 1, or 0 without memory.
static int PollsGrow(FastRelays *pRelays)
{
    if (pRelays->nPolls + 2 <= pRelays->nRoom)
        return 1;
    unsigned nRoom = 2 * pRelays->nRoom + 64;
    auto *pPolls = static_cast<pollfd *>(realloc(pRelays->pPolls, nRoom * sizeof(pollfd)));
    if (!pPolls)
        return 0;
    pRelays->pPolls = pPolls;
    pRelays->nRoom = nRoom;
    return 1;
}

// Gathers what is waited for. Returns the first relay, which are as many as have polls, and in *pnWaitMs for
// how long to wait.
static FastRelay *Gather(FastRelays *pRelays, int *pnWaitMs)
{
    MutexGuard lock(&pRelays->mutex);
    auto *pFirst = ListFirstOf<FastRelay>(&pRelays->relays);
    int nWaitMs = -1;
    pRelays->pPolls[0] = {pRelays->fdWake, POLLIN, 0};
    pRelays->nPolls = 1;
    for (FastRelay *p = pFirst; p; p = Next(p)) {
        p->nPoll = 0;
        if (!PollsGrow(pRelays))
            continue;  // it waits until others have gone
        p->nPoll = pRelays->nPolls;
        SetPolls(p, &pRelays->pPolls[p->nPoll]);
        pRelays->nPolls += 2;
        int32_t nDueMs = DueMs(pRelays->pCommon, p);
        if (nDueMs >= 0)
            nWaitMs = nWaitMs < 0 ? nDueMs : std::min(nWaitMs, nDueMs);
    }
    *pnWaitMs = nWaitMs;
    return pFirst;
}

// The relay behind this one, which is freed when it is over.
static FastRelay *StepOn(FastRelays *pRelays, FastRelay *p, int bOver)
{
    MutexGuard lock(&pRelays->mutex);
    FastRelay *pNext = Next(p);
    if (bOver)
        ListFree(&pRelays->relays, p);
    return pNext;
}

static void FastRelaysEntry(Thread *pThread)
{
    auto *pRelays = static_cast<FastRelays *>(pThread->pArgument);
    while (!ThreadStopping(pThread)) {
        int nWaitMs;
        eventfd_t nWoken;
        FastRelay *p = Gather(pRelays, &nWaitMs);
        if (poll(pRelays->pPolls, pRelays->nPolls, nWaitMs) < 0)
            for (unsigned i = 0; i < pRelays->nPolls; i++)
                pRelays->pPolls[i].revents = 0;
        if (pRelays->pPolls[0].revents)
            eventfd_read(pRelays->fdWake, &nWoken);
        // what was added meanwhile has its turn in the next round
        for (unsigned nSeen = 1; p && nSeen < pRelays->nPolls;) {
            int bSeen = p->nPoll > 0;
            nSeen += bSeen ? 2 : 0;
            p = StepOn(pRelays, p, bSeen && !Step(pRelays, p, &pRelays->pPolls[p->nPoll]));
        }
    }
}

// --- From outside ---

static void Free(FastRelays *pRelays)
{
    ListDestroy(&pRelays->relays);
    SockClose(pRelays->fdWake);
    free(pRelays->pPolls);
    pthread_mutex_destroy(&pRelays->mutex);
    delete pRelays;
}

FastRelays *FastRelaysStart(const HttpRelayCommon *pCommon)
{
    auto *pRelays = new (std::nothrow) FastRelays;
    if (!pRelays)
        return nullptr;
    pRelays->pCommon = pCommon;
    pRelays->fdWake = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    ListInit(&pRelays->relays, nullptr);
    ListUsedDefMap(&pRelays->relays, 0);
    ListDataProc(&pRelays->relays, FreeRelay, nullptr);
    if (pRelays->fdWake >= 0 && PollsGrow(pRelays) &&
        ThreadCreateSmall(&pRelays->thread, FastRelaysEntry, pRelays))
        return pRelays;
    Free(pRelays);
    return nullptr;
}

void FastRelaysStop(FastRelays *pRelays)
{
    if (!pRelays)
        return;
    ThreadExit(&pRelays->thread);
    eventfd_write(pRelays->fdWake, 1);
    ThreadJoin(&pRelays->thread);
    Free(pRelays);
}

void FastRelaysAdd(FastRelays *pRelays, int fdClient, uint64_t nClientIp, const void *pFirst, size_t nFirst)
{
    FdGuard client(fdClient);
    auto *p = new (std::nothrow) FastRelay;
    if (!p)
        return;
    if (!KeepLeft(&p->up, static_cast<const uint8_t *>(pFirst), nFirst)) {
        delete p;
        return;
    }
    SockSetOption(fdClient, IPPROTO_TCP, TCP_NODELAY, 1);
    SockSetOption(fdClient, IPPROTO_TCP, TCP_NOTSENT_LOWAT, kUnsent);
    p->fdClient = client.Release();
    p->nClientIp = nClientIp;
    p->tMoved = ClockMs();
    p->pLookup = HostLookupStart(pRelays->pCommon->szTargetIp);
    StepLookup(pRelays->pCommon, p);  // an address is known at once
    MutexGuard lock(&pRelays->mutex);
    ListAppend(&pRelays->relays, p);
    eventfd_write(pRelays->fdWake, 1);
}

void FastRelaysCount(FastRelays *pRelays, uint64_t nClientIp, unsigned *pnAll, unsigned *pnSame)
{
    MutexGuard lock(&pRelays->mutex);
    for (auto *p = ListFirstOf<FastRelay>(&pRelays->relays); p; p = Next(p)) {
        ++*pnAll;
        *pnSame += p->nClientIp == nClientIp;
    }
}

}  // namespace orx
