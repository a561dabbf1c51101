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

static const sockaddr *Generic(const sockaddr_in *pAddr)
{
    return reinterpret_cast<const sockaddr *>(pAddr);
}

static sockaddr *Generic(sockaddr_in *pAddr)
{
    return reinterpret_cast<sockaddr *>(pAddr);
}

int SockLastError()
{
    return errno;
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

int SockSetAddr(sockaddr_in *pAddr, const char *szHost, int nPort)
{
    if (nPort < 1 || nPort > kMaxPort)
        return 0;
    *pAddr = {};
    pAddr->sin_family = AF_INET;
    pAddr->sin_port = htons(static_cast<uint16_t>(nPort));
    if (!szHost || !*szHost)
        return 1;
    return inet_aton(szHost, &pAddr->sin_addr) || LookUp(szHost, &pAddr->sin_addr);
}

int SockResolveUri(sockaddr_in *pAddr, const char *szUri, int nDefaultPort)
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

int SockGetPort(const sockaddr_in *pAddr)
{
    return ntohs(pAddr->sin_port);
}

uint32_t SockGetIp(const sockaddr_in *pAddr)
{
    return ntohl(pAddr->sin_addr.s_addr);
}

void SockAddrToString(const sockaddr_in *pAddr, char *szOut)
{
    uint32_t nIp = SockGetIp(pAddr);
    TextBuf text{szOut, kAddrTextSize};
    TextAdd(&text, "%d.%d.%d.%d:%d", static_cast<int>(nIp >> 24), static_cast<int>(nIp >> 16 & 0xFF),
            static_cast<int>(nIp >> 8 & 0xFF), static_cast<int>(nIp & 0xFF), SockGetPort(pAddr));
}

int SockGetLocalName(int fd, sockaddr_in *pAddr)
{
    *pAddr = {};
    socklen_t nSize = sizeof(*pAddr);
    return getsockname(fd, Generic(pAddr), &nSize);
}

int SockGetPeerName(int fd, sockaddr_in *pAddr)
{
    *pAddr = {};
    socklen_t nSize = sizeof(*pAddr);
    return getpeername(fd, Generic(pAddr), &nSize);
}

const char *SockLocalIpString(int fd)
{
    sockaddr_in addr;
    SockGetLocalName(fd, &addr);
    return inet_ntoa(addr.sin_addr);
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
static int Bound(int nType, const sockaddr_in *pAddr, int bReuseAddr)
{
    FdGuard sock{socket(AF_INET, nType | SOCK_CLOEXEC, 0)};
    if (sock.fd < 0 || !SockSetNonBlock(sock.fd, 1) || (bReuseAddr && !SockSetReuseAddr(sock.fd, 1)))
        return -1;
    if (bind(sock.fd, Generic(pAddr), sizeof(*pAddr)) != 0)
        return -1;
    return sock.Release();
}

int SockListenTcp(const sockaddr_in *pAddr)
{
    // the address is reused so that connections still fading away do not keep a restarted server out
    FdGuard sock{Bound(SOCK_STREAM, pAddr, 1)};
    if (sock.fd < 0 || listen(sock.fd, kListenBacklog) != 0)
        return -1;
    return sock.Release();
}

int SockBindUdp(const sockaddr_in *pAddr)
{
    sockaddr_in addr = *pAddr;
    if (SockIsBroadcast(&addr))
        addr.sin_addr.s_addr = SockGetHostAddr();
    return Bound(SOCK_DGRAM, &addr, 1);
}

int SockBindUdpAny()
{
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
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

int connect_timeout(int fd, const sockaddr_in *pAddr, int nSeconds)
{
    if (!SockSetNonBlock(fd, 1))
        return 0;
    int nResult = connect(fd, Generic(pAddr), sizeof(*pAddr));
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

char SockAddrClass(const sockaddr_in *pAddr)
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

int SockIsMulticast(const sockaddr_in *pAddr)
{
    return SockAddrClass(pAddr) == 'D';
}

int SockIsBroadcast(const sockaddr_in *pAddr)
{
    return pAddr->sin_addr.s_addr == INADDR_BROADCAST;
}

int SockIsUsableAddr(const sockaddr_in *pAddr)
{
    return pAddr->sin_addr.s_addr == INADDR_ANY || SockIsBroadcast(pAddr) || SockAddrClass(pAddr) != 'E';
}

}  // namespace orx
