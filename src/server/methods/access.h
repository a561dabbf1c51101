// What an account may see, for a program on this box that shows pictures of its own and asks on behalf of its
// visitors: by the same accounts, lists and settings as a player's DESCRIBE. Counts and delays nothing: only
// who asks knows which visitor guesses. Scheduler thread only.
#pragma once

#include "server/core/accounttable.h"

namespace orx {

struct AccessQuestion {
    const char *szUser;      // "" is nobody
    const char *szPassword;  // null: one that can be nobody's
    const char *szPath;      // with its leading '/'; null: of no program
};

struct AccessAnswer {
    unsigned nAuthType = 0;
    int bSuperUser = 0;  // there is one
    int bKnown = 0;      // name and password are right somewhere, or nobody has to show any
    int bOpen = 0;       // ... that: AuthType 0, and none were shown
    int bAll = 0;        // the account's list does not count
    int bHere = 0;       // the account is one of that path alone
    int bMaySee = 0;     // the path that was asked for: DESCRIBE would let in
    Account account;     // with bKnown; its password is cleared
};

// Returns 1, or 0 while the accounts are being brought up to date: ask again after kAccountFileMs.
int AccessAsk(const AccessQuestion *pQuestion, AccessAnswer *pOut);

}  // namespace orx
