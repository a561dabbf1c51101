// User accounts: in the server's own configuration, or in the configuration text of a program's camera.
// Scheduler thread only.
#pragma once

#include "server/core/accounttable.h"
#include "server/core/program.h"

namespace orx {

// What is asked for, whether it is open yet or not.
struct AccountPlace {
    const char *szPath;          // not owned
    const AccountTable *pTable;  // the accounts of its camera, not owned; null: it has sent none
};

inline AccountPlace PlaceOf(const Program *pProg)
{
    return {pProg->Uri, pProg->camera.pAccounts};
}

// Whether the accounts that count at a place are up to date; 0: soon, see AccountFileReady.
int AccountsReady(const AccountPlace *pPlace);

// Finds the account that counts for a user at a place: the camera's own, or that of the configuration file
// with ControlUsers and where the camera has sent none; else, with EnableAnonymousViewer, an anonymous one.
// pPlace null: in the configuration file alone, listed users and the super user.
// Returns 1, 0 for an unknown user, or -1 when the file cannot be read and pPlace is null.
int AccountsFind(const AccountPlace *pPlace, const char *szUser, Account *pOut);

// Whether an account of the configuration may see the program of a path: the super user any, others one that
// their list names: anywhere in it, or with StrictRoles whole, between blanks, commas, semicolons and bars; a
// recording in a program's directory, or in a day of it, then counts as that program.
int MaySeeProgram(const Account *pAccount, const char *szPath);

// Where the authenticator looks.
struct AccountScope {
    const AccountPlace *pPlace = nullptr;  // not owned; null: the configuration file alone
    Account found;                         // what the last look-up gave
    int bFound = 0;                        // it did
};

// The look-up of the authenticator (see GetAccountProc). pContext: an AccountScope; null: the place is the
// program of the URL, or the first live one without a URL.
int GetUserAccount(void *pContext, const char *szUrl, const char *szUser, char *szPassword, int *pLevel);

}  // namespace orx
