// User accounts: in the server's own configuration, or in the configuration text of a program's camera.
// Scheduler thread only.
#pragma once

#include "server/core/accounttable.h"
#include "server/core/program.h"

namespace orx {

// Finds the account that counts for a user at a program: the camera's own, or that of the configuration file
// with ControlUsers and where the camera has sent none; else, with EnableAnonymousViewer, an anonymous one.
// pProg null: in the configuration file alone, listed users and the super user. The file is read anew.
// Returns 1, 0 for an unknown user, or -1 when the file cannot be read and pProg is null.
int AccountsFind(const Program *pProg, const char *szUser, Account *pOut);

// Whether the list of programs in an account of the configuration names the program: anywhere, or with
// StrictRoles whole, between blanks, commas, semicolons and bars.
int MaySeeProgram(const Account *pAccount, const Program *pProg);

// Where the authenticator looks.
struct AccountScope {
    const Program *pProg = nullptr;  // not owned; null: the configuration file alone
    Account found;                   // what the last look-up gave
    int bFound = 0;                  // it did
};

// The look-up of the authenticator (see GetAccountProc). pContext: an AccountScope, whose program was found
// already; null: the program is that of the URL, or the first live one without a URL.
int GetUserAccount(void *pContext, const char *szUrl, const char *szUser, char *szPassword, int *pLevel);

}  // namespace orx
