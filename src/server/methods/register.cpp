#include "server/methods/register.h"

#include "base/console.h"
#include "base/textbuf.h"
#include "server/methods/guidstore.h"
#include "server/media/send.h"
#include "server/core/registry.h"
#include "server/core/settings.h"

namespace orx {

static int ReplyName(Session *pSession, Port *pPort, const char *szName)
{
    return ReplyFormat(pSession, pPort,
                       "RTSP/1.0 200 OK\r\n" ORX_SERVER_LINE "CSeq: %d\r\nResult: %s\r\n\r\n",
                       pSession->nCSeq++, szName);
}

int HandleRegister(Session *pSession, Port *pPort, Request *pRequest)
{
    const char *szGuid = RequestHeaderValue(pRequest, "Guid");
    if (!szGuid || !GuidIsUsable(szGuid))
        return ReplyShort(pSession, pPort, "400 Bad Request(no Guid field)");
    char name[128];
    if (GuidStoreFind(g_settings.szGuidPath, szGuid, name, sizeof(name)))
        return ReplyName(pSession, pPort, name);
    TextBuf text{name, sizeof(name)};
    TextAdd(&text, "cam%d", g_server.nMaxRegisterId);
    if (!ReplyName(pSession, pPort, name))
        return 0;
    g_server.nMaxRegisterId++;
    if (!GuidStoreAdd(g_settings.szGuidPath, szGuid, name, g_server.nMaxRegisterId))
        print("Could NOT write file %s!\r\n", g_settings.szGuidPath);
    return 1;
}

}  // namespace orx
