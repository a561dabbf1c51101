// Sessions, ports and programs end in the middle of work that still holds pointers to them. Each is taken out
// of every list and map at once, so that nobody finds it any more, and its sockets are closed; its memory
// stays readable until the scheduler's callback returns. Scheduler thread only.
#pragma once

namespace orx {

// Member of a record that ends in this way.
struct Retired {
    Retired *pNext = nullptr;
    void *pRecord = nullptr;
    void (*pfnFree)(void *pRecord) = nullptr;
};

// Has pfnFree(pRecord) called when the current callback is over. pRetired is the record's own member.
void Retire(Retired *pRetired, void *pRecord, void (*pfnFree)(void *pRecord));

// Frees what was retired: called after each callback of the scheduler. When many players end at once, their
// queues take more than one such slice, and a task sees to it that another one comes. With nothing left,
// memory that is not needed any more goes back to the system.
void FreeRetiredSlice();
// Frees all of it, when the server stops.
void FreeRetired();

}  // namespace orx
