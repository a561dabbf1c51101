#include "server/methods/accounts.h"

#include <cstring>

#include "base/console.h"
#include "base/textbuf.h"
#include "server/core/registry.h"
#include "server/core/settings.h"
#include "server/methods/accountfile.h"

namespace orx {

static int Separates(char c)
{
    return c == '\0' || strchr(" \t,;|", c) != nullptr;
}

// Whether a name in a list stands for itself, and is no part of a longer one. A '/' may lead it.
static int IsWhole(const char *szList, const char *pName, size_t nName)
{
    if (pName > szList && pName[-1] == '/')
        pName--, nName++;
    return (pName == szList || Separates(pName[-1])) && Separates(pName[nName]);
}

int MaySeeProgram(const Account *pAccount, const char *szPath)
{
    const char *szName = PathName(szPath);
    size_t nName = strlen(szName);
    if (pAccount->bSuper)
        return 1;
    const char *szList = pAccount->szDevices;
    for (const char *p = strstr(szList, szName); p; p = *p ? strstr(p + 1, szName) : nullptr)
        if (!g_settings.bStrictRoles || IsWhole(szList, p, nName))
            return 1;
    return 0;
}

// Whether the accounts of a place are those of its camera.
static int CameraCounts(const AccountPlace *pPlace)
{
    return pPlace && !g_settings.bControlUsers && pPlace->pTable;
}

int AccountsReady(const AccountPlace *pPlace)
{
    return CameraCounts(pPlace) || AccountFileReady();
}

int AccountsFind(const AccountPlace *pPlace, const char *szUser, Account *pOut)
{
    if (!pPlace)
        return AccountFileFind(szUser, pOut);
    int nFound =
        CameraCounts(pPlace) ? AccountTableFind(pPlace->pTable, szUser, pOut) : AccountFileFind(szUser, pOut);
    if (nFound > 0 && (!g_settings.bControlUsers || MaySeeProgram(pOut, pPlace->szPath)))
        return 1;
    if (!g_settings.bAnonymousViewer)
        return 0;
    *pOut = Account();
    pOut->bAnonymous = 1;
    return 1;
}

static int IsFileProgramOf(void *pPath, void *, void *pItem)
{
    const auto *pProg = static_cast<Program *>(pItem);
    return !pProg->bLive && strncmp(pProg->Uri, static_cast<char *>(pPath), strlen(pProg->Uri)) == 0;
}

static int IsLive(void *, void *, void *pItem)
{
    const auto *pProg = static_cast<Program *>(pItem);
    return pProg->bLive && pProg->pPusher;
}

// The program whose accounts count for a URL.
static Program *FindAccountProgram(const char *szUrl)
{
    if (!szUrl)
        return static_cast<Program *>(ListSearch(&g_server.programs, IsLive, nullptr, nullptr, 0));
    const char *szPath = UriPath(szUrl);
    if (Program *pProg = ProgramFindWithSubstream(szPath))
        return pProg;
    return static_cast<Program *>(
        ListSearch(&g_server.programs, IsFileProgramOf, const_cast<char *>(szPath), nullptr, 0));
}

int GetUserAccount(void *pContext, const char *szUrl, const char *szUser, char *szPassword, int *pLevel)
{
    AccountScope ofUrl;
    AccountPlace place;
    auto *pScope = static_cast<AccountScope *>(pContext);
    if (!pScope) {
        const Program *pProg = FindAccountProgram(szUrl);
        if (!pProg) {
            print("GetUserAccount() failed! No corresponding Program found!\r\n");
            return 0;
        }
        pScope = &ofUrl;
        place = PlaceOf(pProg);
        pScope->pPlace = &place;
    }
    pScope->bFound = AccountsFind(pScope->pPlace, szUser, &pScope->found) > 0;
    if (!pScope->bFound)
        return 0;
    TextCopy(szPassword, kPasswordSize, pScope->found.szPassword);
    if (pLevel)
        *pLevel = pScope->found.nLevel;
    return 1;
}

}  // namespace orx
