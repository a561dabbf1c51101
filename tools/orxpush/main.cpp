// orxpush: announces programs and feeds them from a file, at real-time pace or faster.
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <ctime>
#include <deque>

#include "options.h"
#include "program.h"
#include "source.h"

using namespace orx;

constexpr uint64_t kSecondUs = 1000000;
constexpr uint64_t kServeUs = 50000;  // how long a request of the server may wait
constexpr uint64_t kReportUs = 5 * kSecondUs;
constexpr uint64_t kAudioUs = 20000;

static volatile sig_atomic_t g_bStop = 0;  // set by the signal handler

static void OnSignal(int)
{
    g_bStop = 1;
}

struct Pusher {
    const PushOptions *pOptions;
    const PushSource *pSource;
    std::deque<PushProgram> programs{};
    uint64_t nStartUs = 0;                   // monotonic clock at media time 0
    uint64_t nUnits[PUSH_TRACK_KINDS] = {};  // units made due so far, by track
    uint64_t nNextReportUs = kReportUs;      // media time
    uint64_t nNextProgressUs = 0;            // monotonic clock
};

// When the next unit of a track is due, in media time.
static uint64_t NextUs(const Pusher *pPusher, int nKind)
{
    uint64_t nUnit = pPusher->nUnits[nKind];
    switch (nKind) {
        case PUSH_VIDEO:
            return static_cast<uint64_t>(static_cast<double>(nUnit) * kSecondUs / pPusher->pOptions->dFps);
        case PUSH_AUDIO:
            return pPusher->pOptions->audio.empty() ? UINT64_MAX : nUnit * kAudioUs;
        default:
            return pPusher->pOptions->nDataMs
                       ? nUnit * static_cast<uint64_t>(pPusher->pOptions->nDataMs) * 1000
                       : UINT64_MAX;
    }
}

static int IsOver(const Pusher *pPusher, uint64_t nMediaUs)
{
    if (pPusher->pOptions->dSeconds > 0)
        return static_cast<double>(nMediaUs) >= pPusher->pOptions->dSeconds * kSecondUs;
    return !pPusher->pOptions->bLoop && pPusher->nUnits[PUSH_VIDEO] >= PushPictureCount(pPusher->pSource);
}

static void ServeAll(Pusher *pPusher)
{
    for (PushProgram &program : pPusher->programs)
        PushProgramServe(&program);
}

static int RunningPrograms(const Pusher *pPusher)
{
    return static_cast<int>(std::count_if(pPusher->programs.begin(), pPusher->programs.end(),
                                          [](const PushProgram &program) { return !program.bFailed; }));
}

static void ShowProgress(Pusher *pPusher, uint64_t nMediaUs)
{
    uint64_t nNow = RtspNowUs();
    if (pPusher->pOptions->bQuiet || nNow < pPusher->nNextProgressUs)
        return;
    int bTerminal = isatty(STDERR_FILENO);
    pPusher->nNextProgressUs = nNow + (bTerminal ? 1 : 10) * kSecondUs;
    uint64_t nPackets = 0, nBytes = 0;
    for (const PushProgram &program : pPusher->programs) {
        nPackets += program.nPackets;
        nBytes += program.nBytes;
    }
    fprintf(stderr, "%s%.1f s: %d programs, %llu packets, %llu bytes%s", bTerminal ? "\r" : "",
            static_cast<double>(nMediaUs) / kSecondUs, RunningPrograms(pPusher),
            static_cast<unsigned long long>(nPackets), static_cast<unsigned long long>(nBytes),
            bTerminal ? "  " : "\n");
}

// Sleeps until a media time is due, answering the server meanwhile.
static void WaitUntil(Pusher *pPusher, uint64_t nMediaUs)
{
    ServeAll(pPusher);
    if (pPusher->pOptions->dSpeed <= 0)
        return;
    uint64_t nDueUs =
        pPusher->nStartUs + static_cast<uint64_t>(static_cast<double>(nMediaUs) / pPusher->pOptions->dSpeed);
    for (uint64_t nNow = RtspNowUs(); nNow < nDueUs && !g_bStop; nNow = RtspNowUs()) {
        uint64_t nPause = std::min(nDueUs - nNow, kServeUs);
        timespec pause{static_cast<time_t>(nPause / kSecondUs), static_cast<long>(nPause % kSecondUs * 1000)};
        nanosleep(&pause, nullptr);
        if (nDueUs - nNow > kServeUs)
            ServeAll(pPusher);
    }
}

static void Run(Pusher *pPusher)
{
    pPusher->nStartUs = RtspNowUs();
    pPusher->nNextProgressUs = pPusher->nStartUs + kSecondUs;
    while (!g_bStop && RunningPrograms(pPusher) > 0) {
        int nKind = PUSH_VIDEO;
        for (int i = 0; i < PUSH_TRACK_KINDS; i++)
            if (NextUs(pPusher, i) < NextUs(pPusher, nKind))
                nKind = i;
        uint64_t nMediaUs = NextUs(pPusher, nKind);
        if (IsOver(pPusher, nMediaUs))
            break;
        WaitUntil(pPusher, nMediaUs);
        for (PushProgram &program : pPusher->programs)
            PushProgramSend(&program, static_cast<PushTrackKind>(nKind), nMediaUs);
        pPusher->nUnits[nKind]++;
        if (pPusher->pOptions->bRtcp && nMediaUs >= pPusher->nNextReportUs) {
            pPusher->nNextReportUs += kReportUs;
            for (PushProgram &program : pPusher->programs)
                PushProgramReport(&program, nMediaUs);
        }
        ShowProgress(pPusher, nMediaUs);
    }
}

static int StartPrograms(Pusher *pPusher)
{
    int bGood = 1;
    for (int i = 0; i < pPusher->pOptions->nCount && !g_bStop; i++) {
        PushProgram *pProgram = &pPusher->programs.emplace_back();
        pProgram->bFailed =
            !PushProgramStart(pProgram, pPusher->pOptions, pPusher->pSource, pPusher->pOptions->nFirst + i);
        bGood &= !pProgram->bFailed;
    }
    return bGood;
}

int main(int argc, char **argv)
{
    PushOptions options;
    int nExit = PushParseOptions(argc, argv, &options);
    if (nExit >= 0)
        return nExit;
    PushSource source;
    if (!PushLoadSource(&options, &source))
        return PUSH_USAGE;
    signal(SIGINT, OnSignal);
    signal(SIGTERM, OnSignal);
    signal(SIGPIPE, SIG_IGN);
    Pusher pusher{&options, &source};
    if (!StartPrograms(&pusher))
        return PUSH_FAILED;
    printf("orxpush: %d program%s started\n", options.nCount, options.nCount == 1 ? "" : "s");
    fflush(stdout);
    Run(&pusher);
    uint64_t nPackets = 0, nBytes = 0;
    for (PushProgram &program : pusher.programs) {
        PushProgramStop(&program);
        nPackets += program.nPackets;
        nBytes += program.nBytes;
    }
    printf("orxpush: %llu packets, %llu bytes sent\n", static_cast<unsigned long long>(nPackets),
           static_cast<unsigned long long>(nBytes));
    return RunningPrograms(&pusher) == options.nCount ? PUSH_OK : PUSH_FAILED;
}
