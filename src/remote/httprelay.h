// One proxied connection: a thread that connects to the web server and then carries bytes both ways.
// Opened, looked after and freed by the proxy thread.
#pragma once

#include <cstddef>
#include <cstdint>

#include "base/linkedlist.h"
#include "runtime/thread.h"

namespace orx {

struct HttpRelay {
    ListNode node;  // first
    Thread thread;
    int fdClient = -1;            // owned
    int fdTarget = -1;            // owned
    const char *szTargetIp = "";  // not owned, outlives the relay
    uint16_t nTargetPort = 0;
    uint8_t *pFirst = nullptr;  // what was read from the client before, until it is sent; owned, from malloc
    size_t nFirst = 0;
    int bOpened = 0;  // the web server was reached; valid once the thread has ended
    int bParked = 0;  // no thread any more; the client waits in vain
};

// Takes over the client's socket and relays it on a thread of its own, beginning with the nFirst bytes given
// (copied). Never fails for the web server's sake; when there is no thread for it, the relay is parked at
// once. Returns the relay, or null without memory: the socket is then closed.
HttpRelay *HttpRelayOpen(int fdClient, const char *szTargetIp, int nTargetPort, const void *pFirst,
                         size_t nFirst);
// Looks after a relay. Returns 1 when it is over and wants to be freed. One that could not reach the web
// server is parked: its client's connection stays open, untouched, until the client gives up, which is looked
// for only with bCheckParked set.
int HttpRelayPoll(HttpRelay *pRelay, int bCheckParked);
// Ends the thread, closes both sockets and frees the record. With several relays ask all of them first, by
// ThreadExit.
void HttpRelayFree(HttpRelay *pRelay);

}  // namespace orx
