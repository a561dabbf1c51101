#include "runtime/sockutil.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "base/assertion.h"
#include "base/console.h"
#include "base/fdguard.h"
#include "base/textbuf.h"
#include "runtime/clock.h"

namespace orx {

static constexpr int kListenBacklog = 10;  // waiting to be accepted, which takes milliseconds
static constexpr int kMaxPort = 65535;
static constexpr size_t kUriTextSize = 256;  // a host name has 253 characters at most (RFC 1035)

int SockLastError()
{
    return errno;
}

int SockTakeError(int fd)
{
    int nError = 0;
    socklen_t nSize = sizeof(nError);
    return getsockopt(fd, SOL_SOCKET, SO_ERROR, &nError, &nSize) == 0 ? nError : 0;
}

void SockClose(int fd)
{
    if (fd >= 0)
        close(fd);
}

int SockSetNonBlock(int fd, int bOn)
{
    int nFlags = fcntl(fd, F_GETFL);
    if (nFlags < 0)
        return 0;
    return fcntl(fd, F_SETFL, bOn ? nFlags | O_NONBLOCK : nFlags & ~O_NONBLOCK) == 0;
}

int SockSetReuseAddr(int fd, int bOn)
{
    return SockSetOption(fd, SOL_SOCKET, SO_REUSEADDR, bOn ? 1 : 0);
}

int SockSetOption(int fd, int nLevel, int nOption, int nValue)
{
    return setsockopt(fd, nLevel, nOption, &nValue, sizeof(nValue)) == 0;
}

void SockSetKeepAlive(int fd)
{
    SockSetOption(fd, SOL_SOCKET, SO_KEEPALIVE, 1);
    SockSetOption(fd, IPPROTO_TCP, TCP_KEEPIDLE, 30);
    SockSetOption(fd, IPPROTO_TCP, TCP_KEEPINTVL, 10);
    SockSetOption(fd, IPPROTO_TCP, TCP_KEEPCNT, 3);
}

// The first IPv4 address of a name. Returns 1 or 0.
static int LookUp(const char *szHost, in_addr *pOut)
{
    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo *pFound = nullptr;
    if (getaddrinfo(szHost, nullptr, &hints, &pFound) != 0 || !pFound)
        return 0;
    sockaddr_in addr{};
    memcpy(&addr, pFound->ai_addr, sizeof(addr));
    freeaddrinfo(pFound);
    *pOut = addr.sin_addr;
    return 1;
}

int SockSetAddr(NetAddr *pAddr, const char *szHost, int nPort)
{
    if (nPort < 1 || nPort > kMaxPort)
        return 0;
    *pAddr = {};
    pAddr->in4.sin_family = AF_INET;
    AddrSetPort(pAddr, nPort);
    if (!szHost || !*szHost)
        return 1;
    return inet_aton(szHost, &pAddr->in4.sin_addr) || LookUp(szHost, &pAddr->in4.sin_addr);
}

// Takes an IPv6 address in figures; behind a '%' the link of a link-local one. Returns 1 or 0.
static int ParseIpv6(const char *szHost, sockaddr_in6 *pOut)
{
    addrinfo hints{};
    hints.ai_family = AF_INET6;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_NUMERICHOST;
    addrinfo *pFound = nullptr;
    if (!strchr(szHost, ':') || getaddrinfo(szHost, nullptr, &hints, &pFound) != 0 || !pFound)
        return 0;
    memcpy(pOut, pFound->ai_addr, sizeof(*pOut));
    freeaddrinfo(pFound);
    return 1;
}

int SockSetAddrEx(NetAddr *pAddr, const char *szHost, int nPort, int bIpv6)
{
    NetAddr found;
    if (!bIpv6 || !szHost || nPort < 1 || nPort > kMaxPort || !ParseIpv6(szHost, &found.in6))
        return SockSetAddr(pAddr, szHost, nPort);
    *pAddr = found;
    AddrSetPort(pAddr, nPort);
    AddrUnmap(pAddr);
    return 1;
}

int SockResolveUri(NetAddr *pAddr, const char *szUri, int nDefaultPort)
{
    char szHost[kUriTextSize];
    const char *szText = szUri ? szUri : "";
    ORX_ASSERT(strlen(szText) < sizeof(szHost), "strlen(uri)<sizeof(buf)");
    TextCopy(szHost, sizeof(szHost), szText);
    char *szColon = strchr(szHost, ':');
    if (!szColon)
        return SockSetAddr(pAddr, szHost, nDefaultPort);
    *szColon = '\0';
    long nPort = strtol(szColon + 1, nullptr, 10);
    return SockSetAddr(pAddr, szHost, nPort > kMaxPort ? 0 : static_cast<int>(nPort < 0 ? 0 : nPort));
}

int SockGetPort(const NetAddr *pAddr)
{
    return ntohs(pAddr->in4.sin_port);
}

uint32_t SockGetIp(const NetAddr *pAddr)
{
    return AddrIsIpv6(pAddr) ? 0 : ntohl(pAddr->in4.sin_addr.s_addr);
}

void SockAddrToString(const NetAddr *pAddr, char *szOut)
{
    TextBuf text{szOut, kAddrTextSize};
    char szIpv6[INET6_ADDRSTRLEN] = "";
    if (AddrIsIpv6(pAddr)) {
        inet_ntop(AF_INET6, &pAddr->in6.sin6_addr, szIpv6, sizeof(szIpv6));
        TextAdd(&text, "[%s]:%d", szIpv6, SockGetPort(pAddr));
        return;
    }
    uint32_t nIp = SockGetIp(pAddr);
    TextAdd(&text, "%d.%d.%d.%d:%d", static_cast<int>(nIp >> 24), static_cast<int>(nIp >> 16 & 0xFF),
            static_cast<int>(nIp >> 8 & 0xFF), static_cast<int>(nIp & 0xFF), SockGetPort(pAddr));
}

int SockGetLocalName(int fd, NetAddr *pAddr)
{
    *pAddr = {};
    socklen_t nSize = sizeof(*pAddr);
    int nResult = getsockname(fd, &pAddr->any, &nSize);
    AddrUnmap(pAddr);
    return nResult;
}

int SockGetPeerName(int fd, NetAddr *pAddr)
{
    *pAddr = {};
    socklen_t nSize = sizeof(*pAddr);
    int nResult = getpeername(fd, &pAddr->any, &nSize);
    AddrUnmap(pAddr);
    return nResult;
}

const char *SockLocalIpString(int fd)
{
    static char szIp[INET6_ADDRSTRLEN];
    NetAddr addr;
    SockGetLocalName(fd, &addr);
    if (!AddrIsIpv6(&addr))
        return inet_ntoa(addr.in4.sin_addr);
    return inet_ntop(AF_INET6, &addr.in6.sin6_addr, szIp, sizeof(szIp));
}

uint32_t SockGetHostAddr()
{
    char szName[HOST_NAME_MAX + 1] = "";
    if (gethostname(szName, sizeof(szName) - 1) != 0) {
        print("gethostname() failed!\n");
        return 0;
    }
    in_addr addr{};
    if (!LookUp(szName, &addr)) {
        print("gethostbyname(%s) failed!\n", szName);
        return 0;
    }
    return addr.s_addr;
}

// A non-blocking socket bound to the address, or -1.
static int Bound(int nType, const NetAddr *pAddr, int bReuseAddr)
{
    FdGuard sock{socket(AddrIsIpv6(pAddr) ? AF_INET6 : AF_INET, nType | SOCK_CLOEXEC, 0)};
    // whatever the machine's default is, "::" is to serve both families
    if (sock.fd >= 0 && AddrIsIpv6(pAddr) && !SockSetOption(sock.fd, IPPROTO_IPV6, IPV6_V6ONLY, 0))
        return -1;
    if (sock.fd < 0 || !SockSetNonBlock(sock.fd, 1) || (bReuseAddr && !SockSetReuseAddr(sock.fd, 1)))
        return -1;
    if (bind(sock.fd, &pAddr->any, AddrSize(pAddr)) != 0)
        return -1;
    return sock.Release();
}

int SockListenTcp(const NetAddr *pAddr)
{
    // the address is reused so that connections still fading away do not keep a restarted server out
    FdGuard sock{Bound(SOCK_STREAM, pAddr, 1)};
    if (sock.fd < 0 || listen(sock.fd, kListenBacklog) != 0)
        return -1;
    return sock.Release();
}

int SockBindUdp(const NetAddr *pAddr)
{
    NetAddr addr = *pAddr;
    if (SockIsBroadcast(&addr))
        addr.in4.sin_addr.s_addr = SockGetHostAddr();
    return Bound(SOCK_DGRAM, &addr, 1);
}

int SockBindUdpAny()
{
    NetAddr addr;
    addr.in4.sin_family = AF_INET;
    return Bound(SOCK_DGRAM, &addr, 0);  // with reuse on, the port chosen could be one that is taken
}

// Waits until fd is writable. Returns 1, or 0 when the time is up or the wait fails. (Not select, which
// cannot hold the descriptors of a server with more than 1024 of them.)
static int WaitWritable(int fd, int nSeconds)
{
    int nWaitMs = nSeconds <= 0 ? 0 : nSeconds > INT_MAX / 1000 ? INT_MAX : nSeconds * 1000;
    uint32_t nStart = ClockMs();
    pollfd wait{fd, POLLOUT, 0};
    for (int nLeftMs = nWaitMs;;) {
        int nReady = poll(&wait, 1, nLeftMs);
        if (nReady >= 0 || errno != EINTR)
            return nReady > 0;
        int32_t nPassedMs = ClockDiff(ClockMs(), nStart);
        nLeftMs = nPassedMs < nWaitMs ? nWaitMs - nPassedMs : 0;
    }
}

int connect_timeout(int fd, const NetAddr *pAddr, int nSeconds)
{
    if (!SockSetNonBlock(fd, 1))
        return 0;
    int nResult = connect(fd, &pAddr->any, AddrSize(pAddr));
    if (nResult == 0) {
        SockSetNonBlock(fd, 0);
        return 1;
    }
    ORX_ASSERT(nResult == -1, "0");
    if (errno != EINPROGRESS || !WaitWritable(fd, nSeconds))
        return 0;
    int nError = 0;
    socklen_t nSize = sizeof(nError);
    return getsockopt(fd, SOL_SOCKET, SO_ERROR, &nError, &nSize) == 0 && nError == 0;
}

char SockAddrClass(const NetAddr *pAddr)
{
    uint32_t nFirst = SockGetIp(pAddr) >> 24;
    if (nFirst == 0 || nFirst == 127 || nFirst > 239)
        return 'E';
    if (nFirst < 128)
        return 'A';
    if (nFirst < 192)
        return 'B';
    return nFirst < 224 ? 'C' : 'D';
}

int SockIsMulticast(const NetAddr *pAddr)
{
    return SockAddrClass(pAddr) == 'D';
}

int SockIsBroadcast(const NetAddr *pAddr)
{
    return !AddrIsIpv6(pAddr) && pAddr->in4.sin_addr.s_addr == INADDR_BROADCAST;
}

int SockIsUsableAddr(const NetAddr *pAddr)
{
    return SockGetIp(pAddr) == INADDR_ANY || SockIsBroadcast(pAddr) || SockAddrClass(pAddr) != 'E';
}

}  // namespace orx
