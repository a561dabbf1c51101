// What orxzmf prints about recordings.
#pragma once

#include <string>

namespace orx {

// Each returns the exit status, a Verdict (see survey.h).
int ReportInfo(const std::string &path);
int ReportCheck(const std::string &path);

// The exit status is 1 when the directory cannot be read, else 0.
int ReportList(const std::string &dir);

}  // namespace orx
