#include "options.h"

#include <strings.h>

#include "cli/options.h"
#include "client/rtspclient.h"

namespace orx {

static CommandLine RecCommandLine(RecOptions *pOut)
{
    return {
        "orxrec",
        "Starts and stops recordings of a running server, and lists the recordings of the box it runs on.",
        {{"start", "URL", 1, 1, "begins to record rtsp://[user:password@]host[:port]/program"},
         {"alarm", "URL", 1, 1, "the same as an alarm: with the seconds before (PreRecordLen)"},
         {"stop", "URL", 1, 1, "ends the program's manual recording; others end by their limits"},
         {"status", "URL", 1, 1, "what is being written now, of one program or (without a path) of all"},
         {"list", "URL", 1, 1, "the recordings of one program or of all, the newest last, with play URLs"}},
        {{"", "", "Of start and alarm", OptionHeading{}},
         {"event", "N", "event type of start: 1 scheduled, 2 alarm, 3 manual",
          OptionWhole{&pOut->nEvent, 1, 3}},
         {"limit", "S", "the recording ends after S seconds; 0: it does not",
          OptionWhole{&pOut->nLimit, 0, INT32_MAX}},
         {"file", "NAME", "its name on the server, ending in .zmf; without it one by date and time",
          OptionText{&pOut->file}},
         {"", "", "Of start, alarm and stop", OptionHeading{}},
         {"user", "NAME", "for a server that asks for a name; on the box itself none is needed",
          OptionText{&pOut->user}},
         {"password", "TEXT", "and for a password", OptionText{&pOut->password}},
         {"", "", "Of status and list", OptionHeading{}},
         {"c", "FILE",
          "the server's configuration, as orx takes it: a name without / is looked for in cfg/. What its "
          "RecordPath names is taken from where orxrec lies, which is beside orx",
          OptionText{&pOut->config}}},
        "Exit code: 0 done; 1 the server refused; 2 the command line cannot be used; 3 there is no such "
        "program, or of list and status no recording of it; 4 there was no space for the recording; 5 no "
        "server, or no answer; 6 configuration or recordings cannot be read.",
    };
}

// Whether a name can stand in the request, among other parameters.
static int IsRecordingName(const std::string &name)
{
    for (char c : name)
        if (static_cast<unsigned char>(c) < ' ' || c == '&')
            return 0;
    return name.size() > 4 && strcasecmp(name.c_str() + name.size() - 4, ".zmf") == 0 &&
           name.find("Cmd=stop") == std::string::npos;
}

int RecParseOptions(int argc, char **argv, RecOptions *pOut)
{
    const CommandLine line = RecCommandLine(pOut);
    CommandArguments arguments;
    int nResult = OptionsRead(&line, argc, argv, &arguments);
    if (nResult != OPTIONS_GO_ON)
        return nResult;
    pOut->eCommand = static_cast<RecCommand>(arguments.nForm);
    pOut->url = arguments.words[0];
    if (pOut->eCommand == REC_ALARM)
        pOut->nEvent = 2;
    RtspUrl url;
    if (!RtspParseUrl(pOut->url.c_str(), &url))
        return OptionsRefuse(&line, "%s is no URL of the form rtsp://host:port/program", pOut->url.c_str());
    if (pOut->eCommand <= REC_STOP && url.path.size() < 2)
        return OptionsRefuse(&line, "the URL needs a program, as in rtsp://host:port/program");
    if (!pOut->file.empty() && !IsRecordingName(pOut->file))
        return OptionsRefuse(&line, "--file: %s is no name of a recording: it ends in .zmf and has no '&'",
                             pOut->file.c_str());
    return OPTIONS_GO_ON;
}

}  // namespace orx
