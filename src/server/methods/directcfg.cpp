#include "server/methods/directcfg.h"

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>
#include <utility>

#include "base/configfile.h"
#include "base/console.h"
#include "base/filewrite.h"
#include "base/inifile.h"
#include "base/textbuf.h"
#include "bridge/cgipush.h"
#include "server/core/heldjob.h"
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
constexpr uint32_t kRetryMs = 100;     // when memory has run out
constexpr uint32_t kFreshMs = 10000;   // so young a list of networks is shown again where roles are strict

static DiskLane g_lane;  // of what these methods want of the disk

// The server's configuration file as the profile store reads it from memory, with a NUL behind it.
struct ConfigText {
    HeldJob held;        // first
    char *sz = nullptr;  // owned; null when the file cannot be read or is empty
    size_t nLen = 0;     // of the text and what is put before it
};

static int RunLoading(DiskJob *pJob)
{
    auto *p = reinterpret_cast<ConfigText *>(pJob);
    char *pRead = GetCfgFileContent(g_settings.szConfigPath, &p->nLen);
    p->sz = pRead ? static_cast<char *>(realloc(pRead, p->nLen + 1)) : nullptr;
    if (p->sz)
        p->sz[p->nLen] = '\0';
    else
        free(pRead);
    return 1;
}

static void FreeConfig(HeldJob *pHeld)
{
    auto *p = reinterpret_cast<ConfigText *>(pHeld);
    free(p->sz);
    delete p;
}

// What a handler was given by the disk.
struct HeldGuard {
    HeldJob *p;
    explicit HeldGuard(HeldJob *pHeld) : p(pHeld) {}
    ~HeldGuard()
    {
        if (p)
            p->pfnFree(p);
    }
    void Reset(HeldJob *pHeld)
    {
        p->pfnFree(p);
        p = pHeld;
    }
    HeldGuard(const HeldGuard &) = delete;
    HeldGuard &operator=(const HeldGuard &) = delete;
};

// Has a job done that was just made. Null: it is under way, or without memory to be tried again.
static HeldJob *Ask(Session *pSession, HeldJob *pHeld, int (*pfnRun)(DiskJob *), void (*pfnFree)(HeldJob *))
{
    if (!pHeld) {
        SessionNextStep(pSession, kRetryMs);
        return nullptr;
    }
    pHeld->job.pfnRun = pfnRun;
    pHeld->pfnFree = pfnFree;
    return HeldJobPost(pSession, &g_lane, pHeld);
}

// The configuration for the request at hand. Null as Ask.
static HeldJob *AskConfig(Session *pSession)
{
    return Ask(pSession, reinterpret_cast<HeldJob *>(new (std::nothrow) ConfigText), RunLoading, FreeConfig);
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
    HeldGuard held(HeldJobTake(pSession));
    if (!held.p && !(held.p = AskConfig(pSession)))
        return Verdict::Later;
    auto *pConfig = reinterpret_cast<const ConfigText *>(held.p);
    if (!pConfig->sz)
        return ReplyShort(pSession, pPort, STATUS_FAILED);
    CredentialCheck check{pSession, pPort, pRequest, nullptr};
    Credential eResult = CheckConfigToken(&check, pConfig);
    if (eResult == CREDENTIAL_WAITS)
        return Verdict::Later;
    if (eResult != CREDENTIAL_RIGHT)
        return ReplyShort(pSession, pPort, STATUS_UNAUTHORIZED);
    size_t nText = pConfig->nLen - kMemPrefix;
    Message reply(pSession, pPort);
    ReplyBegin(&reply, STATUS_OK);
    TextAdd(&reply.text, "Content-Type: text/plain\r\nContent-length: %d\r\n", static_cast<int>(nText));
    if (MessageSend(&reply) == Verdict::End || !SendLong(pSession, pPort, pConfig->sz + kMemPrefix, nText))
        return Verdict::End;
    ExpectMore(pSession, pPort);
    return Verdict::Keep;
}

// The camera's new configuration on its way.
struct Handover {
    HeldJob held;           // first
    char *pText = nullptr;  // owned
    size_t nText = 0;
    int bDone = 0;
};

// Writes it where the camera will load it from. Returns 1 with the camera's queue open, or 0 with nothing
// left behind.
static int PrepareCamera(const Handover *p, char *szPath)
{
    if (!FileCreateTemp(szPath, kCfgSuffix, p->pText, p->nText))
        return 0;
    if (CgiPushOpen(0) >= 0)
        return 1;
    unlink(szPath);
    return 0;
}

// The queue is looked for by the camera's program file, and is therefore the disk thread's, too.
static int RunHandover(DiskJob *pJob)
{
    auto *p = reinterpret_cast<Handover *>(pJob);
    char path[sizeof(kCfgTemplate)];
    TextCopy(path, sizeof(path), kCfgTemplate);
    p->bDone = PrepareCamera(p, path);
    if (!p->bDone)
        return 1;
    if (CgiPushAction("cfgfile", path, nullptr, 0) != 0)
        unlink(path);  // the camera will never hear of it
    CgiPushAction("reboot", nullptr, nullptr, 0);
    CgiPushClose();
    return 1;
}

static void FreeHandover(HeldJob *pHeld)
{
    auto *p = reinterpret_cast<Handover *>(pHeld);
    free(p->pText);
    delete p;
}

// Has it handed over. Null as Ask.
static HeldJob *AskHandover(Session *pSession, const Request *pRequest)
{
    auto *pText = static_cast<char *>(malloc(pRequest->nBody));
    auto *p = pText ? new (std::nothrow) Handover : nullptr;
    if (!p) {
        free(pText);
        return Ask(pSession, nullptr, nullptr, nullptr);
    }
    memcpy(pText, pRequest->pBody, pRequest->nBody);
    p->pText = pText;
    p->nText = p->held.job.nBytes = pRequest->nBody;
    return Ask(pSession, &p->held, RunHandover, FreeHandover);
}

Verdict HandleSetCfgDirect(Session *pSession, Port *pPort, Request *pRequest)
{
    if (!RequestHeaderValue(pRequest, "UserAuth"))
        return ReplyShort(pSession, pPort, STATUS_UNAUTHORIZED);
    if (!pRequest->nBody)
        return ReplyShort(pSession, pPort, STATUS_BAD_REQUEST);
    HeldGuard held(HeldJobTake(pSession));
    if (!held.p && !(held.p = AskConfig(pSession)))
        return Verdict::Later;
    if (held.p->pfnFree != FreeHandover) {
        auto *pConfig = reinterpret_cast<const ConfigText *>(held.p);
        CredentialCheck check{pSession, pPort, pRequest, nullptr};
        Credential eResult = pConfig->sz ? CheckConfigToken(&check, pConfig) : CREDENTIAL_MISSING;
        if (eResult == CREDENTIAL_WAITS)
            return Verdict::Later;
        if (eResult != CREDENTIAL_RIGHT)
            return ReplyShort(pSession, pPort, STATUS_UNAUTHORIZED);
        held.Reset(AskHandover(pSession, pRequest));
        if (!held.p)
            return Verdict::Later;
    }
    int bDone = reinterpret_cast<const Handover *>(held.p)->bDone;
    return ReplyShort(pSession, pPort, bDone ? STATUS_OK : STATUS_FAILED);
}

// The interface whose networks are asked for.
struct Interface {
    HeldJob held;  // first
    char szDevice[64] = "";
};

static int RunReading(DiskJob *pJob)
{
    auto *p = reinterpret_cast<Interface *>(pJob);
    ConfigFile config(g_settings.szConfigPath);
    ConfigGetStr(&config, "WIFI", "DevName", p->szDevice, sizeof(p->szDevice), "");
    return 1;
}

static void FreeInterface(HeldJob *pHeld)
{
    delete reinterpret_cast<Interface *>(pHeld);
}

// Returns 0 when the file is still being read.
static int ReadInterface(Session *pSession, char *szDevice, size_t nSize)
{
    HeldGuard held(HeldJobTake(pSession));
    if (!held.p)
        held.p = Ask(pSession, reinterpret_cast<HeldJob *>(new (std::nothrow) Interface), RunReading,
                     FreeInterface);
    if (!held.p)
        return 0;
    TextCopy(szDevice, nSize, reinterpret_cast<const Interface *>(held.p)->szDevice);
    if (!szDevice[0])
        print("GetWifiRouters() DevName is empty!\n");
    return 1;
}

Verdict HandleGetWifiRouters(Session *pSession, Port *pPort, Request *)
{
    static constexpr char kNothing[] = "NULL\r\n\r\n";
    char device[64] = "";
    const char *szList = nullptr;
    size_t nList = 0;
    uint32_t nScan = std::exchange(pSession->hold.nScan, 0);
    if (nScan == 0 && !ReadInterface(pSession, device, sizeof(device)))
        return Verdict::Later;
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
