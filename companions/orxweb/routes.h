// Which answer a request gets: by its address, and by what the visitor may see. Workers' threads.
#pragma once

#include "orxweb/webrequest.h"

namespace orx {

WebAnswer RouteAnswer(const WebRequest *pRequest);

}  // namespace orx
