// The command line of orxrec.
#pragma once

#include <string>

namespace orx {

// Exit codes.
enum {
    REC_OK = 0,
    REC_REFUSED = 1,
    REC_USAGE = 2,
    REC_NOT_FOUND = 3,    // no such program, or no recording of it
    REC_NO_SPACE = 4,     // the file of the recording could not be made
    REC_UNREACHABLE = 5,  // no server, or no answer
    REC_UNREADABLE = 6,   // the configuration or the recordings
};

enum RecCommand { REC_START, REC_ALARM, REC_STOP, REC_STATUS, REC_LIST };  // in the order of the forms

struct RecOptions {
    RecCommand eCommand = REC_START;
    std::string url;
    int nEvent = 3;    // RECORD_... of the recording format
    int nLimit = 0;    // seconds, 0: none
    std::string file;  // empty: the server names it
    std::string user, password;
    std::string config = "orx.cfg";
};

// Returns -1 when the options were taken, else the code to exit with.
int RecParseOptions(int argc, char **argv, RecOptions *pOut);

}  // namespace orx
