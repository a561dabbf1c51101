// Wrong passwords and tokens by the address that they came from, and how long that address waits for answers
// because of them ([GUARD] AuthFailDelay). Scheduler thread only.
#pragma once

#include <cstdint>

namespace orx {

// Notes a wrong one of an address (AddrCounted). nSecret stands for what would have been right there, 0 for
// nothing. Of more addresses than are kept the one that has been quiet for longest is forgotten.
void AttemptsNoteWrong(uint64_t nIp, uint32_t nSecret);

// A right one ends the count of its address, but for wrong ones at other secrets: who has an account of his
// own does not guess another one the faster.
void AttemptsForget(uint64_t nIp, uint32_t nSecret);

// The ms that an answer to this address waits now: 0 up to the second wrong one within a minute,
// AuthFailDelay at the third, then twice as long for each further one, up to 8 s.
uint32_t AttemptsDelay(uint64_t nIp);

// Forgets all addresses, when the server starts.
void AttemptsReset();

}  // namespace orx
