// The UDP side of a player's session: ports, datagrams, and the packets that open a way through NAT. The
// loop's thread.
#pragma once

#include "shared/playcore.h"

namespace orx {

// Opens ports for a track, at the address that the link has here. Returns 1 or 0.
int PlayUdpOpen(RtspPlay *pPlay, size_t nMedia);
void PlayUdpClose(PlayMedia *pMedia);
// The ports of the server, 0: not told.
void PlayUdpSetPeer(PlayMedia *pMedia, int nRtpPort, int nRtcpPort);
// Sends something to the server's ports, so that what stands between lets its packets in.
void PlayUdpPunch(RtspPlay *pPlay);
// Sends to the server's port of RTCP.
void PlayUdpSendRtcp(PlayMedia *pMedia, const std::string &packet);

}  // namespace orx
