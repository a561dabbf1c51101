#include "orxpull/options.h"

#include "cli/options.h"

namespace orx {

namespace {

struct Given {
    std::string probe, over;
    int bDiscover = 0, bNoAudio = 0;
};

}  // namespace

static CommandLine PullCommandLine(PullOptions *pOut, Given *pGiven)
{
    return {
        "orxpull",
        "Pulls cameras that are RTSP servers and announces them to Orx: those that [PULL] of the server's "
        "configuration lists, or the one that is named.",
        {{"", "[URL PROGRAM]", 0, 2,
          "rtsp://[user:password@]host[:port]/path, and what it is to be called in Orx, as live/cam1"}},
        {{"c", "FILE", "the server's configuration, as orx takes it: a name without / is looked for in cfg/",
          OptionText{&pOut->config}},
         {"", "", "Of a camera that is named", OptionHeading{}},
         {"transport", "WAY", "tcp, udp or http", OptionText{&pGiven->over}},
         {"on-demand", "", "its session ends while nobody watches (needs EnableLowEnergy)",
          OptionFlag{&pOut->one.bOnDemand}},
         {"no-audio", "", "sound is left out", OptionFlag{&pGiven->bNoAudio}},
         {"", "", "Questions, without a server", OptionHeading{}},
         {"probe", "URL", "what a camera sends: a line for each track", OptionText{&pGiven->probe}},
         {"discover", "", "the cameras of the local network that answer (ONVIF)",
          OptionFlag{&pGiven->bDiscover}}},
        "Exit code: 0 done, or ended by SIGTERM or SIGINT; 1 it failed, and said why; 2 the command line "
        "cannot "
        "be used.",
    };
}

static int TakeOne(const CommandLine *pLine, const CommandArguments *pArguments, PullOptions *pOut)
{
    if (pArguments->words.size() == 1)
        return OptionsRefuse(pLine, "a URL needs the name of a program behind it");
    if (pArguments->words.empty())
        return OPTIONS_GO_ON;
    pOut->one.url = pArguments->words[0];
    if (!PullUrlIsGood(pOut->one.url))
        return OptionsRefuse(pLine, "the URL is none as rtsp://[user:password@]host[:port]/path");
    if (!PullProgramRead(pArguments->words[1], &pOut->one.program))
        return OptionsRefuse(pLine, "%s is no name of a program", pArguments->words[1].c_str());
    return OPTIONS_GO_ON;
}

int PullParseOptions(int argc, char **argv, PullOptions *pOut)
{
    Given given;
    const CommandLine line = PullCommandLine(pOut, &given);
    CommandArguments arguments;
    int nResult = OptionsRead(&line, argc, argv, &arguments);
    if (nResult != OPTIONS_GO_ON)
        return nResult;
    pOut->one.bAudio = !given.bNoAudio;
    if (!given.over.empty() && !PullOverRead(given.over, &pOut->one.over))
        return OptionsRefuse(&line, "--transport is tcp, udp or http");
    if (!given.probe.empty() || given.bDiscover) {
        if (!arguments.words.empty() || (given.bDiscover && !given.probe.empty()))
            return OptionsRefuse(&line, "--probe and --discover stand alone");
        pOut->task = given.bDiscover ? PullTask::Discover : PullTask::Probe;
        pOut->one.url = given.probe;
        if (pOut->task == PullTask::Probe && !PullUrlIsGood(given.probe))
            return OptionsRefuse(&line, "--probe: that is no URL as rtsp://[user:password@]host[:port]/path");
        return OPTIONS_GO_ON;
    }
    return TakeOne(&line, &arguments, pOut);
}

}  // namespace orx
