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

static ssize_t WriteStream(const Batch *pBatch)
{
    iovec parts[kMaxGather];
    for (int i = 0; i < pBatch->nBlocks; i++) {
        DataBlock *pBlock = pBatch->blocks[i];
        parts[i] = {BlockData(pBlock) + pBlock->sent, static_cast<size_t>(pBlock->len - pBlock->sent)};
    }
    msghdr message{};
    message.msg_iov = parts;
    message.msg_iovlen = static_cast<size_t>(pBatch->nBlocks);
    return sendmsg(pBatch->pPort->fd, &message, MSG_NOSIGNAL);
}

// How many blocks nWritten bytes complete; the one behind them keeps what it got.
static int CountWritten(const Batch *pBatch, size_t nWritten)
{
    for (int i = 0; i < pBatch->nBlocks; i++) {
        DataBlock *pBlock = pBatch->blocks[i];
        size_t nRest = static_cast<size_t>(pBlock->len - pBlock->sent);
        if (nWritten < nRest) {
            pBlock->sent = static_cast<uint16_t>(pBlock->sent + nWritten);
            return i;
        }
        nWritten -= nRest;
    }
    return pBatch->nBlocks;
}

// Messages of one sendmmsg. Each carries a run of blocks: one datagram, or several of one size (but for a
// shorter last one) that the kernel cuts apart again, which spares the way through its network code for all
// but one.
struct Datagrams {
    mmsghdr messages[kMaxGather];
    iovec parts[kMaxGather];
    int runs[kMaxGather];  // blocks of each message
    alignas(cmsghdr) char control[kMaxGather][CMSG_SPACE(sizeof(uint16_t))];
    unsigned nMessages;
};

// How many blocks from i on may leave as one message.
static int RunLength(const Batch *pBatch, int i)
{
    size_t nSize = pBatch->blocks[i]->len;
    size_t nTotal = nSize;
    int n = 1;
    if ((pBatch->pPort->nFlags & PORT_NO_SEGMENTS) || nSize > kMaxSegment)
        return n;
    while (i + n < pBatch->nBlocks && pBatch->blocks[i + n - 1]->len == nSize &&
           pBatch->blocks[i + n]->len <= nSize && nTotal + pBatch->blocks[i + n]->len <= kMaxSegmented)
        nTotal += pBatch->blocks[i + n++]->len;
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

static void FillDatagrams(const Batch *pBatch, Datagrams *pOut)
{
    pOut->nMessages = 0;
    for (int i = 0; i < pBatch->nBlocks;) {
        int nRun = RunLength(pBatch, i);
        unsigned m = pOut->nMessages++;
        pOut->runs[m] = nRun;
        pOut->messages[m] = {};
        msghdr *pMessage = &pOut->messages[m].msg_hdr;
        pMessage->msg_name = &pBatch->pPort->remote;
        pMessage->msg_namelen = AddrSize(&pBatch->pPort->remote);
        pMessage->msg_iov = &pOut->parts[i];
        pMessage->msg_iovlen = static_cast<size_t>(nRun);
        if (nRun > 1)
            SetSegmentSize(pMessage, pOut->control[m], sizeof(pOut->control[m]), pBatch->blocks[i]->len);
        for (int nEnd = i + nRun; i < nEnd; i++) {
            ORX_ASSERT(pBatch->blocks[i]->sent == 0, "p->sent==0");
            pOut->parts[i] = {BlockData(pBatch->blocks[i]), pBatch->blocks[i]->len};
        }
    }
}

// Sends datagrams to the port's peer, as many as the socket takes. Returns how many blocks left, or -1. A
// path that cannot cut segments apart gets single datagrams from then on.
static ssize_t WriteDatagrams(const Batch *pBatch, uint64_t *pnBytes)
{
    Datagrams out;
    FillDatagrams(pBatch, &out);
    int nSent = sendmmsg(pBatch->pPort->fd, out.messages, out.nMessages, MSG_NOSIGNAL);
    int bSegments = static_cast<int>(out.nMessages) < pBatch->nBlocks;
    if (nSent < 0 && bSegments && errno != EAGAIN && errno != EINTR) {
        pBatch->pPort->nFlags |= PORT_NO_SEGMENTS;
        return WriteDatagrams(pBatch, pnBytes);
    }
    ssize_t nBlocks = 0;
    for (int i = 0; i < nSent; i++) {
        nBlocks += out.runs[i];
        *pnBytes += out.messages[i].msg_len;
    }
    return nSent < 0 ? -1 : nBlocks;
}

int WireWrite(const Batch *pBatch, int *pnLeft, uint64_t *pnBytes)
{
    int bDatagrams = pBatch->pPort->nType == PORT_UDP;
    ssize_t n;
    do
        n = bDatagrams ? WriteDatagrams(pBatch, pnBytes) : WriteStream(pBatch);
    while (n < 0 && errno == EINTR);
    *pnLeft = 0;
    if (n < 0)
        return errno == EAGAIN || errno == EWOULDBLOCK ? 0 : -1;
    if (!bDatagrams)
        *pnBytes += static_cast<uint64_t>(n);
    *pnLeft = bDatagrams ? static_cast<int>(n) : CountWritten(pBatch, static_cast<size_t>(n));
    return 1;
}

}  // namespace orx
