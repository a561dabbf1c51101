#include "orxload/report.h"

#include <cstdio>

namespace orx {

void LoadSumUp(LoadGroup *pGroup, const std::deque<LoadPlayer> &players)
{
    for (const LoadPlayer &player : players) {
        if (player.transport != pGroup->transport || player.bStalled)
            continue;
        int bStarted = player.state == LOAD_PLAYING || player.state == LOAD_CUT;
        pGroup->nPlayers++;
        pGroup->nFailed += !bStarted;
        pGroup->nCut += player.state == LOAD_CUT;
        pGroup->nNoPicture += bStarted && !player.nFirstPictureUs;
        pGroup->nNoKeyStart += player.nFirstPictureUs && !player.bKeyStart;
        if (player.nFirstPictureUs)
            HistogramAdd(&pGroup->firstPicture, player.nFirstPictureUs);
        pGroup->counts.nPackets += player.counts.nPackets - player.atStart.nPackets;
        pGroup->counts.nBytes += player.counts.nBytes - player.atStart.nBytes;
        pGroup->counts.nReports += player.counts.nReports - player.atStart.nReports;
        pGroup->counts.nLost += player.counts.nLost;
        pGroup->counts.nLate += player.counts.nLate;
        pGroup->counts.nWrong += player.counts.nWrong;
    }
}

static double Ms(const Histogram *pHistogram, double dShare)
{
    return static_cast<double>(HistogramAt(pHistogram, dShare)) / 1000;
}

static void PrintGroup(const LoadGroup *pGroup, double dSeconds)
{
    const LoadCounts *p = &pGroup->counts;
    printf("%-7s %7d %6d %5d %9llu %9.1f %6llu %6llu %6llu  %7.1f %7.1f  %7.2f %7.2f %7.2f %8.2f\n",
           pGroup->szName, pGroup->nPlayers, pGroup->nFailed + pGroup->nNoPicture, pGroup->nCut,
           static_cast<unsigned long long>(p->nPackets), static_cast<double>(p->nBytes) * 8 / 1e6 / dSeconds,
           static_cast<unsigned long long>(p->nLost), static_cast<unsigned long long>(p->nLate),
           static_cast<unsigned long long>(p->nWrong), Ms(&pGroup->firstPicture, 0.5),
           Ms(&pGroup->firstPicture, 1), Ms(&pGroup->latency, 0.5), Ms(&pGroup->latency, 0.9),
           Ms(&pGroup->latency, 0.99), Ms(&pGroup->latency, 1));
}

static void PrintJsonGroup(const LoadGroup *pGroup)
{
    const LoadCounts *p = &pGroup->counts;
    printf(
        "\"%s\":{\"players\":%d,\"failed\":%d,\"cut\":%d,\"no_picture\":%d,\"no_key_start\":%d,\"packets\":%"
        "llu,"
        "\"bytes\":%llu,\"rtcp\":%llu,\"lost\":%llu,\"late\":%llu,\"wrong\":%llu,"
        "\"first_picture_ms\":{\"p50\":%.2f,\"p99\":%.2f,\"max\":%.2f},"
        "\"latency_ms\":{\"count\":%llu,\"p50\":%.3f,\"p90\":%.3f,\"p99\":%.3f,\"max\":%.3f}}",
        pGroup->szName, pGroup->nPlayers, pGroup->nFailed, pGroup->nCut, pGroup->nNoPicture,
        pGroup->nNoKeyStart, static_cast<unsigned long long>(p->nPackets),
        static_cast<unsigned long long>(p->nBytes), static_cast<unsigned long long>(p->nReports),
        static_cast<unsigned long long>(p->nLost), static_cast<unsigned long long>(p->nLate),
        static_cast<unsigned long long>(p->nWrong), Ms(&pGroup->firstPicture, 0.5),
        Ms(&pGroup->firstPicture, 0.99), Ms(&pGroup->firstPicture, 1),
        static_cast<unsigned long long>(pGroup->latency.nTotal), Ms(&pGroup->latency, 0.5),
        Ms(&pGroup->latency, 0.9), Ms(&pGroup->latency, 0.99), Ms(&pGroup->latency, 1));
}

static void AddGroup(LoadGroup *pTotal, const LoadGroup *pGroup)
{
    pTotal->nPlayers += pGroup->nPlayers;
    pTotal->nFailed += pGroup->nFailed;
    pTotal->nCut += pGroup->nCut;
    pTotal->nNoPicture += pGroup->nNoPicture;
    pTotal->nNoKeyStart += pGroup->nNoKeyStart;
    pTotal->counts.nPackets += pGroup->counts.nPackets;
    pTotal->counts.nBytes += pGroup->counts.nBytes;
    pTotal->counts.nReports += pGroup->counts.nReports;
    pTotal->counts.nLost += pGroup->counts.nLost;
    pTotal->counts.nLate += pGroup->counts.nLate;
    pTotal->counts.nWrong += pGroup->counts.nWrong;
    HistogramMerge(&pTotal->latency, &pGroup->latency);
    HistogramMerge(&pTotal->firstPicture, &pGroup->firstPicture);
}

static double CpuPerGigabyte(const LoadGroup *pTotal, const LoadServer *pServer)
{
    return pTotal->counts.nBytes ? pServer->dCpuSeconds * 1e9 / static_cast<double>(pTotal->counts.nBytes)
                                 : 0;
}

static double KbPerPlayer(const LoadGroup *pTotal, const LoadServer *pServer)
{
    double dMore = static_cast<double>(pServer->nKb) - static_cast<double>(pServer->nIdleKb);
    return pTotal->nPlayers ? dMore / pTotal->nPlayers : 0;
}

static void PrintTable(const LoadOptions *pOptions, const LoadGroup *pGroups, int nGroups,
                       const LoadGroup *pTotal, const LoadServer *pServer, double dSeconds)
{
    printf("%-7s %7s %6s %5s %9s %9s %6s %6s %6s  %15s  %32s\n", "", "players", "failed", "cut", "packets",
           "Mbit/s", "lost", "late", "wrong", "first picture ms", "latency ms");
    printf("%-7s %7s %6s %5s %9s %9s %6s %6s %6s  %7s %7s  %7s %7s %7s %8s\n", "", "", "", "", "", "", "", "",
           "", "p50", "max", "p50", "p90", "p99", "max");
    for (int i = 0; i < nGroups; i++)
        if (pGroups[i].nPlayers)
            PrintGroup(&pGroups[i], dSeconds);
    PrintGroup(pTotal, dSeconds);
    if (pTotal->nNoKeyStart)
        printf("%d players did not start at a key frame\n", pTotal->nNoKeyStart);
    if (pOptions->nWatchPid)
        printf(
            "server: %.3f s of processor time, %.3f s per gigabyte; %llu kB resident, %.1f kB per player\n",
            pServer->dCpuSeconds, CpuPerGigabyte(pTotal, pServer),
            static_cast<unsigned long long>(pServer->nKb), KbPerPlayer(pTotal, pServer));
}

void LoadPrint(const LoadOptions *pOptions, const LoadGroup *pGroups, int nGroups, const LoadServer *pServer,
               double dSeconds)
{
    LoadGroup total{"total", RTSP_OVER_TCP};
    for (int i = 0; i < nGroups; i++)
        AddGroup(&total, &pGroups[i]);
    if (!pOptions->bJson)
        PrintTable(pOptions, pGroups, nGroups, &total, pServer, dSeconds);
    printf("{\"seconds\":%.3f,", dSeconds);
    for (int i = 0; i < nGroups; i++) {
        PrintJsonGroup(&pGroups[i]);
        fputs(",", stdout);
    }
    PrintJsonGroup(&total);
    printf(
        ",\"server\":{\"cpu_s\":%.4f,\"cpu_s_per_gb\":%.4f,\"idle_kb\":%llu,\"kb\":%llu,\"kb_per_player\":%."
        "1f}}\n",
        pServer->dCpuSeconds, CpuPerGigabyte(&total, pServer),
        static_cast<unsigned long long>(pServer->nIdleKb), static_cast<unsigned long long>(pServer->nKb),
        KbPerPlayer(&total, pServer));
    fflush(stdout);
}

int LoadJudge(const LoadOptions *pOptions, const LoadGroup *pGroups, int nGroups)
{
    LoadGroup total{"total", RTSP_OVER_TCP};
    for (int i = 0; i < nGroups; i++)
        AddGroup(&total, &pGroups[i]);
    if (total.nFailed || total.nCut || total.nNoPicture || total.counts.nWrong)
        return LOAD_PLAYERS_FAILED;
    if (pOptions->bStrict && (total.counts.nLost || total.counts.nLate || total.nNoKeyStart))
        return LOAD_NOT_STRICT;
    return LOAD_OK;
}

}  // namespace orx
