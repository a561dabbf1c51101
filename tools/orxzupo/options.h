// The command line of orxzupo.
#pragma once

#include <string>

#include "remote/zupo.h"

namespace orx {

struct ZupoOptions {
    std::string ip;  // empty: every address
    int nPort = kZupoDefaultPort;
    std::string refusals;  // file of the refusal list, empty: none
    int nMaxPeers = 1024;
    int nPerAddress = 64;  // of these from one address; 0: any number
    int bQuiet = 0;
};

enum { ZUPO_EXIT_OK = 0, ZUPO_EXIT_FAILED = 1, ZUPO_EXIT_USAGE = 2 };

// Reads the command line. Returns -1 to go on, or the exit code to end with at once.
int ZupoParseOptions(int argc, char **argv, ZupoOptions *pOut);

}  // namespace orx
