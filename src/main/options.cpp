#include "main/options.h"

#include <cstdio>
#include <cstring>

#include "base/console.h"
#include "base/textbuf.h"

namespace orx {

constexpr int kStatusWrongUse = 2;

static const char kHelp[] =
    "Usage: orx [-c CFGFILE] [-daemond] [--strict]\n"
    "       orx --check [--upgrade] [-c CFGFILE]\n"
    "       orx --dump-config | --version | --help\n"
    "Streaming media server for networked cameras and recorders: cameras and encoders push, players watch,\n"
    "recordings are kept and played.\n"
    "\n"
    "  -c CFGFILE     the configuration; a name without '/' lies in cfg/ of the installation, which is also\n"
    "                 where orx.cfg is, that is read without this option\n"
    "  -daemond       no console: nothing is printed or read; the process stays in the foreground\n"
    "  --strict       end with status 1 where the start fails, where the configuration is missing or leaves "
    "a\n"
    "                 doubt about who may do what, and where a port or the directory of recordings cannot "
    "be\n"
    "                 used; as [GUARD] StrictConfig=1 in the file\n"
    "  --check        start nothing: print the value of every key, say on standard error what is doubtful,\n"
    "                 and whether the server would start with --strict; a running server is not disturbed\n"
    "  --upgrade      with --check: print only the lines that the file lacks and a new installation has\n"
    "  --dump-config  print a commented configuration with the default of every key\n"
    "  --version      print the version\n"
    "  --help         print this text\n"
    "\n"
    "On the console \"stat\" lists the sessions and \"quit\" or \"q\" ends the server, as SIGTERM does. "
    "SIGHUP\n"
    "has the configuration read again where [LOG] or [STATUS] is configured.\n"
    "\n"
    "Exit status: 0 it was ended, or the check found nothing that refuses a strict start, or a start that "
    "is\n"
    "not strict failed; 1 a strict start failed or would; 2 an unknown option beside --strict, --check,\n"
    "--dump-config or --version; 255 the installation directory was not found, or a fault in the program.\n";

struct OptionName {
    const char *szName;
    OptionAction eAction;  // Run: a flag
    int Options::*pFlag;
};
static constexpr OptionName g_options[] = {
    {"--help", OptionAction::Help, nullptr},
    {"--version", OptionAction::Version, nullptr},
    {"--check", OptionAction::Check, nullptr},
    {"--dump-config", OptionAction::DumpConfig, nullptr},
    {"--strict", OptionAction::Run, &Options::bStrict},
    {"--upgrade", OptionAction::Run, &Options::bUpgrade},
};

static void TakeOption(Options *pOptions, const char *szArgument)
{
    for (const OptionName &option : g_options) {
        if (strcmp(option.szName, szArgument) != 0)
            continue;
        if (option.pFlag)
            pOptions->*option.pFlag = 1;
        else if (pOptions->eAction == OptionAction::Run || option.eAction == OptionAction::Help)
            pOptions->eAction = option.eAction;
        return;
    }
    if (strncmp(szArgument, "--", 2) == 0 && !pOptions->szUnknown)
        pOptions->szUnknown = szArgument;
}

void OptionsParse(Options *pOptions, int argc, char **argv)
{
    for (int i = 1; i < argc; i++) {
        if (strncmp(argv[i], "-c", 2) == 0)
            i++;
        else
            TakeOption(pOptions, argv[i]);
    }
    if (pOptions->bUpgrade && pOptions->eAction != OptionAction::Check && !pOptions->szUnknown)
        pOptions->szUnknown = "--upgrade";
    int bAsked = pOptions->bStrict || pOptions->eAction != OptionAction::Run;
    if (pOptions->szUnknown && bAsked && pOptions->eAction != OptionAction::Help)
        pOptions->eAction = OptionAction::Refuse;
}

int OptionsSayUnknown(const Options *pOptions, int *pStatus)
{
    char szLine[256];
    TextBuf line{szLine, sizeof(szLine)};
    if (!pOptions->szUnknown || pOptions->eAction == OptionAction::Help)
        return 0;
    TextAdd(&line, "orx: unknown option %.100s, see orx --help\n", pOptions->szUnknown);
    ConsoleError(szLine, line.nLen);
    *pStatus = kStatusWrongUse;
    return pOptions->eAction == OptionAction::Refuse;
}

void OptionsPrintHelp()
{
    fputs(kHelp, stdout);
}

void OptionsPrintVersion()
{
    printf("Orx version %s, built %s %s\n", ORX_VERSION, __DATE__, __TIME__);
}

}  // namespace orx
