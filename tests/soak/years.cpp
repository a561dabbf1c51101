// years: the server's life with its clocks ahead. Each day cameras, players of all kinds and strangers come and go
// (town.cpp); in the night nobody is there, and the server is to hold what it held in the first nights. The 32 bits
// of its milliseconds are used up on the first day, and each 49.7 days from then on.
#include <chrono>
#include <climits>
#include <csignal>
#include <cstdio>

#include "cli/options.h"
#include "soak/town.h"

using namespace orx;

constexpr int kSettledDays = 6;  // by when everything that is held for good is there
constexpr uint32_t kBeforeWrapMs = 5 * 60 * 1000;
constexpr size_t kShownBytes = 6000;

struct YearsOptions {
    int nMinutes = 0, nSeconds = 15, nSeed = 1;
};

// The most, or the least, of some nights.
static void Gather(BoxFigures *pOut, const BoxFigures &night, bool bMost)
{
    for (const BoxRow &row : kBoxRows) {
        long nOne = night.*row.pValue, nBefore = pOut->*row.pValue;
        pOut->*row.pValue = bMost ? std::max(nOne, nBefore) : std::min(nOne, nBefore);
    }
}

static BoxFigures All(long nValue)
{
    BoxFigures figures;
    for (const BoxRow &row : kBoxRows)
        figures.*row.pValue = nValue;
    return figures;
}

struct Life {
    Town town;
    int nDays = 0;
    BoxFigures begin = All(0), end = All(LONG_MAX);  // the most of the first nights, the least of the last ones

    // Lives for so long, and at least until the last nights may be compared with the first ones.
    void Live(int nSeconds)
    {
        const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(nSeconds);
        for (; town.faults.empty(); nDays++) {
            const auto now = std::chrono::steady_clock::now();
            if (now > until && nDays >= 2 * kSettledDays)
                break;
            town.Day();
            town.Settle(nDays < kSettledDays ? All(LONG_MAX) : begin);
            if (nDays < kSettledDays)
                Gather(&begin, town.box.now, true);
            if (nDays % kSettledDays == 0)
                end = All(LONG_MAX);
            Gather(&end, town.box.now, false);
            if (nDays % 100 == 99) {
                printf("day %d: %ld bytes of heap, %ld kB, %zu recordings\n", nDays + 1, town.box.now.nHeapBytes,
                       town.box.now.nResidentKb, town.Recordings().size());
                fflush(stdout);
            }
        }
    }
    void Report()
    {
        printf("%d days, %llu wraps of the clock;", nDays,
               static_cast<unsigned long long>((town.box.nAheadMs - kBeforeWrapMs) >> 32) + 1);
        for (const auto &[name, nTimes] : town.counts)
            printf(" %s %d", name.c_str(), nTimes);
        printf("\n%-18s %10s %10s\n", "", "begin", "end");
        for (const BoxRow &row : kBoxRows) {
            long nBegin = begin.*row.pValue, nEnd = end.*row.pValue;
            printf("%-18s %10ld %10ld\n", row.szName, nBegin, nEnd);
            town.Hold(nEnd <= nBegin + row.nSpare || !town.faults.empty(), std::string(row.szName) + " have grown");
        }
    }
};

int main(int argc, char **argv)
{
    YearsOptions options;
    const CommandLine line{
        "years",
        "Lives through days of a server within seconds, and looks whether it holds in the end what it held at first.",
        {{"", "", 0, 0, ""}},
        {
            {"minutes", "N", "for how long, instead of --seconds", OptionWhole{&options.nMinutes, 0, 100000}},
            {"seconds", "N", "for how long, and 12 days at least", OptionWhole{&options.nSeconds, 0, 100000}},
            {"seed", "N", "who comes when", OptionWhole{&options.nSeed, 0, 1 << 30}},
        },
        "Exit code: 0 it does, 1 it does not, or somebody was not served, 2 the command line cannot be used."};
    CommandArguments arguments;
    int nResult = OptionsRead(&line, argc, argv, &arguments);
    if (nResult != OPTIONS_GO_ON)
        return nResult;
    setvbuf(stdout, nullptr, _IOLBF, 0);
    signal(SIGPIPE, SIG_IGN);
    // what malloc keeps at hand for each thread counts as handed out, and grows for weeks
    if (setenv("GLIBC_TUNABLES", "glibc.malloc.tcache_count=0:glibc.malloc.mxfast=0", 0) == 0 && !getenv("ORX_YEARS") &&
        setenv("ORX_YEARS", "1", 1) == 0)
        execv("/proc/self/exe", argv);
    printf("years: seed %d\n", options.nSeed);
    Life life{Town(static_cast<uint32_t>(options.nSeed))};
    life.town.bPatient = options.nMinutes > 0;
    if (life.town.Start(kBeforeWrapMs))
        life.Live(options.nMinutes ? options.nMinutes * 60 : options.nSeconds);
    life.Report();
    life.town.guests.clear();
    life.town.cameras.clear();
    life.town.Hold(life.town.box.Stop() == 0, "the server did not end in order");
    life.town.Hold(!testing::UnitTest::GetInstance()->ad_hoc_test_result().Failed(), "see above");
    printf("years: %s\n", life.town.faults.empty() ? "PASSED" : "FAILED");
    if (life.town.faults.empty())
        return 0;
    const std::string &output = life.town.printed;
    printf("--- the last of what the server printed ---\n%s\n--- end ---\n",
           output.substr(output.size() - std::min(output.size(), kShownBytes)).c_str());
    return 1;
}
