// The accounts of the configuration file, held in memory: whoever checks a password never waits for a disk
// that stalls. While passwords are asked for, the disk thread looks at the file, so that a change counts
// within a second. Scheduler thread, but for start and end.
#pragma once

#include "server/core/accounttable.h"

namespace orx {

// Reads the file, when the server starts; later ones are looked for under the same name.
void AccountFileLoad(const char *szPath);
void AccountFileFree();

// Whether what is held was looked after within half a second, or the disk has kept the look waiting for
// longer than anybody is to wait. 0: the look is under way; ask again after kAccountFileMs.
int AccountFileReady();
constexpr unsigned kAccountFileMs = 2;

// The accounts of a file as it is now; null when it cannot be read, or without memory. Any thread; free with
// AccountTableFree.
AccountTable *AccountFileRead(const char *szPath);
// The configuration was read anew, with these accounts, which are owned from here on: no look from before it is
// good any more.
void AccountFileTake(AccountTable *pTable);
// A reading was refused: the accounts are those of the last one that was not, or of the start, until the next.
void AccountFileKeep();

// Finds a user. Returns 1, 0 for an unknown one, or -1 when the file cannot be read, which is said on the
// console where it is not there.
int AccountFileFind(const char *szUser, Account *pOut);
// Whether it names a super user.
int AccountFileHasSuper();

}  // namespace orx
