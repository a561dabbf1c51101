// HTTP/1.1 towards visitors, by libmicrohttpd: few threads serve all connections and never wait; requests are
// answered by workers, and meanwhile a connection costs its record alone.
#pragma once

#include <string>

#include "orxweb/door.h"
#include "orxweb/webrequest.h"

namespace orx {

constexpr size_t kMostForm = 8192;  // bytes of a POST

struct HttpServerSettings {
    DoorSettings door;
    int nWorkers = 8;
    // Answers a request; by a worker.
    WebAnswer (*pfnAnswer)(const WebRequest *pRequest) = nullptr;
    // Frees what an answer with bLater kept, when nobody asks again. May be null.
    void (*pfnForget)(void *pKept) = nullptr;
};

// Returns 1, or 0 with *pWhy in one line. Once.
int HttpServerStart(const HttpServerSettings *pSettings, std::string *pWhy);
// Ends all connections at once, also those with endless answers.
void HttpServerStop();

// There is more for that exchange, or its source. Any thread; ignores numbers of those that are over.
void WebMore(uint64_t nId);
// As the procedures of livechannel.h take it; the context is the number.
inline void *WebMoreContext(uint64_t nId)
{
    return reinterpret_cast<void *>(static_cast<uintptr_t>(nId));
}
void WebMoreProc(void *pContext);
// Has a worker call it; returns 0 when there is no room.
int WebWork(void (*pfnWork)(void *pContext), void *pContext);

}  // namespace orx
