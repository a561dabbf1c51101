#include "net/route.h"

#include <arpa/inet.h>
#include <linux/route.h>  // <net/route.h> would be the header above
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "base/fdguard.h"
#include "net/ifaddr.h"

namespace orx {

static constexpr char kRoutePath[] = "/proc/net/route";

// The columns behind the interface name that matter here; addresses as the kernel keeps them, in the order of
// the network.
struct RouteLine {
    unsigned long nDestination = 0;
    unsigned long nGateway = 0;
    unsigned nFlags = 0;  // RTF_...
};

static int ParseRoute(const char *szLine, RouteLine *pRoute)
{
    const char *szColumns = szLine + strcspn(szLine, " \t");  // a name may hold anything but blanks
    int nRefs = 0, nUse = 0, nMetric = 0;
    unsigned long nMask = 0;
    return sscanf(szColumns, "%lx%lx%X%d%d%d%lx", &pRoute->nDestination, &pRoute->nGateway, &pRoute->nFlags,
                  &nRefs, &nUse, &nMetric, &nMask) == 7;
}

// Looks through the lines behind the title for the default route. The line buffer is the caller's to free.
static int FindGateway(FILE *pFile, char **pszLine, char *szOut, size_t nOut)
{
    size_t nRoom = 0;
    if (getline(pszLine, &nRoom, pFile) < 0)
        return 0;
    while (getline(pszLine, &nRoom, pFile) >= 0) {
        RouteLine route;
        if (!ParseRoute(*pszLine, &route))
            return -2;
        if (!(route.nFlags & RTF_UP) || route.nDestination != 0)
            continue;
        in_addr addr{static_cast<in_addr_t>(route.nGateway)};
        return inet_ntop(AF_INET, &addr, szOut, socklen_t(nOut)) ? 0 : -2;
    }
    return 0;
}

int NetReadGateway(const char *szPath, char *szOut, size_t nOut)
{
    FileGuard file(fopen(szPath, "re"));
    if (!file)
        return -1;
    char *szLine = nullptr;
    int nResult = FindGateway(file.get(), &szLine, szOut, nOut);
    free(szLine);
    return nResult;
}

int NetGetGateway(char *szOut, size_t nOut)
{
    return NetReadGateway(kRoutePath, szOut, nOut);
}

// Adds or deletes the default route through a gateway.
static int ChangeRoute(unsigned long nRequest, const char *szGateway)
{
    sockaddr_in any{}, gateway{};
    any.sin_family = gateway.sin_family = AF_INET;
    if (inet_pton(AF_INET, szGateway, &gateway.sin_addr) != 1)
        return -1;
    rtentry route{};
    memcpy(&route.rt_dst, &any, sizeof(any));
    memcpy(&route.rt_genmask, &any, sizeof(any));
    memcpy(&route.rt_gateway, &gateway, sizeof(gateway));
    route.rt_flags = RTF_UP | RTF_GATEWAY;
    FdGuard sock{socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
    return sock.fd >= 0 && ioctl(sock.fd, nRequest, &route) == 0 ? 0 : -1;
}

int NetDelGateway(const char *szGateway)
{
    return ChangeRoute(SIOCDELRT, szGateway);
}

int NetSetGateway(const char *szGateway)
{
    in_addr gateway{};
    if (inet_pton(AF_INET, szGateway, &gateway) != 1)
        return -1;
    char before[kIpTextSize] = "";
    NetGetGateway(before, sizeof(before));
    int bDeleted = before[0] && NetDelGateway(before) == 0;
    if (ChangeRoute(SIOCADDRT, szGateway) == 0)
        return 0;
    if (bDeleted)
        ChangeRoute(SIOCADDRT, before);
    return -1;
}

}  // namespace orx
