// The header by which a front (a TLS front, a load balancer) names the peer of a connection that it passes
// on: the PROXY protocol, version 1 (a line of text) and version 2 (binary). Any thread.
#pragma once

#include <cstddef>
#include <cstdint>

#include "base/netaddr.h"

namespace orx {

// The longest header that is taken: of version 1 the 107 bytes that it has at most, of version 2 this, with
// its further fields, which are skipped.
constexpr size_t kProxyHeaderMost = 4096;

enum class ProxyResult {
    More,  // what is there may be the begin of a header
    Bad,   // it is none, or one that is not taken
    Done,
};

struct ProxyHeader {
    size_t nBytes = 0;  // the header's length: what follows is the peer's
    int bPeer = 0;      // 0: the connection is the front's own, or it does not know whose
    NetAddr peer;       // with bPeer; of an address that is mapped into IPv6 the IPv4 one
};

// Reads the header at the begin of nBytes bytes. More is never said of kProxyHeaderMost bytes.
ProxyResult ProxyHeaderParse(const uint8_t *pData, size_t nBytes, ProxyHeader *pOut);

}  // namespace orx
