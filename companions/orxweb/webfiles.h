// The files of files/, put into the program at build time: webfiles.cpp is made by embed.cmake.
#pragma once

#include "orxweb/page.h"

namespace orx {

extern const WebFile g_webFiles[];
extern const size_t g_nWebFiles;

}  // namespace orx
