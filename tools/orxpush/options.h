// The command line of orxpush.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace orx {

struct PushOptions {
    std::string url;    // with %d where the program's number goes
    std::string file;   // empty: the clip
    std::string audio;  // "tone", a file of A-law at 8000 Hz, or empty: no audio track
    int nDataMs = 0;    // period of the data track, 0: none
    double dFps = 25;
    double dSpeed = 1;    // media seconds per second; 0: as fast as the server takes them
    double dSeconds = 0;  // media seconds to push, 0: the file once, or without end when looping
    int bLoop = 0;
    int nCount = 1, nFirst = 1;  // programs, and the number of the first
    int nKbits = 0;              // fill up to this rate with filler data, 0: no
    int nPacketBytes = 1400;
    int bSingle = 0;  // no aggregation of small units
    int bStamp = 0;
    int bRecord = 0;  // RECORD instead of PLAY
    int bRtcp = 0;
    int bQuiet = 0;
    int nWaitSeconds = 0;  // how long to try to connect
    std::string user, password;
    std::string dump;       // file for every packet sent; with %d for several programs
    std::string camConfig;  // file sent with PUTCAMCFG
    std::string forward = "200 OK";
    std::vector<std::string> sdpLines;
    int64_t nFirstTime = -1, nFirstSequence = -1;  // -1: random
};

enum { PUSH_OK = 0, PUSH_FAILED = 1, PUSH_USAGE = 2 };

// Reads the command line. Returns -1 to go on, or the exit code to end with at once.
int PushParseOptions(int argc, char **argv, PushOptions *pOut);

}  // namespace orx
