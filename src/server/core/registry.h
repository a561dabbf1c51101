// The server's shared containers and services, one of each per process. They belong to the scheduler thread;
// the main thread makes and frees them while no other thread runs.
#pragma once

#include <cstdint>

#include "base/avl.h"
#include "base/linkedlist.h"
#include "net/addrlist.h"
#include "runtime/monitor.h"
#include "runtime/portmgr.h"
#include "runtime/task.h"

namespace orx {

struct Auth;

// Called when a live program comes up (bUp 1, with the pusher's address) and when a program is freed (bUp 0,
// null). szProgram is "<uri>:<nickname>".
using ProgramHook = void (*)(void *pContext, const char *szProgram, const char *szRemote, int bUp);

// How the rooms below reach the one that handles the events of sockets, which names these when the server
// starts: see PortPostEvent and PortReadNow.
struct EventProcs {
    void (*pfnPost)(int fd, uint32_t nGeneration, uint32_t nEvent, uint32_t nDelayMs) = nullptr;
    int (*pfnRead)(int fd) = nullptr;
};

// A socket that others come to. One that could not be opened stays in the table, with why.
struct ServerListener {
    const char *szName;   // "rtsp", "web", "relay", "status"; static
    char szAddress[112];  // as it is written in a URL, or the path of a Unix socket
    int nErrno;           // 0: it listens
};
constexpr unsigned kMaxListeners = 4;

// What only rises while the server runs.
struct ServerCounts {
    uint64_t nBytesReceived = 0;
    uint64_t nBytesSent = 0;  // that sockets took
    uint32_t nSessions = 0;   // made
    uint32_t nPrograms = 0;
    uint64_t nPackets = 0;  // of media, from pushers
};

struct ServerConfig {
    Auth *pAuth = nullptr;  // owned
    List sessions;          // every Session, in order of creation; embedded nodes
    List programs;          // every Program, in order of creation; embedded nodes
    AvlTree portMap;        // descriptor -> Port, which it owns
    AvlTree programMap;     // Uri (no regard to case) -> live Program
    AvlTree sessionMap;     // descriptor -> Session that owns the port
    AvlTree handleMap;      // nHandle -> Session
    Monitor monitor;
    Scheduler scheduler;
    EventProcs events;
    PortMgr *pPortMgr = nullptr;  // owned
    int bIpv6 = 0;                // it was started to listen on an IPv6 address
    AddrList announceFrom;        // [GUARD] AnnounceFrom
    AddrList proxyFrom;           // [INTEROP] ProxyProtocolFrom
    int64_t nCachedBytes = 0;     // of memory, that the caches of all programs take
    int64_t nQueuedBytes = 0;     // the same of the media that waits for all sessions
    ServerCounts counted;
    int nMaxRegisterId = 0;  // number of the next name that REGISTER gives; the disk thread's
    ServerListener listeners[kMaxListeners] = {};
    unsigned nListeners = 0;
    ProgramHook pfnProgramHook = nullptr;
    void *pProgramHookContext = nullptr;
};

extern ServerConfig g_server;

// Notes how opening a listener went. While the server starts: main thread.
void ListenerNote(const char *szName, const char *szAddress, int nErrno);

// Readies the lists and maps. pfnFreePort: free procedure of the port map.
void RegistryInit(int (*pfnFreePort)(AvlNode *pNode));

}  // namespace orx
