// The proxy on the box's web port: by the first bytes of a connection it is either handed to the server's
// RTSP-over-HTTP tunnel or relayed to a local web server. One thread accepts and looks, one thread per
// proxied connection relays, or one for all of them. Start and stop: one thread, by habit the main thread.
#pragma once

#include <cstddef>
#include <cstdint>

#include "base/linkedlist.h"
#include "base/netaddr.h"
#include "remote/fastrelays.h"
#include "remote/httprelay.h"
#include "runtime/thread.h"

namespace orx {

constexpr unsigned kHttpPendingMax = 128;  // connections that have not sent anything yet

// Whose a connection is that came through a front.
struct HttpFronted {
    size_t nHeader = 0;  // bytes of the front's header
    int bPeer = 0;       // 0: the front named nobody, and the connection's own address counts
    NetAddr peer;
};

// How fronts are known, which say in a header whose connection it is. Called on the proxy thread.
struct HttpFrontProcs {
    // Whether connections of that address are those of a front.
    int (*pfnIsFront)(void *pContext, const NetAddr *pAddr) = nullptr;
    // Reads the header: 1 it is there, 0 more is to come (never of kHttpHeaderMost bytes), -1 it is none.
    int (*pfnReadHeader)(const uint8_t *pData, size_t nBytes, HttpFronted *pOut) = nullptr;
};
constexpr size_t kHttpHeaderMost = 4096;

// Takes over a tunnelled connection: the connected, non-blocking socket, which from then on belongs to the
// receiver whatever the result, and the nLen bytes already read from it, which are the caller's. pFronted:
// null where no front is between. Called on the proxy thread. Returns 1 or 0.
using HttpHandOver = int (*)(void *pContext, int fd, const void *pData, size_t nLen,
                             const HttpFronted *pFronted);

struct HttpProxySettings {
    const char *szListenIp = nullptr;  // dotted address or host name; null or empty: every address
    int nListenPort = 0;
    const char *szTargetIp = "";  // dotted address or host name of the web server
    int nTargetPort = 0;
    // Relays and waiting connections, from one address at most a quarter; beyond it clients are refused, and
    // told when the web server is down. 0: any number, and then they wait for it in vain.
    unsigned nMaxRelays = 0;
    int nSilentMs = 60000;  // with nMaxRelays: a relay that carries nothing for so long ends
    HttpHandOver pfnHandOver = nullptr;
    void *pContext = nullptr;  // first argument of pfnHandOver and pfnIsFront, not owned
    int bIpv6 = 0;             // szListenIp may be an IPv6 address as well
    HttpFrontProcs fronts;     // without procedures there is no front
    int bFast = 0;             // relays carry as fast as they can, on one thread
};

struct HttpPending {
    int fd = -1;         // owned
    uint64_t nIp = 0;    // of the client (AddrCounted); 0 of one whose front has not named it yet
    uint32_t nTime = 0;  // when it was accepted, or named, seconds of uptime
    int bUnnamed = 0;    // the front's header is waited for
    int bFronted = 0;    // it has come: the next is set
    HttpFronted fronted;
};

struct HttpProxy {
    Thread thread;
    int fdListen = -1;        // owned
    unsigned nMaxRelays = 0;  // 0: any number
    HttpRelayCommon common;
    HttpHandOver pfnHandOver = nullptr;
    void *pContext = nullptr;  // of both; not owned
    HttpFrontProcs fronts;
    // The rest belongs to the proxy thread.
    HttpPending pendings[kHttpPendingMax];  // in order of acceptance
    unsigned nPending = 0;
    uint32_t nCheckTime = 0;      // uptime of the last look for connections to drop
    List relays;                  // HttpRelay, embedded nodes; owned
    unsigned nParked = 0;         // of these
    FastRelays *pFast = nullptr;  // takes the place of the list; owned by who starts and stops
    int bNoDescriptor = 0;        // the last accept failed; the next one waits for a second
};

// Listens and starts the proxy thread. Returns 1, or 0 when it cannot listen (printed) or has no thread;
// nothing is left behind then.
int HttpProxyStart(HttpProxy *pProxy, const HttpProxySettings *pSettings);
// Ends the proxy thread and every relay, closes all their connections and frees all; takes some tens of
// milliseconds. Accepts one that was never started.
void HttpProxyStop(HttpProxy *pProxy);

}  // namespace orx
