// The configuration file as its readers see it. One of up to 8191 bytes is read key by key through the
// path-based face of the profile store; a longer one is loaded once and whole when peer faults are survived
// (AssertSurvivePeerFaults), and aborts the first read otherwise. No locking.
#pragma once

#include "base/inifile.h"

namespace orx {

struct ConfigFile {
    const char *szPath;                // not owned
    const Profile *pLoaded = nullptr;  // null where each key is read from the file
    Profile *pOwned = nullptr;
    explicit ConfigFile(const char *szConfigPath);
    explicit ConfigFile(const Profile *pText);  // a text that was loaded; not owned
    ~ConfigFile();
    ConfigFile(const ConfigFile &) = delete;
    ConfigFile &operator=(const ConfigFile &) = delete;
};

// As read_profile_string and read_profile_int.
int ConfigGetStr(const ConfigFile *pConfig, const char *szSection, const char *szKey, char *szValue,
                 int nSize, const char *szDefault);
int ConfigGetInt(const ConfigFile *pConfig, const char *szSection, const char *szKey, int nDefault);

// Looks for [GUARD] SurvivePeerFaults, whatever the size of the file, and sets AssertSurvivePeerFaults by it:
// what else start-up reads may be a fault already. Says nothing when the file is missing.
void ConfigReadGuard(const char *szConfigPath);

}  // namespace orx
