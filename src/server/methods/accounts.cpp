#include "server/methods/accounts.h"

#include <strings.h>

#include <cstring>

#include "base/console.h"
#include "base/textbuf.h"
#include "record/daywalk.h"
#include "record/storage.h"
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

static int IsListed(const char *szList, const char *szName)
{
    size_t nName = strlen(szName);
    for (const char *p = strstr(szList, szName); p; p = *p ? strstr(p + 1, szName) : nullptr)
        if (!g_settings.bStrictRoles || IsWhole(szList, p, nName))
            return 1;
    return 0;
}

// Cuts the last part off a path without slashes at its ends, and returns it; "" where it has one part only.
static const char *CutLastPart(char *szPath)
{
    char *pSlash = strrchr(szPath, '/');
    if (!pSlash)
        return "";
    *pSlash = '\0';
    return pSlash + 1;
}

// Makes the program of a recording's path: the directory that the file lies in, or the one that its day lies
// in. Returns 1, or 0 for another path, and for a recording that lies in no program's directory.
static int ProgramOfRecording(char *szOut, size_t nSize, const char *szPath)
{
    if (!StorageProgramPath(szOut, nSize, szPath))
        return 0;
    const char *szFile = CutLastPart(szOut);
    size_t nFile = strlen(szFile);
    if (nFile < 4 || strcasecmp(szFile + nFile - 4, ".zmf") != 0)
        return 0;
    const char *pDay = strrchr(szOut, '/');
    if (pDay && IsDate(pDay + 1))
        CutLastPart(szOut);
    return szOut[0] != '\0';
}

int MaySeeProgram(const Account *pAccount, const char *szPath)
{
    char szProgram[kStoragePathSize];
    if (pAccount->bSuper || IsListed(pAccount->szDevices, PathName(szPath)))
        return 1;
    return g_settings.bStrictRoles && ProgramOfRecording(szProgram, sizeof(szProgram), szPath) &&
           IsListed(pAccount->szDevices, szProgram);
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
    return pProg->bLive && ProgramLives(pProg);
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
