// Looks for what is doubtful in a configuration file (see doubts.h): unknown names, blanks that count, text
// where a number belongs, values that are held to limits or cut, keys that contradict each other. Nothing but
// the arguments is touched and nothing is printed: any thread.
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
// whatever the result (where it Fails, fields may be missing), and adds what is doubtful to *pDoubts. Of a
// text that a strict start refuses a doubt refuses (DoubtsRefuse).
ConfigState ConfigCheck(const char *szPath, Settings *pTaken, DoubtList *pDoubts);

}  // namespace orx
