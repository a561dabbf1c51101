// How many descriptors the process has left. The last ones are kept for RTSP connections and recordings: what
// strangers open by way of the other ports asks here first. Any thread.
#pragma once

namespace orx {

constexpr int kDescriptorsKept = 32;  // some players with two tracks each over UDP, and their recordings

// Descriptors that can still be opened; counts those that are open, which takes some tenths of a millisecond.
int DescriptorsLeft();
// Whether nWanted more can be opened without touching those that are kept. Returns 1, or 0, printed once for
// each time that it gets so far.
int DescriptorsSpare(int nWanted);

}  // namespace orx
