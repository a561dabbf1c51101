// Questions to the server's status socket (HTTP/1.1 over a Unix socket). Waits for the answer; any thread but
// that of a loop.
#pragma once

#include <string>
#include <string_view>

namespace orx {

struct ServerAnswer {
    int nStatus = 0;   // 0: the server is away; why is in the body
    std::string type;  // Content-Type
    std::string body;
};

// Asks with GET, or POST with a form as its body. Within 10 s.
ServerAnswer ServerAsk(const std::string &socketPath, const std::string &target);
ServerAnswer ServerPost(const std::string &socketPath, const std::string &target, std::string_view form);
// Ends all questions at once, and those to come: the program ends.
void ServerAskStop();

}  // namespace orx
