// Repairs recordings that were interrupted.
#pragma once

#include <string>

namespace orx {

// Repairs the file in place and says what was done; one that still has the name of a file that is being
// written gets the one it would have got. A file that somebody is writing is refused. Returns the exit
// status, a Verdict (see survey.h).
int RepairRecording(const std::string &path);

}  // namespace orx
