// A link between two networks that loses, delays and reorders packets, or goes away: two TUN devices, and a thread that
// carries packets from each to the other. It needs no queueing discipline of the kernel, and its dice have a seed. For
// a process in a network namespace of its own (EnterNamespaces), and without other threads in the networks' way.
#pragma once

#include <fcntl.h>
#include <linux/if_tun.h>
#include <net/if.h>
#include <poll.h>
#include <sched.h>
#include <sys/ioctl.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <map>
#include <random>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "support/sockets.h"

namespace orx {

constexpr char kNearIp[] = "10.77.0.1", kFarIp[] = "10.77.0.2";

struct BadLink {
    std::atomic<int> nLossPercent{0};
    std::atomic<int> nDelayMs{0}, nJitterMs{0};  // of each direction; a packet may overtake those within the jitter
    std::atomic<bool> bDown{false};              // nothing gets through
    std::atomic<unsigned> nCarried{0}, nLost{0};

    BadLink() = default;
    ~BadLink()
    {
        bOver = true;
        if (carrier.joinable())
            carrier.join();
    }
    BadLink(const BadLink &) = delete;
    BadLink &operator=(const BadLink &) = delete;

    // Connects the network that the thread is in with a new one. Returns whether the machine lets it.
    bool Open()
    {
        nearNet = Sock(open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC));
        if (!OpenDevice(&ends[0], kNearIp) || unshare(CLONE_NEWNET) != 0)
            return false;
        farNet = Sock(open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC));
        bool bDone = OpenDevice(&ends[1], kFarIp);
        Enter(nearNet);
        if (bDone)
            carrier = std::thread([this] { Carry(); });
        return bDone;
    }
    // Does something in the far network: what is opened or started there stays there.
    template <typename Work>
    void BeFar(Work work) const
    {
        Enter(farNet);
        work();
        Enter(nearNet);
    }

private:
    using Clock = std::chrono::steady_clock;
    struct Packet {
        int nTo;
        std::string bytes;
    };
    Sock ends[2], nearNet, farNet;
    std::atomic<bool> bOver{false};
    std::thread carrier;
    std::mt19937 random{20261101};
    std::multimap<Clock::time_point, Packet> underWay;

    static void Enter(const Sock &net) { EXPECT_EQ(0, setns(net.fd, CLONE_NEWNET)); }
    static bool OpenDevice(Sock *pOut, const std::string &ip)
    {
        ifreq request{};
        std::string("bad0").copy(request.ifr_name, IFNAMSIZ - 1);
        request.ifr_flags = IFF_TUN | IFF_NO_PI;
        *pOut = Sock(open("/dev/net/tun", O_RDWR | O_NONBLOCK | O_CLOEXEC));
        return pOut->fd >= 0 && ioctl(pOut->fd, TUNSETIFF, &request) == 0 &&
               system(("ip link set lo up && ip addr add " + ip + "/24 dev bad0 && ip link set bad0 up").c_str()) == 0;
    }
    void Take(int nFrom)
    {
        char bytes[2048];
        for (ssize_t n; (n = read(ends[nFrom].fd, bytes, sizeof(bytes))) > 0;) {
            if (bDown || static_cast<int>(random() % 100) < nLossPercent) {
                nLost++;
                continue;
            }
            int nMs = nDelayMs + (nJitterMs ? static_cast<int>(random() % static_cast<unsigned>(nJitterMs)) : 0);
            underWay.emplace(Clock::now() + std::chrono::milliseconds(nMs),
                             Packet{1 - nFrom, std::string(bytes, static_cast<size_t>(n))});
        }
    }
    void Carry()
    {
        while (!bOver) {
            pollfd waits[2] = {{ends[0].fd, POLLIN, 0}, {ends[1].fd, POLLIN, 0}};
            poll(waits, 2, underWay.empty() ? 20 : 1);
            Take(0);
            Take(1);
            for (auto it = underWay.begin(); it != underWay.end() && it->first <= Clock::now();) {
                const Packet &packet = it->second;
                nCarried += write(ends[packet.nTo].fd, packet.bytes.data(), packet.bytes.size()) > 0;
                it = underWay.erase(it);
            }
        }
    }
};

}  // namespace orx
