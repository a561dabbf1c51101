#include "server/methods/camcfg.h"

#include <cctype>
#include <cstdlib>
#include <cstring>

#include "base/avl.h"
#include "base/inifile.h"
#include "base/textbuf.h"
#include "base/textnumber.h"
#include "server/core/accounttable.h"
#include "server/core/program.h"
#include "server/core/settings.h"
#include "server/media/questions.h"
#include "server/media/replies.h"

namespace orx {

// Whose keys stay.
struct Viewer {
    const char *szUser;  // not owned; empty: nobody
    int nUsers;          // users listed
    AvlTree users;       // number -> not null when that user has the viewer's name
};

enum class Section {
    Plain,   // shown as it is
    Users,   // shown in part
    Hidden,  // left out, its header included
};

// A piece of text as the store reads it: a section's header up to its ']', or a line with its end.
static size_t PieceLength(const char *p, size_t nLeft)
{
    size_t n = 0;
    while (n < nLeft && p[n] != '\r' && p[n] != '\n') {
        if (p[0] == '[' && p[n] == ']')
            return n + 1;
        n++;
    }
    if (n < nLeft && p[n] == '\r')
        n++;
    if (n < nLeft && p[n] == '\n')
        n++;
    return n;
}

static int StartsWith(const char *p, size_t nLeft, const char *szWord)
{
    size_t nWord = strlen(szWord);
    return nLeft >= nWord && memcmp(p, szWord, nWord) == 0;
}

// Accounts are looked up in every section whose name begins with USERS.
static Section SectionOf(const char *pHeader, size_t nHeader)
{
    if (StartsWith(pHeader, nHeader, "[USERS"))
        return Section::Users;
    if (StartsWith(pHeader, nHeader, "[SMTP]") || StartsWith(pHeader, nHeader, "[SEND2FTP]"))
        return Section::Hidden;
    return Section::Plain;
}

// The number behind the name of a user's key, -1 when it is another key.
static int UserOfKey(const char *pKey, size_t nKey)
{
    static const char *const g_names[] = {"UserName", "UserPwd", "UserLevel"};
    for (const char *szName : g_names) {
        size_t nName = strlen(szName);
        if (!StartsWith(pKey, nKey, szName) || nKey == nName || nKey - nName > 9)
            continue;
        int nUser = 0;
        for (size_t i = nName; i < nKey; i++) {
            if (!isdigit(static_cast<unsigned char>(pKey[i])))
                return -1;
            nUser = nUser * 10 + (pKey[i] - '0');
        }
        return nUser;
    }
    return -1;
}

// Takes a line of the accounts that names a user. The first one of a number counts, as in a look-up.
static void NoteName(Viewer *pViewer, const char *pLine, size_t nLine)
{
    constexpr size_t kDigitsAt = 8;  // behind "UserName"
    auto *pEquals = static_cast<const char *>(memchr(pLine, '=', nLine));
    size_t nKey = pEquals ? static_cast<size_t>(pEquals - pLine) : 0;
    int nUser = StartsWith(pLine, nKey, "UserName") ? UserOfKey(pLine, nKey) : -1;
    int bPadded = nKey > kDigitsAt + 1 && pLine[kDigitsAt] == '0';
    if (nUser < 0 || bPadded || AvlFind(&pViewer->users, nUser))
        return;
    size_t nName = nLine - nKey - 1;
    int bViewer = *pViewer->szUser && nName == strlen(pViewer->szUser) &&
                  memcmp(pEquals + 1, pViewer->szUser, nName) == 0;
    AvlInsert(&pViewer->users, nUser, bViewer ? pViewer : nullptr);
}

// Notes who is who in one pass over the text: a look-up for each line to be hidden would be one over all of
// it every time.
static void NoteNames(Viewer *pViewer, const char *szText)
{
    int bUsers = 0;
    for (const char *p = szText; *p;) {
        size_t nLine = strcspn(p, "\r\n");
        if (*p == '[') {
            int bLineStart = p == szText || p[-1] == '\r' || p[-1] == '\n';
            bUsers = bLineStart && SectionOf(p, nLine) == Section::Users;
            if (bUsers)
                nLine = strcspn(p, "]");
            p += nLine + (p[nLine] != '\0');
            while (bUsers && isspace(static_cast<unsigned char>(*p)))
                p++;
            continue;
        }
        if (bUsers)
            NoteName(pViewer, p, nLine);
        p += nLine + (p[nLine] != '\0');
    }
}

// Whether a line of the accounts is kept from the viewer. A key that is indented or commented out still tells
// its secret.
static int IsSecret(const Viewer *pViewer, const char *pLine, size_t nLine)
{
    const char *pEnd = pLine + nLine;
    while (pLine < pEnd && (isspace(static_cast<unsigned char>(*pLine)) || *pLine == ';'))
        pLine++;
    const char *pKey = pLine;
    while (pLine < pEnd && *pLine != '=' && !isspace(static_cast<unsigned char>(*pLine)))
        pLine++;
    auto nKey = static_cast<size_t>(pLine - pKey);
    if ((nKey == 9 && memcmp(pKey, "SuperUser", 9) == 0) || (nKey == 8 && memcmp(pKey, "SuperPwd", 8) == 0))
        return 1;
    int nUser = UserOfKey(pKey, nKey);
    return nUser >= 0 && nUser < pViewer->nUsers && !AvlValue(&pViewer->users, nUser);
}

// How many users the accounts list, read as the look-up of accounts reads it.
static int ListedUsers(const char *szText)
{
    Profile text;
    text.text = const_cast<char *>(szText);
    char users[128] = "";
    ProfileGetStr("USERS", "NumUsers", users, sizeof(users), "", &text);
    return TextToInt(users);
}

char *CamCfgFilter(const char *szText, size_t nText, const char *szUser, size_t *pnOut)
{
    auto *pOut = static_cast<char *>(malloc(nText + 1));
    if (!pOut)
        return nullptr;
    Viewer viewer{szUser, ListedUsers(szText), {}};
    AvlInit(&viewer.users, nullptr);
    NoteNames(&viewer, szText);
    Section section = Section::Plain;
    size_t nOut = 0;
    for (const char *p = szText, *pEnd = szText + nText; p < pEnd;) {
        size_t nPiece = PieceLength(p, static_cast<size_t>(pEnd - p));
        if (*p == '[')
            section = SectionOf(p, nPiece);
        if (*p == '[' && section == Section::Users && p[nPiece - 1] != ']') {
            // look-ups go on to a ']' in a later line, whatever stands there: such a text is not taken apart
            nOut = 0;
            break;
        }
        int bHide = section == Section::Hidden || (section == Section::Users && IsSecret(&viewer, p, nPiece));
        if (!bHide) {
            memcpy(pOut + nOut, p, nPiece);
            nOut += nPiece;
        }
        p += nPiece;
    }
    AvlDestroy(&viewer.users);
    pOut[nOut] = '\0';
    *pnOut = nOut;
    return pOut;
}

const char *CamCfgFindUsers(const char *szText, size_t nText, size_t *pnUsers)
{
    static constexpr char kHeader[] = "[USERS]";
    constexpr size_t kHeaderLen = sizeof(kHeader) - 1;
    auto *p = static_cast<const char *>(memmem(szText, nText, kHeader, kHeaderLen));
    if (!p)
        return nullptr;
    const char *pBody = p + kHeaderLen;
    auto *pNext = static_cast<const char *>(memchr(pBody, '[', static_cast<size_t>(szText + nText - pBody)));
    if (!pNext)
        return nullptr;
    *pnUsers = static_cast<size_t>(pNext - p);
    return p;
}

static Verdict SendCamCfg(Session *pSession, Port *pPort, Status eStatus, const char *pText, size_t nText)
{
    Message reply(pSession, pPort);
    ReplyBegin(&reply, eStatus);
    TextAdd(&reply.text, "Content-Type: text/plain\r\nContent-Length: %d\r\n", static_cast<int>(nText));
    MessageNoCache(&reply);
    MessageDate(&reply);
    return MessageSendBody(&reply, pText, nText);
}

Verdict ReplyCamCfg(Session *pSession, Port *pPort)
{
    const Program *pProg = pSession->pProg;
    if (!pProg->camera.szCamCfg)
        return SendCamCfg(pSession, pPort, STATUS_NO_CAMCFG, nullptr, 0);
    if (pSession->viewer.nUserLevel == 0)
        return SendCamCfg(pSession, pPort, STATUS_CAMCFG, pProg->camera.szCamCfg, pProg->camera.nCamCfg);
    size_t nShown = 0;
    char *pShown =
        CamCfgFilter(pProg->camera.szCamCfg, pProg->camera.nCamCfg, pSession->viewer.szUser, &nShown);
    Verdict eVerdict = SendCamCfg(pSession, pPort, pShown ? STATUS_CAMCFG : STATUS_NO_CAMCFG, pShown, nShown);
    free(pShown);
    return eVerdict;
}

// A copy with a NUL behind it, from malloc; null without memory.
static char *CopyBytes(const char *p, size_t n)
{
    auto *pCopy = static_cast<char *>(malloc(n + 1));
    if (!pCopy)
        return nullptr;
    memcpy(pCopy, p, n);
    pCopy[n] = '\0';
    return pCopy;
}

// The accounts of a section's text; null for one that is nothing but its header, and without memory.
static AccountTable *ParseUsers(const char *pUsers, size_t nUsers)
{
    if (nUsers <= strlen("[USERS]"))
        return nullptr;
    char *szUsers = CopyBytes(pUsers, nUsers);
    AccountTable *pTable = szUsers ? AccountTableParse(szUsers) : nullptr;
    free(szUsers);
    return pTable;
}

static void KeepCamCfg(Program *pProg, const char *szText, size_t nText)
{
    free(pProg->camera.szCamCfg);
    pProg->camera.szCamCfg = CopyBytes(szText, nText);
    pProg->camera.nCamCfg = pProg->camera.szCamCfg ? static_cast<uint32_t>(nText) : 0;
    size_t nUsers = 0;
    const char *pUsers = CamCfgFindUsers(szText, nText, &nUsers);
    if (!pUsers)
        return;
    AccountTableFree(pProg->camera.pAccounts);
    pProg->camera.pAccounts = ParseUsers(pUsers, nUsers);
}

Verdict HandlePutCamCfg(Session *pSession, Port *pPort, Request *pRequest)
{
    const char *szType = RequestHeaderValue(pRequest, "Content-Type");
    if (!szType || strcmp(szType, "text/plain") != 0 || !pRequest->nBody)
        return ReplyShort(pSession, pPort, STATUS_BAD_REQUEST);
    Program *pProg = pSession->pProg;
    // the text holds the program's accounts: with StrictRoles a viewer, who may not even have shown a
    // password yet, has no say
    if (!pProg || (g_settings.bStrictRoles && !FeedsProgram(pSession)))
        return ReplyShort(pSession, pPort, STATUS_NO_PUTCAMCFG);
    PusherShows(pSession);
    KeepCamCfg(pProg, pRequest->pBody, pRequest->nBody);
    pSession->nCSeq++;
    return Verdict::Keep;
}

}  // namespace orx
