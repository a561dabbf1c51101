#include "server/methods/directcfg.h"

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <utility>

#include "base/configfile.h"
#include "base/console.h"
#include "base/filewrite.h"
#include "base/inifile.h"
#include "base/textbuf.h"
#include "bridge/cgipush.h"
#include "server/core/settings.h"
#include "server/media/replies.h"
#include "server/media/send.h"
#include "server/methods/credentials.h"
#include "server/methods/wifirouters.h"

namespace orx {

constexpr size_t kPieceBytes = 32768;    // of a long answer; a block of the output queue stays below 65536
constexpr size_t kCredentialSize = 256;  // bytes of a name or password as it is read
constexpr size_t kMemPrefix = 6;         // "inmem:" before the text
constexpr char kCfgTemplate[] = "/tmp/orxXXXXXX.cfg";
constexpr int kCfgSuffix = 4;          // ".cfg": the camera goes by it
constexpr uint32_t kScanLookMs = 100;  // between two looks at a scan
constexpr uint32_t kFreshMs = 10000;   // so young a list of networks is shown again where roles are strict

// The server's configuration file as the profile store reads it from memory, with a NUL behind it.
struct ConfigText {
    char *sz = nullptr;
    size_t nLen = 0;  // of the text and what is put before it
    ConfigText() = default;
    ~ConfigText() { free(sz); }
    ConfigText(const ConfigText &) = delete;
    ConfigText &operator=(const ConfigText &) = delete;
};

// Returns 1, or 0 when the file cannot be read or is empty.
static int LoadConfig(ConfigText *pConfig)
{
    char *pRead = GetCfgFileContent(g_settings.szConfigPath, &pConfig->nLen);
    auto *pLonger = pRead ? static_cast<char *>(realloc(pRead, pConfig->nLen + 1)) : nullptr;
    if (!pLonger) {
        free(pRead);
        return 0;
    }
    pLonger[pConfig->nLen] = '\0';
    pConfig->sz = pLonger;
    return 1;
}

// Only the super user's token opens these methods. A configuration without his name has no super user: the
// token of an empty one is anybody's who knows that.
static Credential CheckConfigToken(const CredentialCheck *pCheck, const ConfigText *pConfig)
{
    char user[kCredentialSize] = "";
    char password[kCredentialSize] = "";
    read_profile_string("USERS", "SuperUser", user, sizeof(user), "", pConfig->sz);
    read_profile_string("USERS", "SuperPwd", password, sizeof(password), "", pConfig->sz);
    return CheckSuperToken(pCheck, user, password);
}

// Sends a text of any length, piece by piece.
static int SendLong(Session *pSession, Port *pPort, const char *pText, size_t nText)
{
    for (size_t nAt = 0; nAt < nText; nAt += kPieceBytes)
        if (!SendReply(pSession, pPort, pText + nAt, std::min(kPieceBytes, nText - nAt)))
            return 0;
    return 1;
}

// Who asks for such a text has nothing else to do here: the connection is closed as an idle one unless more
// comes.
static void ExpectMore(Session *pSession, Port *pPort)
{
    pSession->peer.nReceived = 0;
    SessionScheduleIdleCheck(pPort);
}

Verdict HandleGetCfgDirect(Session *pSession, Port *pPort, Request *pRequest)
{
    if (!RequestHeaderValue(pRequest, "UserAuth"))
        return ReplyShort(pSession, pPort, STATUS_UNAUTHORIZED);
    ConfigText config;
    if (!LoadConfig(&config))
        return ReplyShort(pSession, pPort, STATUS_FAILED);
    CredentialCheck check{pSession, pPort, pRequest, nullptr};
    Credential eResult = CheckConfigToken(&check, &config);
    if (eResult == CREDENTIAL_WAITS)
        return Verdict::Later;
    if (eResult != CREDENTIAL_RIGHT)
        return ReplyShort(pSession, pPort, STATUS_UNAUTHORIZED);
    size_t nText = config.nLen - kMemPrefix;
    Message reply(pSession, pPort);
    ReplyBegin(&reply, STATUS_OK);
    TextAdd(&reply.text, "Content-Type: text/plain\r\nContent-length: %d\r\n", static_cast<int>(nText));
    if (MessageSend(&reply) == Verdict::End || !SendLong(pSession, pPort, config.sz + kMemPrefix, nText))
        return Verdict::End;
    ExpectMore(pSession, pPort);
    return Verdict::Keep;
}

// Writes the camera's new configuration where the camera will load it from, and reaches for the camera.
// Returns 1 with the queue open, or 0 with nothing left behind.
static int PrepareCamera(char *szPath, const Request *pRequest)
{
    if (!FileCreateTemp(szPath, kCfgSuffix, pRequest->pBody, pRequest->nBody))
        return 0;
    if (CgiPushOpen(0) >= 0)
        return 1;
    unlink(szPath);
    return 0;
}

Verdict HandleSetCfgDirect(Session *pSession, Port *pPort, Request *pRequest)
{
    if (!RequestHeaderValue(pRequest, "UserAuth"))
        return ReplyShort(pSession, pPort, STATUS_UNAUTHORIZED);
    if (!pRequest->nBody)
        return ReplyShort(pSession, pPort, STATUS_BAD_REQUEST);
    ConfigText config;
    CredentialCheck check{pSession, pPort, pRequest, nullptr};
    Credential eResult = LoadConfig(&config) ? CheckConfigToken(&check, &config) : CREDENTIAL_MISSING;
    if (eResult == CREDENTIAL_WAITS)
        return Verdict::Later;
    if (eResult != CREDENTIAL_RIGHT)
        return ReplyShort(pSession, pPort, STATUS_UNAUTHORIZED);
    char path[sizeof(kCfgTemplate)];
    TextCopy(path, sizeof(path), kCfgTemplate);
    if (!PrepareCamera(path, pRequest))
        return ReplyShort(pSession, pPort, STATUS_FAILED);
    if (CgiPushAction("cfgfile", path, nullptr, 0) != 0)
        unlink(path);  // the camera will never hear of it
    ReplyShort(pSession, pPort, STATUS_OK);
    CgiPushAction("reboot", nullptr, nullptr, 0);
    CgiPushClose();
    return Verdict::Keep;
}

static void ReadInterface(char *szDevice, size_t nSize)
{
    ConfigFile config(g_settings.szConfigPath);
    ConfigGetStr(&config, "WIFI", "DevName", szDevice, static_cast<int>(nSize), "");
    if (!szDevice[0])
        print("GetWifiRouters() DevName is empty!\n");
}

Verdict HandleGetWifiRouters(Session *pSession, Port *pPort, Request *)
{
    static constexpr char kNothing[] = "NULL\r\n\r\n";
    char device[64] = "";
    const char *szList = nullptr;
    size_t nList = 0;
    uint32_t nScan = std::exchange(pSession->hold.nScan, 0);
    if (nScan == 0)
        ReadInterface(device, sizeof(device));
    WifiResult eResult = WifiResult::Failed;
    if (nScan || device[0])
        eResult = WifiRoutersAsk(device, g_settings.bStrictRoles ? kFreshMs : 0, &nScan, &szList, &nList);
    if (eResult == WifiResult::Running) {
        pSession->hold.nScan = nScan;
        return SessionNextStep(pSession, kScanLookMs);
    }
    int nSent = eResult == WifiResult::Ready ? SendLong(pSession, pPort, szList, nList)
                                             : SendReply(pSession, pPort, kNothing, sizeof(kNothing) - 1);
    ExpectMore(pSession, pPort);
    return KeepIf(nSent);
}

}  // namespace orx
