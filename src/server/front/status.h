// The status socket ([STATUS] Socket): a Unix socket that tells over HTTP what the server is doing, and takes
// the administrator's orders. Each reader has a thread for one question; so many may ask at a time, and one
// that stalls is let go. docs/status.md describes it. Main thread.
#pragma once

namespace orx {

// Opens the socket, when one is configured. One that cannot be opened is noted as a listener that failed.
// Once the scheduler runs.
void StatusOpen();
// Begins to answer on it. Once doubts and listeners are noted, which the scheduler thread then reads for
// readers.
void StatusStart();
// Lets all readers go and waits for their threads; while the scheduler still runs. Accepts one that was never
// started.
void StatusStop();

}  // namespace orx
