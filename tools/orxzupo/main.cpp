// orxzupo: the rendezvous server that boxes behind NAT register with.
#include <arpa/inet.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>

#include "options.h"
#include "rendezvous.h"
#include "runtime/clock.h"
#include "runtime/sockutil.h"

using namespace orx;

constexpr int kWaitMs = 100;

// Set by the signal handler.
static volatile sig_atomic_t g_bStop = 0;
static volatile sig_atomic_t g_bReload = 0;

static void OnSignal(int nSignal)
{
    if (nSignal == SIGHUP)
        g_bReload = 1;
    else
        g_bStop = 1;
}

static void CatchSignals()
{
    struct sigaction action {};
    action.sa_handler = OnSignal;
    for (int nSignal : {SIGINT, SIGTERM, SIGHUP})
        sigaction(nSignal, &action, nullptr);
    signal(SIGPIPE, SIG_IGN);
}

// Opens the host. Returns 1, or 0 (told).
static int Listen(Rendezvous *pServer, const ZupoOptions &options)
{
    ENetAddress address{ENET_HOST_ANY, static_cast<uint16_t>(options.nPort)};
    in_addr ip{};
    if (!options.ip.empty() && inet_pton(AF_INET, options.ip.c_str(), &ip) != 1) {
        fprintf(stderr, "orxzupo: %s is no IPv4 address\n", options.ip.c_str());
        return 0;
    }
    address.host = ip.s_addr;
    pServer->pHost = enet_host_create(&address, static_cast<size_t>(options.nMaxPeers), 1, 0, 0);
    if (!pServer->pHost ||
        !UnetGateInit(&pServer->gate, pServer->pHost, 0, static_cast<uint32_t>(options.nPerAddress))) {
        fprintf(stderr, "orxzupo: cannot listen on UDP port %d: %s\n", options.nPort, strerror(errno));
        return 0;
    }
    pServer->pHost->maximumPacketSize = pServer->pHost->maximumWaitingData = 4096;
    NetAddr local;
    char szLocal[kAddrTextSize];
    SockGetLocalName(pServer->pHost->socket, &local);
    SockAddrToString(&local, szLocal);
    printf("listening on %s\n", szLocal);
    return 1;
}

// Takes the commands that came on standard input. Returns 0 when nothing more will come.
static int ReadCommands(const Rendezvous *pServer, std::string *pLine)
{
    char buffer[256];
    ssize_t nRead = read(STDIN_FILENO, buffer, sizeof(buffer));
    if (nRead <= 0)
        return nRead < 0 && errno == EINTR;
    for (const char *p = buffer; p < buffer + nRead; p++) {
        if (*p != '\n') {
            *pLine += *p;
            continue;
        }
        if (*pLine == "list")
            RendezvousList(pServer);
        else if (*pLine == "quit" || *pLine == "q")
            g_bStop = 1;
        else if (!pLine->empty())
            printf("commands: list, quit\n");
        pLine->clear();
    }
    return 1;
}

static void Reload(Rendezvous *pServer, const std::string &path)
{
    g_bReload = 0;
    if (path.empty())
        return;
    if (RefusalsLoad(path, &pServer->refusals))
        RendezvousApplyRefusals(pServer);
    else
        fprintf(stderr, "orxzupo: cannot read %s, keeping the former list\n", path.c_str());
}

static void Run(Rendezvous *pServer, const ZupoOptions &options)
{
    pollfd polls[2] = {{pServer->pHost->socket, POLLIN, 0}, {STDIN_FILENO, POLLIN, 0}};
    nfds_t nPolls = 2;
    std::string line;
    uint32_t nExpired = ClockUptime();
    while (!g_bStop) {
        int nReady = poll(polls, nPolls, kWaitMs);
        RendezvousService(pServer);
        if (nReady > 0 && nPolls == 2 && polls[1].revents && !ReadCommands(pServer, &line))
            nPolls = 1;
        if (g_bReload)
            Reload(pServer, options.refusals);
        if (ClockUptime() != nExpired)
            RendezvousExpire(pServer);
        nExpired = ClockUptime();
    }
}

int main(int argc, char **argv)
{
    ZupoOptions options;
    int nExit = ZupoParseOptions(argc, argv, &options);
    if (nExit >= 0)
        return nExit;
    setvbuf(stdout, nullptr, _IOLBF, 0);
    CatchSignals();
    Rendezvous server;
    server.bQuiet = options.bQuiet;
    if (!options.refusals.empty() && !RefusalsLoad(options.refusals, &server.refusals)) {
        fprintf(stderr, "orxzupo: cannot read %s: %s\n", options.refusals.c_str(), strerror(errno));
        return ZUPO_EXIT_USAGE;
    }
    if (enet_initialize() != 0 || !Listen(&server, options))
        return ZUPO_EXIT_FAILED;
    Run(&server, options);
    for (const auto &entry : server.parties)
        enet_peer_disconnect_now(entry.first, 0);  // so that boxes need not wait to notice
    enet_host_destroy(server.pHost);
    UnetGateFree(&server.gate);
    enet_deinitialize();
    return ZUPO_EXIT_OK;
}
