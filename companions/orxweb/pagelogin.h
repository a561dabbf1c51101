// The page on which people log in. Workers' threads.
#pragma once

#include "orxweb/page.h"

namespace orx {

// The form, with a text above it where something went wrong (Text::Count: nothing did).
WebAnswer PageLogin(int nStatus, Page *pPage, const std::string &name, const std::string &target, Text alert,
                    int nWaitSeconds);

}  // namespace orx
