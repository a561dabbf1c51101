// Recording by request: DESCRIBE names the program on a connection, RECORDEX says what to do with it.
#pragma once

#include "options.h"

namespace orx {

// Runs start, alarm or stop and says how it went. Returns the exit code.
int RecControl(const RecOptions &options);

}  // namespace orx
