// Live programs: all as tiles, and one. Nothing that the visitor may not see. Workers' threads.
#pragma once

#include "orxweb/page.h"

namespace orx {

WebAnswer PageHome(Page *pPage);
WebAnswer PageLive(Page *pPage, const std::string &program);

}  // namespace orx
