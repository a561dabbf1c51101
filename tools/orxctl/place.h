// Where the status socket of the server is.
#pragma once

#include <string>

#include "orxctl/options.h"

namespace orx {

// The path of the socket, or an empty text, with what is wrong in *pWhy.
std::string CtlFindSocket(const CtlOptions &options, std::string *pWhy);

}  // namespace orx
