// orxzmf: looks into recordings, checks, repairs and exports them.
#include <algorithm>

#include "base/assertion.h"
#include "base/console.h"
#include "cli/options.h"
#include "export.h"
#include "repair.h"
#include "report.h"

using namespace orx;

using Words = std::vector<std::string>;

static int Info(const Words &words)
{
    return ReportInfo(words[0].c_str());
}

static int List(const Words &words)
{
    return ReportList(words[0].c_str());
}

static int Check(const Words &words)
{
    int nStatus = 0;
    for (const std::string &file : words)
        nStatus = std::max(nStatus, ReportCheck(file));
    return nStatus;
}

static int Repair(const Words &words)
{
    int nStatus = 0;
    for (const std::string &file : words)
        nStatus = std::max(nStatus, RepairRecording(file));
    return nStatus;
}

static int Export(const Words &words)
{
    Recording recording;
    if (!RecordingOpen(&recording, words[0].c_str()))
        return 1;
    int bGood = ExportRecording(&recording, words[1].c_str());
    RecordingClose(&recording);
    return bGood ? 0 : 1;
}

static const struct {
    OptionForm form;
    int (*pfnRun)(const Words &words);  // the exit code
} g_commands[] = {
    {{"info", "FILE", 1, 1, "header, index, counts, and a check"}, Info},
    {{"list", "DIR", 1, 1, "a table of the recordings in DIR and below"}, List},
    {{"check", "FILE...", 1, SIZE_MAX,
      "whether each file is sound, interrupted, without a picture, or damaged"},
     Check},
    {{"repair", "FILE...", 1, SIZE_MAX,
      "completes recordings that were interrupted, in place; one that is whole is left alone"},
     Repair},
    {{"export", "FILE OUT", 2, 2,
      "by the ending of OUT: .h264, .h265, .mjpeg, .g711, .amr or .aac for the bare media, .mp4 or .mkv with "
      "time "
      "stamps, key frames and audio; a file that is there is replaced when the export is whole"},
     Export},
};

int main(int argc, char **argv)
{
    CommandLine line{
        "orxzmf",
        "Looks into recordings, checks, repairs and exports them.",
        {},
        {},
        "Exit code: 0 everything is sound, or was repaired or exported; 1 a file is no recording "
        "or could not be read or written; 2 the command line cannot be used; of info, check and "
        "repair also 3 a recording was interrupted, 4 has no picture, 5 is damaged. Of several "
        "files the highest counts."};
    for (const auto &command : g_commands)
        line.forms.push_back(command.form);
    CommandArguments arguments;
    int nResult = OptionsRead(&line, argc, argv, &arguments);
    if (nResult != OPTIONS_GO_ON)
        return nResult;
    ConsoleSetDaemon(1);         // the library's own messages are for the server's console
    AssertSurvivePeerFaults(1);  // a broken file is refused, whatever it breaks
    return g_commands[arguments.nForm].pfnRun(arguments.words);
}
