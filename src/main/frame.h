// The process frame: arguments, signals, the console and daemon loops, the stat report and the state file.
// Main thread only, except the signal handler.
#pragma once

#include <cstddef>

namespace orx {

constexpr size_t kPathSize = 256;

// The directory two levels above the executable. Always 1 where /proc can be read, else 0.
int ParentDirectory(char *szOut, size_t nSize);

// Finds the configuration file: the name behind "-c...", else szDefault; a name without '/' lies in
// <parent>/cfg. Returns 1 when "-daemond" was given, 0 otherwise, -1 when the parent directory cannot be
// found.
int ParseArguments(int argc, char **argv, const char *szDefault, char *szCfgPath, size_t nSize);

// Installs the handlers. SIGTERM asks the loops to end.
void InstallSignalHandlers();

// Prints the figures and the list of sessions.
void PrintStat();

// Writes CurTime, CurLives and CurClients.
void WriteStateFile(const char *szPath);

// Run until "quit" or "q" is read, and for ever; either ends on SIGTERM.
void ConsoleLoop();
void DaemonLoop(const char *szStatePath, int bWriteState);

// The whole process. Returns its exit status.
int RunProcess(int argc, char **argv);

}  // namespace orx
