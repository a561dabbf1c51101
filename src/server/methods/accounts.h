// User accounts: in the server's own configuration, or in the configuration text of a program's camera.
// Scheduler thread only.
#pragma once

#include "server/core/session.h"

namespace orx {

constexpr size_t kPasswordSize = 64;  // bytes of the buffer, NUL included

// An account of the server's own configuration.
struct OwnAccount {
    char szPassword[kPasswordSize] = "";
    int nLevel = 0;
    int bSuper = 0;  // sees every program
    // Of an ordinary user: the program paths, without leading '/', that he may see.
    char szDevices[1024] = "";
};

// Finds a user there. Returns 1, 0 for an unknown one, or -1 when the configuration cannot be read.
int GetOwnAccount(const char *szUser, OwnAccount *pOut);

// The look-up of the authenticator (see GetAccountProc). szUrl null: the first live program.
int GetUserAccount(void *pContext, const char *szUrl, const char *szUser, char *szPassword, int *pLevel);

// The token check of the extension methods: headers "UserName" and "UserAuth" against the account for the
// request's URL. Returns 1 with the session's user level and name set, else 0.
int CheckUserToken(Session *pSession, const Request *pRequest);

}  // namespace orx
