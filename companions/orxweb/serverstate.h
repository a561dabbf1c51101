// What the server tells about itself, its programs and its recordings, kept for a second or so, so that any
// number of visitors ask it once. Waits for the server: workers' threads.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "orxctl/json.h"
#include "orxweb/cliplist.h"
#include "orxweb/serverask.h"

namespace orx {

struct ProgramFacts {
    std::string program;  // without a slash at its begin
    std::string state;    // live, waiting, sleeping, recording
    std::string videoCodec, audioCodec;
    int nWidth = 0, nHeight = 0;
    double dFrameRate = 0;
    double dBitRate = 0;
    int nPlayers = 0;
    int nRecordings = 0;
};

struct ServerState {
    ServerAnswer answer;  // as it came; nStatus 0: away
    JsonValue json;
    std::vector<ProgramFacts> programs;
};

std::shared_ptr<const ServerState> ServerStateNow();
// The programs with recordings. Returns 1, or 0 when the server cannot tell.
int ServerDays(std::shared_ptr<const std::vector<ClipDays>> *ppOut);
// The recordings of a program, of a day ("20261122") or of all, in order of time.
int ServerRecordings(const std::string &program, const std::string &day,
                     std::shared_ptr<const std::vector<ClipRow>> *ppOut);

}  // namespace orx
