#include "ask.h"

#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "base/fdguard.h"

namespace orx {

static constexpr int kAnswerSeconds = 40;  // a list of recordings opens every file
static constexpr size_t kMaxAnswer = 256 << 20;

static CtlAnswer Fail(const std::string &socket, const char *szHint)
{
    return {0, socket + ": " + strerror(errno) + szHint};
}

// An answer of which the rest was not sent is none.
static CtlAnswer Split(const std::string &answer)
{
    static constexpr char kLength[] = "\r\nContent-Length: ";
    size_t nHead = answer.find("\r\n\r\n"), nLength = answer.find(kLength);
    if (!answer.starts_with("HTTP/1.1 ") || nHead == std::string::npos ||
        (nLength < nHead &&
         strtoull(answer.c_str() + nLength + strlen(kLength), nullptr, 10) != answer.size() - nHead - 4))
        return {0, "the server gave no answer: ask again, and see its log"};
    return {atoi(answer.c_str() + 9), answer.substr(nHead + 4)};
}

CtlAnswer CtlAsk(const std::string &socket, const std::string &method, const std::string &target)
{
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    if (socket.size() >= sizeof(addr.sun_path))
        return {0, socket + ": the path of a socket has at most 107 characters"};
    memcpy(addr.sun_path, socket.c_str(), socket.size());
    FdGuard sock{::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)};
    if (sock.fd < 0 || connect(sock.fd, reinterpret_cast<const sockaddr *>(&addr), sizeof(addr)) != 0)
        return Fail(socket, errno == EACCES ? ": be root, or of the group of the server's user"
                                            : ": is the server running, and is this its [STATUS] Socket?");
    timeval wait{kAnswerSeconds, 0};
    setsockopt(sock.fd, SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof(wait));
    std::string request = method + " " + target + " HTTP/1.1\r\nHost: orx\r\nConnection: close\r\n\r\n";
    if (send(sock.fd, request.data(), request.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(request.size()))
        return Fail(socket, "");
    std::string answer;
    char buf[16384];
    ssize_t n;
    while ((n = recv(sock.fd, buf, sizeof(buf), 0)) > 0 && answer.size() < kMaxAnswer)
        answer.append(buf, static_cast<size_t>(n));
    return Split(answer);
}

std::string CtlEncode(const std::string &value)
{
    std::string out;
    for (char c : value) {
        char szHex[4];
        snprintf(szHex, sizeof(szHex), "%%%02X", static_cast<unsigned char>(c));
        out += c > ' ' && c < 127 && !strchr("%?#&+=", c) ? std::string(1, c) : szHex;
    }
    return out;
}

}  // namespace orx
