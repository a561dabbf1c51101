#include "server/methods/register.h"

#include <new>

#include "base/console.h"
#include "base/textbuf.h"
#include "server/core/heldjob.h"
#include "server/core/registry.h"
#include "server/core/settings.h"
#include "server/media/replies.h"
#include "server/methods/guidstore.h"

namespace orx {

static Verdict ReplyName(Session *pSession, Port *pPort, const char *szName)
{
    Message reply(pSession, pPort);
    ReplyBegin(&reply, STATUS_OK);
    TextAdd(&reply.text, "Result: %s\r\n", szName);
    return MessageSend(&reply);
}

// A name for a Guid: the one that it has, or else the next one.
struct Naming {
    HeldJob held;  // first
    char szGuid[kMaxGuid + 1] = "";
    char szName[128] = "";
    int bNamed = 0;
};

static DiskLane g_lane;

// A name that would be forgotten is not given; one that was made is taken, even if only the memory knows.
static int RunNaming(DiskJob *pJob)
{
    auto *p = reinterpret_cast<Naming *>(pJob);
    int nId = g_server.nMaxRegisterId;
    p->bNamed = GuidStoreFind(g_settings.szGuidPath, p->szGuid, p->szName, sizeof(p->szName));
    if (p->bNamed)
        return 1;
    TextBuf text{p->szName, sizeof(p->szName)};
    TextAdd(&text, "cam%d", nId);
    GuidStoreText store;
    if (nId == INT32_MAX || !GuidStoreMake(g_settings.szGuidPath, p->szGuid, p->szName, nId + 1, &store))
        return 1;
    p->bNamed = 1;
    g_server.nMaxRegisterId++;
    if (!GuidStoreWrite(g_settings.szGuidPath, &store))
        print("Could NOT write file %s!\r\n", g_settings.szGuidPath);
    return 1;
}

static void FreeNaming(HeldJob *pHeld)
{
    delete reinterpret_cast<Naming *>(pHeld);
}

static Naming *NewNaming(const char *szGuid)
{
    auto *p = new (std::nothrow) Naming;
    if (!p)
        return nullptr;
    TextCopy(p->szGuid, sizeof(p->szGuid), szGuid);
    p->held.job.pfnRun = RunNaming;
    p->held.pfnFree = FreeNaming;
    return p;
}

Verdict HandleRegister(Session *pSession, Port *pPort, Request *pRequest)
{
    const char *szGuid = RequestHeaderValue(pRequest, "Guid");
    if (!szGuid || !GuidIsUsable(szGuid))
        return ReplyShort(pSession, pPort, STATUS_NO_GUID);
    HeldJob *pHeld = HeldJobTake(pSession);
    if (!pHeld) {
        Naming *pNaming = NewNaming(szGuid);
        if (!pNaming)
            return ReplyShort(pSession, pPort, STATUS_FAILED);
        pHeld = HeldJobPost(pSession, &g_lane, &pNaming->held);
    }
    if (!pHeld)
        return Verdict::Later;
    auto *pNaming = reinterpret_cast<Naming *>(pHeld);
    Verdict eVerdict = pNaming->bNamed ? ReplyName(pSession, pPort, pNaming->szName)
                                       : ReplyShort(pSession, pPort, STATUS_FAILED);
    FreeNaming(pHeld);
    return eVerdict;
}

}  // namespace orx
