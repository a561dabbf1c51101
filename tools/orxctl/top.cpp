#include "orxctl/top.h"

#include <cerrno>
#include <csignal>
#include <cstdio>

#include <poll.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include "orxctl/options.h"
#include "orxctl/socket.h"
#include "orxctl/table.h"
#include "orxctl/views.h"

namespace orx {

static volatile sig_atomic_t g_bEnd = 0;

static void OnEnd(int)
{
    g_bEnd = 1;
}

// The terminal while the view is on it: another screen, no echo, keys as they come.
struct Screen {
    termios before{};
    int bKeys;

    Screen() : bKeys(tcgetattr(STDIN_FILENO, &before) == 0)
    {
        termios keys = before;
        keys.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
        if (bKeys)
            tcsetattr(STDIN_FILENO, TCSANOW, &keys);
        fputs("\033[?1049h\033[?25l", stdout);
    }
    ~Screen()
    {
        fputs("\033[?25h\033[?1049l", stdout);
        fflush(stdout);
        if (bKeys)
            tcsetattr(STDIN_FILENO, TCSANOW, &before);
    }
    Screen(const Screen &) = delete;
    Screen &operator=(const Screen &) = delete;
};

// The first nRows of a text, each ending what stood in its row before.
static void Paint(const std::string &text, size_t nRows)
{
    fputs("\033[H", stdout);
    size_t nFrom = 0;
    for (size_t i = 0; i + 1 < nRows && nFrom < text.size(); i++) {
        size_t nEnd = text.find('\n', nFrom);
        fprintf(stdout, "%s\033[K\r\n", text.substr(nFrom, nEnd - nFrom).c_str());
        nFrom = nEnd == std::string::npos ? text.size() : nEnd + 1;
    }
    fputs("\033[Jq ends", stdout);
    fflush(stdout);
}

// Returns 1, or 0 with why it could not be asked.
static int ShowOnce(const std::string &socket, std::string *pWhy)
{
    winsize size{};
    ioctl(STDOUT_FILENO, TIOCGWINSZ, &size);
    const CtlAnswer answer = CtlAsk(socket, "GET", "/status");
    json_t *pStatus =
        answer.nStatus == 200 ? json_loadb(answer.body.data(), answer.body.size(), 0, nullptr) : nullptr;
    if (!pStatus) {
        *pWhy = answer.body;
        return 0;
    }
    Paint(ViewStatus(pStatus, size.ws_col ? size.ws_col : 80), size.ws_row ? size.ws_row : 24);
    json_decref(pStatus);
    return 1;
}

// Whether the next view is due; 0: it is time to end.
static int Await(int nSeconds)
{
    pollfd input{STDIN_FILENO, POLLIN, 0};
    int nReady = poll(&input, 1, nSeconds * 1000);
    if (nReady < 0)
        return errno == EINTR && !g_bEnd;  // perhaps the terminal has another size
    char c = 0;
    return nReady == 0 ? !g_bEnd : read(STDIN_FILENO, &c, 1) == 1 && c != 'q' && c != 'Q';
}

int TopRun(const std::string &socket, int nSeconds)
{
    std::string why;
    struct sigaction end {};
    end.sa_handler = OnEnd;
    for (int nSignal : {SIGINT, SIGTERM, SIGHUP})
        sigaction(nSignal, &end, nullptr);
    {
        Screen screen;
        while (ShowOnce(socket, &why) && Await(nSeconds)) {
        }
    }
    if (why.empty())
        return CTL_DONE;
    fprintf(stderr, "orxctl: %s\n", Harmless(why.c_str()).c_str());
    return CTL_NO_SERVER;
}

}  // namespace orx
