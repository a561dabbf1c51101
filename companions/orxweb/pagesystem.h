// The state of the box. Workers' threads.
#pragma once

#include "orxweb/page.h"

namespace orx {

WebAnswer PageSystem(Page *pPage);

}  // namespace orx
