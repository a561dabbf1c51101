// hostile: sessions of strangers against the real server, while people watch and a recording runs. A newcomer
// reads attacks.cpp (what is done), then world.h (what must hold).
#include <enet/enet.h>

#include <cstdio>

#include "cli/options.h"
#include "hostile/attacks.h"
#include "hostile/world.h"

using namespace orx;

constexpr size_t kShownBytes = 6000;
constexpr uint64_t kShowUs = 5000000;
constexpr int kWarmUp = 100;

struct HostileOptions {
    int nSeed = 1, nSeconds = 60, nFirst = 0, bList = 0;
    std::string only, scene = "shipped";
};

static int ReadOptions(int argc, char **argv, HostileOptions *pOut)
{
    const CommandLine line{
        "hostile",
        "Sends hostile sessions to a server of its own, and looks whether anybody else notices.",
        {{"", "", 0, 0, ""}},
        {
            {"seed", "N", "what is done, and in which order", OptionWhole{&pOut->nSeed, 0, 1 << 30}},
            {"seconds", "S", "for how long", OptionWhole{&pOut->nSeconds, 1, 1000000}},
            {"scene", "NAME", "the configuration: shipped, basic or digest (passwords)", OptionText{&pOut->scene}},
            {"only", "ATTACK", "no other than this one", OptionText{&pOut->only}},
            {"first", "N", "begin with the attack of this number", OptionWhole{&pOut->nFirst, 0, 1 << 30}},
            {"list", "", "list the attacks", OptionFlag{&pOut->bList}},
        },
        "Exit code: 0 nobody was hurt, 1 somebody was, 2 the command line cannot be used."};
    CommandArguments arguments;
    return OptionsRead(&line, argc, argv, &arguments);
}

static const AttackRow *Choose(Dice *pDice, const std::string &only)
{
    unsigned nTotal = 0;
    for (const AttackRow &row : Attacks()) {
        if (row.szName == only)
            return &row;
        nTotal += row.nWeight;
    }
    unsigned nChosen = pDice->Below(nTotal);
    const AttackRow *pRow = Attacks().data();
    for (; nChosen >= pRow->nWeight; pRow++)
        nChosen -= pRow->nWeight;
    return pRow;
}

struct Run {
    HostileOptions options;
    World world;
    std::deque<Line> lines{};  // what attacks have left open
    std::string last{};        // the last attacks, for messages
    int nDone = 0;
};

// Attacks by their numbers, each with dice of its own, until the condition holds. Returns whether all is well.
template <typename Condition>
static bool AttackUntil(Run *pRun, Condition done)
{
    while (!done()) {
        int nNumber = pRun->options.nFirst + pRun->nDone++;
        Dice dice(static_cast<uint32_t>(pRun->options.nSeed) * 1000003u + static_cast<uint32_t>(nNumber));
        const AttackRow *pRow = Choose(&dice, pRun->options.only);
        pRun->last = (pRun->last + " " + std::to_string(nNumber) + ":" + pRow->szName);
        pRun->last.erase(0, pRun->last.size() - std::min<size_t>(pRun->last.size(), 200));
        World *p = &pRun->world;
        Attack attack{dice,
                      "127.0.0." + std::to_string(16 + dice.Below(32)),
                      p->ports,
                      p->server.nUdpStart,
                      p->recordings,
                      &p->web.sock,
                      [p] { p->Settle(); },
                      &pRun->lines};
        pRow->pfnRun(&attack);
        for (Line &line : pRun->lines)
            if (dice.OneIn(2))
                line.Read();
        if (!pRun->lines.empty() && dice.OneIn(4)) {
            std::swap(pRun->lines.front(), dice.Pick(pRun->lines));
            pRun->lines.front().Leave(&dice);
            pRun->lines.pop_front();
        }
        if (!p->Check())
            return false;
    }
    return true;
}

static bool Leave(Run *pRun)
{
    Dice dice(static_cast<uint32_t>(pRun->nDone));
    for (Line &line : pRun->lines)
        line.Leave(&dice);
    pRun->lines.clear();
    return pRun->world.Recover();
}

static bool AttackFor(Run *pRun, int nSeconds)
{
    uint64_t nStartUs = RtspNowUs(), nShownUs = 0;
    return AttackUntil(pRun, [&] {
        uint64_t nNowUs = RtspNowUs();
        if (nNowUs > nShownUs + kShowUs) {
            nShownUs = nNowUs;
            printf("%3d s: %d attacks; %s\n", static_cast<int>((nNowUs - nStartUs) / 1000000), pRun->nDone,
                   pRun->world.Describe().c_str());
            fflush(stdout);
        }
        return nNowUs > nStartUs + static_cast<uint64_t>(nSeconds) * 1000000;
    });
}

// What is allocated once, is by the first attacks; only then memory is measured.
static bool Play(Run *pRun)
{
    return pRun->world.Start() && AttackUntil(pRun, [&] { return pRun->nDone >= kWarmUp; }) && Leave(pRun) &&
           AttackFor(pRun, pRun->options.nSeconds) && Leave(pRun) && pRun->world.Finish();
}

int main(int argc, char **argv)
{
    HostileOptions options;
    int nExit = ReadOptions(argc, argv, &options);
    if (nExit >= 0)
        return nExit;
    for (const AttackRow &row : Attacks())
        if (options.bList)
            printf("%-12s %s\n", row.szName, row.szWhat);
    if (options.bList)
        return 0;
    const Scene *pScene = &Scenes()[0];
    for (const Scene &scene : Scenes())
        if (scene.szName == options.scene)
            pScene = &scene;
    enet_initialize();
    Run run{options, World(*pScene)};
    bool bWell = Play(&run) && !testing::UnitTest::GetInstance()->ad_hoc_test_result().Failed();
    printf("%s: seed %d, %s, %d attacks; %s\n", bWell ? "nobody was hurt" : "FAILED", options.nSeed, pScene->szName,
           run.nDone, run.world.Describe().c_str());
    if (bWell)
        return 0;
    const std::string &output = run.world.server.Output();
    printf("%s\nThe last attacks:%s\n--- the last of what the server printed ---\n%s\n--- end ---\n",
           run.world.failure.c_str(), run.last.c_str(),
           output.substr(output.size() - std::min(output.size(), kShownBytes)).c_str());
    return 1;
}
