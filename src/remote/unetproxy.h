// The bridge of one remote peer: a TCP connection to the own RTSP port, and a thread that carries bytes
// between it and the peer. Created, fed and freed by the relay thread; the bridge's own thread does the rest.
#pragma once

#include <netinet/in.h>
#include <pthread.h>

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "base/linkedlist.h"
#include "remote/unethost.h"
#include "runtime/thread.h"

namespace orx {

struct UnetProxy {
    ListNode node;                  // first; in the relay's list
    UnetHost *pUnetHost = nullptr;  // not owned
    _ENetPeer *pPeer = nullptr;     // null once the peer has gone or was reset; guarded by the host's mutex
    uint32_t nOutgoing = 0;       // reliable bytes the peer has not acknowledged; guarded by the host's mutex
    std::atomic<int> bActive{0};  // packets are welcome
    int fd = -1;                  // connection to the RTSP port; owned
    int fdWake = -1;              // event descriptor: a packet has come, or the bridge is to end; owned
    Thread thread;
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;  // guards the two below
    List queue;                                         // received packets (_ENetPacket), owned
    size_t nQueued = 0;                                 // memory that they take, bytes
    char szPeer[32] = "";                               // the peer, for the log of events; the relay's thread
};

// Connects to the RTSP port from the address of the peer's slot (BridgeAddress), ties the record to the peer
// and starts the bridge. pCaller is the calling thread. Returns the record, or null (printed). Free it with
// UnetProxyFree.
UnetProxy *CreateUnetProxy(Thread *pCaller, UnetHost *pUnetHost, _ENetPeer *pPeer, const sockaddr_in *pRtsp);
// Hands over a packet of the peer, which belongs to the bridge from then on.
void UnetProxyReceive(UnetProxy *pProxy, _ENetPacket *pPacket);
// The peer has gone: cuts the record off from it and asks the bridge's thread to stop. The host's mutex is
// held by the caller.
void UnetProxyPeerGone(UnetProxy *pProxy);
// Asks the bridge's thread to stop; does not wait.
void UnetProxyStop(UnetProxy *pProxy);
// Whether the bridge's thread has come to its end.
int UnetProxyEnded(const UnetProxy *pProxy);
// Ends the bridge's thread, resets the peer if there still is one, and frees everything; within some tens of
// milliseconds. With several bridges ask all of them first, by UnetProxyStop. Without the host's mutex.
void UnetProxyFree(UnetProxy *pProxy);

}  // namespace orx
