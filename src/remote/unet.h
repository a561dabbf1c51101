// The relay: remote players arrive over reliable UDP and are bridged to the server's own RTSP port, one
// bridge per peer. On request it also registers the box with a rendezvous server, keeps the registration
// alive and opens paths through the box's NAT. One relay thread services the host. Start, registering and
// stop: any thread, one after the other.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "base/linkedlist.h"
#include "remote/unetproxy.h"
#include "remote/zupo.h"
#include "runtime/thread.h"

namespace orx {

struct HostLookup;

struct UnetSettings {
    const char *szBindIp = nullptr;  // dotted local address; null or empty: every one
    int nPort = 0;                   // UDP port of the relay; 0: any
    int nRtspPort = 0;               // where bridges connect to on 127.0.0.1
    // Writes the dotted address of a network interface into nOut bytes; 0, or -1. Called on the relay thread;
    // null: the private address stays unknown.
    int (*pfnGetAddress)(const char *szInterface, char *szOut, size_t nOut) = nullptr;
    const char *szCfgPath = nullptr;  // configuration file, used when the registration is given none
};

struct Unet {
    UnetHost host;
    Thread thread;
    int fdWake = -1;  // event descriptor that ends the relay thread's wait; owned
    int nPort = 0;    // UDP port in use
    int nRtspPort = 0;
    int (*pfnGetAddress)(const char *szInterface, char *szOut, size_t nOut) = nullptr;
    // The rendezvous server: written once, before nZupoPort.
    char szZupoServer[64] = "";
    char szCfgPath[128] = "";
    std::atomic<int> nZupoPort{0};  // 0: no registration
    // The rest belongs to the relay thread.
    List proxies;                        // UnetProxy, embedded nodes; owned
    HostLookup *pLookup = nullptr;       // of the rendezvous server's name, while it runs; owned
    _ENetPeer *pServerPeer = nullptr;    // the rendezvous server; not owned
    _ENetPeer *pPunchingPeer = nullptr;  // the party last punched towards; not owned
    int bRegistered = 0;
    uint32_t nLastTime = 0;  // last connection attempt or heartbeat, seconds of uptime
    DeviceInfo device;
    uint32_t nSeenIp = 0;  // this box's address as the rendezvous server sees it, host order
};

// Makes the host and starts the relay thread. Returns 1, or 0 (printed) with everything undone.
int UnetStart(Unet *pUnet, const UnetSettings *pSettings);
// Registers the box with a rendezvous server, by name or address, from now on; the identity and what else is
// told about the box come from the configuration file. Once per UnetStart. Returns 1, or 0 when the relay
// does not run, has a registration or an argument does not fit.
int ZupoRegisterCreate(Unet *pUnet, const char *szServer, int nPort, const char *szCfgPath);
// Asks the relay and all bridges to end, waits for them (well below a second, also while peers are connected)
// and frees everything. Accepts one that was never started.
void UnetStop(Unet *pUnet);

}  // namespace orx
