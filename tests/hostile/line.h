// One attacker's way to the server: a connection to a port of it, a tunnel of two, or a peer of the relay. Used
// by one thread. Nothing here waits longer than a fraction of a second, whatever the server does.
#pragma once

#include <memory>
#include <string>

#include "hostile/dice.h"
#include "unit/remote/enettest.h"

namespace orx {

enum class Way { DIRECT, TUNNEL, WEB, RELAY };

struct Ports {
    int nRtsp = 0, nWeb = 0;  // the relay has the number of the first, over UDP
};

struct Line {
    Sock sock, post;                  // post: the second connection of a tunnel
    std::unique_ptr<EnetSide> relay;  // with a relay's line
    ENetPeer *pPeer = nullptr;
    bool bTunnel = false;

    bool Send(const std::string &bytes);  // in the form that the line asks for; whether all was taken
    void Read();                          // throws away what is there
    // Ends it in one of the ways there are: orderly, by reset, or, over the relay, without a word.
    void Leave(Dice *pDice);
};

// A connection from one address of the loopback net.
Sock ConnectFrom(const std::string &ip, int nPort);
unsigned LinesOpened();  // connections so far, those of the relay's bridges included
Line OpenLine(Way way, const std::string &ip, const Ports &ports, Dice *pDice);

std::string Encoded(const std::string &bytes);  // base64
std::string TunnelHead(const char *szMethod, const std::string &cookie);

}  // namespace orx
