#include "server/methods/register.h"

#include "base/console.h"
#include "base/textbuf.h"
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

Verdict HandleRegister(Session *pSession, Port *pPort, Request *pRequest)
{
    const char *szGuid = RequestHeaderValue(pRequest, "Guid");
    if (!szGuid || !GuidIsUsable(szGuid))
        return ReplyShort(pSession, pPort, STATUS_NO_GUID);
    char name[128];
    if (GuidStoreFind(g_settings.szGuidPath, szGuid, name, sizeof(name)))
        return ReplyName(pSession, pPort, name);
    TextBuf text{name, sizeof(name)};
    TextAdd(&text, "cam%d", g_server.nMaxRegisterId);
    GuidStoreText store;
    if (g_server.nMaxRegisterId == INT32_MAX ||
        !GuidStoreMake(g_settings.szGuidPath, szGuid, name, g_server.nMaxRegisterId + 1, &store))
        return ReplyShort(pSession, pPort, STATUS_FAILED);  // a name that is forgotten is not given
    if (ReplyName(pSession, pPort, name) == Verdict::End)
        return Verdict::End;
    g_server.nMaxRegisterId++;  // the name is taken, even if only the memory knows
    if (!GuidStoreWrite(g_settings.szGuidPath, &store))
        print("Could NOT write file %s!\r\n", g_settings.szGuidPath);
    return Verdict::Keep;
}

}  // namespace orx
