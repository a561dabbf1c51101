#include "options.h"

#include <getopt.h>

#include <cstdio>
#include <cstdlib>

namespace orx {

static const char kHelp[] =
    "Usage: orxpush [options] rtsp://[user:password@]host[:port]/name\n"
    "Announces a program and pushes a file to it, as a camera's encoder does.\n"
    "\n"
    "What is sent\n"
    "  --file PATH        H.264 byte stream, or a JPEG sequence (a directory or a quoted pattern of .jpg);\n"
    "                     without it the clip of the source tree (tests/data/clip.h264)\n"
    "  --fps N            pictures per second (25)\n"
    "  --audio tone|FILE  an audio track: a tone, or a file of G.711 A-law at 8000 Hz\n"
    "  --data MS          a data track with a packet every MS milliseconds\n"
    "  --rate KBITS       fill the pictures up to this rate with filler data (H.264 only)\n"
    "  --packet BYTES     largest RTP packet (1400)\n"
    "  --single           one unit per packet where it fits, no aggregation\n"
    "  --stamp            write the send time into pictures (H.264) and data packets, for orxload\n"
    "  --sdp-line TEXT    add a line to the description (may be repeated)\n"
    "  --camcfg FILE      send this text with PUTCAMCFG once the program runs\n"
    "  --rtcp             send a sender report for each track every 5 seconds\n"
    "  --first-time N     RTP time stamp of the first picture (random)\n"
    "  --first-seq N      RTP sequence number of the first packet (random)\n"
    "How\n"
    "  --speed X          media seconds per second (1); 0: as fast as the server takes them\n"
    "  --loop             start again at the end of the file\n"
    "  --duration S       end after S media seconds (implies --loop)\n"
    "  --count N          N programs at once; their number replaces %d in the URL (and in --dump)\n"
    "  --first N          the number of the first of them (1)\n"
    "  --wait S           try for S seconds to connect (0), for a server that is only starting\n"
    "  --record           start with RECORD instead of PLAY\n"
    "  --user U, --password P   credentials for a server that asks for them\n"
    "  --forward TEXT     the answer to requests of players (\"200 OK\")\n"
    "  --dump FILE        write every RTP packet as it is sent: '$', channel, 16-bit length, packet\n"
    "  --quiet            no progress\n"
    "  --help\n"
    "\n"
    "Exit code: 0 everything was pushed (or stopped by a signal), 1 a program was refused or cut off,\n"
    "2 the command line or a file cannot be used.\n";

enum OptionCode {
    OPT_FILE = 256,
    OPT_FPS,
    OPT_AUDIO,
    OPT_DATA,
    OPT_RATE,
    OPT_PACKET,
    OPT_SINGLE,
    OPT_STAMP,
    OPT_SDP,
    OPT_CAMCFG,
    OPT_RTCP,
    OPT_TIME,
    OPT_SEQ,
    OPT_SPEED,
    OPT_LOOP,
    OPT_DURATION,
    OPT_COUNT,
    OPT_FIRST,
    OPT_RECORD,
    OPT_USER,
    OPT_PASSWORD,
    OPT_FORWARD,
    OPT_DUMP,
    OPT_QUIET,
    OPT_WAIT,
    OPT_HELP,
};

static const option kOptions[] = {
    {"file", required_argument, nullptr, OPT_FILE},
    {"fps", required_argument, nullptr, OPT_FPS},
    {"audio", required_argument, nullptr, OPT_AUDIO},
    {"data", required_argument, nullptr, OPT_DATA},
    {"rate", required_argument, nullptr, OPT_RATE},
    {"packet", required_argument, nullptr, OPT_PACKET},
    {"single", no_argument, nullptr, OPT_SINGLE},
    {"stamp", no_argument, nullptr, OPT_STAMP},
    {"sdp-line", required_argument, nullptr, OPT_SDP},
    {"camcfg", required_argument, nullptr, OPT_CAMCFG},
    {"rtcp", no_argument, nullptr, OPT_RTCP},
    {"first-time", required_argument, nullptr, OPT_TIME},
    {"first-seq", required_argument, nullptr, OPT_SEQ},
    {"speed", required_argument, nullptr, OPT_SPEED},
    {"loop", no_argument, nullptr, OPT_LOOP},
    {"duration", required_argument, nullptr, OPT_DURATION},
    {"count", required_argument, nullptr, OPT_COUNT},
    {"first", required_argument, nullptr, OPT_FIRST},
    {"record", no_argument, nullptr, OPT_RECORD},
    {"user", required_argument, nullptr, OPT_USER},
    {"password", required_argument, nullptr, OPT_PASSWORD},
    {"forward", required_argument, nullptr, OPT_FORWARD},
    {"dump", required_argument, nullptr, OPT_DUMP},
    {"wait", required_argument, nullptr, OPT_WAIT},
    {"quiet", no_argument, nullptr, OPT_QUIET},
    {"help", no_argument, nullptr, OPT_HELP},
    {nullptr, 0, nullptr, 0},
};

std::string WithNumber(const std::string &text, int nNumber)
{
    size_t nAt = text.find("%d");
    std::string out = text;
    return nAt == std::string::npos ? out : out.replace(nAt, 2, std::to_string(nNumber));
}

// A number of the command line; what is no number at all, or out of bounds, sets *pbBad.
static double Number(const char *szText, double dLowest, double dHighest, int *pbBad)
{
    char *pEnd = nullptr;
    double dValue = strtod(szText, &pEnd);
    if (pEnd == szText || *pEnd || !(dValue >= dLowest && dValue <= dHighest)) {
        fprintf(stderr, "orxpush: %s is not a number from %.15g to %.15g\n", szText, dLowest, dHighest);
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
static int TakeOption(int nCode, const char *szValue, PushOptions *pOut)
{
    int bBad = 0;
    switch (nCode) {
        case OPT_FILE:
            pOut->file = szValue;
            break;
        case OPT_FPS:
            pOut->dFps = Number(szValue, 0.01, 1000, &bBad);
            break;
        case OPT_AUDIO:
            pOut->audio = szValue;
            break;
        case OPT_DATA:
            pOut->nDataMs = Whole(szValue, 1, 3600000, &bBad);
            break;
        case OPT_RATE:
            pOut->nKbits = Whole(szValue, 1, 1000000, &bBad);
            break;
        case OPT_PACKET:
            pOut->nPacketBytes = Whole(szValue, 300, 65000, &bBad);
            break;
        case OPT_SINGLE:
            pOut->bSingle = 1;
            break;
        case OPT_STAMP:
            pOut->bStamp = 1;
            break;
        case OPT_SDP:
            pOut->sdpLines.emplace_back(szValue);
            break;
        case OPT_CAMCFG:
            pOut->camConfig = szValue;
            break;
        case OPT_RTCP:
            pOut->bRtcp = 1;
            break;
        case OPT_TIME:
            pOut->nFirstTime = static_cast<int64_t>(Number(szValue, 0, 4294967295.0, &bBad));
            break;
        case OPT_SEQ:
            pOut->nFirstSequence = Whole(szValue, 0, 65535, &bBad);
            break;
        case OPT_SPEED:
            pOut->dSpeed = Number(szValue, 0, 1000, &bBad);
            break;
        case OPT_LOOP:
            pOut->bLoop = 1;
            break;
        case OPT_DURATION:
            pOut->dSeconds = Number(szValue, 0.001, 1e9, &bBad);
            break;
        case OPT_COUNT:
            pOut->nCount = Whole(szValue, 1, 10000, &bBad);
            break;
        case OPT_FIRST:
            pOut->nFirst = Whole(szValue, 0, 1000000, &bBad);
            break;
        case OPT_RECORD:
            pOut->bRecord = 1;
            break;
        case OPT_USER:
            pOut->user = szValue;
            break;
        case OPT_PASSWORD:
            pOut->password = szValue;
            break;
        case OPT_FORWARD:
            pOut->forward = szValue;
            break;
        case OPT_DUMP:
            pOut->dump = szValue;
            break;
        case OPT_WAIT:
            pOut->nWaitSeconds = Whole(szValue, 0, 3600, &bBad);
            break;
        case OPT_QUIET:
            pOut->bQuiet = 1;
            break;
        default:
            return 0;
    }
    return !bBad;
}

int PushParseOptions(int argc, char **argv, PushOptions *pOut)
{
    int nCode;
    while ((nCode = getopt_long(argc, argv, "h", kOptions, nullptr)) != -1) {
        if (nCode == OPT_HELP || nCode == 'h') {
            fputs(kHelp, stdout);
            return PUSH_OK;
        }
        if (!TakeOption(nCode, optarg, pOut)) {
            fputs("Try orxpush --help.\n", stderr);
            return PUSH_USAGE;
        }
    }
    if (optind + 1 != argc) {
        fputs("orxpush: give one URL. Try orxpush --help.\n", stderr);
        return PUSH_USAGE;
    }
    pOut->url = argv[optind];
    if (pOut->nCount > 1 && pOut->url.find("%d") == std::string::npos) {
        fputs("orxpush: with --count the URL needs a %d for the program's number\n", stderr);
        return PUSH_USAGE;
    }
    if (pOut->nCount > 1 && !pOut->dump.empty() && pOut->dump.find("%d") == std::string::npos) {
        fputs("orxpush: with --count the file of --dump needs a %d for the program's number\n", stderr);
        return PUSH_USAGE;
    }
    pOut->bLoop |= pOut->dSeconds > 0;
    return -1;
}

}  // namespace orx
