#include "options.h"

#include <getopt.h>

#include <cstdio>
#include <cstdlib>

#include "remote/zupo.h"

namespace orx {

static const char kHelp[] =
    "Usage: orxrelay [options] HOST[:PORT]\n"
    "       orxrelay [options] --server HOST[:PORT] IDENTITY\n"
    "Reaches a box over reliable UDP and offers its RTSP port on a local TCP port, so that any player can "
    "open\n"
    "rtsp://127.0.0.1:8554/... The box is named by its address (port 554), or by its identity at a "
    "rendezvous\n"
    "server (orxzupo, port 6323), which introduces the two to each other, so that the box and this machine "
    "may\n"
    "both be behind NAT.\n"
    "\n"
    "  --server HOST[:PORT]  the rendezvous server\n"
    "  --listen [IP:]PORT    local TCP address to offer the box on (127.0.0.1:8554)\n"
    "  --timeout SECONDS     how long reaching the box may take (15)\n"
    "  --check               only see whether the box can be reached\n"
    "  --quiet               no messages about connections\n"
    "  --help\n"
    "\n"
    "Exit code: 0 ended by a signal, or --check reached the box; 1 --check did not reach it; 2 the command "
    "line\n"
    "cannot be used, or the local port is taken.\n";

static const option kOptions[] = {
    {"server", required_argument, nullptr, 's'},
    {"listen", required_argument, nullptr, 'l'},
    {"timeout", required_argument, nullptr, 't'},
    {"check", no_argument, nullptr, 'c'},
    {"quiet", no_argument, nullptr, 'q'},
    {"help", no_argument, nullptr, 'h'},
    {nullptr, 0, nullptr, 0},
};

static int TakeTimeout(const char *szText, RelayOptions *pOut)
{
    char *pEnd = nullptr;
    long nValue = strtol(szText, &pEnd, 10);
    if (pEnd == szText || *pEnd || nValue < 1 || nValue > 3600) {
        fprintf(stderr, "orxrelay: %s is not a number from 1 to 3600\n", szText);
        return 0;
    }
    pOut->nTimeout = static_cast<int>(nValue);
    return 1;
}

static int TakeOption(int nCode, const char *szValue, RelayOptions *pOut)
{
    switch (nCode) {
        case 's':
            pOut->server = szValue;
            return 1;
        case 'l':
            pOut->listen = szValue;
            return 1;
        case 't':
            return TakeTimeout(szValue, pOut);
        case 'c':
            pOut->bCheck = 1;
            return 1;
        case 'q':
            pOut->bQuiet = 1;
            return 1;
        default:
            return 0;
    }
}

int RelayParseOptions(int argc, char **argv, RelayOptions *pOut)
{
    int nCode;
    while ((nCode = getopt_long(argc, argv, "h", kOptions, nullptr)) != -1) {
        if (nCode == 'h') {
            fputs(kHelp, stdout);
            return RELAY_OK;
        }
        if (!TakeOption(nCode, optarg, pOut)) {
            fputs("Try orxrelay --help.\n", stderr);
            return RELAY_USAGE;
        }
    }
    if (optind + 1 != argc || !argv[optind][0]) {
        fputs("orxrelay: name one box. Try orxrelay --help.\n", stderr);
        return RELAY_USAGE;
    }
    pOut->box = argv[optind];
    if (!pOut->server.empty() && pOut->box.size() >= kZupoGuidSize) {
        fprintf(stderr, "orxrelay: an identity has at most %zu characters\n", kZupoGuidSize - 1);
        return RELAY_USAGE;
    }
    return -1;
}

}  // namespace orx
