#include "main/checkreport.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string_view>

#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include "base/fdguard.h"
#include "base/filewrite.h"
#include "base/installdir.h"
#include "base/textbuf.h"
#include "runtime/sockutil.h"
#include "server/core/configcheck.h"
#include "server/core/configfind.h"
#include "server/core/configtext.h"
#include "server/core/shippedconfig.h"

namespace orx {

// ---------------------------------------------------------------- ports

// Tries a port as the server would take it. Returns 0, or why not.
static int TryPort(const NetAddr *pAddr, int nType)
{
    FdGuard sock{socket(pAddr->any.sa_family, nType | SOCK_CLOEXEC, 0)};
    // as a listener does, so that connections that are fading away do not look like one
    if (sock.fd >= 0 && nType == SOCK_STREAM)
        SockSetReuseAddr(sock.fd, 1);
    return sock.fd >= 0 && bind(sock.fd, &pAddr->any, AddrSize(pAddr)) == 0 ? 0 : errno;
}

static void CheckPort(const char *szPath, const Settings *p, const char *szKey, uint32_t nPort, int nType,
                      DoubtList *pDoubts)
{
    NetAddr addr;
    char szWhy[160], szAddress[kAddrTextSize], szError[64];
    TextBuf why{szWhy, sizeof(szWhy)};
    // an address that is none has its doubt already, and port 0 is any
    if (nPort == 0 || !SockSetAddrEx(&addr, p->szListenIp, static_cast<int>(nPort), SettingsListenIpv6(p)))
        return;
    int nErrno = TryPort(&addr, nType);
    SockAddrToString(&addr, szAddress);
    TextAdd(&why, "cannot be listened on (%s, %s): no connection is taken", szAddress,
            strerror_r(nErrno, szError, sizeof(szError)));
    if (nErrno)
        ConfigDoubt(szPath, pDoubts, 1, "SERVER", szKey, szWhy);
}

static void CheckPorts(const char *szPath, const Settings *p, DoubtList *pDoubts)
{
    CheckPort(szPath, p, "ListenPort", p->nListenPort, SOCK_STREAM, pDoubts);
    if (p->bHttpProxy && p->nHttpProxyListenPort != p->nListenPort)
        CheckPort(szPath, p, "HttpProxyListenPort", p->nHttpProxyListenPort, SOCK_STREAM, pDoubts);
    if (p->bUnet || p->bZupo)
        CheckPort(szPath, p, "UnetPort", p->nUnetPort, SOCK_DGRAM, pDoubts);
}

// ---------------------------------------------------------------- the status socket

// Whether the socket could be made, as the server makes it, which of directories makes run/ alone. One that
// is there already is left alone. Returns 0, or why not.
static int TrySocket(const char *szSocket, char *szPath, size_t nSize)
{
    char szDir[sizeof(sockaddr_un::sun_path)], szRun[sizeof(szDir)];
    struct stat info {};
    if (!InstallPath(szPath, nSize, szSocket))
        return ENAMETOOLONG;
    if (lstat(szPath, &info) == 0)
        return S_ISSOCK(info.st_mode) ? 0 : EADDRINUSE;
    TextCopy(szDir, sizeof(szDir),
             std::string_view(szPath, static_cast<size_t>(strrchr(szPath, '/') + 1 - szPath)));
    int bRun = InstallPath(szRun, sizeof(szRun), "run/") && strcmp(szDir, szRun) == 0;
    if (bRun && stat(szDir, &info) != 0)
        InstallDir(szDir, sizeof(szDir));
    return DirTakesFiles(szDir) ? 0 : errno;
}

static void CheckSocket(const char *szPath, const Settings *p, DoubtList *pDoubts)
{
    char szWhy[256], szSocket[sizeof(sockaddr_un::sun_path)] = "", szError[64];
    TextBuf why{szWhy, sizeof(szWhy)};
    int nErrno = p->szStatusSocket[0] ? TrySocket(p->szStatusSocket, szSocket, sizeof(szSocket)) : 0;
    TextAdd(&why, "cannot be listened on (%s, %s): no status connection is taken", szSocket,
            strerror_r(nErrno, szError, sizeof(szError)));
    if (nErrno)
        ConfigDoubt(szPath, pDoubts, 1, "STATUS", "Socket", szWhy);
}

// ---------------------------------------------------------------- reports

// Prints a line, and above the first of a section its header. pContext: the last section.
static void PrintRow(void *pContext, const char *szSection, const char *szKey, const char *szTaken)
{
    auto *pszLast = static_cast<const char **>(pContext);
    if (!*pszLast || strcmp(*pszLast, szSection) != 0)
        printf("%s[%s]\n", *pszLast ? "\n" : "", szSection);
    *pszLast = szSection;
    printf("%s=%s\n", szKey, szTaken);
}

// As PrintRow. The lines are added to a file whose last one may lack its end.
static void PrintUpgrade(void *pContext, const char *szSection, const char *szKey, const char *szTaken)
{
    if (!*static_cast<const char **>(pContext))
        printf("\n");
    PrintRow(pContext, szSection, szKey, szTaken);
}

int CheckReport(const char *szConfigPath)
{
    const char *szLast = nullptr;
    Settings taken;
    DoubtList doubts;
    ConfigState eState = ConfigCheck(szConfigPath, &taken, &doubts);
    CheckPorts(szConfigPath, &taken, &doubts);
    CheckSocket(szConfigPath, &taken, &doubts);
    int bStarts = eState != ConfigState::Fails && !DoubtsRefuse(&doubts);
    ConfigListTaken(szConfigPath, PrintRow, &szLast);
    fflush(stdout);
    for (size_t i = 0; i < doubts.nDoubts; i++)
        fprintf(stderr, "%s\n", doubts.pDoubts[i].szText);
    printf("\n; doubts: %zu; the server %s with --strict\n", doubts.nDoubts,
           bStarts ? "would start" : "would not start");
    SettingsFree(&taken);
    DoubtsFree(&doubts);
    return bStarts ? 0 : 1;
}

int UpgradeReport(const char *szConfigPath)
{
    const char *szLast = nullptr;
    ConfigListMissing(szConfigPath, PrintUpgrade, &szLast);
    return 0;
}

int DumpConfig()
{
    ConfigWalk walk(g_szShippedConfig);
    ConfigLine line;
    const char *p = g_szShippedConfig;
    int nUser;
    while (ConfigWalkNext(&walk, &line)) {
        const Setting *pRow =
            line.eKind == ConfigLineKind::Key ? ConfigRowOf(line.section, line.key, &nUser) : nullptr;
        if (!pRow || IsUserRow(pRow))
            continue;
        fwrite(p, 1, static_cast<size_t>(line.value.data() - p), stdout);
        if (pRow->kind == SettingKind::Number)
            printf("%d", pRow->nDefault);
        else
            fputs(pRow->szDefault, stdout);
        p = line.value.data() + line.value.size();
    }
    fputs(p, stdout);
    return 0;
}

}  // namespace orx
