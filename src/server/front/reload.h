// The configuration is read again while the server runs: what may change at once does, for those who come
// from then on; nobody's session ends.
#pragma once

#include <ctime>

namespace orx {

// How a reading ended; texts are lines without line end, each for as long as the call.
struct ReloadResult {
    int bTaken;            // 0: the file is missing or would not start; the old values hold
    const char *szWhyNot;  // then
    const char
        *szRestart;  // keys that changed and count from the next start only, between blanks; may be empty
};
using ReloadDone = void (*)(void *pContext, const ReloadResult *pResult);

// Reads and checks the file off the scheduler thread; one task of that swaps the values, and then calls
// pfnDone (may be null) there, unless the server stops before. A reading that is asked for while one is under
// way follows it. Any thread.
void ReloadAsk(ReloadDone pfnDone, void *pContext);

// Does so for a signal: reopens the log of events as well. Returns 1, or 0 having done nothing where neither
// [LOG] nor [STATUS] is configured. Main thread.
int ReloadSignal(ReloadDone pfnDone);

// Notes the settings that the server starts with. Main thread, before others run.
void ReloadInit();
// No reading reaches the scheduler thread any more, which is about to end. Then, when it has: ends what is
// under way. Main thread.
void ReloadDetach();
void ReloadEnd();

// When the values in force were read, seconds since the epoch. Scheduler thread.
time_t ReloadTime();

}  // namespace orx
