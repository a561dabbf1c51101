// The two logs while the server runs: the log of events goes where [LOG] says, and nobody waits for the disk
// of either while its thread runs.
#pragma once

namespace orx {

// Takes [LOG] from g_settings, at the start and whenever it was read again; begins nothing anew that stays.
// Main thread, and the scheduler's while it runs.
void EventsOpen();

// "server.start", with the listeners as they are by then. Main thread.
void EventsBegin();

// From now on the disk thread, which runs, writes both logs. Main thread, as the next.
void LogsDivert();
// Whoever says a line writes it again; the disk thread has ended.
void LogsRejoin();

// The last event, and the end of that log.
void EventsEnd();

}  // namespace orx
