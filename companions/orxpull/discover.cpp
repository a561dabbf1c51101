#include "orxpull/discover.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <sys/epoll.h>
#include <sys/random.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <list>
#include <string>
#include <vector>

#include "orxpull/discoveranswer.h"

namespace orx {

constexpr uint64_t kListenMs = 3000;
constexpr uint64_t kAskAgainMs = 700;  // datagrams are lost
constexpr int kTimes = 3;
constexpr int kPort = 3702;
constexpr const char *kGroup = "239.255.255.250";

namespace {

struct Discovery;

// A socket for each address of the machine.
struct Ear {
    Discovery *pDiscovery;
    LoopWatch watch;
};

struct Discovery {
    Loop *pLoop;
    std::list<Ear> ears;
    std::vector<DiscoveredCamera> cameras;
    int nAsked = 0;
    LoopTimer again, end;
};

}  // namespace

// A UUID of version 4 (RFC 4122, section 4.4).
static std::string MakeUuid()
{
    uint8_t bytes[16] = {};
    std::string text;
    ssize_t n = getrandom(bytes, sizeof bytes, 0);
    static_cast<void>(n);
    bytes[6] = static_cast<uint8_t>((bytes[6] & 0x0F) | 0x40);
    bytes[8] = static_cast<uint8_t>((bytes[8] & 0x3F) | 0x80);
    for (size_t i = 0; i < sizeof bytes; i++) {
        char szByte[4];
        snprintf(szByte, sizeof szByte, "%02x", bytes[i]);
        text += szByte;
        if (i == 3 || i == 5 || i == 7 || i == 9)
            text += '-';
    }
    return text;
}

static void OnAnswer(void *pUser, uint32_t)
{
    auto *pEar = static_cast<Ear *>(pUser);
    std::vector<char> answer(65536);
    ssize_t n;
    while ((n = recv(pEar->watch.fd, answer.data(), answer.size(), MSG_DONTWAIT)) >= 0)
        DiscoverTake({answer.data(), static_cast<size_t>(n)}, &pEar->pDiscovery->cameras);
}

static void Ask(Discovery *pDiscovery)
{
    sockaddr_in group{};
    group.sin_family = AF_INET;
    group.sin_port = htons(kPort);
    inet_pton(AF_INET, kGroup, &group.sin_addr);
    for (const Ear &ear : pDiscovery->ears) {
        std::string probe = DiscoverProbe(MakeUuid());
        sendto(ear.watch.fd, probe.data(), probe.size(), MSG_NOSIGNAL,
               reinterpret_cast<const sockaddr *>(&group), sizeof group);
    }
}

static void OnAgain(void *pUser)
{
    auto *pDiscovery = static_cast<Discovery *>(pUser);
    Ask(pDiscovery);
    if (++pDiscovery->nAsked < kTimes)
        LoopSetTimer(pDiscovery->pLoop, &pDiscovery->again, kAskAgainMs);
}

static void OnEnd(void *pUser)
{
    LoopStop(static_cast<Discovery *>(pUser)->pLoop);
}

// Opens a socket that asks from an address. An interface that cannot is left out.
static void Open(Discovery *pDiscovery, const sockaddr_in *pAddress)
{
    int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    sockaddr_in own = *pAddress;
    own.sin_port = 0;
    int nHops = 1;
    if (fd >= 0 && bind(fd, reinterpret_cast<const sockaddr *>(&own), sizeof own) == 0 &&
        setsockopt(fd, IPPROTO_IP, IP_MULTICAST_IF, &own.sin_addr, sizeof own.sin_addr) == 0 &&
        setsockopt(fd, IPPROTO_IP, IP_MULTICAST_TTL, &nHops, sizeof nHops) == 0) {
        Ear *pEar = &pDiscovery->ears.emplace_back(Ear{pDiscovery, {}});
        pEar->watch.fd = fd;
        pEar->watch.pfnReady = OnAnswer;
        pEar->watch.pUser = pEar;
        if (LoopSetWatch(pDiscovery->pLoop, &pEar->watch, EPOLLIN))
            return;
        pDiscovery->ears.pop_back();
    }
    if (fd >= 0)
        close(fd);
}

static int OpenAll(Discovery *pDiscovery)
{
    ifaddrs *pFirst = nullptr;
    if (getifaddrs(&pFirst) != 0)
        return 0;
    for (const ifaddrs *p = pFirst; p; p = p->ifa_next)
        if (p->ifa_addr && p->ifa_addr->sa_family == AF_INET && (p->ifa_flags & IFF_UP))
            Open(pDiscovery, reinterpret_cast<const sockaddr_in *>(p->ifa_addr));
    freeifaddrs(pFirst);
    return !pDiscovery->ears.empty();
}

int DiscoverRun(Loop *pLoop)
{
    Discovery discovery{pLoop, {}, {}, 0, {}, {}};
    if (!OpenAll(&discovery)) {
        fprintf(stderr, "orxpull: no interface to ask on: %s\n", strerror(errno));
        return 1;
    }
    discovery.again.pfnDue = OnAgain;
    discovery.end.pfnDue = OnEnd;
    discovery.again.pUser = discovery.end.pUser = &discovery;
    OnAgain(&discovery);
    LoopSetTimer(pLoop, &discovery.end, kListenMs);
    LoopRun(pLoop);
    LoopClearTimer(pLoop, &discovery.again);
    for (Ear &ear : discovery.ears) {
        LoopSetWatch(pLoop, &ear.watch, 0);
        close(ear.watch.fd);
    }
    for (const DiscoveredCamera &camera : discovery.cameras)
        printf("%s\n", DiscoverLine(&camera).c_str());
    if (discovery.cameras.empty())
        fprintf(stderr, "orxpull: no camera answered\n");
    return 0;
}

}  // namespace orx
