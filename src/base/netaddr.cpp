#include "base/netaddr.h"

#include <cstring>

#include "base/bytes.h"

namespace orx {

void AddrUnmap(NetAddr *pAddr)
{
    if (!AddrIsIpv6(pAddr) || !IN6_IS_ADDR_V4MAPPED(&pAddr->in6.sin6_addr))
        return;
    sockaddr_in plain{};
    plain.sin_family = AF_INET;
    plain.sin_port = pAddr->in6.sin6_port;
    memcpy(&plain.sin_addr, pAddr->in6.sin6_addr.s6_addr + 12, sizeof(plain.sin_addr));
    *pAddr = {};
    pAddr->in4 = plain;
}

int AddrSameHost(const NetAddr *pOne, const NetAddr *pOther)
{
    if (AddrIsIpv6(pOne) != AddrIsIpv6(pOther))
        return 0;
    if (!AddrIsIpv6(pOne))
        return pOne->in4.sin_addr.s_addr == pOther->in4.sin_addr.s_addr;
    // a link-local address is another host's on another link
    return memcmp(&pOne->in6.sin6_addr, &pOther->in6.sin6_addr, sizeof(in6_addr)) == 0 &&
           pOne->in6.sin6_scope_id == pOther->in6.sin6_scope_id;
}

static uint64_t Half(const NetAddr *pAddr, int nFirst)
{
    const uint8_t *p = pAddr->in6.sin6_addr.s6_addr + nFirst;
    return uint64_t{GetBe(p, 4)} << 32 | GetBe(p + 4, 4);
}

uint64_t AddrCounted(const NetAddr *pAddr)
{
    if (!AddrIsIpv6(pAddr))
        return ntohl(pAddr->in4.sin_addr.s_addr);
    if (IN6_IS_ADDR_LINKLOCAL(&pAddr->in6.sin6_addr))
        return 0xFE80ULL << 48 | (Half(pAddr, 8) & 0xFFFFFFFFFFFFULL);
    return Half(pAddr, 0);
}

uint32_t AddrCounted32(const NetAddr *pAddr)
{
    uint64_t n = AddrCounted(pAddr);
    return static_cast<uint32_t>(n >> 32 ^ n);
}

}  // namespace orx
