// What orxload prints in the end.
#pragma once

#include <cstdint>
#include <deque>

#include "orxload/player.h"

namespace orx {

struct LoadGroup {
    const char *szName;
    RtspTransport transport;
    Histogram latency{};
    Histogram firstPicture{};
    int nPlayers = 0, nFailed = 0, nCut = 0, nNoPicture = 0, nNoKeyStart = 0;
    LoadCounts counts{};  // packets, bytes and reports of the measured time; the rest from the start
};

struct LoadServer {
    double dCpuSeconds = 0;         // of the measured time
    uint64_t nIdleKb = 0, nKb = 0;  // resident before the first player, and at the end
};

// Sums the players of one transport up; the latency was recorded while they ran.
void LoadSumUp(LoadGroup *pGroup, const std::deque<LoadPlayer> &players);
// Prints the table (unless only JSON is wanted) and the JSON line. dSeconds: the measured time.
void LoadPrint(const LoadOptions *pOptions, const LoadGroup *pGroups, int nGroups, const LoadServer *pServer,
               double dSeconds);
// The exit code.
int LoadJudge(const LoadOptions *pOptions, const LoadGroup *pGroups, int nGroups);

}  // namespace orx
