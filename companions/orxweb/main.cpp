// orxweb: live and recorded pictures, and the state of the box, for people with a browser.
#include <csignal>
#include <cstdio>

#include "base/assertion.h"
#include "base/console.h"
#include "base/installdir.h"
#include "cli/options.h"
#include "orxweb/clip.h"
#include "orxweb/httpserver.h"
#include "orxweb/livechannel.h"
#include "orxweb/media.h"
#include "orxweb/routes.h"
#include "orxweb/serverask.h"
#include "orxweb/webaccess.h"
#include "orxweb/websettings.h"

using namespace orx;

enum { WEB_OK = 0, WEB_FAILED = 1 };

static CommandLine WebCommandLine(std::string *pConfig)
{
    return {"orxweb",
            "Serves pages to browsers: live programs, recordings and the state of a running server.",
            {},
            {{"c", "FILE",
              "the server's configuration, with [WEB] Listen, Port, Title and CachePath (default cfg/orx.cfg "
              "of the "
              "installation)",
              OptionText{pConfig}}},
            "Exit code: 0 ended by SIGTERM or SIGINT, 1 it cannot start, 2 the command line cannot be used."};
}

static int Fail(const std::string &text)
{
    fprintf(stderr, "orxweb: %s\n", text.c_str());
    return WEB_FAILED;
}

// Blocks them for all threads that will be: the main thread waits for one.
static sigset_t BlockSignals()
{
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, SIGINT);
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    signal(SIGPIPE, SIG_IGN);
    return set;
}

static int StartMedia(const WebSettings *pSettings)
{
    LiveSettings live;
    live.rtspBase = pSettings->rtspBase;
    ClipSettings clips;
    clips.recordPath = pSettings->recordPath;
    clips.cachePath = pSettings->cachePath;
    if (!LiveStart(&live))
        return Fail("live pictures do not start") == WEB_OK;
    if (ClipsStart(&clips))
        return 1;
    LiveStop();
    return Fail(pSettings->cachePath + " cannot be used as [WEB] CachePath") == WEB_OK;
}

static int StartHttp(const WebSettings *pSettings)
{
    HttpServerSettings http;
    http.door.listen = pSettings->listen;
    http.door.nPort = pSettings->nPort;
    http.door.pfnIsFront = IsFront;
    http.pfnAnswer = RouteAnswer;
    http.pfnForget = MediaForget;
    std::string why;
    return HttpServerStart(&http, &why) || Fail(why) == WEB_OK;
}

static int Serve(const sigset_t *pSignals)
{
    auto pSettings = WebSettingsNow();
    if (!StartMedia(pSettings.get()))
        return WEB_FAILED;
    int nSignal = 0;
    int bServed = StartHttp(pSettings.get());
    if (bServed) {
        fprintf(stderr, "orxweb: listening on %s:%d\n", pSettings->listen.c_str(), pSettings->nPort);
        sigwait(pSignals, &nSignal);
        ServerAskStop();
        HttpServerStop();
    }
    LiveStop();
    ClipsStop();
    return bServed ? WEB_OK : WEB_FAILED;
}

int main(int argc, char **argv)
{
    std::string config;
    CommandLine line = WebCommandLine(&config);
    CommandArguments arguments;
    int nExit = OptionsRead(&line, argc, argv, &arguments);
    if (nExit != OPTIONS_GO_ON)
        return nExit;
    ConsoleSetDaemon(1);         // the library's own messages are for the server's console
    AssertSurvivePeerFaults(1);  // what visitors send ends their request alone; a configuration may be long
    char szConfig[512];
    if (config.empty() && InstallPath(szConfig, sizeof(szConfig), "cfg/orx.cfg"))
        config = szConfig;
    if (!WebSettingsUse(config))
        return Fail(config + " cannot be read");
    if (WebSettingsNow()->socketPath.empty())
        return Fail(config + " has no [STATUS] Socket: set one, and start the server anew");
    sigset_t signals = BlockSignals();
    return Serve(&signals);
}
