#include "orxctl/place.h"

#include <unistd.h>

#include "base/assertion.h"
#include "base/configfile.h"
#include "base/installdir.h"

namespace orx {

constexpr char kUsualName[] = "run/orx.sock";
constexpr char kPackaged[] = "/usr/lib/orx/";

// A path below the installation that the tool belongs to, else below the packaged one.
static std::string Below(const std::string &name)
{
    char szPath[512];
    if (InstallPath(szPath, sizeof(szPath), name.c_str()) && access(szPath, F_OK) == 0)
        return szPath;
    const std::string packaged = kPackaged + name;
    return name[0] != '/' && access(packaged.c_str(), F_OK) == 0 ? packaged : szPath;
}

// [STATUS] Socket of the file. A relative one is meant from the server's installation: ours, or the one that
// the file lies in.
static std::string FromConfig(const std::string &config, std::string *pWhy)
{
    char szSocket[128] = "";
    if (access(config.c_str(), R_OK) != 0) {
        *pWhy = config + " cannot be read";
        return "";
    }
    AssertSurvivePeerFaults(1);  // it may be long
    ConfigFile file(config.c_str());
    ConfigGetStr(&file, "STATUS", "Socket", szSocket, sizeof(szSocket), "");
    if (!szSocket[0]) {
        *pWhy = config + " names no [STATUS] Socket: set it, and start the server again";
        return "";
    }
    const std::string beside = config.substr(0, config.rfind('/') + 1) + "../" + szSocket;
    const std::string path = Below(szSocket);
    return access(path.c_str(), F_OK) != 0 && access(beside.c_str(), F_OK) == 0 ? beside : path;
}

std::string CtlFindSocket(const CtlOptions &options, std::string *pWhy)
{
    if (!options.socket.empty())
        return options.socket;
    if (!options.config.empty())
        return FromConfig(options.config, pWhy);
    const std::string path = Below(kUsualName);
    return access(path.c_str(), F_OK) != 0 && access("/run/orx/orx.sock", F_OK) == 0 ? "/run/orx/orx.sock"
                                                                                     : path;
}

}  // namespace orx
