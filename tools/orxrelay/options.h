// The command line of orxrelay.
#pragma once

#include <string>

namespace orx {

struct RelayOptions {
    std::string box;     // identity with a rendezvous server, else host[:port]
    std::string server;  // rendezvous server, host[:port]; empty: the box is reached directly
    std::string listen = "127.0.0.1:8554";
    int nTimeout = 15;  // seconds for reaching the box
    int bCheck = 0;     // only see whether the box can be reached
    int bQuiet = 0;
};

enum { RELAY_OK = 0, RELAY_FAILED = 1, RELAY_USAGE = 2 };

// Reads the command line. Returns -1 to go on, or the exit code to end with at once.
int RelayParseOptions(int argc, char **argv, RelayOptions *pOut);

}  // namespace orx
