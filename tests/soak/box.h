// The server in a process of its own whose clocks are moved from here, so that years go by in an hour. What it holds
// is the server's alone: the players and cameras are in the other process. One thread.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <iterator>
#include <string>

#include "support/sockets.h"
#include "system/orxprocess.h"

namespace orx {

// What the server holds.
struct BoxFigures {
    long nTasks = 0, nSessions = 0, nPrograms = 0, nSockets = 0, nHandles = 0;
    long nUsedPorts = 0, nDescriptors = 0, nThreads = 0;
    long nMediaBytes = 0;  // in caches and queues
    long nHeapBytes = 0;   // handed out by malloc; 0 under a sanitizer
    long nResidentKb = 0;  // after what is free was given back
    long nPort = 0;        // of RTSP; the next fifteen are free
    long bSound = 1;       // nothing that the process expected has failed
};

// The lines of a report about it. nSpare: by how much the end may lie above the beginning.
struct BoxRow {
    const char *szName;
    long BoxFigures::*pValue;
    long nSpare;
};
inline constexpr BoxRow kBoxRows[] = {
    {"tasks", &BoxFigures::nTasks, 0},
    {"sessions", &BoxFigures::nSessions, 0},
    {"programs", &BoxFigures::nPrograms, 0},
    {"sockets watched", &BoxFigures::nSockets, 0},
    {"session handles", &BoxFigures::nHandles, 0},
    {"pairs of UDP ports", &BoxFigures::nUsedPorts, 0},
    {"descriptors", &BoxFigures::nDescriptors, 0},
    {"threads", &BoxFigures::nThreads, 0},
    {"bytes of media", &BoxFigures::nMediaBytes, 0},
    {"bytes of heap", &BoxFigures::nHeapBytes, 16384},
    {"kB resident", &BoxFigures::nResidentKb, kSanitized || kEmulated ? 1 << 30 : 4096},
};

struct Box {
    std::string settings, outputPath;  // to be set before the start; as LocalServer takes them; what it prints
    uint64_t nAheadMs = 0;             // of the clock of all that is due some time
    int64_t nWallSeconds = 0;          // the same of the clock that names recordings
    BoxFigures now;                    // when it was last asked

    Box() = default;
    ~Box() { Stop(); }
    Box(const Box &) = delete;
    Box &operator=(const Box &) = delete;

    // Each returns whether the server is there. No thread may run beside the caller at the start. The clock begins
    // so many milliseconds before its 32 bits are used up.
    bool Start(uint32_t nBeforeWrapMs);
    bool Move(uint64_t nMs);      // both clocks
    bool Step(int64_t nSeconds);  // the wall clock alone, either way
    bool Look();                  // fills `now`
    // Ends it in order. Returns the exit status, 256 + n when signal n ended it.
    int Stop();

    std::string Url(const std::string &path) const { return "rtsp://127.0.0.1:" + std::to_string(now.nPort) + path; }

private:
    bool Order(char cOrder);
    Sock line;
    pid_t pid = -1;
};

}  // namespace orx
