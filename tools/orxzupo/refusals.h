// The refusal list: identities and addresses that the rendezvous server does not serve.
#pragma once

#include <cstdint>
#include <set>
#include <string>

namespace orx {

struct Refusals {
    std::set<std::string> identities;
    std::set<uint32_t> addresses;  // host order
};

// Reads the list from a file: one identity or dotted address per line, '#' begins a comment. Returns 1, or 0
// with *pOut untouched when the file cannot be read.
int RefusalsLoad(const std::string &path, Refusals *pOut);

}  // namespace orx
