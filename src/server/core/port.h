// A socket known to the server: the TCP connection of a client or one UDP media socket.
// Scheduler thread only.
#pragma once

#include <cstdint>

#include "base/netaddr.h"
#include "base/printable.h"
#include "runtime/task.h"
#include "server/core/request.h"
#include "server/core/retire.h"

namespace orx {

constexpr int kSendBufferBytes = 163840;  // SO_SNDBUF; holds a key frame of a typical camera

enum : uint8_t { PORT_TCP = 1, PORT_UDP = 2 };
enum : uint16_t {
    PORT_TUNNEL_POST = 0x2,  // the POST connection of an RTSP-over-HTTP tunnel: its bytes are base64 text
    PORT_IDLE_CHECK = 0x4,   // the idle check is scheduled
    PORT_MORE_WAITS = 0x8,   // a further read is scheduled
    PORT_LEARNT = 0x10,      // UDP: remote is where a datagram came from
    PORT_AIMED = 0x20,       // UDP: the system knows the peer, too (see PortConnect)
    PORT_BOUNCED = 0x40,     // and said once that something did not arrive: it is not told the peer again
    PORT_CONNECTED = 0x200,
    PORT_NO_SEGMENTS = 0x400,   // UDP: the path to the peer takes single datagrams only
    PORT_RELAYED = 0x800,       // the connection of a bridge: its peer is a stranger behind the relay
    PORT_HANDED_OVER = 0x1000,  // came in by the web port
    PORT_FRONTED = 0x2000,      // came through a front, which named the peer ([INTEROP] ProxyProtocolFrom)
    PORT_AWAITS_PEER = 0x4000,  // of a front that has not named it yet: no session has it
};

struct Port {
    int fd = -1;               // owned; key of the port map and of the session map
    uint8_t nType = 0;         // PORT_TCP, PORT_UDP
    uint16_t nFlags = 0;       // PORT_...
    uint32_t nGeneration = 0;  // tells this socket from an earlier one with the same descriptor; never 0
    NetAddr local;
    NetAddr remote;     // UDP: the configured peer, then the source of the last datagram
    Request request;    // the message that is being received
    char tail[4] = "";  // tunnel POST: characters of a base64 group not yet complete
    uint32_t nTail = 0;
    CredentialMask mask;  // tunnel POST: where in the text that is printed a credential is left out
    Retired retired;
};

// Takes over a connected socket and watches it for reading; null when that fails, the socket is then closed.
Port *CreateTcpPort(int fd);

// Notes the peer that a front named for the connection; null: it named none, and its own address stays.
void PortNamePeer(Port *pPort, const NetAddr *pPeer);

// Opens a UDP socket on the local address, aimed at the remote one of the same family, and watches it for
// reading; null on failure. Of the addresses the ports do not count: those given do, host order and not 0.
Port *CreateUdpPort(const NetAddr *pLocal, int nLocalPort, const NetAddr *pRemote, int nRemotePort);

// Aims a UDP port at another peer. PortConnect tells the system whom it is aimed at, so that the way there is
// not looked up with each call; from then on datagrams of that peer alone come in, until it is aimed anew or
// PortDisconnect has the system forget him (1 when it knew him).
void PortAim(Port *pPort, const NetAddr *pTo);
void PortConnect(Port *pPort);
int PortDisconnect(Port *pPort);

// A call on a UDP port failed. Where the system knows the peer that tells what became of an earlier datagram
// (RFC 1122, section 4.1.3.3), and what is sent unconnected never hears of that: returns 1 with the port
// disconnected, for the call to be made again. 0: it is the call's own fault.
int PortBounce(Port *pPort);

// The port of a descriptor, or null. FindPortAlive also wants the generation to be the one given.
Port *FindPort(int fd);
Port *FindPortAlive(int fd, uint32_t nGeneration);

// A timer about one connection, whoever has it: of a session see SessionSchedule. It keeps the descriptor
// (the task's nParam) and generation, never the record's address. PortOfTask: the port, or null once it has
// gone.
void PortSchedule(const Port *pPort, TaskProc pfnRun, uint32_t nDelayMs);
Port *PortOfTask(const Task *pTask);

// Queues an event of the port as the monitor would, in nDelayMs: MONITOR_... or one of these.
constexpr uint32_t EVENT_POSTED_INPUT = 0x8000;  // run the parser on what the session already holds
constexpr uint32_t EVENT_MORE_INPUT = 0x8001;    // go on with a read that was cut short
constexpr uint32_t EVENT_JOB_DONE = 0x8002;      // what the held request waited for is there
void PortPostEvent(const Port *pPort, uint32_t nEvent, uint32_t nDelayMs);

// Has what the port still holds read and handled later, behind all that waits; until then its events do
// nothing.
void PortReadLater(Port *pPort);

// Handles what the connection holds (see OnRead). Returns 0, or -1 when it was found closed, or silent for
// too long, and the port was closed; a request may also have ended its session (bEnded).
int PortReadNow(const Port *pPort);

// Takes the port out of the port map and closes its socket; accepts null.
void PortClose(Port *pPort);

// Free procedure of the port map: closes the socket of a node's port.
int OnFreePort(AvlNode *pNode);

}  // namespace orx
