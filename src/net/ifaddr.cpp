#include "net/ifaddr.h"

#include <arpa/inet.h>
#include <net/if.h>
#include <net/if_arp.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "base/fdguard.h"
#include "base/textbuf.h"
#include "net/route.h"

namespace orx {

// What an interface can be told to change, as interface configuration tools name it.
enum : unsigned {
    NET_OPT_NUMBER = 1,  // takes a number
    NET_OPT_HWADDR = 2,  // takes a hardware address
    NET_OPT_SWITCH = 4,  // on, or off with a '-' in front
    NET_OPT_ADDR = 8,    // takes an IPv4 address
};
struct NetOption {
    const char *szName;
    unsigned nFlags;  // NET_OPT_...
};
static const NetOption g_options[] = {
    {"metric", NET_OPT_NUMBER},    {"mtu", NET_OPT_NUMBER},      {"txqueuelen", NET_OPT_NUMBER},
    {"hw", NET_OPT_HWADDR},        {"netmask", NET_OPT_ADDR},    {"broadcast", NET_OPT_ADDR},
    {"pointopoint", NET_OPT_ADDR}, {"arp", NET_OPT_SWITCH},      {"promisc", NET_OPT_SWITCH},
    {"multicast", NET_OPT_SWITCH}, {"allmulti", NET_OPT_SWITCH}, {"dynamic", NET_OPT_SWITCH},
};

// Puts the name into a request. Returns 1, or 0 when it is too long for one.
static int NameRequest(ifreq *pRequest, const char *szInterface)
{
    if (TextCopy(pRequest->ifr_name, sizeof(pRequest->ifr_name), szInterface))
        return 1;
    errno = ENODEV;
    return 0;
}

// Runs one request on the interface that it names. Returns 0 or -1 with the errno of what failed.
static int Request(unsigned long nRequest, ifreq *pRequest)
{
    FdGuard sock{socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
    return sock.fd < 0 ? -1 : ioctl(sock.fd, nRequest, pRequest);
}

static int GetIp(unsigned long nRequest, const char *szInterface, char *szOut, size_t nOut)
{
    ifreq request{};
    request.ifr_addr.sa_family = AF_INET;
    if (!NameRequest(&request, szInterface) || Request(nRequest, &request) != 0)
        return -1;
    sockaddr_in addr{};  // the three addresses share their place in the request
    memcpy(&addr, &request.ifr_addr, sizeof(addr));
    return inet_ntop(AF_INET, &addr.sin_addr, szOut, socklen_t(nOut)) ? 0 : -1;
}

static int SetIp(unsigned long nRequest, const char *szInterface, const char *szIp)
{
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    ifreq request{};
    if (!NameRequest(&request, szInterface) || inet_pton(AF_INET, szIp, &addr.sin_addr) != 1)
        return -1;
    memcpy(&request.ifr_addr, &addr, sizeof(addr));

    char gateway[kIpTextSize] = "";
    NetGetGateway(gateway, sizeof(gateway));
    if (Request(nRequest, &request) != 0)
        return -1;
    if (gateway[0])
        NetSetGateway(gateway);
    return 0;
}

int NetGetAddress(const char *szInterface, char *szOut, size_t nOut)
{
    return GetIp(SIOCGIFADDR, szInterface, szOut, nOut);
}

int NetGetNetmask(const char *szInterface, char *szOut, size_t nOut)
{
    return GetIp(SIOCGIFNETMASK, szInterface, szOut, nOut);
}

int NetGetBroadcast(const char *szInterface, char *szOut, size_t nOut)
{
    return GetIp(SIOCGIFBRDADDR, szInterface, szOut, nOut);
}

int NetSetAddress(const char *szInterface, const char *szAddress)
{
    return SetIp(SIOCSIFADDR, szInterface, szAddress);
}

int NetSetNetmask(const char *szInterface, const char *szNetmask)
{
    return SetIp(SIOCSIFNETMASK, szInterface, szNetmask);
}

int NetGetMac(const char *szInterface, char *szOut, size_t nOut)
{
    ifreq request{};
    if (nOut < kMacTextSize || !NameRequest(&request, szInterface))
        return -1;
    int nResult = Request(SIOCGIFHWADDR, &request);
    if (nResult != 0)
        return nResult;
    uint8_t mac[kMacBytes];
    memcpy(mac, request.ifr_hwaddr.sa_data, sizeof(mac));
    snprintf(szOut, nOut, "%02x%02x%02x%02x%02x%02x", mac[0], mac[1], mac[2], mac[3], mac[4], mac[5]);
    return 0;
}

static int HasOption(const char *szName, unsigned nFlags)
{
    for (const NetOption &option : g_options)
        if (strcmp(option.szName, szName) == 0)
            return (option.nFlags & nFlags) == nFlags;
    return 0;
}

int NetSetMac(const char *szInterface, const char *szMac)
{
    if (!HasOption("hw", NET_OPT_HWADDR))
        return -4;
    FdGuard sock{socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
    if (sock.fd < 0)
        return -1;
    uint8_t mac[kMacBytes];
    if (!NetParseMac(szMac, mac))
        return -2;
    ifreq request{};
    request.ifr_hwaddr.sa_family = ARPHRD_ETHER;
    memcpy(request.ifr_hwaddr.sa_data, mac, sizeof(mac));
    if (!NameRequest(&request, szInterface) || ioctl(sock.fd, SIOCSIFHWADDR, &request) != 0)
        return -3;
    return 0;
}

// The value of a hex digit, or -1.
static int HexDigit(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    return c >= 'A' && c <= 'F' ? c - 'A' + 10 : -1;
}

int NetParseMac(const char *szMac, uint8_t *pMac)
{
    const char *p = szMac;
    for (size_t i = 0; i < kMacBytes; i++) {
        if (i > 0 && *p == ':')
            p++;
        int nHigh = HexDigit(*p);
        if (nHigh < 0)
            return 0;
        int nLow = HexDigit(*++p);
        pMac[i] = uint8_t(nLow < 0 ? nHigh : nHigh << 4 | nLow);
        if (nLow >= 0)
            p++;
    }
    return *p == '\0';
}

}  // namespace orx
