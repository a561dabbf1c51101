#include "remote/tcpio.h"

#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdint>

#include "base/console.h"
#include "runtime/clock.h"
#include "runtime/sockutil.h"

namespace orx {

int TcpWait(int fd, short nEvents, int nTimeoutMs)
{
    pollfd wait{fd, nEvents, 0};
    int nReady = poll(&wait, 1, nTimeoutMs);
    if (nReady < 0)
        return errno == EINTR ? 0 : -1;
    return nReady > 0 ? wait.revents : 0;
}

// The outcome of a connect that was in progress: 1 once the socket is writable without a pending error.
static int FinishConnect(int fd)
{
    int nError = 0;
    socklen_t nSize = sizeof(nError);
    return getsockopt(fd, SOL_SOCKET, SO_ERROR, &nError, &nSize) == 0 && nError == 0;
}

int TcpConnect(const Thread *pThread, int fd, const sockaddr_in *pAddr, int nSeconds)
{
    if (!SockSetNonBlock(fd, 1))
        return 0;
    if (connect(fd, reinterpret_cast<const sockaddr *>(pAddr), sizeof(*pAddr)) == 0)
        return 1;
    if (errno != EINPROGRESS)
        return 0;
    uint32_t nStart = ClockMs();
    while (!ThreadStopping(pThread) && ClockDiff(ClockMs(), nStart) < nSeconds * 1000) {
        int nReady = TcpWait(fd, POLLOUT, kTcpStepMs);
        if (nReady != 0)
            return nReady > 0 && FinishConnect(fd);
    }
    return 0;
}

// Sends what the socket takes at once. Returns the bytes sent, 0 when it is full, -1 when it is gone.
static ssize_t SendSome(int fd, const uint8_t *p, size_t nLen)
{
    ssize_t nSent = send(fd, p, nLen, MSG_NOSIGNAL);
    if (nSent < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR))
        return 0;
    return nSent > 0 ? nSent : -1;
}

// Waits until the socket may take more. Returns 1, or 0 when that is given up.
static int WaitForRoom(const TcpWaiter *pWaiter, int fd)
{
    if (ThreadStopping(pWaiter->pThread))
        return 0;
    if (pWaiter->fdStop < 0)
        return TcpWait(fd, POLLOUT, kTcpStepMs) >= 0;
    pollfd waits[2] = {{fd, POLLOUT, 0}, {pWaiter->fdStop, POLLIN, 0}};
    int nReady = poll(waits, 2, pWaiter->nSilentMs);
    return nReady > 0 || (nReady < 0 && errno == EINTR);
}

int TcpSend(const TcpWaiter *pWaiter, int fd, const void *pData, size_t nLen)
{
    const auto *p = static_cast<const uint8_t *>(pData);
    while (nLen > 0) {
        ssize_t nSent = SendSome(fd, p, nLen);
        if (nSent == 0 && WaitForRoom(pWaiter, fd))
            continue;
        if (nSent <= 0) {
            if (!ThreadStopping(pWaiter->pThread))
                print("TcpSend() ERROR! The network will be closed.\r\n");
            return 0;
        }
        p += nSent;
        nLen -= static_cast<size_t>(nSent);
    }
    return 1;
}

}  // namespace orx
