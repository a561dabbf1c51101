// orxctl: what a running server does, on a terminal.
#include <jansson.h>

#include <csignal>
#include <cstdio>

#include <sys/ioctl.h>
#include <unistd.h>

#include "base/console.h"
#include "cli/options.h"
#include "orxctl/options.h"
#include "orxctl/place.h"
#include "orxctl/socket.h"
#include "orxctl/table.h"
#include "orxctl/top.h"
#include "orxctl/views.h"

using namespace orx;

using View = std::string (*)(const json_t *pAnswer, size_t nWidth);

static int Fail(int nExit, const std::string &text)
{
    fprintf(stderr, "orxctl: %s\n", Harmless(text.c_str()).c_str());
    return nExit;
}

static int NoServer(const std::string &why)
{
    Fail(CTL_NO_SERVER, why);
    return Fail(CTL_NO_SERVER, "does Orx run, with [STATUS] Socket set, and may you use that socket?");
}

// Of a terminal; a pipe or file gets whole lines.
static size_t Columns()
{
    winsize size{};
    return ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 ? size.ws_col : 0;
}

static int Show(const CtlAnswer &answer, View pfnView)
{
    json_error_t error;
    json_t *pJson = json_loadb(answer.body.data(), answer.body.size(), 0, &error);
    if (!pJson)
        return Fail(CTL_NO_SERVER, std::string("the answer cannot be read: ") + error.text);
    fputs(pfnView(pJson, Columns()).c_str(), stdout);
    json_decref(pJson);
    return CTL_DONE;
}

static std::string RecordingsTarget(const CtlOptions &options)
{
    if (options.first.empty())
        return "/recordings";
    return "/recordings?program=" + CtlEscape(options.first) +
           (options.second.empty() ? "" : "&day=" + CtlEscape(options.second));
}

// What a command asks, and how its answer is shown; no view: as it is.
struct Question {
    const char *szMethod;
    std::string target;
    View pfnView;
};

static Question QuestionOf(const CtlOptions &options)
{
    switch (options.eCommand) {
        case CTL_PROGRAMS:
            return {"GET", "/status", ViewPrograms};
        case CTL_SESSIONS:
            return {"GET", "/status", ViewSessions};
        case CTL_RECORDINGS:
            return {"GET", RecordingsTarget(options), ViewRecordings};
        case CTL_METRICS:
            return {"GET", "/metrics", nullptr};
        case CTL_HEALTH:
            return {"GET", "/health", nullptr};
        case CTL_RELOAD:
            return {"POST", "/reload", nullptr};
        case CTL_KICK:
            return {"POST", "/kick?session=" + CtlEscape(options.first), nullptr};
        case CTL_STATUS:
        case CTL_TOP:
            break;
    }
    return {"GET", "/status", ViewStatus};
}

int main(int argc, char **argv)
{
    CtlOptions options;
    int nExit = CtlParseOptions(argc, argv, &options);
    if (nExit != OPTIONS_GO_ON)
        return nExit;
    signal(SIGPIPE, SIG_IGN);
    ConsoleSetDaemon(1);  // the library's own messages are for the server's console
    std::string why;
    const std::string socket = CtlFindSocket(options, &why);
    if (socket.empty())
        return Fail(CTL_NO_SERVER, why);
    if (options.eCommand == CTL_TOP)
        return TopRun(socket, options.nSeconds);
    const Question question = QuestionOf(options);
    const CtlAnswer answer = CtlAsk(socket, question.szMethod, question.target);
    if (answer.nStatus == 0)
        return NoServer(answer.body);
    if (answer.nStatus == 200 && question.pfnView && !options.bJson)
        return Show(answer, question.pfnView);
    fputs(answer.body.c_str(), answer.nStatus == 200 || options.eCommand == CTL_HEALTH ? stdout : stderr);
    return answer.nStatus == 200 ? CTL_DONE : CTL_REFUSED;
}
