#include "server/methods/accounts.h"

#include <algorithm>
#include <cstring>

#include "base/assertion.h"
#include "base/console.h"
#include "base/inifile.h"
#include "base/textbuf.h"
#include "base/textnumber.h"
#include "server/core/program.h"
#include "server/core/registry.h"
#include "server/core/settings.h"
#include "server/methods/auth.h"

namespace orx {

constexpr int kMaxUsers = 1024;      // however many a camera's text claims to list
constexpr int kListedUserLevel = 2;  // of a user without a level of its own
constexpr int kAnonymousLevel = 3;   // who needs no password may watch and nothing else

// Reads a value out of an account text, cut to the buffer. Returns 1, or 0 with an empty buffer.
static int ReadValue(const char *szText, const char *szSection, const char *szKey, char *szOut, size_t nSize)
{
    int nUnused = 0;
    int nStart = 0;
    int nEnd = 0;
    szOut[0] = '\0';
    if (!parse_file(szSection, szKey, szText, &nUnused, &nUnused, &nUnused, &nUnused, &nStart, &nEnd))
        return 0;
    size_t nLen = std::min(static_cast<size_t>(nEnd - nStart), nSize - 1);
    memcpy(szOut, szText + nStart, nLen);
    szOut[nLen] = '\0';
    return 1;
}

// The same for a key with a user's number behind it.
static int ReadUserValue(const char *szText, const char *szSection, const char *szKey, int i, char *szOut,
                         size_t nSize)
{
    char key[32];
    TextBuf text{key, sizeof(key)};
    TextAdd(&text, "%s%d", szKey, i);
    return ReadValue(szText, szSection, key, szOut, nSize);
}

// The number of the first listed user of that name, or -1. A user without a name is nobody.
static int FindUser(const char *szText, const char *szUser)
{
    char value[128];
    ReadValue(szText, "USERS", "NumUsers", value, sizeof(value));
    int nUsers = std::min(TextToInt(value), kMaxUsers);
    for (int i = 0; *szUser && i < nUsers; i++)
        if (ReadUserValue(szText, "USERS", "UserName", i, value, sizeof(value)) && strcmp(value, szUser) == 0)
            return i;
    return -1;
}

static void SetLevel(int *pLevel, int nLevel)
{
    if (pLevel)
        *pLevel = nLevel;
}

static int MaySeeProgram(const char *szText, int nUser, const Program *pProg)
{
    char list[1024];
    ReadUserValue(szText, "USERCTRL", "UserDevList", nUser, list, sizeof(list));
    const char *szName = pProg->Uri[0] == '/' ? pProg->Uri + 1 : pProg->Uri;
    return strstr(list, szName) != nullptr;
}

// Looks the user up in one account text. szPassword takes kPasswordSize bytes.
static int FindAccountIn(const char *szText, const Program *pProg, const char *szUser, char *szPassword,
                         int *pLevel)
{
    char value[128];
    if (*szUser && ReadValue(szText, "USERS", "SuperUser", value, sizeof(value)) &&
        strcmp(value, szUser) == 0) {
        ReadValue(szText, "USERS", "SuperPwd", szPassword, kPasswordSize);
        SetLevel(pLevel, 0);
        return 1;
    }
    int i = FindUser(szText, szUser);
    if (i >= 0 && (!g_settings.bControlUsers || MaySeeProgram(szText, i, pProg))) {
        ReadUserValue(szText, "USERS", "UserPwd", i, szPassword, kPasswordSize);
        int bLevel = ReadUserValue(szText, "USERS", "UserLevel", i, value, sizeof(value));
        SetLevel(pLevel, bLevel ? TextToInt(value) : kListedUserLevel);
        return 1;
    }
    if (!g_settings.bAnonymousViewer)
        return 0;
    szPassword[0] = '\0';
    SetLevel(pLevel, kAnonymousLevel);
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

int GetUserAccount(void *, const char *szUrl, const char *szUser, char *szPassword, int *pLevel)
{
    Program *pProg = FindAccountProgram(szUrl);
    if (!pProg) {
        print("GetUserAccount() failed! No corresponding Program found!\r\n");
        return 0;
    }
    if (!g_settings.bControlUsers && pProg->camera.szAccounts)
        return FindAccountIn(pProg->camera.szAccounts, pProg, szUser, szPassword, pLevel);
    Profile *pStore = ProfileInit(g_settings.szConfigPath);
    int nResult = FindAccountIn(pStore ? pStore->text : "", pProg, szUser, szPassword, pLevel);
    ProfileFree(pStore);
    return nResult;
}

int GetOwnAccount(const char *szUser, OwnAccount *pOut)
{
    Profile *pProfile = ProfileInit(g_settings.szConfigPath);
    if (!ORX_PEER_ASSERT(pProfile, "pProfile"))
        return -1;
    char value[128];
    int i = -1;
    *pOut = OwnAccount();
    ReadValue(pProfile->text, "USERS", "SuperUser", value, sizeof(value));
    if (*szUser && strcmp(value, szUser) == 0) {
        ReadValue(pProfile->text, "USERS", "SuperPwd", pOut->szPassword, sizeof(pOut->szPassword));
        pOut->nLevel = 0;
        pOut->bSuper = 1;
    } else if ((i = FindUser(pProfile->text, szUser)) >= 0) {
        ReadUserValue(pProfile->text, "USERS", "UserPwd", i, pOut->szPassword, sizeof(pOut->szPassword));
        int bLevel = ReadUserValue(pProfile->text, "USERS", "UserLevel", i, value, sizeof(value));
        pOut->nLevel = bLevel ? TextToInt(value) : kListedUserLevel;
        ReadUserValue(pProfile->text, "USERCTRL", "UserDevList", i, pOut->szDevices, sizeof(pOut->szDevices));
    }
    ProfileFree(pProfile);
    return pOut->bSuper || i >= 0;
}

int CheckUserToken(Session *pSession, const Request *pRequest)
{
    const char *szUser = RequestHeaderValue(pRequest, "UserName");
    const char *szGiven = RequestHeaderValue(pRequest, "UserAuth");
    char password[kPasswordSize] = "";
    int nLevel = kAnonymousLevel;
    if (!szUser || !szGiven || !GetUserAccount(nullptr, RequestUri(pRequest), szUser, password, &nLevel))
        return 0;
    if (!AuthIsToken(szUser, password, szGiven))
        return 0;
    pSession->viewer.nUserLevel = nLevel;
    TextCopy(pSession->viewer.szUser, sizeof(pSession->viewer.szUser), szUser);
    return 1;
}

}  // namespace orx
