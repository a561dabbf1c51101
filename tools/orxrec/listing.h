// What recordings there are on the box, and which are being written. The server is not asked.
#pragma once

#include "options.h"

namespace orx {

// Runs list or status. Returns the exit code.
int RecListing(const RecOptions &options);

}  // namespace orx
