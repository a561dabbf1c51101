// One proxied connection: a thread that connects to the web server and then carries bytes both ways, without
// waking while there is nothing to carry. Opened, looked after and freed by the proxy thread.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "base/linkedlist.h"
#include "runtime/thread.h"

namespace orx {

// What all relays of a proxy have in common. Does not change while one of them lives.
struct HttpRelayCommon {
    char szTargetIp[64] = "";  // dotted address or host name of the web server
    uint16_t nTargetPort = 0;
    int bLimited = 0;    // when the web server is down, the client is told so
    int nSilentMs = -1;  // a relay that carries nothing for so long ends; -1: none does
    int fdStop = -1;     // event descriptor: written, and never read, when all relays are to end; owned
    int fdEnded = -1;    // event descriptor: a relay has come to its end; owned
};

struct HttpRelay {
    ListNode node;  // first
    Thread thread;
    const HttpRelayCommon *pCommon = nullptr;  // not owned, outlives the relay
    uint64_t nClientIp = 0;                    // AddrCounted
    int fdClient = -1;                         // owned
    int fdTarget = -1;                         // owned
    uint8_t *pFirst = nullptr;  // what was read from the client before, until it is sent; owned, from malloc
    size_t nFirst = 0;
    std::atomic<int> bEnded{0};  // the thread has nothing more to do; fdEnded tells of it
    int bWait = 0;               // the client is to wait in vain; valid once bEnded is set
    int bParked = 0;             // no thread any more; the client waits in vain
};

// Takes over the client's socket and relays it on a thread of its own, beginning with the nFirst bytes given
// (copied). Never fails for the web server's sake; when there is no thread for it, the relay is parked at
// once, or, with limits, its client is refused. Returns the relay, or null with the socket closed.
HttpRelay *HttpRelayOpen(const HttpRelayCommon *pCommon, int fdClient, uint64_t nClientIp, const void *pFirst,
                         size_t nFirst);
// Answers 503 with a page of one line, and closes the connection.
void HttpRefuseBusy(int fdClient);
// Answers 502 with a page of one line, and ends that direction; the caller closes the connection, behind what
// the client has still to say.
void HttpTellDown(int fdClient);
// Looks after a relay. Returns 1 when it is over and wants to be freed. One that could not reach the web
// server is parked, or, with limits, its client was told so: a parked client's connection stays open,
// untouched, until the client gives up, which is looked for only with bCheckParked set.
int HttpRelayPoll(HttpRelay *pRelay, int bCheckParked);
// Ends the thread, closes both sockets and frees the record. With several relays ask all of them first, by
// ThreadExit, and write to fdStop.
void HttpRelayFree(HttpRelay *pRelay);

}  // namespace orx
