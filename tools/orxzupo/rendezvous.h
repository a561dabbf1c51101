// The rendezvous server: the boxes that are registered, and the introduction of clients to them.
#pragma once

#include <enet/enet.h>

#include <map>
#include <string>

#include "refusals.h"
#include "remote/unetgate.h"
#include "remote/zupo.h"

namespace orx {

// One connected party; a box once it has registered.
struct Party {
    ENetPeer *pPeer = nullptr;
    ZupoAddress seen;     // where its packets come from
    DeviceInfo info;      // of a box; no identity: not registered
    uint32_t nSince = 0;  // when it connected or registered, seconds of uptime
    uint32_t nHeard = 0;  // when it last said something, seconds of uptime
};

struct Rendezvous {
    ENetHost *pHost = nullptr;
    UnetGate gate;  // before the host
    Refusals refusals;
    std::map<ENetPeer *, Party> parties;
    std::map<std::string, ENetPeer *> boxes;  // by identity
    int bQuiet = 0;
};

// Handles everything that has arrived, without waiting.
void RendezvousService(Rendezvous *pServer);
// Drops parties that have been silent for too long. Once a second is enough.
void RendezvousExpire(Rendezvous *pServer);
// Drops whoever is on the refusal list, after it has changed.
void RendezvousApplyRefusals(Rendezvous *pServer);
// Prints the boxes.
void RendezvousList(const Rendezvous *pServer);

}  // namespace orx
