// The command line of orxpull. Main thread.
#pragma once

#include <string>

#include "orxpull/pullsettings.h"

namespace orx {

enum : int { PULL_OK = 0, PULL_FAILED = 1, PULL_USAGE = 2 };

enum class PullTask { Pull, Probe, Discover };

struct PullOptions {
    PullTask task = PullTask::Pull;
    std::string config = "orx.cfg";
    PullSource
        one;  // of "URL PROGRAM", or with the URL to probe; its URL is empty where all of FILE are meant
};

// Returns OPTIONS_GO_ON, or the exit code to end with at once (printed).
int PullParseOptions(int argc, char **argv, PullOptions *pOut);

}  // namespace orx
