#include "shared/link.h"

#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <new>
#include <utility>
#include <vector>

#include "shared/lookup.h"
#include "shared/pinfile.h"
#include "shared/tls.h"

namespace orx {

constexpr int kFinishMs = 1000;

enum class LinkState {
    Name,     // the name is being looked up
    Connect,  // to one of the addresses, then to the next
    Shake,    // the handshake of TLS
    Open,
    Failed,  // fault and why are set; the timer brings it to the user
    Ended,   // the user knows; only LinkClose comes
};

struct Link {
    Loop *pLoop = nullptr;
    LinkTarget target;
    LinkProcs procs{};
    void *pUser = nullptr;
    LinkState state = LinkState::Name;
    int fd = -1;  // owned
    LoopWatch watch;
    LoopTimer timer;         // how long a step may take; Failed: at once
    uint64_t nGiveUpMs = 0;  // when it must stand
    Lookup *pLookup = nullptr;
    std::vector<NetAddr> addresses;  // those that were not tried yet, the next at the end
    Tls *pTls = nullptr;
    int bTlsWrites = 0;  // reading waits until the descriptor can be written
    std::string queue;   // what waits, from nSent on
    size_t nSent = 0;
    LinkFault fault = LinkFault::None;
    std::string why;
    int bLeaving = 0;       // LinkFinish: nothing is called any more
    int *pbGone = nullptr;  // set by whoever frees it under the feet of an event
};

static thread_local int g_nLeaving;

const char *LinkFaultText(LinkFault fault)
{
    static const char *const kTexts[] = {"", "name", "refused", "route", "tls", "closed", "lost", "full"};
    return kTexts[static_cast<size_t>(fault)];
}

std::string LinkPeerName(const std::string &host, int nPort)
{
    int bIpv6 = host.find(':') != std::string::npos;
    return (bIpv6 ? "[" + host + "]" : host) + ":" + std::to_string(nPort);
}

static void CloseSocket(Link *pLink)
{
    TlsFree(std::exchange(pLink->pTls, nullptr));
    if (pLink->fd < 0)
        return;
    LoopSetWatch(pLink->pLoop, &pLink->watch, 0);
    close(std::exchange(pLink->fd, -1));
}

static void FreeLink(Link *pLink)
{
    CloseSocket(pLink);
    LookupDrop(pLink->pLookup);
    LoopClearTimer(pLink->pLoop, &pLink->timer);
    if (pLink->pbGone)
        *pLink->pbGone = 1;
    g_nLeaving -= pLink->bLeaving;
    delete pLink;
}

// Notes why it ends. The timer brings it to the user, so that no call of the user's has it come from inside.
static void Fail(Link *pLink, LinkFault fault, const std::string &why)
{
    if (pLink->state >= LinkState::Failed)
        return;
    CloseSocket(pLink);
    pLink->state = LinkState::Failed;
    pLink->fault = fault;
    pLink->why = LinkPeerName(pLink->target.host, pLink->target.nPort) + ": " + why;
    LoopSetTimer(pLink->pLoop, &pLink->timer, 0);
}

static void FailByErrno(Link *pLink, int nError)
{
    LinkFault fault = nError == ECONNREFUSED            ? LinkFault::Refused
                      : pLink->state == LinkState::Open ? LinkFault::Lost
                                                        : LinkFault::Route;
    Fail(pLink, fault, strerror(nError));
}

static int Watch(Link *pLink)
{
    uint32_t nWanted = pLink->state == LinkState::Connect ? EPOLLOUT : EPOLLIN;
    if (pLink->bTlsWrites || (pLink->state == LinkState::Open && pLink->nSent < pLink->queue.size()))
        nWanted |= EPOLLOUT;
    if (LoopSetWatch(pLink->pLoop, &pLink->watch, nWanted))
        return 1;
    Fail(pLink, LinkFault::Lost, strerror(errno));
    return 0;
}

// --- Sending ---

// How many bytes went at once; -1 with a fault noted.
static ssize_t SendPieces(Link *pLink, const iovec *pPieces, size_t nPieces)
{
    msghdr message{};
    message.msg_iov = const_cast<iovec *>(pPieces);
    message.msg_iovlen = nPieces;
    ssize_t n = sendmsg(pLink->fd, &message, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (n >= 0)
        return n;
    if (errno == EAGAIN || errno == EINTR || errno == ENOBUFS)
        return 0;
    FailByErrno(pLink, errno);
    return -1;
}

static ssize_t SendTls(Link *pLink, const char *pData, size_t nBytes)
{
    size_t nAll = 0, nDone = 0;
    std::string why;
    while (nAll < nBytes) {
        TlsStep step = TlsWrite(pLink->pTls, pData + nAll, nBytes - nAll, &nDone, &why);
        if (step == TlsStep::Read || step == TlsStep::Write)
            break;
        if (step != TlsStep::Done) {
            Fail(pLink, step == TlsStep::Closed ? LinkFault::Closed : LinkFault::Lost, why);
            return -1;
        }
        nAll += nDone;
    }
    return static_cast<ssize_t>(nAll);
}

// Sends of the queue what goes. Returns 1 when it is empty.
static int Flush(Link *pLink)
{
    while (pLink->nSent < pLink->queue.size()) {
        iovec piece{pLink->queue.data() + pLink->nSent, pLink->queue.size() - pLink->nSent};
        ssize_t n = pLink->pTls ? SendTls(pLink, static_cast<char *>(piece.iov_base), piece.iov_len)
                                : SendPieces(pLink, &piece, 1);
        if (n <= 0)
            return 0;
        pLink->nSent += static_cast<size_t>(n);
    }
    std::string().swap(pLink->queue);  // its memory as well
    pLink->nSent = 0;
    return 1;
}

static void Enqueue(Link *pLink, const iovec *pPieces, int nPieces, size_t nSkip)
{
    if (pLink->nSent > pLink->queue.size() / 2)
        pLink->queue.erase(0, std::exchange(pLink->nSent, 0));
    for (int i = 0; i < nPieces; i++) {
        size_t nPassed = std::min(nSkip, pPieces[i].iov_len);
        nSkip -= nPassed;
        pLink->queue.append(static_cast<const char *>(pPieces[i].iov_base) + nPassed,
                            pPieces[i].iov_len - nPassed);
    }
}

size_t LinkQueued(const Link *pLink)
{
    return pLink->queue.size() - pLink->nSent;
}

int LinkSend(Link *pLink, const iovec *pPieces, int nPieces)
{
    size_t nBytes = 0;
    for (int i = 0; i < nPieces; i++)
        nBytes += pPieces[i].iov_len;
    if (pLink->state >= LinkState::Failed)
        return 1;  // its end is under way
    if (nBytes > pLink->target.nMostQueued || LinkQueued(pLink) > pLink->target.nMostQueued - nBytes)
        return 0;
    ssize_t nDone = 0;
    int bDirect = pLink->state == LinkState::Open && !pLink->pTls && LinkQueued(pLink) == 0;
    if (bDirect)
        nDone = SendPieces(pLink, pPieces, static_cast<size_t>(std::min(nPieces, IOV_MAX)));
    if (nDone < 0 || static_cast<size_t>(nDone) == nBytes)
        return 1;
    Enqueue(pLink, pPieces, nPieces, static_cast<size_t>(nDone));
    if (pLink->state == LinkState::Open && (bDirect || !pLink->pTls || !Flush(pLink)))
        Watch(pLink);
    return 1;
}

int LinkSendText(Link *pLink, const std::string &text)
{
    iovec piece{const_cast<char *>(text.data()), text.size()};
    return LinkSend(pLink, &piece, 1);
}

// --- Coming to stand ---

static void OnReady(void *pUser, uint32_t nEvents);

// Begins with the next address. Returns 1, or 0 with errno when it cannot.
static int BeginConnect(Link *pLink, const NetAddr *pAddr)
{
    CloseSocket(pLink);
    pLink->fd = socket(pAddr->any.sa_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (pLink->fd < 0)
        return 0;
    int bOn = 1;
    setsockopt(pLink->fd, IPPROTO_TCP, TCP_NODELAY, &bOn, sizeof bOn);
    pLink->watch = LoopWatch{pLink->fd, OnReady, pLink};
    return connect(pLink->fd, &pAddr->any, AddrSize(pAddr)) == 0 || errno == EINPROGRESS;
}

static uint64_t LeftMs(const Link *pLink)
{
    uint64_t nNow = LoopNowMs();
    return pLink->nGiveUpMs > nNow ? pLink->nGiveUpMs - nNow : 0;
}

// Tries addresses until one begins to connect; each has its share of the time that is left.
static void ConnectNext(Link *pLink, int nError)
{
    while (!pLink->addresses.empty()) {
        uint64_t nShareMs = LeftMs(pLink) / pLink->addresses.size();
        NetAddr addr = pLink->addresses.back();
        pLink->addresses.pop_back();
        if (BeginConnect(pLink, &addr)) {
            LoopSetTimer(pLink->pLoop, &pLink->timer, nShareMs);
            Watch(pLink);
            return;
        }
        nError = errno;
    }
    FailByErrno(pLink, nError);
}

static void OnName(void *pUser, const LookupResult *pResult)
{
    auto *pLink = static_cast<Link *>(pUser);
    pLink->pLookup = nullptr;
    if (pResult->addresses.empty()) {
        Fail(pLink, LinkFault::Name, pResult->why);
        return;
    }
    pLink->addresses.assign(pResult->addresses.rbegin(), pResult->addresses.rend());
    pLink->state = LinkState::Connect;
    ConnectNext(pLink, EHOSTUNREACH);
}

static void Stand(Link *pLink)
{
    pLink->state = LinkState::Open;
    std::vector<NetAddr>().swap(pLink->addresses);
    if (!pLink->bLeaving)
        LoopClearTimer(pLink->pLoop, &pLink->timer);
    if (!pLink->bLeaving && pLink->procs.pfnOpen)
        pLink->procs.pfnOpen(pLink->pUser);
}

static int PinHolds(Link *pLink)
{
    const LinkTarget *pTarget = &pLink->target;
    std::string print = TlsPrint(pLink->pTls), why;
    if (pTarget->pinFile.empty())
        return 1;
    if (print.empty()) {
        Fail(pLink, LinkFault::Tls, "it has no certificate");
        return 0;
    }
    PinState state = PinCheck(pTarget->pinFile, LinkPeerName(pTarget->host, pTarget->nPort), print, &why);
    if (state == PinState::Changed)
        why = "its certificate is not the one of " + pTarget->pinFile + ", but sha256=" + print;
    if (state == PinState::Changed || state == PinState::Failed)
        Fail(pLink, LinkFault::Tls, why);
    return state == PinState::Same || state == PinState::New;
}

static void Shake(Link *pLink)
{
    std::string why = "the handshake failed";
    TlsStep step = TlsShake(pLink->pTls, &why);
    pLink->bTlsWrites = step == TlsStep::Write;
    if (step == TlsStep::Read || step == TlsStep::Write)
        Watch(pLink);
    else if (step != TlsStep::Done)
        Fail(pLink, LinkFault::Tls, why);
    else if (PinHolds(pLink))
        Stand(pLink);
}

static void OnConnected(Link *pLink)
{
    int nError = 0;
    socklen_t nSize = sizeof nError;
    getsockopt(pLink->fd, SOL_SOCKET, SO_ERROR, &nError, &nSize);
    if (nError != 0) {
        ConnectNext(pLink, nError);
        return;
    }
    if (!pLink->target.bTls) {
        Stand(pLink);
        return;
    }
    pLink->state = LinkState::Shake;
    LoopSetTimer(pLink->pLoop, &pLink->timer, LeftMs(pLink));
    pLink->pTls = TlsStart(pLink->fd, pLink->target.host.c_str());
    if (pLink->pTls)
        Shake(pLink);
    else
        Fail(pLink, LinkFault::Tls, TlsBuiltIn() ? "no memory for TLS" : "built without TLS");
}

// --- Receiving ---

// Reads into the buffer. Returns the bytes; 0 for none, a fault may be noted.
static size_t ReadPlain(Link *pLink, uint8_t *pOut)
{
    ssize_t n = recv(pLink->fd, pOut, kLoopBufferBytes, MSG_DONTWAIT);
    if (n == 0)
        Fail(pLink, LinkFault::Closed, "the peer ended it");
    else if (n < 0 && errno != EAGAIN && errno != EINTR)
        FailByErrno(pLink, errno);
    return n > 0 ? static_cast<size_t>(n) : 0;
}

// Reads all that is there, for epoll does not see what TLS has taken from the descriptor already; *pbMore
// where the buffer was too small for that.
static size_t ReadTls(Link *pLink, uint8_t *pOut, int *pbMore)
{
    size_t nAll = 0, nDone = 0;
    std::string why;
    TlsStep step = TlsStep::Done;
    while (nAll < kLoopBufferBytes &&
           (step = TlsRead(pLink->pTls, pOut + nAll, kLoopBufferBytes - nAll, &nDone, &why)) == TlsStep::Done)
        nAll += nDone;
    pLink->bTlsWrites = step == TlsStep::Write;
    *pbMore = step == TlsStep::Done;
    if (nAll > 0 && step > TlsStep::Write)
        *pbMore = 1;  // its end is told behind what it has sent
    else if (step == TlsStep::Closed)
        Fail(pLink, LinkFault::Closed, "the peer ended it");
    else if (step == TlsStep::Failed)
        Fail(pLink, LinkFault::Lost, why);
    return nAll;
}

// Returns 0 when the link has gone or failed.
static int Receive(Link *pLink)
{
    int bGone = 0, bMore = 0;
    uint8_t *pBuffer = LoopBuffer(pLink->pLoop);
    do {
        bMore = 0;
        size_t n = pLink->pTls ? ReadTls(pLink, pBuffer, &bMore) : ReadPlain(pLink, pBuffer);
        if (n > 0 && !pLink->bLeaving) {
            pLink->pbGone = &bGone;
            pLink->procs.pfnBytes(pLink->pUser, pBuffer, n);
            if (bGone)
                return 0;
            pLink->pbGone = nullptr;
        }
    } while (bMore && pLink->state == LinkState::Open);
    return pLink->state == LinkState::Open;
}

static void TakeLeave(Link *pLink)
{
    // What is still unread would make closing a reset, which may overtake what was sent last: it is read
    // until the peer closes as well, or the time is over.
    TlsFree(std::exchange(pLink->pTls, nullptr));
    shutdown(pLink->fd, SHUT_WR);
}

static void OnOpenReady(Link *pLink, uint32_t nEvents)
{
    int bRead = (nEvents & ~static_cast<uint32_t>(EPOLLOUT)) != 0 || pLink->bTlsWrites;
    if (bRead && !Receive(pLink))
        return;
    if (LinkQueued(pLink) == 0) {
        Watch(pLink);
        return;
    }
    int bDrained = Flush(pLink);
    if (pLink->state != LinkState::Open || !Watch(pLink) || !bDrained)
        return;
    if (pLink->bLeaving)
        TakeLeave(pLink);
    else if (pLink->procs.pfnDrained)
        pLink->procs.pfnDrained(pLink->pUser);
}

static void OnReady(void *pUser, uint32_t nEvents)
{
    auto *pLink = static_cast<Link *>(pUser);
    int bGone = 0;
    if (pLink->state == LinkState::Open) {
        OnOpenReady(pLink, nEvents);
        return;
    }
    pLink->pbGone = &bGone;
    if (pLink->state == LinkState::Connect)
        OnConnected(pLink);
    else if (pLink->state == LinkState::Shake)
        Shake(pLink);
    if (bGone)
        return;
    pLink->pbGone = nullptr;
    if (pLink->state == LinkState::Open)  // it stands now: what waited goes, and the peer may have spoken
        OnOpenReady(pLink, EPOLLIN);
}

static void OnTimer(void *pUser)
{
    auto *pLink = static_cast<Link *>(pUser);
    if (pLink->bLeaving) {
        FreeLink(pLink);
        return;
    }
    if (pLink->state == LinkState::Failed) {
        pLink->state = LinkState::Ended;
        std::string why = pLink->why;
        pLink->procs.pfnEnded(pLink->pUser, pLink->fault, why.c_str());
    } else if (pLink->state == LinkState::Connect) {
        ConnectNext(pLink, ETIMEDOUT);
    } else if (pLink->state == LinkState::Shake) {
        Fail(pLink, LinkFault::Tls, "no answer to the handshake");
    } else {
        Fail(pLink, LinkFault::Name, "no name server answers");
    }
}

// --- Life ---

Link *LinkOpen(Loop *pLoop, const LinkTarget *pTarget, const LinkProcs *pProcs, void *pUser)
{
    auto *pLink = new (std::nothrow) Link;
    if (!pLink)
        return nullptr;
    pLink->pLoop = pLoop;
    pLink->target = *pTarget;
    pLink->procs = *pProcs;
    pLink->pUser = pUser;
    pLink->timer.pfnDue = OnTimer;
    pLink->timer.pUser = pLink;
    pLink->nGiveUpMs = LoopNowMs() + static_cast<uint64_t>(pTarget->nTimeoutMs);
    LoopSetTimer(pLoop, &pLink->timer, static_cast<uint64_t>(pTarget->nTimeoutMs));
    pLink->pLookup = LookupStart(pLoop, pTarget->host, pTarget->nPort, OnName, pLink);
    if (!pLink->pLookup)
        Fail(pLink, LinkFault::Name, "no thread to look it up");
    return pLink;
}

void LinkClose(Link *pLink)
{
    if (pLink)
        FreeLink(pLink);
}

void LinkFinish(Link *pLink)
{
    if (!pLink || pLink->state >= LinkState::Failed ||
        (LinkQueued(pLink) == 0 && pLink->state != LinkState::Open)) {
        LinkClose(pLink);
        return;
    }
    pLink->bLeaving = 1;
    g_nLeaving++;
    pLink->nGiveUpMs = LoopNowMs() + kFinishMs;
    LoopSetTimer(pLink->pLoop, &pLink->timer, kFinishMs);
    if (pLink->state == LinkState::Open && LinkQueued(pLink) == 0)
        TakeLeave(pLink);
}

int LinksLeaving()
{
    return g_nLeaving;
}

static int LearnAddress(int fd, int (*pfnName)(int, sockaddr *, socklen_t *), NetAddr *pOut)
{
    socklen_t nSize = sizeof *pOut;
    if (pfnName(fd, &pOut->any, &nSize) != 0)
        return 0;
    AddrUnmap(pOut);
    return 1;
}

int LinkAddresses(const Link *pLink, NetAddr *pOwn, NetAddr *pPeer)
{
    return pLink->fd >= 0 && LearnAddress(pLink->fd, getsockname, pOwn) &&
           LearnAddress(pLink->fd, getpeername, pPeer);
}

}  // namespace orx
