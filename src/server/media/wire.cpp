#include "server/media/wire.h"

#include <netinet/udp.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <cerrno>
#include <cstring>

#include "base/assertion.h"

namespace orx {

static constexpr size_t kMaxSegment = 1472;     // a larger datagram does not fit an Ethernet frame (IPv4)
static constexpr size_t kMaxSegmented = 65000;  // bytes of one segmented message, below what IPv4 can carry

// What is to be written of the blocks, *pnBytes altogether. Neighbours in memory, as packets are that came
// one behind the other, are one part. Returns how many parts.
static size_t StreamParts(const BlockQueue *pQueue, const Batch *pBatch, iovec *parts, size_t *pnBytes)
{
    size_t nParts = 0;
    size_t nTotal = 0;
    const uint8_t *pEnd = nullptr;
    for (uint32_t i = 0; i < pBatch->nBlocks; i++) {
        const BlockRef *pRef = QueueAt(pQueue, i);
        const uint8_t *p = RefData(pRef) + pRef->nSent;
        size_t nBytes = RefLen(pRef) - pRef->nSent;
        if (p == pEnd)
            parts[nParts - 1].iov_len += nBytes;
        else
            parts[nParts++] = {const_cast<uint8_t *>(p), nBytes};
        pEnd = p + nBytes;
        nTotal += nBytes;
    }
    *pnBytes = nTotal;
    return nParts;
}

// How many blocks nWritten bytes complete; the one behind them keeps what it got.
static uint32_t CountWritten(const BlockQueue *pQueue, const Batch *pBatch, size_t nWritten)
{
    for (uint32_t i = 0; i < pBatch->nBlocks; i++) {
        BlockRef *pRef = QueueAt(pQueue, i);
        size_t nRest = RefLen(pRef) - pRef->nSent;
        if (nWritten < nRest) {
            pRef->nSent = static_cast<uint16_t>(pRef->nSent + nWritten);
            return i;
        }
        nWritten -= nRest;
    }
    return pBatch->nBlocks;
}

// Writes to a connection. Returns how many blocks left completely, or -1.
static ssize_t WriteStream(const BlockQueue *pQueue, const Batch *pBatch, uint64_t *pnBytes)
{
    iovec parts[kMaxGather];
    size_t nBytes;
    msghdr message{};
    message.msg_iov = parts;
    message.msg_iovlen = StreamParts(pQueue, pBatch, parts, &nBytes);
    ssize_t n = sendmsg(pBatch->pPort->fd, &message, MSG_NOSIGNAL);
    if (n < 0)
        return -1;
    *pnBytes += static_cast<uint64_t>(n);
    return static_cast<size_t>(n) == nBytes ? pBatch->nBlocks
                                            : CountWritten(pQueue, pBatch, static_cast<size_t>(n));
}

// Messages of one sendmmsg. Each carries a run of blocks: one datagram, or several of one size (but for a
// shorter last one) that the kernel cuts apart again, which spares the way through its network code for all
// but one.
struct Datagrams {
    mmsghdr messages[kMaxGather];
    iovec parts[kMaxGather];
    uint32_t runs[kMaxGather];  // blocks of each message
    alignas(cmsghdr) char control[kMaxGather][CMSG_SPACE(sizeof(uint16_t))];
    unsigned nMessages;
};

// How many blocks from i on may leave as one message.
static uint32_t RunLength(const BlockQueue *pQueue, const Batch *pBatch, uint32_t i)
{
    size_t nSize = RefLen(QueueAt(pQueue, i));
    size_t nTotal = nSize;
    size_t nLast = nSize;
    uint32_t n = 1;
    if ((pBatch->pPort->nFlags & PORT_NO_SEGMENTS) || nSize > kMaxSegment)
        return n;
    for (; i + n < pBatch->nBlocks && nLast == nSize; n++) {
        nLast = RefLen(QueueAt(pQueue, i + n));
        if (nLast > nSize || nTotal + nLast > kMaxSegmented)
            break;
        nTotal += nLast;
    }
    return n;
}

static void SetSegmentSize(msghdr *pMessage, char *pControl, size_t nControl, uint16_t nSize)
{
    pMessage->msg_control = pControl;
    pMessage->msg_controllen = nControl;
    cmsghdr *pHead = CMSG_FIRSTHDR(pMessage);
    pHead->cmsg_level = SOL_UDP;
    pHead->cmsg_type = UDP_SEGMENT;
    pHead->cmsg_len = CMSG_LEN(sizeof(nSize));
    memcpy(CMSG_DATA(pHead), &nSize, sizeof(nSize));
}

static void FillDatagrams(const BlockQueue *pQueue, const Batch *pBatch, Datagrams *pOut)
{
    pOut->nMessages = 0;
    for (uint32_t i = 0; i < pBatch->nBlocks;) {
        uint32_t nRun = RunLength(pQueue, pBatch, i);
        unsigned m = pOut->nMessages++;
        pOut->runs[m] = nRun;
        pOut->messages[m] = {};
        msghdr *pMessage = &pOut->messages[m].msg_hdr;
        if (!(pBatch->pPort->nFlags & PORT_AIMED)) {
            pMessage->msg_name = &pBatch->pPort->remote;
            pMessage->msg_namelen = AddrSize(&pBatch->pPort->remote);
        }
        pMessage->msg_iov = &pOut->parts[i];
        pMessage->msg_iovlen = nRun;
        if (nRun > 1)
            SetSegmentSize(pMessage, pOut->control[m], sizeof(pOut->control[m]),
                           static_cast<uint16_t>(RefLen(QueueAt(pQueue, i))));
        for (uint32_t nEnd = i + nRun; i < nEnd; i++) {
            const BlockRef *pRef = QueueAt(pQueue, i);
            ORX_ASSERT(pRef->nSent == 0, "p->sent==0");
            pOut->parts[i] = {const_cast<uint8_t *>(RefData(pRef)), RefLen(pRef)};
        }
    }
}

// Sends datagrams to the port's peer, as many as the socket takes. Returns how many blocks left, or -1. A
// path that cannot cut segments apart gets single datagrams from then on.
static ssize_t WriteDatagrams(const BlockQueue *pQueue, const Batch *pBatch, uint64_t *pnBytes)
{
    Datagrams out;
    FillDatagrams(pQueue, pBatch, &out);
    int nSent = sendmmsg(pBatch->pPort->fd, out.messages, out.nMessages, MSG_NOSIGNAL);
    int bSegments = out.nMessages < pBatch->nBlocks;
    if (nSent < 0 && errno != EAGAIN && errno != EINTR) {
        int bAgain = PortBounce(pBatch->pPort);
        if (!bAgain && bSegments)
            pBatch->pPort->nFlags |= PORT_NO_SEGMENTS;
        if (bAgain || bSegments)
            return WriteDatagrams(pQueue, pBatch, pnBytes);
    }
    ssize_t nBlocks = 0;
    for (int i = 0; i < nSent; i++) {
        nBlocks += out.runs[i];
        *pnBytes += out.messages[i].msg_len;
    }
    return nSent < 0 ? -1 : nBlocks;
}

int WireWrite(const BlockQueue *pQueue, const Batch *pBatch, uint32_t *pnLeft, uint64_t *pnBytes)
{
    int bDatagrams = pBatch->pPort->nType == PORT_UDP;
    ssize_t n;
    do
        n = bDatagrams ? WriteDatagrams(pQueue, pBatch, pnBytes) : WriteStream(pQueue, pBatch, pnBytes);
    while (n < 0 && errno == EINTR);
    *pnLeft = 0;
    if (n < 0)
        return errno == EAGAIN || errno == EWOULDBLOCK ? 0 : -1;
    *pnLeft = static_cast<uint32_t>(n);
    return 1;
}

}  // namespace orx
