// orxrec: starts and stops recordings of a running server, and lists those of the box.
#include <csignal>

#include "base/assertion.h"
#include "base/console.h"
#include "control.h"
#include "listing.h"

using namespace orx;

int main(int argc, char **argv)
{
    RecOptions options;
    int nExit = RecParseOptions(argc, argv, &options);
    if (nExit >= 0)
        return nExit;
    signal(SIGPIPE, SIG_IGN);
    ConsoleSetDaemon(1);         // the library's own messages are for the server's console
    AssertSurvivePeerFaults(1);  // a broken file is shown as one, and a configuration may be long
    return options.eCommand <= REC_STOP ? RecControl(options) : RecListing(options);
}
