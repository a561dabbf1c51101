#include "orxctl/socket.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include "base/fdguard.h"

namespace orx {

constexpr size_t kMostBytes = 64 << 20;  // of an answer: a server that says more is none of ours
constexpr timeval kPatience{10, 0};

static CtlAnswer Failed(const std::string &socket, const char *szWhat)
{
    return {0, std::string(szWhat) + " " + socket + ": " + strerror(errno)};
}

static int Connect(const std::string &path)
{
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    if (path.size() >= sizeof(addr.sun_path)) {
        errno = ENAMETOOLONG;
        return -1;
    }
    memcpy(addr.sun_path, path.c_str(), path.size() + 1);
    FdGuard sock{socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)};
    if (sock.fd < 0)
        return -1;
    setsockopt(sock.fd, SOL_SOCKET, SO_RCVTIMEO, &kPatience, sizeof(kPatience));
    setsockopt(sock.fd, SOL_SOCKET, SO_SNDTIMEO, &kPatience, sizeof(kPatience));
    if (connect(sock.fd, reinterpret_cast<sockaddr *>(&addr), sizeof(addr)) != 0)
        return -1;
    return sock.Release();
}

// Splits head and body. The answer ends with the connection.
static CtlAnswer Parse(const std::string &socket, const std::string &text)
{
    size_t nBody = text.find("\r\n\r\n");
    if (text.compare(0, 7, "HTTP/1.") != 0 || nBody == std::string::npos)
        return {0, socket + " is no status socket of Orx"};
    return {atoi(text.c_str() + 9), text.substr(nBody + 4)};
}

CtlAnswer CtlAsk(const std::string &socket, const char *szMethod, const std::string &target)
{
    FdGuard sock{Connect(socket)};
    if (sock.fd < 0)
        return Failed(socket, "cannot connect to");
    const std::string request = std::string(szMethod) + " " + target +
                                " HTTP/1.1\r\nHost: orx\r\nContent-Length: 0\r\nConnection: close\r\n\r\n";
    if (send(sock.fd, request.data(), request.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(request.size()))
        return Failed(socket, "cannot write to");
    std::string text;
    char chunk[16384];
    ssize_t n;
    while (text.size() < kMostBytes && (n = read(sock.fd, chunk, sizeof(chunk))) != 0) {
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            return Failed(socket, "no answer from");
        text.append(chunk, static_cast<size_t>(n));
    }
    return Parse(socket, text);
}

std::string CtlEscape(const std::string &text)
{
    std::string out;
    for (char c : text) {
        char hex[4];
        auto u = static_cast<unsigned char>(c);
        int bPlain = (u < 0x80 && isalnum(u)) || strchr("-._~/", c) != nullptr;
        snprintf(hex, sizeof(hex), "%%%02X", u);
        out += bPlain && c ? std::string(1, c) : hex;
    }
    return out;
}

}  // namespace orx
