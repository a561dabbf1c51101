// Where the program is installed: two levels above its executable, wherever links to that lie.
#pragma once

#include <cstddef>

namespace orx {

// Writes the directory, without a '/' at its end, to szOut of nSize bytes. Returns 1, or 0 where /proc cannot
// be read. Any thread.
int InstallDir(char *szOut, size_t nSize);

// Writes the path that a configured one means: itself when it begins with '/', else below that directory.
// Returns 1, or 0 when it does not fit or /proc cannot be read. Any thread.
int InstallPath(char *szOut, size_t nSize, const char *szPath);

}  // namespace orx
