// The command line of orxctl.
#pragma once

#include <string>

namespace orx {

enum CtlCommand {
    CTL_STATUS,
    CTL_PROGRAMS,
    CTL_SESSIONS,
    CTL_RECORDINGS,
    CTL_METRICS,
    CTL_HEALTH,
    CTL_RELOAD,
    CTL_KICK,
    CTL_TOP,
};

enum CtlExit {
    CTL_DONE = 0,
    CTL_REFUSED = 1,
    CTL_USAGE = 2,
    CTL_NO_SERVER = 3,
};

struct CtlOptions {
    CtlCommand eCommand = CTL_STATUS;
    std::string first, second;  // the command's words
    std::string socket, config;
    int bJson = 0;
    int nSeconds = 1;  // between two views of top
};

// Returns OPTIONS_GO_ON, or the exit code to end with.
int CtlParseOptions(int argc, char **argv, CtlOptions *pOut);

}  // namespace orx
