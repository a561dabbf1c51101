#include "options.h"

#include "cli/options.h"

namespace orx {

static CommandLine ZupoCommandLine(ZupoOptions *pOut, std::string *pListen)
{
    return {
        "orxzupo",
        "A rendezvous server: boxes behind NAT register here (ZupoEnable=1, ZupoServerAddr, ZupoServerPort "
        "in "
        "their configuration), and orxrelay asks here for a box by its identity (DeviceGuid). Both are told "
        "each other's address and then talk to each other directly.",
        {},
        {{"listen", "[IP:]PORT",
          "UDP address to listen on, every one without IP; with several name the one that is known, as "
          "answers "
          "otherwise leave from any of them",
          OptionText{pListen}},
         {"refuse", "FILE",
          "refusal list: an identity or an IPv4 address per line, # begins a comment; read again on SIGHUP",
          OptionText{&pOut->refusals}},
         {"max", "N", "boxes and clients at once", OptionWhole{&pOut->nMaxPeers, 1, 4095}},
         {"per-address", "N",
          "of these from one address, 127.0.0.1 apart, 0 is any number; boxes behind one NAT share theirs",
          OptionWhole{&pOut->nPerAddress, 0, 4095}},
         {"quiet", "", "no messages about boxes that come and go", OptionFlag{&pOut->bQuiet}}},
        "Commands on standard input: list (the boxes registered), quit.\n\n"
        "Exit code: 0 ended by quit or a signal, 1 cannot listen, 2 the command line or the refusal list "
        "cannot be used.",
    };
}

// "IP:PORT" or "PORT".
static int TakeListen(const CommandLine *pLine, const std::string &text, ZupoOptions *pOut)
{
    size_t nColon = text.find(':');
    if (nColon != std::string::npos)
        pOut->ip = text.substr(0, nColon);
    const Option port{"listen", "", "", OptionWhole{&pOut->nPort, 0, UINT16_MAX}};
    return OptionsTake(pLine, port, text.c_str() + (nColon == std::string::npos ? 0 : nColon + 1));
}

int ZupoParseOptions(int argc, char **argv, ZupoOptions *pOut)
{
    std::string listen = std::to_string(kZupoDefaultPort);
    const CommandLine line = ZupoCommandLine(pOut, &listen);
    CommandArguments arguments;
    int nResult = OptionsRead(&line, argc, argv, &arguments);
    return nResult == OPTIONS_GO_ON ? TakeListen(&line, listen, pOut) : nResult;
}

}  // namespace orx
