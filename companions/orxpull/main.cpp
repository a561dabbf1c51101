// orxpull: cameras that are servers become programs of Orx.
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <string>
#include <vector>

#include "base/assertion.h"
#include "base/console.h"
#include "cli/options.h"
#include "orxpull/discover.h"
#include "orxpull/options.h"
#include "orxpull/probe.h"
#include "orxpull/source.h"
#include "shared/link.h"

using namespace orx;

constexpr uint64_t kApartMs = 10;  // between two sources as they begin: nobody is asked by all at once
constexpr uint64_t kLookMs = 20;   // between two looks at who still takes leave

struct Puller {
    Loop *pLoop = nullptr;
    PullSettings settings;
    std::vector<Source *> sources;
    LoopWatch signals;
    LoopTimer look;
};

// The first signal takes leave of all, a second one waits for nothing.
static void OnSignal(void *pUser, uint32_t)
{
    auto *pPuller = static_cast<Puller *>(pUser);
    signalfd_siginfo info;
    if (read(pPuller->signals.fd, &info, sizeof info) != sizeof info)
        return;
    for (Source *pSource : pPuller->sources)
        SourceStop(pSource);
    pPuller->sources.clear();
    LoopStop(pPuller->pLoop);
}

static void OnLook(void *pUser)
{
    auto *pPuller = static_cast<Puller *>(pUser);
    if (LinksLeaving() > 0)
        LoopSetTimer(pPuller->pLoop, &pPuller->look, kLookMs);
    else
        LoopStop(pPuller->pLoop);
}

// What was said at the end is to arrive.
static void TakeLeave(Puller *pPuller)
{
    pPuller->look.pfnDue = OnLook;
    pPuller->look.pUser = pPuller;
    LoopSetTimer(pPuller->pLoop, &pPuller->look, 0);
    LoopRun(pPuller->pLoop);
    LoopClearTimer(pPuller->pLoop, &pPuller->look);
}

static int WatchSignals(Puller *pPuller, const sigset_t *pSignals)
{
    pPuller->signals.fd = signalfd(-1, pSignals, SFD_NONBLOCK | SFD_CLOEXEC);
    pPuller->signals.pfnReady = OnSignal;
    pPuller->signals.pUser = pPuller;
    return pPuller->signals.fd >= 0 && LoopSetWatch(pPuller->pLoop, &pPuller->signals, EPOLLIN);
}

// A camera over UDP takes six descriptors.
static void RaiseDescriptors()
{
    rlimit limit;
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0) {
        limit.rlim_cur = limit.rlim_max;
        setrlimit(RLIMIT_NOFILE, &limit);
    }
}

// Returns OPTIONS_GO_ON, or the exit code.
static int ReadSettings(const PullOptions *pOptions, PullSettings *pOut)
{
    PullDoubts doubts;
    std::string config = PullConfigPath(pOptions->config);
    int bRead = PullSettingsRead(config, pOut, &doubts);
    for (const std::string &doubt : doubts)
        fprintf(stderr, "orxpull: %s\n", doubt.c_str());
    pOut->pinFile = config.substr(0, config.rfind('/') + 1) + "orxpull.pins";
    if (!pOptions->one.url.empty())
        pOut->sources.assign(1, pOptions->one);
    else if (!bRead)
        return PULL_FAILED;
    if (!pOut->sources.empty())
        return OPTIONS_GO_ON;
    fprintf(stderr, "orxpull: no source is listed in [PULL]\n");
    return doubts.empty() ? PULL_OK : PULL_FAILED;
}

static int Pull(Puller *pPuller, const sigset_t *pSignals)
{
    if (!WatchSignals(pPuller, pSignals)) {
        perror("orxpull");
        return PULL_FAILED;
    }
    RaiseDescriptors();
    uint64_t nDelayMs = 0;
    for (const PullSource &source : pPuller->settings.sources) {
        pPuller->sources.push_back(SourceStart(pPuller->pLoop, &pPuller->settings, &source, nDelayMs));
        nDelayMs += kApartMs;
    }
    LoopRun(pPuller->pLoop);
    return PULL_OK;
}

static int Run(const PullOptions *pOptions, const sigset_t *pSignals)
{
    Puller puller;
    int nExit = pOptions->task == PullTask::Pull ? ReadSettings(pOptions, &puller.settings) : OPTIONS_GO_ON;
    if (nExit != OPTIONS_GO_ON)
        return nExit;
    puller.pLoop = LoopOpen();
    if (!puller.pLoop) {
        perror("orxpull");
        return PULL_FAILED;
    }
    nExit = pOptions->task == PullTask::Probe      ? ProbeRun(puller.pLoop, &pOptions->one)
            : pOptions->task == PullTask::Discover ? DiscoverRun(puller.pLoop)
                                                   : Pull(&puller, pSignals);
    TakeLeave(&puller);
    LoopClose(puller.pLoop);
    return nExit;
}

int main(int argc, char **argv)
{
    PullOptions options;
    int nExit = PullParseOptions(argc, argv, &options);
    if (nExit != OPTIONS_GO_ON)
        return nExit;
    signal(SIGPIPE, SIG_IGN);
    ConsoleSetDaemon(1);  // the library's own messages are for the server's console
    AssertSurvivePeerFaults(1);
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGINT);
    if (options.task == PullTask::Pull)  // before threads begin, which take it over
        sigprocmask(SIG_BLOCK, &signals, nullptr);
    return Run(&options, &signals);
}
