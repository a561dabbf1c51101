// One question to the status socket. Main thread.
#pragma once

#include <string>

namespace orx {

struct CtlAnswer {
    int nStatus = 0;   // of HTTP; 0: there was none
    std::string body;  // or what went wrong
};

// Asks the server whose socket is szSocket.
CtlAnswer CtlAsk(const std::string &socket, const std::string &method, const std::string &target);

// A value for a query, percent-encoded.
std::string CtlEncode(const std::string &value);

}  // namespace orx
