#include "refusals.h"

#include <arpa/inet.h>

#include <fstream>

#include "remote/zupo.h"

namespace orx {

// The line without its comment and the blanks around it.
static std::string Trimmed(const std::string &line)
{
    const char szBlanks[] = " \t\r";
    std::string text = line.substr(0, line.find('#'));
    size_t nFirst = text.find_first_not_of(szBlanks);
    if (nFirst == std::string::npos)
        return "";
    return text.substr(nFirst, text.find_last_not_of(szBlanks) - nFirst + 1);
}

int RefusalsLoad(const std::string &path, Refusals *pOut)
{
    std::ifstream in(path);
    if (!in)
        return 0;
    Refusals list;
    for (std::string line; std::getline(in, line);) {
        std::string text = Trimmed(line);
        in_addr address{};
        if (inet_pton(AF_INET, text.c_str(), &address) == 1)
            list.addresses.insert(ntohl(address.s_addr));
        else if (!text.empty())
            list.identities.insert(text.substr(0, kZupoGuidSize - 1));  // as boxes and clients send it
    }
    if (in.bad())
        return 0;
    *pOut = std::move(list);
    return 1;
}

}  // namespace orx
