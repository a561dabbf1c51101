// The command line of orxload.
#pragma once

#include <string>

namespace orx {

struct LoadOptions {
    std::string url;                      // with %d where the program's number goes
    int nTcp = 0, nUdp = 0, nTunnel = 0;  // players by transport
    int nStalled = 0;                     // further TCP players that never read
    int nPrograms = 1, nFirst = 1;        // players take turns over that many programs
    double dSeconds = 10;                 // from the end of the warm-up
    double dWarmup = 0;
    int nRamp = 500;         // players that start per second, 0: all at once
    int nKeepAlive = 30;     // seconds between OPTIONS of a player, 0: none
    int nReports = 5;        // seconds between receiver reports of a UDP player, 0: none
    int bTogether = 0;       // a read brings the datagrams of one segmented send, which come as one
    int nSilence = 0;        // seconds without a packet of a track that end a player, 0: none do
    int nTimeoutMs = 10000;  // for one player's set-up
    int nWatchPid = 0;       // the server's process, to measure it
    int bStrict = 0;
    int bJson = 0;  // only the JSON line
    int bQuiet = 0;
    std::string verify;  // dump of orxpush; with %d for several programs
    std::string user, password;
};

enum { LOAD_OK = 0, LOAD_PLAYERS_FAILED = 1, LOAD_USAGE = 2, LOAD_NOT_STRICT = 3 };

// Reads the command line. Returns -1 to go on, or the exit code to end with at once.
int LoadParseOptions(int argc, char **argv, LoadOptions *pOut);

}  // namespace orx
