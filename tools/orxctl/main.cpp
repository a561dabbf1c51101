// orxctl: what a running server is doing, on a terminal; and the administrator's orders to it.
#include <poll.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>

#include "ask.h"
#include "base/console.h"
#include "base/inifile.h"
#include "base/installdir.h"
#include "cli/options.h"
#include "orxctl/tables.h"

using namespace orx;

enum {
    CTL_OK = 0,
    CTL_REFUSED = 1,
    CTL_WRONG = 2,
    CTL_NOT_FOUND = 3,
    CTL_UNREACHABLE = 5,
    CTL_NO_CONFIG = 6
};
enum CtlCommand {
    CTL_STATUS,
    CTL_PROGRAMS,
    CTL_SESSIONS,
    CTL_RECORDINGS,
    CTL_METRICS,
    CTL_HEALTH,
    CTL_TOP,
    CTL_RELOAD,
    CTL_KICK
};

struct CtlOptions {
    CtlCommand eCommand = CTL_STATUS;
    std::vector<std::string> words;
    std::string socket, config;
    int bJson = 0;
    double dEvery = 2;
};

static volatile sig_atomic_t g_bEnd = 0;  // by the signal handler

static CommandLine CtlCommandLine(CtlOptions *pOut)
{
    return {
        "orxctl",
        "Shows what a running server is doing, and passes the administrator's orders on to it.",
        {{"status", "", 0, 0,
          "the server as a whole: listeners, storage, relay, doubts about its configuration"},
         {"programs", "", 0, 0, "the programs: codec, size, rates, pusher, players"},
         {"sessions", "", 0, 0, "who is connected"},
         {"recordings", "[PROGRAM [DAY]]", 0, 2,
          "which programs have recordings; or those of one, of a day (YYYYMMDD)"},
         {"metrics", "", 0, 0, "counters and gauges, as Prometheus reads them"},
         {"health", "", 0, 0, "\"ok\", or why not"},
         {"top", "", 0, 0, "programs and sessions, refreshed until q or Ctrl-C"},
         {"reload", "", 0, 0, "has the configuration read again"},
         {"kick", "SESSION", 1, 1, "ends a session, by its number in the table of sessions"}},
        {{"s", "SOCKET", "the status socket; without it that of the installation", OptionText{&pOut->socket}},
         {"c", "FILE", "the server's configuration, whose [STATUS] Socket is taken",
          OptionText{&pOut->config}},
         {"json", "", "prints the server's answer as it is", OptionFlag{&pOut->bJson}},
         {"every", "S", "of top: seconds between two looks", OptionDecimal{&pOut->dEvery, 0.2, 3600}}},
        "Exit code: 0 done, and of health: well; 1 the server refused, or is not well; 2 the command line "
        "cannot "
        "be used; 3 there is no such session or recording; 5 no server, or no answer; 6 the configuration "
        "cannot "
        "be read.",
    };
}

static int Fail(int nExit, const std::string &text)
{
    fprintf(stderr, "orxctl: %s\n", TerminalText(text).c_str());
    return nExit;
}

// Returns an exit code.
static int FindSocket(CtlOptions *pOptions)
{
    char szPath[512], szSocket[128] = "";
    if (!pOptions->socket.empty())
        return CTL_OK;
    if (!pOptions->config.empty()) {
        ConsoleSetQuiet(1);                                         // what it prints is the server's
        Profile *pProfile = ProfileInit(pOptions->config.c_str());  // of any length, as the server reads it
        if (!pProfile)
            return Fail(CTL_NO_CONFIG, pOptions->config + " cannot be read: give the server's configuration");
        ProfileGetStr("STATUS", "Socket", szSocket, sizeof(szSocket), "", pProfile);
        ProfileFree(pProfile);
        if (!szSocket[0])
            return Fail(CTL_NO_CONFIG,
                        pOptions->config + " has no [STATUS] Socket: set one, and start the server anew");
    }
    if (!InstallPath(szPath, sizeof(szPath), szSocket[0] ? szSocket : "run/orx.sock"))
        return Fail(CTL_NO_CONFIG, "its own path cannot be read: give the socket with -s");
    pOptions->socket = szPath;
    if (!szSocket[0] && access(szPath, F_OK) != 0 && access("/run/orx/orx.sock", F_OK) == 0)
        pOptions->socket = "/run/orx/orx.sock";
    return CTL_OK;
}

static size_t TerminalWidth()
{
    winsize size{};
    if (!isatty(STDOUT_FILENO) || ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0)
        return 0;
    return size.ws_col ? size.ws_col : 80;
}

static int ExitOf(int nStatus)
{
    return nStatus == 0     ? CTL_UNREACHABLE
           : nStatus == 404 ? CTL_NOT_FOUND
           : nStatus == 200 ? CTL_OK
                            : CTL_REFUSED;
}

// --- top ---

static void OnSignal(int)
{
    g_bEnd = 1;
}

// Keys come at once while it lives, and are not shown.
struct KeyMode {
    termios before{};
    int bSet = 0;
    KeyMode()
    {
        bSet = tcgetattr(STDIN_FILENO, &before) == 0;
        termios now = before;
        now.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
        if (bSet)
            tcsetattr(STDIN_FILENO, TCSANOW, &now);
        printf("\033[?1049h\033[?25l");
    }
    ~KeyMode()
    {
        printf("\033[?25h\033[?1049l");
        fflush(stdout);
        if (bSet)
            tcsetattr(STDIN_FILENO, TCSANOW, &before);
    }
};

// What fits the screen, each line ended so that nothing of the one before stays.
static void Draw(const std::string &text)
{
    winsize size{};
    size_t nRows = ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_row ? size.ws_row : 24;
    printf("\033[H");
    size_t nAt = 0;
    for (size_t i = 1; i < nRows && nAt < text.size(); i++) {
        size_t nEnd = text.find('\n', nAt);
        printf("%s\033[K\r\n", text.substr(nAt, nEnd - nAt).c_str());
        nAt = nEnd == std::string::npos ? text.size() : nEnd + 1;
    }
    printf("\033[J");
    fflush(stdout);
}

// Returns 1 when 'q' was typed, or nothing can be any more.
static int WaitForKey(double dSeconds)
{
    pollfd set{STDIN_FILENO, POLLIN, 0};
    char c;
    if (poll(&set, 1, static_cast<int>(dSeconds * 1000)) <= 0)
        return 0;
    return read(STDIN_FILENO, &c, 1) != 1 || c == 'q' || c == 'Q';
}

static int Top(const CtlOptions &options)
{
    if (!isatty(STDOUT_FILENO) || !isatty(STDIN_FILENO))
        return Fail(CTL_WRONG, "top needs a terminal: use programs and sessions");
    struct sigaction action {};
    action.sa_handler = OnSignal;
    for (int nSignal : {SIGINT, SIGTERM, SIGHUP})
        sigaction(nSignal, &action, nullptr);
    CtlAnswer answer;
    {
        KeyMode keys;
        do {
            answer = CtlAsk(options.socket, "GET", "/status");
            JsonValue status;
            if (ExitOf(answer.nStatus) != CTL_OK || !JsonParse(answer.body, &status))
                break;
            size_t nWidth = TerminalWidth();
            Draw("orx " + JsonMember(status, "version").text + "  up " +
                 ShortTime(JsonToNumber(JsonMember(status, "uptime_s"))) + "  q ends\n\n" +
                 ProgramsTable(status, nWidth) + "\n" + SessionsTable(status, nWidth));
        } while (!g_bEnd && !WaitForKey(options.dEvery));
    }
    int nExit = ExitOf(answer.nStatus);
    return nExit == CTL_OK ? CTL_OK : Fail(nExit, answer.body);
}

// --- The others ---

struct CtlRoute {
    const char *szMethod;
    const char *szTarget;
    std::string (*pfnTable)(const JsonValue &value, size_t nWidth);  // null: a text
};
static const CtlRoute g_routes[] = {
    // by CtlCommand
    {"GET", "/status", StatusTable},     {"GET", "/status", ProgramsTable},
    {"GET", "/status", SessionsTable},   {"GET", "/recordings", RecordingsTable},
    {"GET", "/metrics", nullptr},        {"GET", "/health", nullptr},
    {"GET", "/status", nullptr},         {"POST", "/reload", nullptr},
    {"POST", "/kick?session=", nullptr},
};

static int AskOnce(const CtlOptions &options)
{
    const CtlRoute &route = g_routes[options.eCommand];
    std::string target = route.szTarget;
    if (options.eCommand == CTL_KICK)
        target += CtlEncode(options.words[0]);
    if (options.eCommand == CTL_RECORDINGS && !options.words.empty())
        target += "?program=" + CtlEncode(options.words[0]);
    if (options.eCommand == CTL_RECORDINGS && options.words.size() > 1)
        target += "&day=" + CtlEncode(options.words[1]);
    CtlAnswer answer = CtlAsk(options.socket, route.szMethod, target);
    int nExit = ExitOf(answer.nStatus);
    if (nExit != CTL_OK) {
        while (!answer.body.empty() && answer.body.back() == '\n')
            answer.body.pop_back();
        return Fail(nExit, answer.body);
    }
    JsonValue value;
    if (route.pfnTable && !options.bJson && JsonParse(answer.body, &value))
        answer.body = route.pfnTable(value, TerminalWidth());
    fputs((isatty(STDOUT_FILENO) ? TerminalText(answer.body) : answer.body).c_str(), stdout);
    if (JsonMember(value, "more").text == "true")
        fprintf(stderr, "orxctl: there are more: name a day, or ask with after= (docs/status.md)\n");
    return CTL_OK;
}

int main(int argc, char **argv)
{
    CtlOptions options;
    const CommandLine line = CtlCommandLine(&options);
    CommandArguments arguments;
    int nResult = OptionsRead(&line, argc, argv, &arguments);
    if (nResult != OPTIONS_GO_ON)
        return nResult;
    options.eCommand = static_cast<CtlCommand>(arguments.nForm);
    options.words = arguments.words;
    int nExit = FindSocket(&options);
    if (nExit != CTL_OK)
        return nExit;
    return options.eCommand == CTL_TOP ? Top(options) : AskOnce(options);
}
