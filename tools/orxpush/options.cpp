#include "options.h"

#include "cli/options.h"

namespace orx {

static std::vector<Option> WhatIsSent(PushOptions *pOut)
{
    return {
        {"", "", "What is sent", OptionHeading{}},
        {"file", "PATH",
         "H.264 byte stream, or a JPEG sequence (a directory or a quoted pattern of .jpg); without it the "
         "clip "
         "of the source tree (tests/data/clip.h264)",
         OptionText{&pOut->file}},
        {"fps", "N", "pictures per second", OptionDecimal{&pOut->dFps, 0.01, 1000}},
        {"audio", "tone|FILE", "an audio track: a tone, or a file of G.711 A-law at 8000 Hz",
         OptionText{&pOut->audio}},
        {"data", "MS", "a data track with a packet every MS milliseconds",
         OptionWhole{&pOut->nDataMs, 1, 3600000}},
        {"rate", "KBITS", "fill H.264 pictures up to this rate with filler data",
         OptionWhole{&pOut->nKbits, 1, 1000000}},
        {"packet", "BYTES", "largest RTP packet", OptionWhole{&pOut->nPacketBytes, 300, 65000}},
        {"single", "", "one unit per packet where it fits, no aggregation", OptionFlag{&pOut->bSingle}},
        {"stamp", "", "write the send time into pictures (H.264) and data packets, for orxload",
         OptionFlag{&pOut->bStamp}},
        {"sdp-line", "TEXT", "add a line to the description", OptionTexts{&pOut->sdpLines}},
        {"camcfg", "FILE", "send this text with PUTCAMCFG once the program runs",
         OptionText{&pOut->camConfig}},
        {"rtcp", "", "send a sender report for each track every 5 seconds", OptionFlag{&pOut->bRtcp}},
        {"first-time", "N", "RTP time stamp of the first picture; random without it",
         OptionWhole{&pOut->nFirstTime, 0, UINT32_MAX}},
        {"first-seq", "N", "RTP sequence number of the first packet; random without it",
         OptionWhole{&pOut->nFirstSequence, 0, UINT16_MAX}},
    };
}

static std::vector<Option> How(PushOptions *pOut)
{
    return {
        {"", "", "How", OptionHeading{}},
        {"speed", "X", "media seconds per second; 0: as fast as the server takes them",
         OptionDecimal{&pOut->dSpeed, 0, 1000}},
        {"loop", "", "start again at the end of the file", OptionFlag{&pOut->bLoop}},
        {"duration", "S", "end after S media seconds; implies --loop",
         OptionDecimal{&pOut->dSeconds, 0.001, 1e9}},
        {"count", "N", "programs at once; their number replaces %d in the URL (and in --dump)",
         OptionWhole{&pOut->nCount, 1, 10000}},
        {"first", "N", "the number of the first of them", OptionWhole{&pOut->nFirst, 0, 1000000}},
        {"wait", "S", "try for S seconds to connect, for a server that is only starting",
         OptionWhole{&pOut->nWaitSeconds, 0, 3600}},
        {"record", "", "start with RECORD instead of PLAY", OptionFlag{&pOut->bRecord}},
        {"user", "NAME", "for a server that asks for a name", OptionText{&pOut->user}},
        {"password", "TEXT", "and for a password", OptionText{&pOut->password}},
        {"forward", "TEXT", "the answer to requests of players", OptionText{&pOut->forward}},
        {"dump", "FILE", "write every RTP packet as it is sent: '$', channel, 16-bit length, packet",
         OptionText{&pOut->dump}},
        {"quiet", "", "no progress", OptionFlag{&pOut->bQuiet}},
    };
}

static CommandLine PushCommandLine(PushOptions *pOut)
{
    CommandLine line{
        "orxpush",
        "Announces a program and pushes a file to it, as a camera's encoder does.",
        {{"", "URL", 1, 1, "rtsp://[user:password@]host[:port]/name"}},
        WhatIsSent(pOut),
        "Exit code: 0 everything was pushed (or stopped by a signal), 1 a program was refused or "
        "cut off, 2 the command line or a file cannot be used."};
    for (const Option &option : How(pOut))
        line.options.push_back(option);
    return line;
}

int PushParseOptions(int argc, char **argv, PushOptions *pOut)
{
    const CommandLine line = PushCommandLine(pOut);
    CommandArguments arguments;
    int nResult = OptionsRead(&line, argc, argv, &arguments);
    if (nResult != OPTIONS_GO_ON)
        return nResult;
    pOut->url = arguments.words[0];
    if (pOut->nCount > 1 && pOut->url.find("%d") == std::string::npos)
        return OptionsRefuse(&line, "with --count the URL needs a %%d for the program's number");
    if (pOut->nCount > 1 && !pOut->dump.empty() && pOut->dump.find("%d") == std::string::npos)
        return OptionsRefuse(&line, "with --count the file of --dump needs a %%d for the program's number");
    pOut->bLoop |= pOut->dSeconds > 0;
    return OPTIONS_GO_ON;
}

}  // namespace orx
