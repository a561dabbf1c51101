// The views of orxctl: what it makes of the server's answers.
#pragma once

#include <jansson.h>

#include <string>

namespace orx {

// All in short. nWidth: columns of the terminal, 0 when nothing is to be cut.
std::string ViewStatus(const json_t *pStatus, size_t nWidth);
std::string ViewPrograms(const json_t *pStatus, size_t nWidth);
std::string ViewSessions(const json_t *pStatus, size_t nWidth);
// Of a program's recordings, or of the programs that have some.
std::string ViewRecordings(const json_t *pAnswer, size_t nWidth);

}  // namespace orx
