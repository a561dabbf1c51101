#include "server/core/registry.h"

#include "base/textbuf.h"

namespace orx {

ServerConfig g_server;

void ListenerNote(const char *szName, const char *szAddress, int nErrno)
{
    if (g_server.nListeners == kMaxListeners)
        return;
    ServerListener *pListener = &g_server.listeners[g_server.nListeners++];
    pListener->szName = szName;
    TextCopy(pListener->szAddress, sizeof(pListener->szAddress), szAddress);
    pListener->nErrno = nErrno;
}

void RegistryInit(int (*pfnFreePort)(AvlNode *pNode))
{
    for (List *pList : {&g_server.sessions, &g_server.programs}) {
        ListInit(pList, nullptr);
        ListUsedDefMap(pList, 0);
    }
    AvlInit(&g_server.portMap, pfnFreePort);
    AvlInit(&g_server.sessionMap, nullptr);
    AvlInit(&g_server.handleMap, nullptr);
    AvlInit(&g_server.programMap, nullptr);
    g_server.programMap.pfnCompare = AvlCompareTextNoCase;
}

}  // namespace orx
