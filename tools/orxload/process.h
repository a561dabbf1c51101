// What another process has used, from /proc. Any thread.
#pragma once

#include <cstdint>

namespace orx {

// Processor time of all threads, user and system, in microseconds. Taken from the scheduler's own count where
// the kernel offers it, since the clock ticks of /proc/PID/stat are too coarse for a short measurement. 0: no
// such process.
uint64_t ProcessCpuUs(int nPid);
// Resident memory in kilobytes. 0: no such process.
uint64_t ProcessResidentKb(int nPid);

}  // namespace orx
