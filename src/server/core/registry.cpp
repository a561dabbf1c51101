#include "server/core/registry.h"

namespace orx {

ServerConfig g_server;

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
