#include "server/methods/access.h"

#include <cstring>

#include "base/textbuf.h"
#include "server/core/registry.h"
#include "server/core/settings.h"
#include "server/methods/accountfile.h"
#include "server/methods/accounts.h"
#include "server/methods/admit.h"
#include "server/methods/auth.h"

namespace orx {

// Looks at every byte of both, whatever they hold and however long they are.
static int SamePassword(const char *szGiven, const Account *pAccount)
{
    char given[kPasswordSize] = "", right[kPasswordSize] = "";
    int bWhole = szGiven && TextCopy(given, sizeof(given), szGiven);
    unsigned nDiffer = 0;
    TextCopy(right, sizeof(right), pAccount->szPassword);
    for (size_t i = 0; i < kPasswordSize; i++)
        nDiffer |= static_cast<unsigned>(given[i] ^ right[i]);
    explicit_bzero(given, sizeof(given));
    explicit_bzero(right, sizeof(right));
    return bWhole && nDiffer == 0;
}

// The account of the configuration file that is right for the question, without regard to lists. Returns 1
// or 0.
static int InFile(const AccessQuestion *pQuestion, Account *pOut)
{
    Account account;
    int bFound = AccountsFind(nullptr, pQuestion->szUser, &account) > 0;
    if (!bFound && g_settings.bAnonymousViewer)
        account.bAnonymous = bFound = 1;
    int bSame = SamePassword(pQuestion->szPassword, &account);
    if (bFound && bSame)
        *pOut = account;
    return bFound && bSame;
}

// The account that counts at the path, when it is right. Returns 1 or 0.
static int AtPath(const AccessQuestion *pQuestion, const AccountPlace *pPlace, Account *pOut)
{
    Account account;
    int bFound = AccountsFind(pPlace, pQuestion->szUser, &account) > 0;
    int bSame = SamePassword(pQuestion->szPassword, &account);
    if (bFound && bSame)
        *pOut = account;
    return bFound && bSame;
}

static void AskAtPath(const AccessQuestion *pQuestion, const AccountPlace *pPlace, AccessAnswer *pOut)
{
    Account account;
    int bRight = AtPath(pQuestion, pPlace, &account);
    // without roles nobody looks at what is shown where nobody has to show anything
    int bUnasked = g_settings.nAuthType == AUTH_NONE && (pOut->bOpen || !g_settings.bStrictRoles);
    pOut->bMaySee = bRight || bUnasked;
    if (bRight && !pOut->bKnown) {  // of that camera, or nobody's where a name of the file does not count
        pOut->bKnown = pOut->bHere = 1;
        pOut->account = account;
    }
}

int AccessAsk(const AccessQuestion *pQuestion, AccessAnswer *pOut)
{
    AccountPlace place{pQuestion->szPath, nullptr};
    if (pQuestion->szPath)
        place = AccountsAt(ProgramFindWithSubstream(pQuestion->szPath), pQuestion->szPath);
    if (!AccountFileReady())
        return 0;
    *pOut = AccessAnswer();
    pOut->nAuthType = g_settings.nAuthType;
    pOut->bSuperUser = AccountFileHasSuper();
    int bNobody = !pQuestion->szUser[0] && pQuestion->szPassword && !pQuestion->szPassword[0];
    pOut->bOpen = bNobody && g_settings.nAuthType == AUTH_NONE;
    pOut->bKnown = InFile(pQuestion, &pOut->account) || pOut->bOpen;
    pOut->bAll = pOut->bOpen || !g_settings.bControlUsers || pOut->account.bSuper || pOut->account.bAnonymous;
    if (pQuestion->szPath)
        AskAtPath(pQuestion, &place, pOut);
    explicit_bzero(pOut->account.szPassword, sizeof(pOut->account.szPassword));
    return 1;
}

}  // namespace orx
