// A thin layer over the platform's sockets. Any thread, except SockLocalIpString (a static buffer).
#pragma once

#include <cstddef>
#include <cstdint>

#include "base/netaddr.h"

namespace orx {

constexpr size_t kAddrTextSize = 56;  // an IPv6 address (45 characters) as "[...]:65535" and a NUL, with room

int SockLastError();
int SockTakeError(int fd);              // what its connection failed with, an errno, once; 0: it did not
void SockClose(int fd);                 // ignores negative descriptors
int SockSetNonBlock(int fd, int bOn);   // 1 or 0
int SockSetReuseAddr(int fd, int bOn);  // 1 or 0
int SockSetOption(int fd, int nLevel, int nOption, int nValue);  // 1 or 0
// A peer whose network vanished is noticed after a minute of silence, and the connection ends by itself.
void SockSetKeepAlive(int fd);
// Fills the record from a host (dotted, or a name to look up; null or empty: any address) and a port
// of 1..65535. Returns 1, or 0 for a bad port or an unknown host. IPv4 alone.
int SockSetAddr(NetAddr *pAddr, const char *szHost, int nPort);
// The same; with bIpv6 the host may also be an IPv6 address, without brackets ("::" is any of both families).
int SockSetAddrEx(NetAddr *pAddr, const char *szHost, int nPort, int bIpv6);
// As SockSetAddr from a text of the form host or host:port. Longer than 255 characters is an assertion.
int SockResolveUri(NetAddr *pAddr, const char *szUri, int nDefaultPort);
int SockGetPort(const NetAddr *pAddr);     // host order
uint32_t SockGetIp(const NetAddr *pAddr);  // IPv4, host order; 0 of an IPv6 address
// "%d.%d.%d.%d:%d", of an IPv6 address "[%s]:%d", into kAddrTextSize bytes.
void SockAddrToString(const NetAddr *pAddr, char *szOut);
int SockGetLocalName(int fd, NetAddr *pAddr);  // unmapped; 0, or -1 as the platform
int SockGetPeerName(int fd, NetAddr *pAddr);
const char *SockLocalIpString(int fd);
uint32_t SockGetHostAddr();  // first address of this host's own name (network order), or 0
// A non-blocking listening socket the caller closes, or -1. On "::" it takes both families.
int SockListenTcp(const NetAddr *pAddr);
int SockBindUdp(const NetAddr *pAddr);  // a non-blocking bound socket the caller closes, or -1
int SockBindUdpAny();                   // the same on any IPv4 address and an ephemeral port
// Connects within nSeconds. 1 connected (at once: the socket is blocking again; later: it stays
// non-blocking), 0 not.
int connect_timeout(int fd, const NetAddr *pAddr, int nSeconds);
// Of IPv4 addresses: 'A' to 'E'; loopback and 0 count as 'E'.
char SockAddrClass(const NetAddr *pAddr);
int SockIsMulticast(const NetAddr *pAddr);
int SockIsBroadcast(const NetAddr *pAddr);
int SockIsUsableAddr(const NetAddr *pAddr);

}  // namespace orx
