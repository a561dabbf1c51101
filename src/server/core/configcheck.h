// Looks for what is doubtful in a configuration file (see doubts.h): unknown names, blanks that count, text
// where a number belongs, values that are held to limits or cut, keys that contradict each other. Each doubt
// is "FILE:LINE: [SECTION] KEY=VALUE why: what is taken". Nothing but the arguments is touched and nothing is
// printed: any thread. An address that is a name is looked up, so that it may take a while.
#pragma once

#include "server/core/doubts.h"
#include "server/core/settings.h"

namespace orx {

enum class ConfigState {
    Good,
    Missing,  // cannot be read, or holds nothing: a start takes the defaults
    Fails,    // the server does not start with it
};

// Reads the file as a start would, into *pTaken, which is all zero before and which SettingsFree gives back
// whatever the result (where it Fails, fields may be missing), and adds what is doubtful to *pDoubts. Of
// these some keep a strict server from starting (Doubt.bRefuses).
ConfigState ConfigCheck(const char *szPath, Settings *pTaken, DoubtList *pDoubts);

// Adds a doubt that was found elsewhere about a key of the table, with its line in the file, if it has one.
void ConfigDoubt(const char *szPath, DoubtList *pDoubts, int bRefuses, const char *szSection,
                 const char *szKey, const char *szWhy);

// Calls pfnRow for every key, in the order of the sections, with what is taken of the file; passwords are
// "***". Of users those that NumUsers counts.
using ConfigRowProc = void (*)(void *pContext, const char *szSection, const char *szKey, const char *szTaken);
void ConfigListTaken(const char *szPath, ConfigRowProc pfnRow, void *pContext);

// Calls pfnRow for every key that the shipped file sets to another value than the one that is taken of this
// file, which lacks it. szTaken is the shipped value.
void ConfigListMissing(const char *szPath, ConfigRowProc pfnRow, void *pContext);

}  // namespace orx
