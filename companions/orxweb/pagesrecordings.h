// Recordings of a program on the time line of a day. Workers' threads.
#pragma once

#include "orxweb/page.h"

namespace orx {

// query: "at=" or "day="
WebAnswer PageRecordings(Page *pPage, const std::string &program, const std::string &query);

}  // namespace orx
