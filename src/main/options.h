// The arguments of the program, but for those that name the configuration and the daemon (frame.cpp).
#pragma once

namespace orx {

enum class OptionAction {
    Run,
    Help,
    Version,
    Check,
    DumpConfig,
    Refuse,  // an unknown option beside one of these
};

struct Options {
    OptionAction eAction = OptionAction::Run;
    int bStrict = 0;
    int bUpgrade = 0;                 // with Check
    const char *szUnknown = nullptr;  // the first option that begins with "--" and is none; not owned
};

// Reads the arguments. What follows "-c" is a file's name, whatever it looks like.
void OptionsParse(Options *pOptions, int argc, char **argv);

// Says what is unknown, on standard error. Returns whether the process is to end, with *pStatus.
int OptionsSayUnknown(const Options *pOptions, int *pStatus);

void OptionsPrintHelp();
void OptionsPrintVersion();

}  // namespace orx
