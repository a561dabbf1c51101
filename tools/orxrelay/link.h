// One way to the box: a reliable-UDP host of its own, and the local TCP connection that it carries. Own hosts
// keep a player that does not read from holding up the others.
#pragma once

#include <enet/enet.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include "base/netaddr.h"

namespace orx {

// Where the box is to be found.
struct LinkTarget {
    std::string identity;  // empty: directly
    NetAddr address;       // of the box, or of the rendezvous server that knows the identity
    uint32_t nTimeoutMs = 0;
};

enum class LinkState {
    Asking,      // waiting for the rendezvous server to connect and to answer
    Connecting,  // waiting for the box
    Open,        // bytes go both ways
    Closing,     // the local side has gone; what the box has not acknowledged is still on its way
    Draining,    // the box has gone; the local side still has bytes to take
    Dead,        // over, see failure
};

struct Link {
    LinkState state = LinkState::Asking;
    int fd = -1;                // local TCP connection, non-blocking; owned; -1: only to see whether it works
    ENetHost *pHost = nullptr;  // owned
    ENetPeer *pServer = nullptr;  // the rendezvous server
    ENetPeer *pBox = nullptr;
    const LinkTarget *pTarget = nullptr;  // not owned
    uint32_t nDeadline = 0;               // of the state, ClockMs
    uint32_t nNextAsk = 0;                // when to ask the rendezvous server once more, ClockMs
    uint32_t nNextService = 0;            // while paused: when to look at the host, ClockMs
    size_t nOutgoing = 0;                 // bytes the box has not acknowledged
    int bHeldBack = 0;                    // the local side is not read, too much is outgoing
    int bPaused = 0;                      // the local side takes too little, the host is hardly looked at
    int bReached = 0;                     // the box was reached
    std::string toLocal;                  // bytes for the local side
    const char *szFailure = "";           // why it came to nothing
};

// Sets out for the box. Takes the local connection over. Returns the link, or null when there is no UDP
// socket.
Link *LinkOpen(const LinkTarget *pTarget, int fd);
// Does what can be done without waiting. Call it when a descriptor of the link is ready, and every 20 ms.
void LinkStep(Link *pLink);
// The events that the local connection and the host's socket should be polled for; 0: leave it out.
short LinkLocalEvents(const Link *pLink);
short LinkHostEvents(const Link *pLink);
// Begins the end, as if the local side had gone.
void LinkClose(Link *pLink);
void LinkFree(Link *pLink);

}  // namespace orx
