// The address of a peer or a socket, of either family. A peer that a socket of both families knows as
// "::ffff:a.b.c.d" is one of IPv4 and becomes it where its address is learnt (AddrUnmap): behind that nobody
// tells the two apart. Any thread.
#pragma once

#include <netinet/in.h>

#include <cstddef>
#include <cstdint>

namespace orx {

union NetAddr {
    sockaddr_in6 in6{};  // first and largest: an empty record is all 0, and reads as 0.0.0.0 without a port
    sockaddr_in in4;
    sockaddr any;
};
static_assert(offsetof(sockaddr_in, sin_port) == offsetof(sockaddr_in6, sin6_port),
              "the port has one place in both families");

inline int AddrIsIpv6(const NetAddr *pAddr)
{
    return pAddr->any.sa_family == AF_INET6;
}

// What the kernel is told with the address.
inline socklen_t AddrSize(const NetAddr *pAddr)
{
    return AddrIsIpv6(pAddr) ? sizeof(sockaddr_in6) : sizeof(sockaddr_in);
}

inline void AddrSetPort(NetAddr *pAddr, int nPort)  // host order
{
    pAddr->in4.sin_port = htons(static_cast<uint16_t>(nPort));
}

// Makes an IPv4 address of one that is mapped into IPv6 (RFC 4291, section 2.5.5.2); others stay.
void AddrUnmap(NetAddr *pAddr);

// Whether two addresses are those of one host as far as they tell: all of them but the ports.
int AddrSameHost(const NetAddr *pOne, const NetAddr *pOther);

// The same with the port.
inline int AddrSame(const NetAddr *pOne, const NetAddr *pOther)
{
    return pOne->in4.sin_port == pOther->in4.sin_port && AddrSameHost(pOne, pOther);
}

// Whose share an address is where peers are counted: an IPv4 address (host order) itself; of IPv6 the first
// 64 bits, which are what one customer or one network has, whose hosts take any of the rest; of a link-local
// address the host on the link. No two families share a number: nobody is given addresses of 0000::/8.
uint64_t AddrCounted(const NetAddr *pAddr);

// The same in 32 bits, of IPv4 the address itself; of IPv6 two may share one.
uint32_t AddrCounted32(const NetAddr *pAddr);

}  // namespace orx
