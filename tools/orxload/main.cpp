// orxload: opens many players of one or several programs and says what reached them. One epoll loop.
#include <sys/epoll.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <deque>
#include <memory>

#include "cli/options.h"
#include "orxload/player.h"
#include "orxload/process.h"
#include "orxload/report.h"

using namespace orx;

constexpr uint64_t kSecondUs = 1000000;
constexpr int kEvents = 256;
constexpr int kMessagesShown = 3;
constexpr uint64_t kSources =
    2 * kLoadTracks + 1;  // what one player may wait on: the connection, pairs of sockets

static volatile sig_atomic_t g_bStop = 0;  // set by the signal handler

static void OnSignal(int)
{
    g_bStop = 1;
}

struct Load {
    const LoadOptions *pOptions;
    int fdEpoll = -1;
    std::deque<LoadPlayer> players{};
    std::deque<PacketDump> dumps{};  // one for each program
    LoadGroup groups[3] = {{"tcp", RTSP_OVER_TCP}, {"udp", RTSP_OVER_UDP}, {"tunnel", RTSP_OVER_TUNNEL}};
    LoadServer server{};
    int nDropped = 0;
    size_t nStarted = 0;      // players whose PLAY was sent
    uint64_t nStartUs = 0;    // the first PLAY
    uint64_t nMeasureUs = 0;  // the begin of the measured time; 0: not yet
    uint64_t nCpuUs = 0;      // of the server, then
    uint64_t nProgressUs = 0;
};

static void AddPlayers(Load *pLoad, RtspTransport transport, int nPlayers, int bStalled)
{
    for (int i = 0; i < nPlayers; i++) {
        LoadPlayer *pPlayer = &pLoad->players.emplace_back();
        pPlayer->transport = transport;
        pPlayer->bStalled = bStalled;
        pPlayer->pLatency = &pLoad->groups[transport].latency;
    }
}

static int OpenDumps(Load *pLoad)
{
    const LoadOptions *pOptions = pLoad->pOptions;
    for (int i = 0; i < pOptions->nPrograms && !pOptions->verify.empty(); i++) {
        std::string path = WithNumber(pOptions->verify, pOptions->nFirst + i);
        if (!PacketDumpOpen(&pLoad->dumps.emplace_back(), path.c_str())) {
            fprintf(stderr, "orxload: %s cannot be read\n", path.c_str());
            return 0;
        }
    }
    return 1;
}

static void OpenPlayers(Load *pLoad)
{
    const LoadOptions *pOptions = pLoad->pOptions;
    int nShown = 0, nNumber = 0;
    for (LoadPlayer &player : pLoad->players) {
        int nProgram = nNumber++ % pOptions->nPrograms;
        if (!pLoad->dumps.empty())
            player.pDump = &pLoad->dumps[static_cast<size_t>(nProgram)];
        std::string url = WithNumber(pOptions->url, pOptions->nFirst + nProgram);
        if (!g_bStop && !LoadPlayerOpen(&player, pOptions, url) && nShown++ < kMessagesShown)
            fprintf(stderr, "orxload: player %d: %s\n", nNumber, player.client.error.c_str());
    }
}

static void Watch(Load *pLoad, int fd, size_t nPlayer, size_t nSource)
{
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.u64 = nPlayer * kSources + nSource;
    if (fd >= 0)
        epoll_ctl(pLoad->fdEpoll, EPOLL_CTL_ADD, fd, &event);
}

static void WatchPlayer(Load *pLoad, size_t nPlayer)
{
    LoadPlayer *pPlayer = &pLoad->players[nPlayer];
    Watch(pLoad, pPlayer->client.fd, nPlayer, 0);
    for (size_t i = 0; i < pPlayer->client.tracks.size() && i < kLoadTracks; i++) {
        Watch(pLoad, pPlayer->client.tracks[i].udp.fdRtp, nPlayer, 2 * i + 1);
        Watch(pLoad, pPlayer->client.tracks[i].udp.fdRtcp, nPlayer, 2 * i + 2);
    }
}

static void Drop(Load *pLoad, LoadPlayer *pPlayer)
{
    if (pLoad->nDropped++ < kMessagesShown)
        fprintf(stderr, "orxload: a player was lost: %s\n", pPlayer->client.error.c_str());
    epoll_ctl(pLoad->fdEpoll, EPOLL_CTL_DEL, pPlayer->client.fd, nullptr);
}

// Sends the PLAY of those whose turn has come.
static void StartDue(Load *pLoad, uint64_t nNowUs)
{
    size_t nDue = pLoad->players.size();
    if (pLoad->pOptions->nRamp)
        nDue = std::min<size_t>(
            nDue, (nNowUs - pLoad->nStartUs) * static_cast<uint64_t>(pLoad->pOptions->nRamp) / kSecondUs + 1);
    for (; pLoad->nStarted < nDue; pLoad->nStarted++) {
        LoadPlayer *pPlayer = &pLoad->players[pLoad->nStarted];
        if (pPlayer->state != LOAD_READY)
            continue;
        LoadPlayerStart(pPlayer);
        if (!pPlayer->bStalled)
            WatchPlayer(pLoad, pLoad->nStarted);
    }
}

static void Handle(Load *pLoad, uint64_t nKey)
{
    LoadPlayer *pPlayer = &pLoad->players[nKey / kSources];
    size_t nSource = nKey % kSources;
    if (nSource == 0) {
        LoadPlayerReadStream(pPlayer);
        if (pPlayer->state == LOAD_FAILED || pPlayer->state == LOAD_CUT)
            Drop(pLoad, pPlayer);
        return;
    }
    const RtspUdpPair *pPair = &pPlayer->client.tracks[(nSource - 1) / 2].udp;
    int bRtcp = nSource % 2 == 0;
    LoadPlayerReadDatagrams(pPlayer, bRtcp ? pPair->fdRtcp : pPair->fdRtp, bRtcp);
}

static void BeginMeasuring(Load *pLoad, uint64_t nNowUs)
{
    pLoad->nMeasureUs = nNowUs;
    pLoad->nCpuUs = pLoad->pOptions->nWatchPid ? ProcessCpuUs(pLoad->pOptions->nWatchPid) : 0;
    for (LoadPlayer &player : pLoad->players) {
        player.bMeasuring = 1;
        player.atStart = player.counts;
    }
}

static void EndMeasuring(Load *pLoad)
{
    int nPid = pLoad->pOptions->nWatchPid;
    uint64_t nCpuUs = nPid && pLoad->nMeasureUs ? ProcessCpuUs(nPid) : 0;
    pLoad->server.nKb = nPid ? ProcessResidentKb(nPid) : 0;
    if (nCpuUs > pLoad->nCpuUs)
        pLoad->server.dCpuSeconds =
            static_cast<double>(nCpuUs - pLoad->nCpuUs) / static_cast<double>(kSecondUs);
    else if (nPid)
        fprintf(stderr, "orxload: process %d was not there all the time\n", nPid);
}

static void ShowProgress(Load *pLoad, uint64_t nNowUs)
{
    if (pLoad->pOptions->bQuiet || nNowUs < pLoad->nProgressUs)
        return;
    int bTerminal = isatty(STDERR_FILENO);
    pLoad->nProgressUs = nNowUs + (bTerminal ? 1 : 10) * kSecondUs;
    LoadCounts sum;
    int nPlaying = 0;
    for (const LoadPlayer &player : pLoad->players) {
        nPlaying += player.state == LOAD_PLAYING;
        sum.nPackets += player.counts.nPackets;
        sum.nLost += player.counts.nLost;
        sum.nWrong += player.counts.nWrong;
    }
    fprintf(stderr, "%s%.1f s: %d players, %llu packets, %llu lost, %llu wrong%s", bTerminal ? "\r" : "",
            static_cast<double>(nNowUs - pLoad->nStartUs) / kSecondUs, nPlaying,
            static_cast<unsigned long long>(sum.nPackets), static_cast<unsigned long long>(sum.nLost),
            static_cast<unsigned long long>(sum.nWrong), bTerminal ? "  " : "\n");
}

static void Tick(Load *pLoad, LoadPlayer *pPlayer, uint64_t nNowUs)
{
    LoadState before = pPlayer->state;
    LoadPlayerTick(pPlayer, pLoad->pOptions, nNowUs);
    if (pPlayer->state != before)
        Drop(pLoad, pPlayer);
}

static int IsAnyAlive(const Load *pLoad)
{
    return std::any_of(pLoad->players.begin(), pLoad->players.end(),
                       [](const LoadPlayer &player) { return player.state < LOAD_FAILED; });
}

static void Run(Load *pLoad)
{
    const LoadOptions *pOptions = pLoad->pOptions;
    pLoad->nStartUs = RtspNowUs();
    pLoad->nProgressUs = pLoad->nStartUs + kSecondUs;
    uint64_t nTickUs = 0, nAllStartedUs = 0;
    while (!g_bStop) {
        uint64_t nNowUs = RtspNowUs();
        if (pLoad->nStarted < pLoad->players.size())
            StartDue(pLoad, nNowUs);
        else if (!nAllStartedUs)
            nAllStartedUs = nNowUs;
        if (nAllStartedUs && !pLoad->nMeasureUs &&
            static_cast<double>(nNowUs - nAllStartedUs) >= pOptions->dWarmup * kSecondUs)
            BeginMeasuring(pLoad, nNowUs);
        if (pLoad->nMeasureUs &&
            static_cast<double>(nNowUs - pLoad->nMeasureUs) >= pOptions->dSeconds * kSecondUs)
            return;
        epoll_event events[kEvents];
        int n = epoll_wait(pLoad->fdEpoll, events, kEvents, nAllStartedUs ? 50 : 1);
        for (int i = 0; i < n; i++)
            Handle(pLoad, events[i].data.u64);
        if (nNowUs >= nTickUs) {
            nTickUs = nNowUs + kSecondUs / 4;
            for (LoadPlayer &player : pLoad->players)
                Tick(pLoad, &player, nNowUs);
            ShowProgress(pLoad, nNowUs);
            if (!IsAnyAlive(pLoad))
                return;
        }
    }
}

static void StopPlayers(Load *pLoad)
{
    for (LoadPlayer &player : pLoad->players) {
        if (player.state == LOAD_PLAYING || player.state == LOAD_STARTED)
            RtspSend(&player.client, "TEARDOWN", nullptr, nullptr, std::string(), 100);
        RtspClose(&player.client);
    }
}

static void RaiseFileLimit()
{
    rlimit limit;
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0)
        return;
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
}

int main(int argc, char **argv)
{
    LoadOptions options;
    int nExit = LoadParseOptions(argc, argv, &options);
    if (nExit >= 0)
        return nExit;
    signal(SIGINT, OnSignal);
    signal(SIGTERM, OnSignal);
    signal(SIGPIPE, SIG_IGN);
    RaiseFileLimit();
    auto load = std::make_unique<Load>(Load{&options});
    load->fdEpoll = epoll_create1(EPOLL_CLOEXEC);
    if (load->fdEpoll < 0 || !OpenDumps(load.get()))
        return LOAD_USAGE;
    if (options.nWatchPid)
        load->server.nIdleKb = ProcessResidentKb(options.nWatchPid);
    AddPlayers(load.get(), RTSP_OVER_TCP, options.nTcp, 0);
    AddPlayers(load.get(), RTSP_OVER_UDP, options.nUdp, 0);
    AddPlayers(load.get(), RTSP_OVER_TUNNEL, options.nTunnel, 0);
    AddPlayers(load.get(), RTSP_OVER_TCP, options.nStalled, 1);
    OpenPlayers(load.get());
    Run(load.get());
    double dSeconds =
        load->nMeasureUs ? static_cast<double>(RtspNowUs() - load->nMeasureUs) / kSecondUs : options.dSeconds;
    EndMeasuring(load.get());
    for (LoadGroup &group : load->groups)
        LoadSumUp(&group, load->players);
    LoadPrint(&options, load->groups, 3, &load->server, dSeconds);
    StopPlayers(load.get());
    close(load->fdEpoll);
    return LoadJudge(&options, load->groups, 3);
}
