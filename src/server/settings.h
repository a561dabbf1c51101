// Reads every server setting from the configuration file: defaults, clamps, and the checks that end start-up.
// Main thread, while nothing else runs.
#pragma once

#include "server/server.h"

namespace orx {

// Fills the settings fields of *pServer from the file. Returns 1, or 0 for an empty path and for a UDP port
// range that is printed as invalid.
int SettingsRead(ServerConfig *pServer, const char *szPath);

// The directory of recordings for a configured value: empty gives the executable's directory, a leading '.'
// is taken relative to it, and a '/' is added when missing. The text is from malloc; null without memory.
char *SettingsRecordPath(const char *szValue);

}  // namespace orx
