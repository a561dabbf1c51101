#include "options.h"

#include "cli/options.h"

namespace orx {

static CommandLine RelayCommandLine(RelayOptions *pOut)
{
    return {
        "orxrelay",
        "Reaches a box over reliable UDP and offers its RTSP port on a local TCP port, so that any player "
        "can "
        "open rtsp://127.0.0.1:8554/... The box is named by its address (port 554), or by its identity at a "
        "rendezvous server (orxzupo, port 6323), which introduces the two to each other, so that the box and "
        "this machine may both be behind NAT.",
        {{"", "BOX", 1, 1, "HOST[:PORT], or with --server the box's identity"}},
        {{"server", "HOST[:PORT]", "the rendezvous server", OptionText{&pOut->server}},
         {"listen", "[IP:]PORT", "local TCP address to offer the box on", OptionText{&pOut->listen}},
         {"timeout", "SECONDS", "how long reaching the box may take", OptionWhole{&pOut->nTimeout, 1, 3600}},
         {"check", "", "only see whether the box can be reached", OptionFlag{&pOut->bCheck}},
         {"quiet", "", "no messages about connections", OptionFlag{&pOut->bQuiet}}},
        "Exit code: 0 ended by a signal, or --check reached the box; 1 --check did not reach it; 2 the "
        "command "
        "line cannot be used, or the local port is taken.",
    };
}

int RelayParseOptions(int argc, char **argv, RelayOptions *pOut)
{
    const CommandLine line = RelayCommandLine(pOut);
    CommandArguments arguments;
    int nResult = OptionsRead(&line, argc, argv, &arguments);
    if (nResult != OPTIONS_GO_ON)
        return nResult;
    pOut->box = arguments.words[0];
    if (pOut->box.empty())
        return OptionsRefuse(&line, "the box's name is empty");
    return OPTIONS_GO_ON;
}

}  // namespace orx
