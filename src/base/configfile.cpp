#include "base/configfile.h"

#include <unistd.h>

#include "base/assertion.h"

namespace orx {

ConfigFile::ConfigFile(const char *szConfigPath) : szPath(szConfigPath)
{
    if (AssertPeerFaultsSurvived() && ProfileIsLong(szPath))
        pLoaded = pOwned = ProfileInit(szPath);
}

ConfigFile::ConfigFile(const Profile *pText) : szPath(pText->path), pLoaded(pText) {}

ConfigFile::~ConfigFile()
{
    ProfileFree(pOwned);
}

int ConfigGetStr(const ConfigFile *pConfig, const char *szSection, const char *szKey, char *szValue,
                 int nSize, const char *szDefault)
{
    if (pConfig->pLoaded)
        return ProfileGetStr(szSection, szKey, szValue, nSize, szDefault, pConfig->pLoaded);
    return read_profile_string(szSection, szKey, szValue, nSize, szDefault, pConfig->szPath);
}

int ConfigGetInt(const ConfigFile *pConfig, const char *szSection, const char *szKey, int nDefault)
{
    if (pConfig->pLoaded)
        return ProfileGetInt(szSection, szKey, nDefault, pConfig->pLoaded);
    return read_profile_int(szSection, szKey, nDefault, pConfig->szPath);
}

void ConfigReadGuard(const char *szConfigPath)
{
    Profile *pProfile = access(szConfigPath, R_OK) == 0 ? ProfileInit(szConfigPath) : nullptr;
    AssertSurvivePeerFaults(pProfile && ProfileGetInt("GUARD", "SurvivePeerFaults", 0, pProfile));
    ProfileFree(pProfile);
}

}  // namespace orx
