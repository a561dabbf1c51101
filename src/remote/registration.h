// The box's side of the rendezvous protocol: registers the box, keeps the registration alive, and opens paths
// through the box's NAT towards the parties that the rendezvous server names. RegistrationInit, -Start and
// -Free: whoever starts and stops the relay; the rest: the relay thread.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "remote/unethost.h"
#include "remote/zupo.h"

namespace orx {

struct HostLookup;

// Writes the dotted address of a network interface into nOut bytes; 0, or -1.
using InterfaceAddressProc = int (*)(const char *szInterface, char *szOut, size_t nOut);

struct Registration {
    UnetHost *pHost = nullptr;                     // not owned
    int nRtspPort = 0;                             // told to the rendezvous server
    InterfaceAddressProc pfnGetAddress = nullptr;  // null: the private address stays unknown
    // The rendezvous server: written once, before nPort.
    char szServer[64] = "";
    char szCfgPath[128] = "";   // what else is told comes from this file
    std::atomic<int> nPort{0};  // 0: no registration
    // The rest belongs to the relay thread.
    HostLookup *pLookup = nullptr;       // of the rendezvous server's name, while it runs; owned
    _ENetPeer *pServerPeer = nullptr;    // the rendezvous server; not owned
    _ENetPeer *pPunchingPeer = nullptr;  // the party last punched towards; not owned
    int bLostSaid = 0;                   // to the log of events, since it was there last
    int bRegistered = 0;
    uint32_t nLastTime = 0;  // last connection attempt or heartbeat, seconds of uptime
    DeviceInfo device;
    uint32_t nSeenIp = 0;  // this box's address as the rendezvous server sees it, host order
};

// Readies the record, without a registration yet. szCfgPath may be null.
void RegistrationInit(Registration *pReg, UnetHost *pHost, int nRtspPort, InterfaceAddressProc pfnGetAddress,
                      const char *szCfgPath);
// Registers with that server, by name or address, from the next tick on. szCfgPath null: the one of the
// start. Returns 1, or 0 when there is a registration already or an argument does not fit.
int RegistrationStart(Registration *pReg, const char *szServer, int nPort, const char *szCfgPath);
void RegistrationFree(Registration *pReg);

// What is due by the clock: connecting to the rendezvous server, and heartbeats.
void RegistrationTick(Registration *pReg);
// The connection to the rendezvous server is up: registers.
void RegistrationConnected(Registration *pReg);
// A packet of the rendezvous server, which stays the caller's. One that breaks the protocol ends the
// connection.
void RegistrationReceive(Registration *pReg, const void *pData, size_t nLen);
// A peer has disconnected: of the rendezvous server, of the party punched towards, or one that is of no
// interest here.
void RegistrationPeerGone(Registration *pReg, const _ENetPeer *pPeer);

}  // namespace orx
