// micro: what single steps cost, by Google Benchmark: the parser of requests, the scheduler, the profile store, the
// packetisers and the key-frame tests. Its --benchmark_filter=REGEX chooses some.
#include <benchmark/benchmark.h>

#include <atomic>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "base/console.h"
#include "base/inifile.h"
#include "record/codec.h"
#include "record/rtphelp.h"
#include "runtime/task.h"
#include "server/core/request.h"
#include "support/files.h"
#include "support/rtp.h"

using namespace orx;

// --- Requests ---

static const struct {
    const char *szName, *szText;
} g_requests[] = {
    {"OPTIONS", "OPTIONS rtsp://192.168.1.10:8554/cam1 RTSP/1.0\r\nCSeq: 2\r\nUser-Agent: player/1.0\r\n\r\n"},
    {"SETUP",
     "SETUP rtsp://192.168.1.10:8554/cam1/trackID=0 RTSP/1.0\r\nCSeq: 4\r\nUser-Agent: player/1.0\r\n"
     "Transport: RTP/AVP/TCP;unicast;interleaved=0-1\r\n\r\n"},
    {"PLAY with a password",
     "PLAY rtsp://192.168.1.10:8554/live/building%207/cam1/ RTSP/1.0\r\nCSeq: 6\r\nSession: 12345678\r\n"
     "Authorization: Digest username=\"viewer\", realm=\"cameras\", nonce=\"a3f5c2d0b1e84f6a9c7d5e3f1a2b4c6d\", "
     "uri=\"rtsp://192.168.1.10:8554/live/building%207/cam1/\", response=\"0123456789abcdef0123456789abcdef\"\r\n"
     "Range: npt=0.000-\r\nUser-Agent: player/1.0 (a name of some length)\r\n\r\n"},
};

static void Requests(benchmark::State &state)
{
    const auto &request = g_requests[state.range(0)];
    const size_t nLen = strlen(request.szText);
    Request parsed;
    RequestInit(&parsed);
    for (auto _ : state) {
        if (RequestParse(&parsed, request.szText, nLen) != 1)
            state.SkipWithError("not parsed");
        RequestReset(&parsed);
    }
    state.SetLabel(request.szName);
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(nLen));
}
BENCHMARK(Requests)->DenseRange(0, 2);

// --- The scheduler ---

// A timer is set and cancelled among so many others, as with every player that a socket blocks.
static void Timers(benchmark::State &state)
{
    const TaskProc pfnNever = [](Task *, uint32_t, uint32_t, uint32_t) { return -1; };
    Scheduler scheduler;
    SchedulerCreate(&scheduler);
    for (uint32_t i = 0; i < uint32_t(state.range(0)); i++)
        TaskSchedule(&scheduler, pfnNever, 3600000 + i * 7919 % 1000000, 0, nullptr);
    for (auto _ : state)
        TaskCancel(TaskSchedule(&scheduler, pfnNever, 4100000, 0, nullptr));
    SchedulerDestroy(&scheduler);
}
BENCHMARK(Timers)->Arg(0)->Arg(100)->Arg(1000)->Arg(8000);

// A burst of tasks with delay 0, as of sockets that can be read, until the last has run.
static void Bursts(benchmark::State &state)
{
    std::atomic<int64_t> nRuns{0};
    const TaskProc pfnCount = [](Task *pTask, uint32_t, uint32_t, uint32_t) {
        ++*static_cast<std::atomic<int64_t> *>(TaskArgument(pTask));
        return -1;
    };
    Scheduler scheduler;
    SchedulerCreate(&scheduler);
    for (auto _ : state) {
        nRuns = 0;
        SchedulerCork(&scheduler, 1);
        for (int64_t i = 0; i < state.range(0); i++)
            TaskSchedule(&scheduler, pfnCount, 0, 0, &nRuns);
        SchedulerCork(&scheduler, 0);
        while (nRuns < state.range(0))
            std::this_thread::yield();
    }
    SchedulerDestroy(&scheduler);
    state.SetItemsProcessed(int64_t(state.iterations()) * state.range(0));
}
BENCHMARK(Bursts)->Arg(1)->Arg(100)->Arg(1000)->UseRealTime();

// --- The profile store ---

// So many keys in front of the one that is asked for, from memory and from the file.
static std::string ProfileText(int64_t nKeys)
{
    std::string text = "[FIRST]\nA=1\n[SECTION]\n";
    for (int64_t i = 0; i < nKeys; i++)
        text += "Key" + std::to_string(i) + "=some value\n";
    return text + "Wanted=7\n";
}

static void ProfileMemory(benchmark::State &state)
{
    TempDir dir;
    WriteFile(dir.File("x.ini"), ProfileText(state.range(0)));
    Profile *pProfile = ProfileInit(dir.File("x.ini").c_str());
    for (auto _ : state)
        if (ProfileGetInt("SECTION", "Wanted", 0, pProfile) != 7)
            state.SkipWithError("not found");
    ProfileFree(pProfile);
}
BENCHMARK(ProfileMemory)->Arg(10)->Arg(100)->Arg(1000);

static void ProfileFile(benchmark::State &state)
{
    TempDir dir;
    const std::string path = dir.File("x.ini");
    WriteFile(path, ProfileText(state.range(0)));
    for (auto _ : state)
        if (read_profile_int("SECTION", "Wanted", 0, path.c_str()) != 7)
            state.SkipWithError("not found");
}
BENCHMARK(ProfileFile)->Arg(10)->Arg(100);

static void ProfileWrite(benchmark::State &state)
{
    TempDir dir;
    const std::string path = dir.File("x.ini");
    WriteFile(path, ProfileText(state.range(0)));
    int nValue = 0;
    for (auto _ : state)
        write_profile_int("SECTION", "Wanted", nValue++, path.c_str());
}
BENCHMARK(ProfileWrite)->Arg(100);

// --- Packetisers ---

struct Player {
    RtpTrack track;
    RtpOut out;
    std::string scratch = std::string(kMinScratch, 0);

    explicit Player(uint32_t nTimeScale)
    {
        track.bSetUp = 1;
        track.nTimeScale = nTimeScale;
        out.bInterleaved = 1;
        out.pScratch = reinterpret_cast<uint8_t *>(scratch.data());
        out.nScratch = kMinScratch;
        out.nTracks = 1;
        out.tracks[0] = &track;
    }
    ~Player() { QueueEmpty(&out.Outq); }
};

static std::string Unit(const std::string &head, size_t nBytes)
{
    return Be(uint32_t(nBytes) + 2, 2) + head + Pattern(nBytes - head.size(), 1);
}

static const struct {
    const char *szName;
    PackProc pfnPack;
    uint32_t nTimeScale;
    std::string sample;
} g_samples[] = {
    {"H.264, 40 kB", Pack2Rtp264Block, 90000, Unit("\x67", 20) + Unit("\x68", 6) + Unit("\x65", 40000)},
    {"H.264, 4 slices of 1 kB", Pack2Rtp264Block, 90000,
     Unit("\x41", 1000) + Unit("\x41", 1000) + Unit("\x41", 1000) + Unit("\x41", 1000)},
    {"H.265, 40 kB", Pack2Rtp265Block, 90000, Unit("\x26\x01", 40000)},
    {"AAC, 400 bytes", Pack2RtpAacBlock, 48000, Be(402, 2) + Pattern(400, 1)},
    {"G.711, 1 s", Pack2RtpG711Block, 8000, Pattern(8000, 1)},
};

static void Packetisers(benchmark::State &state)
{
    const auto &sample = g_samples[state.range(0)];
    Player player(sample.nTimeScale);
    uint32_t nTimeMs = 0;
    int64_t nPackets = 0;
    for (auto _ : state) {
        const uint32_t nNew = sample.pfnPack(&player.out, reinterpret_cast<const uint8_t *>(sample.sample.data()),
                                             uint32_t(sample.sample.size()), nTimeMs += 40, 0);
        if (nNew == 0)
            state.SkipWithError("not packed");
        nPackets += nNew;
        QueueEmpty(&player.out.Outq);
    }
    state.SetLabel(sample.szName);
    state.SetItemsProcessed(nPackets);
}
BENCHMARK(Packetisers)->DenseRange(0, int(std::size(g_samples)) - 1);

// --- Key-frame tests ---

static const struct {
    const char *szName;
    KeyFrameProc pfnIsKey;
    std::string payload;
} g_payloads[] = {
    {"H.264 fragment", IsKeyH264, std::string("\x7C\x01", 2)},
    {"H.264 aggregate of four", IsKeyH264, std::string("\x18\0\2\x09\x30\0\2\x06\1\0\2\x06\1\0\2\x41\1", 17)},
    {"H.265 fragment", IsKeyH265, std::string("\x62\x01\x01", 3)},
    {"JPEG", IsKeyJpeg, std::string("\0\0\5\xB4\1\xFF\x28\x1E", 8)},
    {"any other", IsKeyGeneric, "xxxx"},
};

static void KeyTests(benchmark::State &state)
{
    const auto &test = g_payloads[state.range(0)];
    const std::string payload = test.payload + Pattern(1380, 1);
    const std::string packet = MakeRtp({}, payload);
    KeyWatch watch;
    for (auto _ : state) {
        RtpPacket parsed;
        benchmark::DoNotOptimize(
            RtpPacketParse(reinterpret_cast<const uint8_t *>(packet.data()), uint32_t(packet.size()), &parsed) &&
            test.pfnIsKey(&watch, &parsed));
    }
    state.SetLabel(test.szName);
}
BENCHMARK(KeyTests)->DenseRange(0, int(std::size(g_payloads)) - 1);

int main(int argc, char **argv)
{
    ConsoleSetDaemon(1);
    ThreadAllowNoPriority(1);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 2;
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
