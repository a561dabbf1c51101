#include "options.h"

#include <getopt.h>

#include <cstdio>
#include <cstdlib>

namespace orx {

static const char kHelp[] =
    "Usage: orxzupo [options]\n"
    "A rendezvous server: boxes behind NAT register here (ZupoEnable=1, ZupoServerAddr, ZupoServerPort in "
    "their\n"
    "configuration), and orxrelay asks here for a box by its identity (DeviceGuid). Both are told each "
    "other's\n"
    "address and then talk to each other directly.\n"
    "\n"
    "  --listen [IP:]PORT   UDP address to listen on (every address, port 6323); with several addresses name "
    "the\n"
    "                       one that is known, as answers otherwise leave from any of them\n"
    "  --refuse FILE        refusal list: an identity or an IPv4 address per line, # begins a comment;\n"
    "                       read again on SIGHUP\n"
    "  --max N              boxes and clients at once (1024)\n"
    "  --quiet              no messages about boxes that come and go\n"
    "  --help\n"
    "\n"
    "Commands on standard input: list (the boxes registered), quit.\n"
    "\n"
    "Exit code: 0 ended by quit or a signal, 1 cannot listen, 2 the command line or the refusal list cannot "
    "be\n"
    "used.\n";

static const option kOptions[] = {
    {"listen", required_argument, nullptr, 'l'}, {"refuse", required_argument, nullptr, 'r'},
    {"max", required_argument, nullptr, 'm'},    {"quiet", no_argument, nullptr, 'q'},
    {"help", no_argument, nullptr, 'h'},         {nullptr, 0, nullptr, 0},
};

// A whole number within bounds. Returns 1, or 0 (told).
static int Number(const char *szText, int nLowest, int nHighest, int *pOut)
{
    char *pEnd = nullptr;
    long nValue = strtol(szText, &pEnd, 10);
    if (pEnd == szText || *pEnd || nValue < nLowest || nValue > nHighest) {
        fprintf(stderr, "orxzupo: %s is not a number from %d to %d\n", szText, nLowest, nHighest);
        return 0;
    }
    *pOut = static_cast<int>(nValue);
    return 1;
}

static int TakeListen(const std::string &text, ZupoOptions *pOut)
{
    size_t nColon = text.find(':');
    if (nColon != std::string::npos)
        pOut->ip = text.substr(0, nColon);
    return Number(text.c_str() + (nColon == std::string::npos ? 0 : nColon + 1), 0, 65535, &pOut->nPort);
}

static int TakeOption(int nCode, const char *szValue, ZupoOptions *pOut)
{
    switch (nCode) {
        case 'l':
            return TakeListen(szValue, pOut);
        case 'r':
            pOut->refusals = szValue;
            return 1;
        case 'm':
            return Number(szValue, 1, 4095, &pOut->nMaxPeers);
        case 'q':
            pOut->bQuiet = 1;
            return 1;
        default:
            return 0;
    }
}

int ZupoParseOptions(int argc, char **argv, ZupoOptions *pOut)
{
    int nCode;
    while ((nCode = getopt_long(argc, argv, "h", kOptions, nullptr)) != -1) {
        if (nCode == 'h') {
            fputs(kHelp, stdout);
            return ZUPO_EXIT_OK;
        }
        if (!TakeOption(nCode, optarg, pOut)) {
            fputs("Try orxzupo --help.\n", stderr);
            return ZUPO_EXIT_USAGE;
        }
    }
    if (optind != argc) {
        fprintf(stderr, "orxzupo: what is %s for? Try orxzupo --help.\n", argv[optind]);
        return ZUPO_EXIT_USAGE;
    }
    return -1;
}

}  // namespace orx
