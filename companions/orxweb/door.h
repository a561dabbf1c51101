// Where visitors come in: listens, limits how many there are, in all and from one address, and reads the
// header by which a front names the visitor.
#pragma once

#include <string>

#include "orxweb/webrequest.h"

namespace orx {

struct DoorSettings {
    std::string listen;
    int nPort = 0;
    int nMost = 256;      // connections in all
    int nMostOfOne = 64;  // of one address, but for those of this machine
    // Whether a connection from pPeer to pOwn is a front's, whose word for its visitor counts. By the door's
    // thread.
    int (*pfnIsFront)(const NetAddr *pPeer, const NetAddr *pOwn) = nullptr;
    // Takes a connection, which is not blocking. By the door's thread. Returns 1 or 0: then it was closed.
    int (*pfnTake)(int fd, const NetAddr *pAddr) = nullptr;
};

// Listens and starts its thread. Returns 1, or 0 with *pWhy in one line.
int DoorOpen(const DoorSettings *pSettings, std::string *pWhy);
void DoorClose();  // ends the thread; connections that were taken stay

// Whose a taken connection is. Any thread.
WebPeer DoorPeer(int fd);
// A taken connection is about to be closed: it counts no more. Any thread.
void DoorLeft(int fd);

}  // namespace orx
