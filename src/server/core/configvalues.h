// The checks of single values, of configcheck.h: numbers that are none or are held to limits, texts that are
// cut, blanks that count, words and addresses that are none. Any thread.
#pragma once

#include "server/core/configfind.h"

namespace orx {

// Checks the line that counts for a row. Of a user's row with his number.
void ConfigCheckValue(const ConfigFound *pFound, const Setting *pRow, int nUser);

}  // namespace orx
