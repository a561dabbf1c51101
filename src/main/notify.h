// What a service manager is told over the socket that it names in NOTIFY_SOCKET: that the server is ready,
// reads its configuration again, stops, and (with WATCHDOG_USEC) that it lives. Without that variable nothing
// is done.
#pragma once

namespace orx {

// Reads the variables and opens the socket. Main thread, before others run.
void NotifyInit();

// The start, or a reading of the configuration, is over. Any thread, as are the next two.
void NotifyReady();
// A reading begins; NotifyReady ends it.
void NotifyReloading();
void NotifyStopping();

// Says at half the watchdog's interval that the server lives, as long as the scheduler thread runs its tasks;
// one that hangs is waited for by nobody here, and is ended by the service manager. Main thread, some times a
// second.
void NotifyTick();

}  // namespace orx
