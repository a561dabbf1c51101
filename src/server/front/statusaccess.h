// POST /access of the status socket: who asks for pages beside this server shows a visitor's name and
// password here, and is told what that account may see. docs/status.md describes it. Reader threads.
#pragma once

#include <string_view>

#include "base/jsontext.h"

namespace orx {

constexpr size_t kMaxAccessForm = 4096;  // bytes

// Answers a form "name=..&password=..[&program=..]" as JSON. Returns 1, or 0 for one that cannot be used. The
// scheduler runs.
int StatusWriteAccess(JsonText *pOut, std::string_view form);

}  // namespace orx
