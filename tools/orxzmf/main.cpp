// orxzmf: looks into recordings, checks them, and exports them.
#include <cstdio>
#include <cstring>

#include "base/assertion.h"
#include "base/console.h"
#include "export.h"
#include "report.h"

using namespace orx;

static const char kHelp[] =
    "Usage: orxzmf info FILE          header, index, counts, and a check\n"
    "       orxzmf list DIR           a table of the recordings in DIR and below\n"
    "       orxzmf check FILE...      whether each file is sound\n"
    "       orxzmf export FILE OUT    by the ending of OUT: .h264, .mjpeg, .g711 or .amr for the bare "
    "media,\n"
    "                                 .mp4 or .mkv with time stamps, key frames and audio\n"
    "\n"
    "Exit code: 0 everything is sound or was exported, 1 a file is faulty or could not be read or written,\n"
    "2 the command line cannot be used.\n";

static int Check(int nFiles, char **files)
{
    int nStatus = 0;
    for (int i = 0; i < nFiles; i++)
        nStatus |= ReportCheck(files[i]);
    return nStatus;
}

static int Export(const char *szFile, const char *szOut)
{
    Recording recording;
    if (!RecordingOpen(&recording, szFile))
        return 1;
    int bGood = ExportRecording(&recording, szOut);
    RecordingClose(&recording);
    return bGood ? 0 : 1;
}

int main(int argc, char **argv)
{
    const char *szCommand = argc > 1 ? argv[1] : "";
    ConsoleSetDaemon(1);         // the library's own messages are for the server's console
    AssertSurvivePeerFaults(1);  // a broken file is refused, whatever it breaks
    if (strcmp(szCommand, "info") == 0 && argc == 3)
        return ReportInfo(argv[2]);
    if (strcmp(szCommand, "list") == 0 && argc == 3)
        return ReportList(argv[2]);
    if (strcmp(szCommand, "check") == 0 && argc >= 3)
        return Check(argc - 2, argv + 2);
    if (strcmp(szCommand, "export") == 0 && argc == 4)
        return Export(argv[2], argv[3]);
    int bHelp = strcmp(szCommand, "--help") == 0 || strcmp(szCommand, "help") == 0;
    fputs(kHelp, bHelp ? stdout : stderr);
    return bHelp ? 0 : 2;
}
