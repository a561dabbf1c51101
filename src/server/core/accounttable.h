// The user accounts that an INI text lists, taken apart once: a text is as long as a peer makes it, and every
// password that somebody tries asks for it. Any thread, one at a time for each table.
#pragma once

#include <cstddef>

namespace orx {

constexpr size_t kPasswordSize = 64;  // bytes of the buffer, NUL included
constexpr int kNobodysLevel = 3;      // of who showed no password; 0 is the super user's

struct Account {
    char szPassword[kPasswordSize] = "";
    int nLevel = kNobodysLevel;
    int bSuper = 0;      // the super user: sees every program
    int bAnonymous = 0;  // nobody's account: any name is let in to watch, with an empty password
    // Of a listed user: the program paths, without leading '/', that he may see.
    char szDevices[1024] = "";
};

struct AccountTable;

// Takes the sections USERS and USERCTRL of a text apart, in which the first of equal keys counts. Null
// without memory.
AccountTable *AccountTableParse(const char *szText);
void AccountTableFree(AccountTable *pTable);  // accepts null

// The super user of that name, else the first listed user. Returns 1, or 0 with *pOut untouched. A user
// without a name is nobody. pTable null: an empty one.
int AccountTableFind(const AccountTable *pTable, const char *szUser, Account *pOut);
// Whether the text names a super user. pTable null: it does not.
int AccountTableHasSuper(const AccountTable *pTable);

}  // namespace orx
