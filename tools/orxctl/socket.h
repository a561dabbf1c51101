// One question to the server over its status socket (HTTP/1.1, RFC 9112).
#pragma once

#include <string>

namespace orx {

struct CtlAnswer {
    int nStatus = 0;   // of HTTP; 0: there was no answer
    std::string body;  // without one what went wrong, in words
};

// szMethod "GET" or "POST"; target with its query. Waits at most ten seconds.
CtlAnswer CtlAsk(const std::string &socket, const char *szMethod, const std::string &target);

// A text as it stands in a query (RFC 3986): all but letters, digits and "-._~/" is written with '%'.
std::string CtlEscape(const std::string &text);

}  // namespace orx
