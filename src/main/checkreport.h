// What the program says of a configuration without a start: --check, --check --upgrade and --dump-config.
#pragma once

namespace orx {

// Prints every value that is taken, says the doubts on standard error, and whether a strict start would go
// well. Ports are tried by a bind, nothing else. Returns the exit status: 0 it would, 1 not.
int CheckReport(const char *szConfigPath);

// Prints the lines that the file lacks and the shipped one has. Returns the exit status, 0.
int UpgradeReport(const char *szConfigPath);

// Prints the shipped file with the default of every key. Returns the exit status, 0.
int DumpConfig();

}  // namespace orx
