// What is doubtful about the start of a server is said on standard error and in the log of events, and a
// strict start ends by it (see core/doubts.h). Main thread, before others run.
#pragma once

#include <cstddef>

namespace orx {

struct DoubtList;

// Says those of a list from one on, on standard error and in the log of events. Any thread that has the list.
void DoubtsSay(const DoubtList *pList, size_t nFrom);

// Checks the file into g_doubts, before it is read; whether the start is strict is known from then on.
void StartDoubtsCheck(const char *szConfigPath);

// Says the doubts that were not yet said. Returns 1, or 0 when the start is strict and one of all refuses it.
int StartDoubtsSay();

// Adds those about listeners that could not be opened, which stay as they are while the server runs. Any
// thread.
void ListenerDoubts(DoubtList *pList);

// Adds them to g_doubts, and says them. Results as StartDoubtsSay.
int StartDoubtsOfListeners();

// Whether the last start was strict: one that failed ends the process with status 1.
int StartIsStrict();

// Says the doubts of a file that is too long to be read, which aborts, and with the option "--strict" of what
// is no file, which may not end. Returns whether the start is strict and ends by it instead.
int StartRefusesLong(const char *szConfigPath);

}  // namespace orx
