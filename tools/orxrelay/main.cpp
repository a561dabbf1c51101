// orxrelay: reaches a box over reliable UDP and offers its RTSP port on a local TCP port.
#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <list>
#include <vector>

#include "link.h"
#include "options.h"
#include "remote/zupo.h"
#include "runtime/clock.h"
#include "runtime/sockutil.h"

using namespace orx;

constexpr int kDefaultBoxPort = 554;
constexpr int kStepMs = 20;
constexpr int kIdleMs = 500;
constexpr uint32_t kGoodbyeMs = 1000;  // for the close requests when the program ends

static volatile sig_atomic_t g_bStop = 0;  // set by the signal handler

static void OnSignal(int)
{
    g_bStop = 1;
}

struct Relay {
    const RelayOptions *pOptions;
    LinkTarget target{};
    int fdListen = -1;
    std::list<Link *> links{};
};

// Tells how a link has ended, and frees it.
static void EndLink(const Relay *pRelay, Link *pLink)
{
    if (pLink->szFailure[0])
        fprintf(stderr, "orxrelay: %s\n", pLink->szFailure);
    else if (!pRelay->pOptions->bQuiet)
        printf("a connection has ended\n");
    LinkFree(pLink);
}

static void StepLinks(Relay *pRelay)
{
    for (auto it = pRelay->links.begin(); it != pRelay->links.end();) {
        Link *pLink = *it;
        int bWasReached = pLink->bReached;
        LinkStep(pLink);
        if (pLink->bReached && !bWasReached && !pRelay->pOptions->bQuiet)
            printf("the box is reached\n");
        if (pLink->state != LinkState::Dead) {
            ++it;
            continue;
        }
        it = pRelay->links.erase(it);
        EndLink(pRelay, pLink);
    }
}

static void AcceptAll(Relay *pRelay)
{
    int fd;
    while ((fd = accept4(pRelay->fdListen, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC)) >= 0) {
        SockSetOption(fd, SOL_SOCKET, SO_KEEPALIVE, 1);
        Link *pLink = LinkOpen(&pRelay->target, fd);
        if (pLink)
            pRelay->links.push_back(pLink);
        else
            fprintf(stderr, "orxrelay: cannot open a UDP socket: %s\n", strerror(errno));
    }
}

// Waits until some descriptor is ready, or the clocks of the links want to be looked at.
static void Wait(const Relay *pRelay)
{
    std::vector<pollfd> polls;
    polls.push_back({pRelay->fdListen, POLLIN, 0});
    for (const Link *pLink : pRelay->links) {
        if (pLink->fd >= 0 && LinkLocalEvents(pLink))
            polls.push_back({pLink->fd, LinkLocalEvents(pLink), 0});
        if (LinkHostEvents(pLink))
            polls.push_back({pLink->pHost->socket, LinkHostEvents(pLink), 0});
    }
    poll(polls.data(), polls.size(), pRelay->links.empty() ? kIdleMs : kStepMs);
}

static void Run(Relay *pRelay)
{
    while (!g_bStop) {
        Wait(pRelay);
        AcceptAll(pRelay);
        StepLinks(pRelay);
    }
    for (Link *pLink : pRelay->links)
        LinkClose(pLink);
    uint32_t nStart = ClockMs();
    while (!pRelay->links.empty() && ClockDiff(ClockMs(), nStart) < static_cast<int32_t>(kGoodbyeMs)) {
        Wait(pRelay);
        StepLinks(pRelay);
    }
    for (Link *pLink : pRelay->links)
        LinkFree(pLink);
}

// One link without a local side. Returns the exit code.
static int Check(Relay *pRelay)
{
    Link *pLink = LinkOpen(&pRelay->target, -1);
    if (!pLink) {
        fprintf(stderr, "orxrelay: cannot open a UDP socket: %s\n", strerror(errno));
        return RELAY_FAILED;
    }
    while (pLink->state != LinkState::Dead && !g_bStop) {
        pollfd wait{pLink->pHost->socket, POLLIN, 0};
        poll(&wait, 1, kStepMs);
        LinkStep(pLink);
    }
    int bReached = pLink->bReached;
    if (bReached)
        printf("the box is reached\n");
    else
        fprintf(stderr, "orxrelay: %s\n", pLink->szFailure);
    LinkFree(pLink);
    return bReached ? RELAY_OK : RELAY_FAILED;
}

// Finds the address of what the command line names. Returns 1, or 0 (told).
static int Resolve(Relay *pRelay)
{
    const RelayOptions &options = *pRelay->pOptions;
    int bDirect = options.server.empty();
    const std::string &name = bDirect ? options.box : options.server;
    if (name.size() > 255 || !SockResolveUri(&pRelay->target.address, name.c_str(),
                                             bDirect ? kDefaultBoxPort : kZupoDefaultPort)) {
        fprintf(stderr, "orxrelay: %s is not a known host and port\n", name.c_str());
        return 0;
    }
    pRelay->target.identity = bDirect ? "" : options.box;
    pRelay->target.nTimeoutMs = static_cast<uint32_t>(options.nTimeout) * 1000;
    return 1;
}

static int Listen(Relay *pRelay)
{
    std::string text = pRelay->pOptions->listen;
    NetAddr addr;
    if (text.find(':') == std::string::npos)
        text = "127.0.0.1:" + text;
    if (text.size() > 255 || !SockResolveUri(&addr, text.c_str(), 0)) {
        fprintf(stderr, "orxrelay: %s is not an address to listen on\n", pRelay->pOptions->listen.c_str());
        return 0;
    }
    pRelay->fdListen = SockListenTcp(&addr);
    if (pRelay->fdListen < 0) {
        fprintf(stderr, "orxrelay: cannot listen on %s: %s\n", text.c_str(), strerror(errno));
        return 0;
    }
    if (!pRelay->pOptions->bQuiet)
        printf("open rtsp://%s/...\n", text.c_str());
    return 1;
}

int main(int argc, char **argv)
{
    RelayOptions options;
    int nExit = RelayParseOptions(argc, argv, &options);
    if (nExit >= 0)
        return nExit;
    setvbuf(stdout, nullptr, _IOLBF, 0);
    struct sigaction action {};
    action.sa_handler = OnSignal;
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    signal(SIGPIPE, SIG_IGN);
    Relay relay{&options};
    if (!Resolve(&relay))
        return RELAY_USAGE;
    if (enet_initialize() != 0)
        return RELAY_FAILED;
    if (options.bCheck)
        return Check(&relay);
    if (!Listen(&relay))
        return RELAY_USAGE;
    Run(&relay);
    SockClose(relay.fdListen);
    enet_deinitialize();
    return RELAY_OK;
}
