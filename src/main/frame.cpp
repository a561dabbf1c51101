#include "main/frame.h"

#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include <fcntl.h>
#include <malloc.h>
#include <poll.h>
#include <sys/resource.h>
#include <unistd.h>

#include "base/assertion.h"
#include "base/configfile.h"
#include "base/console.h"
#include "base/inifile.h"
#include "base/installdir.h"
#include "base/textbuf.h"
#include "main/checkreport.h"
#include "main/notify.h"
#include "main/options.h"
#include "main/startcode.h"
#include "runtime/thread.h"
#include "server/core/doubts.h"
#include "server/core/settings.h"
#include "server/front/reload.h"
#include "server/front/server.h"
#include "server/front/startdoubts.h"

namespace orx {

static constexpr size_t kPathSize = 256;
static constexpr int kTickMs = 100;          // so long at most does a loop miss that it is to end
static constexpr unsigned kStateTicks = 50;  // the state file is written when more ticks have passed: 5 s

static constexpr char kConfigName[] = "orx.cfg";
static constexpr char kStateSection[] = "MAIN";  // of the state file

static std::atomic<int> g_bTerminate{0};  // set by the signal handler, looked at by the loops
static std::atomic<int> g_bHangup{0};     // the same

static int WantsDaemon(int argc, char **argv)
{
    for (int i = 1; i < argc; i++)
        if (strncmp(argv[i], "-c", 2) != 0 && strcasecmp(argv[i], "-daemond") == 0)
            return 1;
    return 0;
}

// Finds the configuration file: the name behind "-c...", else szDefault; a name without '/' lies in
// <parent>/cfg. Returns 1, or 0 when the parent directory cannot be found.
static int FindConfig(int argc, char **argv, const char *szDefault, char *szCfgPath, size_t nSize)
{
    const char *szName = szDefault;
    for (int i = 1; i < argc; i++)
        if (strncmp(argv[i], "-c", 2) == 0 && i + 1 < argc)
            szName = argv[i + 1];
    TextBuf path{szCfgPath, nSize};
    szCfgPath[0] = '\0';
    if (strchr(szName, '/')) {
        TextAdd(&path, "%s", szName);
        return 1;
    }
    char szParent[kPathSize];
    return InstallDir(szParent, sizeof(szParent)) && TextAdd(&path, "%s/cfg/%s", szParent, szName);
}

// Returns 1 when "-daemond" was given, 0 otherwise, -1 when the parent directory cannot be found.
static int ParseArguments(int argc, char **argv, const char *szDefault, char *szCfgPath, size_t nSize)
{
    if (!FindConfig(argc, argv, szDefault, szCfgPath, nSize)) {
        print("failed to get process path's parent dir!\r\n");
        return -1;
    }
    print("cfg=%s\r\n", szCfgPath);
    return WantsDaemon(argc, argv);
}

// What the program says without a start. Returns whether the process is to end, with *pStatus.
static int AnswerOptions(const Options *pOptions, int argc, char **argv, int *pStatus)
{
    char szCfg[kPathSize] = "";
    *pStatus = 0;
    switch (pOptions->eAction) {
        case OptionAction::Run:
        case OptionAction::Refuse:
            return OptionsSayUnknown(pOptions, pStatus);
        case OptionAction::Help:
            OptionsPrintHelp();
            break;
        case OptionAction::Version:
            OptionsPrintVersion();
            break;
        case OptionAction::Check:
            FindConfig(argc, argv, kConfigName, szCfg, sizeof(szCfg));
            *pStatus = pOptions->bUpgrade ? UpgradeReport(szCfg) : CheckReport(szCfg);
            break;
        case OptionAction::DumpConfig:
            *pStatus = DumpConfig();
            break;
    }
    return 1;
}

// Formats a number in a signal handler, where printf may not be used.
static char *AddNumber(char *p, unsigned nValue, unsigned nBase)
{
    char digits[16];
    int n = 0;
    do {
        digits[n++] = "0123456789abcdef"[nValue % nBase];
        nValue /= nBase;
    } while (nValue);
    while (n > 0)
        *p++ = digits[--n];
    return p;
}

static char *AddText(char *p, const char *sz)
{
    while (*sz)
        *p++ = *sz++;
    return p;
}

static void OnSegv()
{
    char szText[80];
    auto nThread = static_cast<unsigned>(ThreadKernelId());
    char *p = AddNumber(AddText(szText, "Catch(tid="), nThread, 10);
    p = AddText(AddNumber(AddText(p, "[0x"), nThread, 16), "]): SIGSEGV\r\n");
    ConsoleWriteRaw(szText, static_cast<size_t>(p - szText));
    _exit(-1);
}

static void OnSignal(int nSignal)
{
    switch (nSignal) {
        case SIGINT:
            ConsoleWriteRaw("Catch: SIGINT\r\n", 15);
            break;
        case SIGCHLD:
            ConsoleWriteRaw("Catch: SIGCHLD\r\n", 16);
            break;
        case SIGPIPE:
            ConsoleWriteRaw("Catch: SIGPIPE\r\n", 16);
            break;
        case SIGTERM:
            g_bTerminate = 1;
            break;
        case SIGHUP:  // a terminal that was closed takes no server with it
            g_bHangup = 1;
            break;
        default:
            OnSegv();
    }
}

// SIGTERM asks the loops to end, SIGHUP to have the configuration read again.
static void InstallSignalHandlers()
{
    for (int nSignal : {SIGINT, SIGSEGV, SIGCHLD, SIGPIPE, SIGTERM, SIGHUP})
        signal(nSignal, OnSignal);
}

static void PrintReading(time_t tRead)
{
    char szTime[64] = "";
    struct tm t {};
    localtime_r(&tRead, &t);
    strftime(szTime, sizeof(szTime), "%Y-%m-%d %H:%M:%S", &t);
    print("Configuration read at %s.\r\n", szTime);
}

// Prints the figures and the list of sessions, and at the end when the configuration was read.
static void PrintStat(int bWithReading)
{
    ServerStat stat;
    if (!ServerGetStat(&stat, 1))
        return;
    print("TaskNum=%u, Lives=%u, Clients=%u, Monitors=%u.\r\n", stat.nTasks, stat.nLives, stat.nClients,
          stat.nMonitors);
    for (unsigned i = 0; i < stat.nSessions; i++) {
        const SessionStat *p = &stat.pSessions[i];
        time_t tStart = p->tStart;
        struct tm t {};
        localtime_r(&tStart, &t);
        char szStart[64];
        TextBuf text{szStart, sizeof(szStart)};
        TextAdd(&text, "%4d-%02d-%02d-%02d:%02d:%02d", t.tm_year + 1900, t.tm_mon + 1, t.tm_mday, t.tm_hour,
                t.tm_min, t.tm_sec);
        print("%u: %s\t%s\t%s\t%d\r\n", i, p->szProgram, p->szRemote, szStart, p->bPusher);
        if (p->bDatagrams)
            print("   late=%u lost=%u\r\n", p->nLate, p->nLost);
        if (p->reception.bKnown)
            print("   loss=%d%% jitter=%dms rtt=%dms\r\n", p->reception.nLoss, p->reception.nJitterMs,
                  p->reception.nRoundTripMs);
    }
    free(stat.pSessions);
    if (bWithReading)
        PrintReading(stat.tRead);
}

static void WriteStateKeys(const char *szPath)
{
    ServerStat stat;
    ServerGetStat(&stat, 0);
    write_profile_int(kStateSection, "CurTime", static_cast<int>(time(nullptr)), szPath);
    write_profile_int(kStateSection, "CurLives", static_cast<int>(stat.nLives), szPath);
    write_profile_int(kStateSection, "CurClients", static_cast<int>(stat.nClients), szPath);
}

// A state file that cannot be loaded, or loses what is written (a header without its ']'), gives way to a new
// one.
static void WriteStateFile(const char *szPath)
{
    if (AssertPeerFaultsSurvived() && ProfileIsLong(szPath))
        unlink(szPath);
    WriteStateKeys(szPath);
    if (!AssertPeerFaultsSurvived() || check_profile_key(kStateSection, "CurTime", szPath))
        return;
    unlink(szPath);
    WriteStateKeys(szPath);
}

static void OnReloaded(void *, const ReloadResult *)
{
    NotifyReady();
}

static void Reload()
{
    NotifyReloading();
    if (!ReloadSignal(OnReloaded))
        NotifyReady();
}

static void SleepTick()
{
    usleep(kTickMs * 1000);
    ConsoleFlush(0);
    NotifyTick();
    if (g_bHangup.exchange(0))
        Reload();
}

// Standard input, line by line. What is too long for the buffer is dropped up to the line's end.
struct LineReader {
    char text[256];
    size_t nLen = 0;
    int bEnd = 0;  // the end of input was seen
};

// Takes the first line held out into szLine, without its line end. 1, or 0 when none is complete.
static int TakeLine(LineReader *pReader, char *szLine)
{
    auto *pEnd = static_cast<char *>(memchr(pReader->text, '\n', pReader->nLen));
    if (!pEnd)
        return 0;
    auto nLine = static_cast<size_t>(pEnd - pReader->text);
    memcpy(szLine, pReader->text, nLine);
    szLine[nLine] = '\0';
    if (nLine > 0 && szLine[nLine - 1] == '\r')
        szLine[nLine - 1] = '\0';
    pReader->nLen -= nLine + 1;
    memmove(pReader->text, pEnd + 1, pReader->nLen);
    return 1;
}

// Waits a tick for a line; an empty line when none came. At the end of input the line stays empty.
static void ReadLine(LineReader *pReader, char *szLine)
{
    szLine[0] = '\0';
    if (TakeLine(pReader, szLine) || pReader->bEnd)
        return;
    pollfd input{STDIN_FILENO, POLLIN, 0};
    if (poll(&input, 1, kTickMs) <= 0)
        return;
    if (pReader->nLen == sizeof(pReader->text)) {
        pReader->text[0] = ' ';  // what is left of the line is no command, whatever its end looks like
        pReader->nLen = 1;
    }
    ssize_t n = read(STDIN_FILENO, pReader->text + pReader->nLen, sizeof(pReader->text) - pReader->nLen);
    if (n > 0) {
        pReader->nLen += static_cast<size_t>(n);
    } else {
        pReader->bEnd = 1;
        pReader->text[pReader->nLen++] = '\n';  // the last line may lack its end
    }
    TakeLine(pReader, szLine);
}

// bSpeaks: what is typed is answered, whatever it is.
static void AnswerCommand(const char *szLine, int bSpeaks)
{
    if (strcmp(szLine, "stat") == 0)
        PrintStat(bSpeaks);
    else if (bSpeaks && szLine[0])
        print("Commands: stat, quit (or q).\r\n");
}

// Until "quit" or "q" is read, or SIGTERM comes.
static void ConsoleLoop()
{
    ConsoleAnswers answers;
    LineReader reader;
    char szLine[sizeof(reader.text) + 1];
    int bSpeaks = g_settings.szLogLevel[0] != '\0';
    print("Server started, commands:\nQuit\n\nEnter command: \r\n");
    if (bSpeaks)
        print("\"stat\" lists sessions; configuration: %s\r\n", g_settings.szConfigPath);
    while (!g_bTerminate) {
        ReadLine(&reader, szLine);
        if (strcasecmp(szLine, "quit") == 0 || strcasecmp(szLine, "q") == 0)
            return;
        AnswerCommand(szLine, bSpeaks);
        SleepTick();
    }
}

static void DaemonLoop(const char *szStatePath, int bWriteState)
{
    for (unsigned nTicks = 0; !g_bTerminate; nTicks++) {
        SleepTick();
        if (bWriteState && nTicks > kStateTicks) {
            WriteStateFile(szStatePath);
            nTicks = 0;
        }
    }
}

static void PrintBanner(const char *szProgram)
{
    print("Orx version %s, built %s %s\r\n\r\n", ORX_VERSION, __DATE__, __TIME__);
    print("Usage:%s [-c cfgfile] [-daemond].\r\n", szProgram);
}

// Many players over UDP want many sockets: up to what the system allows.
static void RaiseDescriptorLimit()
{
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0)
        return;
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
}

// A descriptor below 3 that is not open would become a socket or a file, which prints would then be written
// into.
static void OpenMissingDescriptors()
{
    for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; fd++)
        if (fcntl(fd, F_GETFD) < 0)
            open("/dev/null", O_RDWR);  // the lowest one that is free
}

// Where the log and the state file lie.
struct LogPlace {
    char szLog[kPathSize + 32] = "";
    char szState[kPathSize + 32] = "";
};

// Returns 1, or 0 where /proc cannot be read.
static int FindLog(LogPlace *pPlace)
{
    char szParent[kPathSize];
    if (!InstallDir(szParent, sizeof(szParent))) {
        print("failed to get process path's parent dir!\n");
        return 0;
    }
    TextBuf logPath{pPlace->szLog, sizeof(pPlace->szLog)};
    TextBuf statePath{pPlace->szState, sizeof(pPlace->szState)};
    TextAdd(&logPath, "%s/log/orx.log", szParent);
    TextAdd(&statePath, "%s/log/orxstate.cur", szParent);
    return 1;
}

// What is read before all else. Returns whether the log and the state file are written.
static int ReadFirstKeys(const char *szCfg)
{
    if (!szCfg[0])
        return 0;
    ConfigReadGuard(szCfg);
    ConfigFile config(szCfg);
    return ConfigGetInt(&config, "SERVER", "LogFile", 0);
}

// Starts the server, and stops it when that is asked for. szStatePath: of a daemon; null at the console.
// Returns the exit status.
static int Serve(const char *szCfg, const char *szStatePath, int bWriteState)
{
    if (!ServerStart(szCfg)) {
        ConsoleFlush(1);
        return StartIsStrict() ? 1 : 0;
    }
    log("Begin");
    NotifyReady();
    DropStartCode();
    if (szStatePath)
        DaemonLoop(szStatePath, bWriteState);
    else
        ConsoleLoop();
    NotifyStopping();
    ServerStop();
    log("End");
    print("main() exit OK.\n");
    ConsoleFlush(1);
    return 0;
}

int RunProcess(int argc, char **argv)
{
    OpenMissingDescriptors();
    Options options;
    int nStatus;
    OptionsParse(&options, argc, argv);
    if (AnswerOptions(&options, argc, argv, &nStatus))
        return nStatus;
    DoubtsSetStrict(options.bStrict);
    ConsoleUnblock(1);
    mallopt(M_ARENA_MAX, 1);  // nearly everything is allocated by one thread; more arenas only cost memory
    InstallSignalHandlers();
    PrintBanner(argv[0]);
    char szCfg[kPathSize] = "";
    int bDaemon = ParseArguments(argc, argv, kConfigName, szCfg, sizeof(szCfg)) == 1;
    ConsoleSetDaemon(bDaemon);  // says nothing more
    LogPlace place;
    if (!FindLog(&place))
        return -1;
    print("Main(tid=0x%x) begin...\r\n", ThreadKernelId());
    if (StartRefusesLong(szCfg))
        return 1;
    int nLog = ReadFirstKeys(szCfg);
    LogSetup(place.szLog, nLog);
    RaiseDescriptorLimit();
    NotifyInit();
    return Serve(szCfg, bDaemon ? place.szState : nullptr, nLog);
}

}  // namespace orx
