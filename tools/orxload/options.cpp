#include "orxload/options.h"

#include <getopt.h>

#include <cstdio>
#include <cstdlib>

namespace orx {

static const char kHelp[] =
    "Usage: orxload [options] rtsp://[user:password@]host[:port]/name\n"
    "Opens many players of a program and says what reached them.\n"
    "\n"
    "Players\n"
    "  --tcp N, --udp N, --tunnel N   how many of each transport (one over TCP when none is given)\n"
    "  --stalled N        further TCP players that start and then never read\n"
    "  --programs N       take turns over N programs; their number replaces %d in the URL\n"
    "  --first N          the number of the first of them (1)\n"
    "  --ramp N           players that start per second (500); 0: all at once\n"
    "  --keepalive S      seconds between the OPTIONS of a player (30); 0: none\n"
    "  --reports S        seconds between the receiver reports of a UDP player (5); 0: none\n"
    "  --user U, --password P\n"
    "  --timeout MS       for the set-up of one player (10000)\n"
    "What is measured\n"
    "  --duration S       how long (10)\n"
    "  --warmup S         start counting S seconds after the last player has started (0)\n"
    "  --verify FILE      compare every packet with the dump that orxpush --dump writes meanwhile\n"
    "  --watch-pid PID    processor time and memory of the server's process\n"
    "  --strict           gaps, late packets and players that do not start at a key frame are failures, too\n"
    "  --json             print only the JSON line\n"
    "  --quiet            no progress\n"
    "  --help\n"
    "\n"
    "Latency is the time from the moment that orxpush --stamp wrote into a picture until its last packet "
    "arrived,\n"
    "for pictures sent after the player's PLAY was answered; pusher and players must run on one machine.\n"
    "\n"
    "Exit code: 0 all is well, 1 players failed, were cut off, got no picture or other bytes than were "
    "pushed,\n"
    "2 the command line or a file cannot be used, 3 what --strict forbids has happened.\n";

enum OptionCode {
    OPT_TCP = 256,
    OPT_UDP,
    OPT_TUNNEL,
    OPT_STALLED,
    OPT_PROGRAMS,
    OPT_FIRST,
    OPT_RAMP,
    OPT_KEEPALIVE,
    OPT_REPORTS,
    OPT_USER,
    OPT_PASSWORD,
    OPT_TIMEOUT,
    OPT_DURATION,
    OPT_WARMUP,
    OPT_VERIFY,
    OPT_WATCH,
    OPT_STRICT,
    OPT_JSON,
    OPT_QUIET,
    OPT_HELP,
};

static const option kOptions[] = {
    {"tcp", required_argument, nullptr, OPT_TCP},
    {"udp", required_argument, nullptr, OPT_UDP},
    {"tunnel", required_argument, nullptr, OPT_TUNNEL},
    {"stalled", required_argument, nullptr, OPT_STALLED},
    {"programs", required_argument, nullptr, OPT_PROGRAMS},
    {"first", required_argument, nullptr, OPT_FIRST},
    {"ramp", required_argument, nullptr, OPT_RAMP},
    {"keepalive", required_argument, nullptr, OPT_KEEPALIVE},
    {"reports", required_argument, nullptr, OPT_REPORTS},
    {"user", required_argument, nullptr, OPT_USER},
    {"password", required_argument, nullptr, OPT_PASSWORD},
    {"timeout", required_argument, nullptr, OPT_TIMEOUT},
    {"duration", required_argument, nullptr, OPT_DURATION},
    {"warmup", required_argument, nullptr, OPT_WARMUP},
    {"verify", required_argument, nullptr, OPT_VERIFY},
    {"watch-pid", required_argument, nullptr, OPT_WATCH},
    {"strict", no_argument, nullptr, OPT_STRICT},
    {"json", no_argument, nullptr, OPT_JSON},
    {"quiet", no_argument, nullptr, OPT_QUIET},
    {"help", no_argument, nullptr, OPT_HELP},
    {nullptr, 0, nullptr, 0},
};

static double Number(const char *szText, double dLowest, double dHighest, int *pbBad)
{
    char *pEnd = nullptr;
    double dValue = strtod(szText, &pEnd);
    if (pEnd == szText || *pEnd || !(dValue >= dLowest && dValue <= dHighest)) {
        fprintf(stderr, "orxload: %s is not a number from %.15g to %.15g\n", szText, dLowest, dHighest);
        *pbBad = 1;
        return dLowest;
    }
    return dValue;
}

static int Whole(const char *szText, int nLowest, int nHighest, int *pbBad)
{
    return static_cast<int>(Number(szText, nLowest, nHighest, pbBad));
}

// Takes one option. Returns 1, or 0 for an unknown one or a bad value.
static int TakeOption(int nCode, const char *szValue, LoadOptions *pOut)
{
    int bBad = 0;
    switch (nCode) {
        case OPT_TCP:
            pOut->nTcp = Whole(szValue, 0, 10000, &bBad);
            break;
        case OPT_UDP:
            pOut->nUdp = Whole(szValue, 0, 10000, &bBad);
            break;
        case OPT_TUNNEL:
            pOut->nTunnel = Whole(szValue, 0, 10000, &bBad);
            break;
        case OPT_STALLED:
            pOut->nStalled = Whole(szValue, 0, 10000, &bBad);
            break;
        case OPT_PROGRAMS:
            pOut->nPrograms = Whole(szValue, 1, 10000, &bBad);
            break;
        case OPT_FIRST:
            pOut->nFirst = Whole(szValue, 0, 1000000, &bBad);
            break;
        case OPT_RAMP:
            pOut->nRamp = Whole(szValue, 0, 1000000, &bBad);
            break;
        case OPT_KEEPALIVE:
            pOut->nKeepAlive = Whole(szValue, 0, 86400, &bBad);
            break;
        case OPT_REPORTS:
            pOut->nReports = Whole(szValue, 0, 86400, &bBad);
            break;
        case OPT_USER:
            pOut->user = szValue;
            break;
        case OPT_PASSWORD:
            pOut->password = szValue;
            break;
        case OPT_TIMEOUT:
            pOut->nTimeoutMs = Whole(szValue, 1, 600000, &bBad);
            break;
        case OPT_DURATION:
            pOut->dSeconds = Number(szValue, 0.1, 1e7, &bBad);
            break;
        case OPT_WARMUP:
            pOut->dWarmup = Number(szValue, 0, 1e6, &bBad);
            break;
        case OPT_VERIFY:
            pOut->verify = szValue;
            break;
        case OPT_WATCH:
            pOut->nWatchPid = Whole(szValue, 1, 1 << 30, &bBad);
            break;
        case OPT_STRICT:
            pOut->bStrict = 1;
            break;
        case OPT_JSON:
            pOut->bJson = 1;
            break;
        case OPT_QUIET:
            pOut->bQuiet = 1;
            break;
        default:
            return 0;
    }
    return !bBad;
}

int LoadParseOptions(int argc, char **argv, LoadOptions *pOut)
{
    int nCode;
    while ((nCode = getopt_long(argc, argv, "h", kOptions, nullptr)) != -1) {
        if (nCode == OPT_HELP || nCode == 'h') {
            fputs(kHelp, stdout);
            return LOAD_OK;
        }
        if (!TakeOption(nCode, optarg, pOut)) {
            fputs("Try orxload --help.\n", stderr);
            return LOAD_USAGE;
        }
    }
    if (optind + 1 != argc) {
        fputs("orxload: give one URL. Try orxload --help.\n", stderr);
        return LOAD_USAGE;
    }
    pOut->url = argv[optind];
    if (pOut->nPrograms > 1 && pOut->url.find("%d") == std::string::npos) {
        fputs("orxload: with --programs the URL needs a %d for the program's number\n", stderr);
        return LOAD_USAGE;
    }
    if (pOut->nTcp + pOut->nUdp + pOut->nTunnel + pOut->nStalled == 0)
        pOut->nTcp = 1;
    return -1;
}

}  // namespace orx
