// Loopback sockets and patterned bytes for tests of what carries bytes.
#pragma once

#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <iterator>
#include <string>
#include <utility>

#include "support/rtp.h"
#include "support/wait.h"

namespace orx {

inline int ElapsedMs(std::chrono::steady_clock::time_point start)
{
    return static_cast<int>(
        std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start).count());
}

inline int OpenDescriptors()
{
    return static_cast<int>(std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}));
}

// A socket of the test; closed with it.
struct Sock {
    int fd = -1;

    explicit Sock(int nFd = -1) : fd(nFd) {}
    ~Sock() { Close(); }
    Sock(Sock &&other) noexcept : fd(std::exchange(other.fd, -1)) {}
    Sock &operator=(Sock &&other) noexcept
    {
        std::swap(fd, other.fd);
        return *this;
    }
    void Close()
    {
        if (fd >= 0)
            close(std::exchange(fd, -1));
    }
    bool Send(const std::string &data) const
    {
        for (size_t nSent = 0; nSent < data.size();) {
            ssize_t n = send(fd, data.data() + nSent, data.size() - nSent, MSG_NOSIGNAL);
            if (n <= 0)
                return false;
            nSent += static_cast<size_t>(n);
        }
        return true;
    }
    bool Readable(int nMs) const
    {
        pollfd wait{fd, POLLIN, 0};
        return poll(&wait, 1, nMs) > 0;
    }
    // What comes in until nBytes are there, the other side closes or nothing came for 20 seconds.
    std::string Read(size_t nBytes) const
    {
        std::string data;
        char buffer[65536];
        while (data.size() < nBytes && Readable(20000)) {
            ssize_t n = recv(fd, buffer, std::min(sizeof(buffer), nBytes - data.size()), 0);
            if (n <= 0)
                break;
            data.append(buffer, static_cast<size_t>(n));
        }
        return data;
    }
    // Whether the other side closes within nMs, without having sent anything more.
    bool Closed(int nMs) const
    {
        char c;
        return Readable(nMs) && recv(fd, &c, 1, 0) <= 0;
    }
    bool StillOpen() const
    {
        char c;
        return recv(fd, &c, 1, MSG_DONTWAIT | MSG_PEEK) < 0 && errno == EAGAIN;
    }
};

inline sockaddr_in Loopback(int nPort)
{
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = htons(static_cast<uint16_t>(nPort));
    return addr;
}

// nHost: who connects, as the last byte of an address of the loopback net.
inline Sock Connect(int nPort, int nHost = 1)
{
    Sock sock(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in addr = Loopback(0);
    addr.sin_addr.s_addr = htonl(0x7F000000 | static_cast<uint32_t>(nHost));
    if (nHost != 1)
        bind(sock.fd, reinterpret_cast<sockaddr *>(&addr), sizeof(addr));
    addr = Loopback(nPort);
    if (connect(sock.fd, reinterpret_cast<sockaddr *>(&addr), sizeof(addr)) != 0)
        sock.Close();
    return sock;
}

inline int PortOf(int fd)
{
    sockaddr_in addr{};
    socklen_t nSize = sizeof(addr);
    getsockname(fd, reinterpret_cast<sockaddr *>(&addr), &nSize);
    return ntohs(addr.sin_port);
}

// A TCP server that accepts when told to.
struct Listener {
    Sock sock;
    int nPort = 0;

    explicit Listener(int nWantedPort = 0) : sock(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
    {
        sockaddr_in addr = Loopback(nWantedPort);
        bind(sock.fd, reinterpret_cast<sockaddr *>(&addr), sizeof(addr));
        listen(sock.fd, 512);
        nPort = PortOf(sock.fd);
    }
    Sock Accept(int nMs = 20000) const
    {
        return Sock(sock.Readable(nMs) ? accept4(sock.fd, nullptr, nullptr, SOCK_CLOEXEC) : -1);
    }
};

}  // namespace orx
