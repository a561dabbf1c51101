// The relay: remote players arrive over reliable UDP and are bridged to the server's own RTSP port, one
// bridge per peer. On request it also registers the box with a rendezvous server, keeps the registration
// alive and opens paths through the box's NAT. One relay thread services the host. Start, registering and
// stop: any thread, one after the other.
#pragma once

#include <netinet/in.h>

#include <atomic>
#include <cstdint>

#include "base/linkedlist.h"
#include "remote/registration.h"
#include "remote/unethost.h"
#include "runtime/thread.h"

namespace orx {

struct UnetSettings {
    uint32_t nBindIp = 0;      // local address, host order; 0: every one
    int nPort = 0;             // UDP port of the relay; 0: any
    int nRtspPort = 0;         // where bridges connect to, at nBindIp or 127.0.0.1
    uint32_t nPerAddress = 0;  // remote players from one address, 127.0.0.1 apart; 0: any number
    InterfaceAddressProc pfnGetAddress = nullptr;  // called on the relay thread; may be null
    const char *szCfgPath = nullptr;  // configuration file, used when the registration is given none
};

struct Unet {
    UnetHost host;
    Thread thread;
    int nPort = 0;                    // UDP port in use
    sockaddr_in rtsp{};               // where bridges connect to
    Registration registration;        // with the rendezvous server
    List proxies;                     // UnetProxy, embedded nodes; owned; relay thread
    std::atomic<unsigned> nPeers{0};  // remote players; written by the relay thread
    std::atomic<int> bRegistered{0};  // with the rendezvous server; the same
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
