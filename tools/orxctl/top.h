// The live view.
#pragma once

#include <string>

namespace orx {

// Shows the status again every nSeconds until 'q', Ctrl-C or the end of the input. Returns the exit code.
int TopRun(const std::string &socket, int nSeconds);

}  // namespace orx
