// One request of a visitor, and what is answered. A request is answered by a worker's thread, which may wait
// for the server; bodies of many bytes, or without an end, are read piece by piece afterwards.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "base/netaddr.h"

namespace orx {

struct WebPeer {
    NetAddr addr;      // the visitor's, as a front named it or as the connection has it
    int bFronted = 0;  // a front named it
    int bLocal = 0;    // not fronted, and from this machine
};

struct WebRequest {
    std::string method;
    std::string path;   // not decoded
    std::string query;  // behind '?'
    std::string host, cookie, authorization, language, range, ifRange, ifNoneMatch, origin, referer,
        fetchSite, forwardedProto;
    std::string form;  // the body of a POST
    WebPeer peer;
    uint64_t nId = 0;       // of this exchange, for WebMore (httpserver.h)
    int bAgain = 0;         // WebAnswer::bLater was answered before, and there is more now
    int bTimeout = 0;       // the same, but nothing came
    void *pKept = nullptr;  // what the answer before kept; the handler's
};

// Where the bytes of a body come from. Called by the thread that serves the connection, which must not wait.
struct WebSourceProcs {
    // Up to nSize bytes from nOffset on. Returns how many; 0: later, WebMore tells when; -1: the end; -2: it
    // broke.
    ssize_t (*pfnRead)(void *pSource, uint64_t nOffset, char *pOut, size_t nSize);
    // Whether the visitor may still have it; by a worker, every few seconds. May be null.
    int (*pfnStillMay)(void *pSource);
    void (*pfnFree)(void *pSource);
};

constexpr uint64_t kEndless = UINT64_MAX;

struct WebAnswer {
    int nStatus = 200;
    std::vector<std::pair<std::string, std::string>> headers;
    std::string body;
    const WebSourceProcs *pProcs = nullptr;  // of a body that is read piece by piece
    void *pSource = nullptr;                 // owned, freed by pProcs
    uint64_t nSize = 0;                      // of that body, or kEndless
    int bLater = 0;                          // nothing yet: call again once WebMore(nId) was called
    void *pKept = nullptr;                   // handed to that call
};

inline void WebHeader(WebAnswer *pAnswer, const char *szName, std::string value)
{
    pAnswer->headers.emplace_back(szName, std::move(value));
}

}  // namespace orx
