#include "orxweb/serverask.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cerrno>
#include <cstring>

#include "base/fdguard.h"
#include "base/textnumber.h"
#include "shared/loop.h"

namespace orx {

constexpr int kMostMs = 10000;
constexpr size_t kMostAnswer = 64 << 20;

static int g_fdStop = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);  // readable once ServerAskStop was called

void ServerAskStop()
{
    eventfd_write(g_fdStop, 1);
}

// Waits until the socket can be read or written. Returns 1, or 0 when the time is over or nobody wants it.
static int Await(int fd, short nEvents, uint64_t nEndMs)
{
    uint64_t nNow = LoopNowMs();
    pollfd polled[2] = {{fd, nEvents, 0}, {g_fdStop, POLLIN, 0}};
    int nTimeout = nNow < nEndMs ? static_cast<int>(nEndMs - nNow) : 0;
    int n = poll(polled, 2, nTimeout);
    if (n < 0 && errno == EINTR)
        return Await(fd, nEvents, nEndMs);
    return n > 0 && !polled[1].revents;
}

static int SendAll(int fd, std::string_view text, uint64_t nEndMs)
{
    while (!text.empty()) {
        ssize_t n = send(fd, text.data(), text.size(), MSG_NOSIGNAL);
        if (n > 0)
            text.remove_prefix(static_cast<size_t>(n));
        else if (errno != EAGAIN || !Await(fd, POLLOUT, nEndMs))
            return 0;
    }
    return 1;
}

// Reads to the end, which the server makes: one request a connection.
static int ReceiveAll(int fd, std::string *pOut, uint64_t nEndMs)
{
    char buf[65536];
    while (pOut->size() < kMostAnswer) {
        ssize_t n = recv(fd, buf, sizeof(buf), 0);
        if (n == 0)
            return 1;
        if (n > 0)
            pOut->append(buf, static_cast<size_t>(n));
        else if (errno != EAGAIN || !Await(fd, POLLIN, nEndMs))
            return 0;
    }
    return 0;
}

static std::string_view HeaderOf(std::string_view head, std::string_view name)
{
    size_t n = head.find(name);
    if (n == std::string_view::npos)
        return {};
    head.remove_prefix(n + name.size());
    return head.substr(0, head.find("\r\n"));
}

static ServerAnswer Split(const std::string &answer)
{
    size_t nHead = answer.find("\r\n\r\n");
    if (!answer.starts_with("HTTP/1.1 ") || nHead == std::string::npos)
        return {0, {}, "no answer that can be read"};
    std::string_view head = std::string_view(answer).substr(0, nHead + 2);
    return {TextToInt(head.substr(9, 3)), std::string(HeaderOf(head, "\r\nContent-Type: ")),
            answer.substr(nHead + 4)};
}

static ServerAnswer Away(const char *szWhat)
{
    return {0, {}, std::string(szWhat) + ": " + strerror(errno)};
}

static ServerAnswer Ask(const std::string &socketPath, const std::string &request)
{
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    if (socketPath.empty() || socketPath.size() >= sizeof(addr.sun_path))
        return {0, {}, "no path of a socket"};
    memcpy(addr.sun_path, socketPath.c_str(), socketPath.size());
    FdGuard sock{socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)};
    // connecting to a Unix socket waits only while its queue is full, and then fails at once without waiting
    if (sock.fd < 0 || fcntl(sock.fd, F_SETFL, O_NONBLOCK) != 0 ||
        connect(sock.fd, reinterpret_cast<const sockaddr *>(&addr), sizeof(addr)) != 0)
        return Away("no connection");
    uint64_t nEndMs = LoopNowMs() + kMostMs;
    std::string answer;
    errno = 0;
    if (!SendAll(sock.fd, request, nEndMs) || !ReceiveAll(sock.fd, &answer, nEndMs)) {
        errno = errno == EAGAIN || errno == 0 ? ETIMEDOUT : errno;
        return Away("no answer");
    }
    return Split(answer);
}

ServerAnswer ServerAsk(const std::string &socketPath, const std::string &target)
{
    return Ask(socketPath, "GET " + target + " HTTP/1.1\r\nHost: orx\r\nConnection: close\r\n\r\n");
}

ServerAnswer ServerPost(const std::string &socketPath, const std::string &target, std::string_view form)
{
    return Ask(socketPath, "POST " + target +
                               " HTTP/1.1\r\nHost: orx\r\nContent-Type: application/x-www-form-urlencoded\r\n"
                               "Content-Length: " +
                               std::to_string(form.size()) + "\r\nConnection: close\r\n\r\n" +
                               std::string(form));
}

}  // namespace orx
