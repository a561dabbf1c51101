// The process frame: arguments, signals, the console and daemon loops, the stat report and the state file.
// Main thread only, except the signal handler.
#pragma once

namespace orx {

// The whole process. Returns its exit status.
int RunProcess(int argc, char **argv);

}  // namespace orx
