// The services that bring players in from outside: the HTTP proxy on the web port, the relay over reliable
// UDP and the registration with a rendezvous server. Main thread.
#pragma once

namespace orx {

// Starts those that the settings ask for. Returns 1, or 0 when one of them cannot start.
int RemoteServicesStart();
// ProxyProtocolFrom was read anew. Scheduler thread.
void RemoteServicesFollowSettings();
// Ends them and waits for their threads; while scheduler and listening socket still work.
void RemoteServicesStop();
// Frees what is left, once no task runs any more.
void RemoteServicesFree();

// What the relay is doing. Any thread, between start and stop.
struct RelayFacts {
    int bEnabled;
    int bRegistered;  // with the rendezvous server
    unsigned nPeers;  // remote players
};
RelayFacts RemoteServicesRelay();

}  // namespace orx
