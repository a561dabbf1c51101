#include "server/core/configrules.h"

#include <cerrno>
#include <cstdlib>

#include <arpa/inet.h>
#include <sys/stat.h>
#include <unistd.h>

#include "base/filewrite.h"
#include "base/textbuf.h"
#include "runtime/sockutil.h"

namespace orx {

constexpr size_t kShortGuid = 20;  // an identity must be longer to be registered

static int HasRelay(const Settings *p)
{
    return p->bUnet || p->bZupo;
}

// ---------------------------------------------------------------- one key against others

struct Rule {
    const char *szSection, *szKey;  // of the line that is shown
    int (*pfnBroken)(const Settings *p);
    const char *szWhy;
    int bFatal;  // the server does not start with it, or without what it is about
};
static constexpr Rule g_rules[] = {
    {"SERVER", "AuthType", [](const Settings *p) -> int { return p->nAuthType == 3; },
     "has no authenticator: the server does not start", 1},
    {"STORAGE", "RecordAlways", [](const Settings *p) -> int { return p->szRecordAlways[0] && !p->bRecord; },
     "needs RecordEnable=1: nothing is recorded", 0},
    {"INTEROP", "UdpPushers", [](const Settings *p) -> int { return p->bUdpPushers && !p->bStandardPushers; },
     "needs StandardPushers=1: 0 is taken", 0},
    {"INTEROP", "HoldPlayers",
     [](const Settings *p) -> int { return p->nHoldPlayers && !p->bStandardPushers; },
     "needs StandardPushers=1: 0 is taken", 0},
    {"INTEROP", "LowDelay", [](const Settings *p) -> int { return p->bLowDelay && !p->bStandardPlayers; },
     "needs StandardPlayers=1: 0 is taken", 0},
    {"LOG", "File", [](const Settings *p) -> int { return p->szLogFile[0] && !p->szLogLevel[0]; },
     "needs a Level: nothing is logged", 0},
    {"ZUPO", "ZupoEnable",
     [](const Settings *p) -> int { return p->bZupo && strlen(p->szDeviceGuid) <= kShortGuid; },
     "needs a DeviceGuid of more than 20 characters: the box is not registered", 0},
    {"SERVER", "HttpProxyListenPort",
     [](const Settings *p) -> int { return p->bHttpProxy && p->nHttpProxyListenPort == 0; },
     "is no port: no web connection is taken", 1},
    {"SERVER", "HttpProxyListenPort",
     [](const Settings *p) -> int { return p->bHttpProxy && p->nHttpProxyListenPort == p->nListenPort; },
     "is the port of RTSP as well: one of the two cannot listen", 1},
    {"SERVER", "UnetPort",
     [](const Settings *p) -> int {
         return HasRelay(p) && static_cast<int>(p->nUnetPort) >= p->nUdpStartPort &&
                static_cast<int>(p->nUnetPort) <= p->nUdpEndPort;
     },
     "lies in the media range UdpStartPort..UdpEndPort: media and relay take each other's packets", 0},
};

// A doubt about a key, which may have no line: then its default is.
static void SayAbout(const ConfigFound *pFound, int bRefuses, const Setting *pRow, const char *szWhy)
{
    char szTaken[kTakenSize], szDefault[kTakenSize + 16] = "";
    TextBuf text{szDefault, sizeof(szDefault)};
    ConfigLine line = *ConfigLineOf(pFound, pRow, -1);
    ConfigTaken(pFound, pRow, -1, szTaken, sizeof(szTaken));
    if (!line.nLine)
        TextAdd(&text, "(default %s) ", szTaken);
    line.eKind = ConfigLineKind::Key;
    line.section = pRow->szSection;
    line.key = pRow->szKey;
    ConfigSay(pFound, bRefuses, &line, 0, "%s%s", szDefault, szWhy);
}

static void CheckRules(const ConfigFound *pFound)
{
    for (const Rule &rule : g_rules)
        if (rule.pfnBroken(pFound->pTaken))
            SayAbout(pFound, rule.bFatal, ConfigRow(rule.szSection, rule.szKey), rule.szWhy);
}

static void CheckUdpRange(const ConfigFound *pFound)
{
    char szFault[80], szWhy[128];
    TextBuf why{szWhy, sizeof(szWhy)};
    if (!SettingsUdpRangeFault(pFound->pTaken, szFault, sizeof(szFault)))
        return;
    TextAdd(&why, "(%s): the server does not start", szFault);
    int bStart = strstr(szFault, "UdpStartPort") != nullptr;
    SayAbout(pFound, 1, ConfigRow("SERVER", bStart ? "UdpStartPort" : "UdpEndPort"), szWhy);
}

static void CheckListenIp(const ConfigFound *pFound)
{
    const Settings *p = pFound->pTaken;
    const Setting *pRow = ConfigRow("SERVER", "ListenIp");
    NetAddr addr;
    const ConfigLine *pLine = ConfigLineOf(pFound, pRow, -1);
    if (!p->bStandardPlayers && pLine->nLine && pLine->value.find(':') != std::string_view::npos)
        SayAbout(pFound, 1, pRow, "is an IPv6 address, which needs StandardPlayers=1: nothing listens");
    else if (!SockSetAddrEx(&addr, p->szListenIp, 554, SettingsListenIpv6(p)))
        SayAbout(pFound, 1, pRow, "is no address and no name of one: nothing listens");
    else if (HasRelay(p) && AddrIsIpv6(&addr) && !IN6_IS_ADDR_UNSPECIFIED(&addr.in6.sin6_addr))
        SayAbout(pFound, 1, pRow,
                 "keeps the relay, which has IPv4 alone, from starting: the server does not start");
}

// ---------------------------------------------------------------- the directory of recordings

// Whether the directory can be written, or made where it is missing. errno says why not.
static int CanWrite(const char *szPath)
{
    char szLevel[kTakenSize * 4 + 2];
    struct stat info {};
    if (!TextCopy(szLevel, sizeof(szLevel), szPath))
        return 1;
    for (;;) {
        if (stat(szLevel, &info) == 0) {
            errno = ENOTDIR;
            return S_ISDIR(info.st_mode) && DirTakesFiles(szLevel);
        }
        if (errno != ENOENT)
            return 0;
        size_t nLen = strlen(szLevel);
        while (nLen > 0 && szLevel[nLen - 1] == '/')
            szLevel[--nLen] = '\0';
        char *pSlash = strrchr(szLevel, '/');
        if (!pSlash)
            return DirTakesFiles(".");
        pSlash[pSlash == szLevel] = '\0';
    }
}

static void CheckRecordPath(const ConfigFound *pFound)
{
    const Settings *p = pFound->pTaken;
    char szWhy[kTakenSize * 5], szError[64];
    TextBuf why{szWhy, sizeof(szWhy)};
    if (!p->bRecord || !p->szRecordPath || CanWrite(p->szRecordPath))
        return;
    TextAdd(&why, "is %s, which cannot be written (%s): nothing can be recorded", p->szRecordPath,
            strerror_r(errno, szError, sizeof(szError)));
    SayAbout(pFound, 1, ConfigRow("STORAGE", "RecordPath"), szWhy);
}

void ConfigCheckRules(const ConfigFound *pFound)
{
    CheckRules(pFound);
    CheckUdpRange(pFound);
    CheckListenIp(pFound);
    CheckRecordPath(pFound);
}

// ---------------------------------------------------------------- users

struct UserRows {
    const Setting *pName = ConfigRow("USERS", "UserName%d");
    const Setting *pPassword = ConfigRow("USERS", "UserPwd%d");
    const Setting *pLevel = ConfigRow("USERS", "UserLevel%d");
    const Setting *pDevices = ConfigRow("USERCTRL", "UserDevList%d");
};

static int IsGiven(const ConfigFound *pFound, const Setting *pRow, int nUser)
{
    const ConfigLine *pLine = ConfigLineOf(pFound, pRow, nUser);
    return pLine->nLine && !pLine->value.empty();
}

static void CheckSuperUser(const ConfigFound *pFound)
{
    const Setting *pName = ConfigRow("USERS", "SuperUser"), *pPassword = ConfigRow("USERS", "SuperPwd");
    int bName = IsGiven(pFound, pName, -1), bPassword = IsGiven(pFound, pPassword, -1);
    if (bName && !bPassword)
        ConfigSayRow(pFound, pName, -1, "has no SuperPwd, so that anybody is let in with an empty one");
    if (bPassword && !bName)
        ConfigSay(pFound, 1, ConfigLineOf(pFound, pPassword, -1), 1, "has no SuperUser: there is none");
}

// A user who counts.
static void CheckUser(const ConfigFound *pFound, const UserRows *pRows, int nUser)
{
    int bName = IsGiven(pFound, pRows->pName, nUser);
    const ConfigLine *pName = ConfigLineOf(pFound, pRows->pName, nUser);
    if (bName && !IsGiven(pFound, pRows->pPassword, nUser))
        ConfigSay(pFound, 1, pName, 0, "has no UserPwd%d: an empty password lets him in", nUser);
    for (int i = 0; bName && i < nUser; i++)
        if (ConfigLineOf(pFound, pRows->pName, i)->value == pName->value) {
            ConfigSay(pFound, 1, pName, 0, "is the name of user %d as well: that one counts", i);
            break;
        }
}

// The first line of a user's; null when there is none.
static const ConfigLine *FirstLineOf(const ConfigFound *pFound, const UserRows *pRows, int nUser)
{
    for (const Setting *pRow : {pRows->pName, pRows->pPassword, pRows->pLevel, pRows->pDevices})
        if (ConfigLineOf(pFound, pRow, nUser)->nLine)
            return ConfigLineOf(pFound, pRow, nUser);
    return nullptr;
}

// Those behind the last one that counts: one line for all.
static void SayUncounted(const ConfigFound *pFound, const UserRows *pRows, int nCounted)
{
    const ConfigLine *pFirst = nullptr;
    int nMore = 0;
    for (int i = nCounted; i < kConfigUsers; i++) {
        const ConfigLine *pLine = FirstLineOf(pFound, pRows, i);
        nMore += pLine && pFirst;
        pFirst = pFirst ? pFirst : pLine;
    }
    int bSecret = pFirst && pFirst->key.starts_with("UserPwd");
    if (pFirst)
        ConfigSay(pFound, 1, pFirst, bSecret,
                  "stands beyond NumUsers=%d (with %d more): there is no such user", nCounted, nMore);
}

static void CheckDeviceLists(const ConfigFound *pFound, const UserRows *pRows, int nUsers)
{
    for (int i = 0; i < nUsers; i++) {
        const ConfigLine *pLine = ConfigLineOf(pFound, pRows->pDevices, i);
        if (!pLine->nLine || pFound->pTaken->bControlUsers)
            continue;
        ConfigSay(pFound, 1, pLine, 0, "needs ControlUsers=1: the user may watch everything");
        return;
    }
}

// Those who are counted and have no name: one line for all.
static void SayNameless(const ConfigFound *pFound, const UserRows *pRows, int nUsers)
{
    int nFirst = -1, nMore = 0;
    for (int i = 0; i < nUsers; i++) {
        int bName = IsGiven(pFound, pRows->pName, i);
        nMore += !bName && nFirst >= 0;
        nFirst = !bName && nFirst < 0 ? i : nFirst;
    }
    if (nFirst >= 0)
        ConfigSayRow(pFound, pRows->pName, nFirst, "(with %d more) has no name, but NumUsers counts it",
                     nMore);
}

void ConfigCheckUsers(const ConfigFound *pFound)
{
    UserRows rows;
    int nUsers = ConfigNumber(pFound, ConfigRow("USERS", "NumUsers"), -1);
    CheckSuperUser(pFound);
    for (int i = 0; i < nUsers; i++)
        CheckUser(pFound, &rows, i);
    SayNameless(pFound, &rows, nUsers);
    if (pFound->pUsers)
        SayUncounted(pFound, &rows, nUsers);
    CheckDeviceLists(pFound, &rows, nUsers);
}

// ---------------------------------------------------------------- sources that another program pulls

// Counted ones that lack what they need, and those beyond: one line for all of either.
void ConfigCheckSources(const ConfigFound *pFound)
{
    const Setting *pUrl = ConfigRow("PULL", "Url%d"), *pProgram = ConfigRow("PULL", "Program%d");
    int nSources = ConfigNumber(pFound, ConfigRow("PULL", "NumSources"), -1), nMore = 0;
    int nLacking = -1;
    const Setting *pLacking = nullptr;
    const ConfigLine *pBeyond = nullptr;
    for (int i = 0; i < kConfigUsers; i++) {
        int bUrl = IsGiven(pFound, pUrl, i), bProgram = IsGiven(pFound, pProgram, i);
        if (i >= nSources && bUrl) {
            nMore += pBeyond != nullptr;
            pBeyond = pBeyond ? pBeyond : ConfigLineOf(pFound, pUrl, i);
        } else if (i < nSources && !(bUrl && bProgram)) {
            pLacking = pLacking ? pLacking : bUrl ? pProgram : pUrl;
            nLacking = nLacking < 0 ? i : nLacking;
        }
    }
    if (pLacking)
        ConfigSayRow(pFound, pLacking, nLacking, "is missing, but NumSources counts it");
    if (pBeyond)
        ConfigSay(pFound, 0, pBeyond, 1, "stands beyond NumSources (with %d more): it is not pulled", nMore);
}

}  // namespace orx
