#include "orxload/options.h"

#include "cli/options.h"

namespace orx {

static std::vector<Option> Players(LoadOptions *pOut)
{
    return {
        {"", "", "Players", OptionHeading{}},
        {"tcp", "N", "players over TCP; one when no player is asked for", OptionWhole{&pOut->nTcp, 0, 10000}},
        {"udp", "N", "players over UDP", OptionWhole{&pOut->nUdp, 0, 10000}},
        {"tunnel", "N", "players through HTTP tunnels", OptionWhole{&pOut->nTunnel, 0, 10000}},
        {"stalled", "N", "further TCP players that start and then never read",
         OptionWhole{&pOut->nStalled, 0, 10000}},
        {"programs", "N", "take turns over N programs; their number replaces %d in the URL",
         OptionWhole{&pOut->nPrograms, 1, 10000}},
        {"first", "N", "the number of the first of them", OptionWhole{&pOut->nFirst, 0, 1000000}},
        {"ramp", "N", "players that start per second; 0: all at once", OptionWhole{&pOut->nRamp, 0, 1000000}},
        {"keepalive", "S", "seconds between the OPTIONS of a player; 0: none",
         OptionWhole{&pOut->nKeepAlive, 0, 86400}},
        {"reports", "S", "seconds between the receiver reports of a UDP player; 0: none",
         OptionWhole{&pOut->nReports, 0, 86400}},
        {"together", "", "UDP players read at once what left with one call (UDP_GRO)",
         OptionFlag{&pOut->bTogether}},
        {"silence", "S", "a player with a track that is silent for S seconds is cut off; 0: none is",
         OptionWhole{&pOut->nSilence, 0, 86400}},
        {"user", "NAME", "for a server that asks for a name", OptionText{&pOut->user}},
        {"password", "TEXT", "and for a password", OptionText{&pOut->password}},
        {"timeout", "MS", "for the set-up of one player", OptionWhole{&pOut->nTimeoutMs, 1, 600000}},
        {"", "", "What is measured", OptionHeading{}},
        {"duration", "S", "how many seconds", OptionDecimal{&pOut->dSeconds, 0.1, 1e7}},
        {"warmup", "S", "start counting S seconds after the last player has started",
         OptionDecimal{&pOut->dWarmup, 0, 1e6}},
        {"verify", "FILE", "compare every packet with the dump that orxpush --dump writes meanwhile",
         OptionText{&pOut->verify}},
        {"watch-pid", "PID", "processor time and memory of the server's process",
         OptionWhole{&pOut->nWatchPid, 1, 1 << 30}},
        {"strict", "", "gaps, late packets and players that do not start at a key frame are failures, too",
         OptionFlag{&pOut->bStrict}},
        {"json", "", "print only the JSON line", OptionFlag{&pOut->bJson}},
        {"quiet", "", "no progress", OptionFlag{&pOut->bQuiet}},
    };
}

int LoadParseOptions(int argc, char **argv, LoadOptions *pOut)
{
    const CommandLine line{
        "orxload",
        "Opens many players of a program and says what reached them.",
        {{"", "URL", 1, 1, "rtsp://[user:password@]host[:port]/name"}},
        Players(pOut),
        "Latency is the time from the moment that orxpush --stamp wrote into a picture until its last packet "
        "arrived, for pictures sent after the player's PLAY was answered; pusher and players must run on one "
        "machine.\n\n"
        "Exit code: 0 all is well, 1 players failed, were cut off, got no picture or other bytes than were "
        "pushed, 2 the command line or a file cannot be used, 3 what --strict forbids has happened."};
    CommandArguments arguments;
    int nResult = OptionsRead(&line, argc, argv, &arguments);
    if (nResult != OPTIONS_GO_ON)
        return nResult;
    pOut->url = arguments.words[0];
    if (pOut->nPrograms > 1 && pOut->url.find("%d") == std::string::npos)
        return OptionsRefuse(&line, "with --programs the URL needs a %%d for the program's number");
    if (pOut->nTcp + pOut->nUdp + pOut->nTunnel + pOut->nStalled == 0)
        pOut->nTcp = 1;
    return OPTIONS_GO_ON;
}

}  // namespace orx
