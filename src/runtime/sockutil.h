// A thin layer over the platform's IPv4 sockets. Any thread, except SockLocalIpString (a static buffer).
#pragma once

#include <netinet/in.h>

#include <cstddef>
#include <cstdint>

namespace orx {

constexpr size_t kAddrTextSize = 24;  // "255.255.255.255:65535" and a NUL, with room

int SockLastError();
void SockClose(int fd);                                          // ignores negative descriptors
int SockSetNonBlock(int fd, int bOn);                            // 1 or 0
int SockSetReuseAddr(int fd, int bOn);                           // 1 or 0
int SockSetOption(int fd, int nLevel, int nOption, int nValue);  // 1 or 0
// A peer whose network vanished is noticed after a minute of silence, and the connection ends by itself.
void SockSetKeepAlive(int fd);
// Fills the record from a host (dotted, or a name to look up; null or empty: any address) and a port
// of 1..65535. Returns 1, or 0 for a bad port or an unknown host.
int SockSetAddr(sockaddr_in *pAddr, const char *szHost, int nPort);
// The same from a text of the form host or host:port. Longer than 255 characters is an assertion.
int SockResolveUri(sockaddr_in *pAddr, const char *szUri, int nDefaultPort);
int SockGetPort(const sockaddr_in *pAddr);                     // host order
uint32_t SockGetIp(const sockaddr_in *pAddr);                  // host order
void SockAddrToString(const sockaddr_in *pAddr, char *szOut);  // "%d.%d.%d.%d:%d" into kAddrTextSize bytes
int SockGetLocalName(int fd, sockaddr_in *pAddr);              // 0, or -1 as the platform
int SockGetPeerName(int fd, sockaddr_in *pAddr);
const char *SockLocalIpString(int fd);
uint32_t SockGetHostAddr();                   // first address of this host's own name (network order), or 0
int SockListenTcp(const sockaddr_in *pAddr);  // a non-blocking listening socket the caller closes, or -1
int SockBindUdp(const sockaddr_in *pAddr);    // a non-blocking bound socket the caller closes, or -1
int SockBindUdpAny();                         // the same on any address and an ephemeral port
// Connects within nSeconds. 1 connected (at once: the socket is blocking again; later: it stays
// non-blocking), 0 not.
int connect_timeout(int fd, const sockaddr_in *pAddr, int nSeconds);
char SockAddrClass(const sockaddr_in *pAddr);  // 'A' to 'E'; loopback and 0 count as 'E'
int SockIsMulticast(const sockaddr_in *pAddr);
int SockIsBroadcast(const sockaddr_in *pAddr);
int SockIsUsableAddr(const sockaddr_in *pAddr);

}  // namespace orx
