#include "shared/udppair.h"

#include <sys/socket.h>
#include <unistd.h>

#include <utility>

#include "base/fdguard.h"

namespace orx {

constexpr int kMostTries = 64;
constexpr int kReceiveBuffer = 1 << 20;  // a key frame comes at once

// A socket at the address, or -1; *pnPort is its port then.
static int BindAt(NetAddr addr, int nPort, int *pnPort)
{
    FdGuard sock(socket(addr.any.sa_family, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    AddrSetPort(&addr, nPort);
    socklen_t nSize = AddrSize(&addr);
    if (sock.fd < 0 || bind(sock.fd, &addr.any, nSize) != 0 || getsockname(sock.fd, &addr.any, &nSize) != 0)
        return -1;
    *pnPort = ntohs(addr.in4.sin_port);
    return sock.Release();
}

static int TryOpen(UdpPair *pPair, const NetAddr *pOwn)
{
    int nPort = 0, nNext = 0;
    FdGuard one(BindAt(*pOwn, 0, &nPort));
    if (one.fd < 0)
        return 0;
    int bEven = nPort % 2 == 0;
    FdGuard other(BindAt(*pOwn, bEven ? nPort + 1 : nPort - 1, &nNext));
    if (other.fd < 0)
        return 0;
    pPair->nPort = bEven ? nPort : nNext;
    pPair->fdRtp = bEven ? one.Release() : other.Release();
    pPair->fdRtcp = bEven ? other.Release() : one.Release();
    return 1;
}

int UdpPairOpen(UdpPair *pPair, const NetAddr *pOwn)
{
    for (int i = 0; i < kMostTries; i++)
        if (TryOpen(pPair, pOwn)) {
            setsockopt(pPair->fdRtp, SOL_SOCKET, SO_RCVBUF, &kReceiveBuffer, sizeof kReceiveBuffer);
            return 1;
        }
    return 0;
}

void UdpPairClose(UdpPair *pPair)
{
    for (int *pFd : {&pPair->fdRtp, &pPair->fdRtcp})
        if (int fd = std::exchange(*pFd, -1); fd >= 0)
            close(fd);
}

}  // namespace orx
