// What orxzmf prints about recordings.
#pragma once

#include <string>

namespace orx {

// Each returns the exit status: 0 when all is sound, 1 when not.
int ReportInfo(const std::string &path);
int ReportList(const std::string &dir);
int ReportCheck(const std::string &path);

}  // namespace orx
