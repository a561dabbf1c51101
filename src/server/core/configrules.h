// The checks of keys against each other, of configcheck.h: users that are not counted, ports that meet, keys
// without the one that they need, and a directory of recordings that cannot be written. Any thread.
#pragma once

#include "server/core/configfind.h"

namespace orx {

void ConfigCheckRules(const ConfigFound *pFound);
// The same of the listed users.
void ConfigCheckUsers(const ConfigFound *pFound);
// The same of [PULL], of which nobody but orxpull makes use.
void ConfigCheckSources(const ConfigFound *pFound);

}  // namespace orx
