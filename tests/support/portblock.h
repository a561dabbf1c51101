// Ports for a test that no other has at the same time.
#pragma once

#include <sys/socket.h>
#include <unistd.h>

#include <utility>

#include <gtest/gtest.h>

#include "support/sockets.h"
#include "support/wait.h"

namespace orx {

constexpr int kFirstBlock = 10240;
constexpr int kBlockPorts = 1024;
constexpr int kBlocks = 22;

// 1024 ports.
struct PortBlock {
    int nFirst = 0;
    Sock reserved;  // the last port, over UDP: it keeps the block
    PortBlock()
    {
        static int nTurn = getpid();
        auto take = [this] {
            nFirst = kFirstBlock + nTurn++ % kBlocks * kBlockPorts;
            Sock sock(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
            sockaddr_in addr = Loopback(nFirst + kBlockPorts - 1);
            if (bind(sock.fd, reinterpret_cast<sockaddr *>(&addr), sizeof(addr)) != 0 || Connect(nFirst).fd >= 0)
                return false;
            reserved = std::move(sock);
            return true;
        };
        EXPECT_TRUE(WaitFor(take)) << "all ports are taken";
    }
};

}  // namespace orx
