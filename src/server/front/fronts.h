// Connections of fronts ([INTEROP] ProxyProtocolFrom) that have not said yet whose they are: a port without a
// session, until the header of the PROXY protocol has come. Scheduler thread only.
#pragma once

#include "server/core/port.h"

namespace orx {

// Forgets what an earlier server left. pfnNamed takes the port over once the header has been read off it and
// the peer is noted. Before the server's threads start.
void FrontsInit(void (*pfnNamed)(Port *pPort));

// Whether an accepted socket is of a front. The relay's bridges are none, whatever the list says.
int FrontIs(int fd);

// Takes such a socket over and waits for the header, at most 5 s. Of a front of whom too many wait it is
// closed.
void FrontAwait(int fd);

// Reads the header as far as it is there. Returns 0, or -1 when the connection was closed.
int FrontRead(Port *pPort);

// Closes the connection.
void FrontDrop(Port *pPort);

}  // namespace orx
