#include "orxweb/websettings.h"

#include <sys/stat.h>

#include <mutex>

#include "base/inifile.h"
#include "base/installdir.h"
#include "shared/loop.h"

namespace orx {

constexpr int kLongest = 1024;

struct ProfileGuard {
    Profile *p;
    explicit ProfileGuard(Profile *pProfile) : p(pProfile) {}
    ProfileGuard(const ProfileGuard &) = delete;
    ProfileGuard &operator=(const ProfileGuard &) = delete;
    ~ProfileGuard() { ProfileFree(p); }
};

static std::string TextOf(const Profile *pFile, const char *szSection, const char *szKey,
                          const char *szDefault)
{
    char sz[kLongest] = "";
    ProfileGetStr(szSection, szKey, sz, sizeof(sz), szDefault, pFile);
    return sz;
}

static int NumberOf(const Profile *pFile, const char *szSection, const char *szKey, int nLowest, int nHighest,
                    int nDefault)
{
    int n = ProfileGetInt(szSection, szKey, nDefault, pFile);
    return n < nLowest || n > nHighest ? nDefault : n;
}

// A path below the installation directory; empty stays empty.
static std::string PathOf(const std::string &path)
{
    char sz[kLongest];
    return !path.empty() && InstallPath(sz, sizeof(sz), path.c_str()) ? sz : "";
}

// Recordings lie beside the program where the path is not absolute, as the server has it.
static std::string RecordPathOf(std::string path)
{
    if (!path.starts_with('/'))
        path = PathOf("bin/" + (path.starts_with("./") ? path.substr(2) : path));
    return path.ends_with('/') ? path : path + "/";
}

static std::string RtspBaseOf(const Profile *pFile)
{
    std::string host = TextOf(pFile, "SERVER", "ListenIp", "");
    if (host.empty() || host == "0.0.0.0" || host == "::")
        host = "127.0.0.1";
    if (host.find(':') != std::string::npos)
        host = "[" + host + "]";
    return "rtsp://" + host + ":" + std::to_string(NumberOf(pFile, "SERVER", "ListenPort", 1, 65535, 554)) +
           "/";
}

int WebSettingsRead(const std::string &path, WebSettings *pOut)
{
    ProfileGuard file{ProfileInit(path.c_str())};
    if (!file.p)
        return 0;
    WebSettings out;
    out.listen = TextOf(file.p, "WEB", "Listen", "");
    if (out.listen.empty())
        out.listen = "0.0.0.0";
    out.nPort = NumberOf(file.p, "WEB", "Port", 1, 65535, 8080);
    out.title = TextOf(file.p, "WEB", "Title", "Orx");
    out.cachePath = PathOf(TextOf(file.p, "WEB", "CachePath", "cache"));
    out.socketPath = PathOf(TextOf(file.p, "STATUS", "Socket", ""));
    out.recordPath = RecordPathOf(TextOf(file.p, "STORAGE", "RecordPath", ""));
    out.logFile = PathOf(TextOf(file.p, "LOG", "File", ""));
    out.rtspBase = RtspBaseOf(file.p);
    out.nAuthType = NumberOf(file.p, "SERVER", "AuthType", 0, 3, 1);
    out.bHttpProxy = NumberOf(file.p, "SERVER", "EnableHttpProxy", 0, 1, 1);
    out.superUser = TextOf(file.p, "USERS", "SuperUser", "");
    AddrListParse(&out.proxyFrom, TextOf(file.p, "INTEROP", "ProxyProtocolFrom", "").c_str(),
                  "ProxyProtocolFrom", 1);
    *pOut = out;
    return 1;
}

// Guarded by the mutex.
static std::mutex g_mutex;
static std::string g_path;
static std::shared_ptr<const WebSettings> g_pNow;
static uint64_t g_nLookedMs = 0;
static timespec g_changed{};

static int ReadAnew()
{
    auto pRead = std::make_shared<WebSettings>();
    struct stat facts {};
    if (stat(g_path.c_str(), &facts) != 0 || !WebSettingsRead(g_path, pRead.get()))
        return 0;
    if (g_pNow) {
        pRead->listen = g_pNow->listen;
        pRead->nPort = g_pNow->nPort;
    }
    g_changed = facts.st_mtim;
    g_pNow = pRead;
    return 1;
}

int WebSettingsUse(const std::string &path)
{
    std::lock_guard lock(g_mutex);
    g_path = path;
    g_pNow = nullptr;
    return ReadAnew();
}

std::shared_ptr<const WebSettings> WebSettingsNow()
{
    std::lock_guard lock(g_mutex);
    uint64_t nNow = LoopNowMs();
    struct stat facts {};
    if (nNow - g_nLookedMs >= 1000) {
        g_nLookedMs = nNow;
        if (stat(g_path.c_str(), &facts) == 0 &&
            (facts.st_mtim.tv_sec != g_changed.tv_sec || facts.st_mtim.tv_nsec != g_changed.tv_nsec))
            ReadAnew();
    }
    return g_pNow;
}

}  // namespace orx
