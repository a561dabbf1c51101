#include "orxctl/options.h"

#include "cli/options.h"

namespace orx {

int CtlParseOptions(int argc, char **argv, CtlOptions *pOut)
{
    const CommandLine line = {
        "orxctl",
        "Shows what a running server does, has it read its configuration again, and ends sessions.",
        {{"status", "", 0, 0, "all in short: version, listeners, doubts, storage, programs, sessions"},
         {"programs", "", 0, 0, "what is pushed and played: codec, size, rates, players"},
         {"sessions", "", 0, 0, "who is connected: user, program, transport, bytes, queue, loss"},
         {"recordings", "[PROGRAM [DAY]]", 0, 2,
          "recordings of a program on a day (YYYYMMDD), with play URLs; without them what there is"},
         {"metrics", "", 0, 0, "all figures as Prometheus reads them"},
         {"health", "", 0, 0, "whether all is well, or what is not"},
         {"reload", "", 0, 0, "has the configuration read again"},
         {"kick", "SESSION", 1, 1, "ends the session of that number, as \"sessions\" shows it"},
         {"top", "", 0, 0, "the same as status, again and again; q ends"}},
        {{"s", "SOCKET", "the server's status socket", OptionText{&pOut->socket}},
         {"c", "FILE", "take the socket from this configuration ([STATUS] Socket)",
          OptionText{&pOut->config}},
         {"json", "", "of status, programs, sessions and recordings: as the server says it",
          OptionFlag{&pOut->bJson}},
         {"seconds", "N", "of top: between two views", OptionWhole{&pOut->nSeconds, 1, 3600}}},
        "Without -s and -c the socket is looked for where the installation beside orxctl has it, and in "
        "/run/orx. Exit code: 0 done; 1 the server refused, or is not well; 2 the command line cannot be "
        "used; 3 no server answers.",
    };
    CommandArguments arguments;
    int nResult = OptionsRead(&line, argc, argv, &arguments);
    if (nResult != OPTIONS_GO_ON)
        return nResult;
    pOut->eCommand = static_cast<CtlCommand>(arguments.nForm);
    if (!arguments.words.empty())
        pOut->first = arguments.words[0];
    if (arguments.words.size() > 1)
        pOut->second = arguments.words[1];
    if (!pOut->socket.empty() && !pOut->config.empty())
        return OptionsRefuse(&line, "-s and -c both say where the socket is: give one");
    return OPTIONS_GO_ON;
}

}  // namespace orx
