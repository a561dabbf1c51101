// The process frame: arguments, console, daemon, log and state file, signals.
#include <csignal>
#include <ctime>
#include <filesystem>
#include <regex>

#include "support/sockets.h"
#include "system/systemtest.h"

using namespace orx;

using testing::EndsWith;
using testing::HasSubstr;

const std::string kUp = "Enter command: \r\n";

struct ProcessTest : SystemTest {
    const time_t tStart = time(nullptr);

    // time() lags behind by up to a tick
    bool IsSince(time_t tWhen) const { return tWhen >= tStart && tWhen <= time(nullptr) + 1; }
};

TEST_F(ProcessTest, SaysWhatItIsAndWhatItReads)
{
    server.Launch();
    ASSERT_TRUE(server.WaitOutput(kUp) && server.WaitOutput("MonitorEntry("));
    // a thread says when it begins, which may be in the middle of the rest
    std::regex threads("(getpriority\\(\\)=-?[0-9]+|(Scheduler|Monitor)Entry\\(tid=0x[0-9a-f]+\\) begin\\.\\.\\.)\r\n");
    const std::string output = std::regex_replace(server.Output(), threads, "");
    const std::string program = server.dir.File("bin/orx"), parent = std::filesystem::canonical(server.dir.path);
    char szThread[16];
    snprintf(szThread, sizeof(szThread), "%x", static_cast<unsigned>(server.pid));
    EXPECT_TRUE(std::regex_match(
        output,
        std::regex(
            "Orx .*version 2\\.3\\.1\\.2.*[A-Z][a-z]{2} [ 0-9]?[0-9] 20[0-9]{2} [0-9:]{8}\r\n\r\nUsage:" + program +
            " \\[-c cfgfile\\] \\[-daemond\\]\\.\r\ncfg=" + parent + "/cfg/orx\\.cfg\r\nMain\\(tid=0x" + szThread +
            "\\) begin\\.\\.\\.\r\n[^]* listen on TCP 127\\.0\\.0\\.1:" + std::to_string(server.nPort) +
            "\nServer started, commands:\nQuit\n\n" + kUp)))
        << output;
    EXPECT_EQ(0, server.Quit());
    std::filesystem::copy_file(server.ConfigPath(), parent + "/cfg/my.cfg");
    std::filesystem::copy_file(server.ConfigPath(), parent + "/other.cfg");
    const std::string relative = std::filesystem::relative(parent + "/other.cfg");
    const struct {
        std::vector<std::string> arguments;
        std::string path;
    } cases[] = {
        {{"-c", "other.cfg", "-cfoo", "my.cfg"}, parent + "/cfg/my.cfg"},
        {{"-c", parent + "/other.cfg"}, parent + "/other.cfg"},
        {{"-c", relative}, relative},
        {{"-C", "my.cfg", "--daemond", "daemond", "-c"}, parent + "/cfg/orx.cfg"},
    };
    for (const auto &c : cases) {
        server.Spawn(program, c.arguments);
        ASSERT_TRUE(server.WaitOutput(kUp)) << c.path;
        EXPECT_THAT(server.Output(), HasSubstr("\ncfg=" + c.path + "\r\n"));
        EXPECT_EQ(0, server.Quit());
    }
}

TEST_F(ProcessTest, ConsoleKnowsItsCommands)
{
    for (const char *szTyped : {"quit\n", "QuiT\r\n", "Q\n"}) {
        server.Start();
        server.TypeBytes(szTyped);
        EXPECT_EQ(0, server.WaitExit()) << szTyped;
    }
    server.Start();
    server.TypeBytes("STAT\n quit\nquit \n\nstat x\nexit\nstat\n\n");
    for (size_t n : {252, 256, 512})
        server.TypeBytes(std::string(n, 'x') + "quit\n");  // one line, and none that is known
    server.TypeBytes("stat\r\n");
    EXPECT_TRUE(server.WaitOutput("TaskNum=", 2));
    server.TypeBytes("quit");  // a last line without its end
    server.EndInput();
    EXPECT_EQ(0, server.WaitExit());
    server.Start();  // without standard input it runs on
    server.EndInput();
    EXPECT_EQ(-1, server.WaitExit(300));
    Connect(&player);
    EXPECT_TRUE(Answers(&player));
    server.Signal(SIGTERM);
    EXPECT_EQ(0, server.WaitExit());
    EXPECT_THAT(server.Output(), EndsWith("main() exit OK.\n"));
}

TEST_F(ProcessTest, StatListsSessions)
{
    server.Start();
    OrxStat stat = server.Stat();
    EXPECT_EQ(0U, stat.nLives + stat.nClients + stat.sessions.size());
    EXPECT_EQ(1U, stat.nMonitors) << "the listener";
    EXPECT_TRUE(kSanitized || kEmulated || server.ResidentKb() < 6 * 1024) << server.ResidentKb();
    RtspClient idler;
    ASSERT_EQ(1, RtspOpenPusher(&pusher, server.Url("/live/a").c_str(), CameraSdp(2)));
    ASSERT_EQ(1, RtspOpenPlayer(&player, server.Url("/live/a").c_str(), RTSP_OVER_UDP));
    Connect(&idler);
    EXPECT_TRUE(Answers(&idler));
    stat = server.Stat();
    EXPECT_EQ(1U, stat.nLives);
    EXPECT_EQ(2U, stat.nClients);
    EXPECT_EQ(1U + 3 + 4, stat.nMonitors) << "listener, connections, and two pairs of a player over UDP";
    ASSERT_EQ(3U, stat.sessions.size());
    RtspClient *const clients[] = {&pusher, &player, &idler};
    for (size_t i = 0; i < 3; i++) {
        std::smatch parts;
        ASSERT_TRUE(std::regex_match(stat.sessions[i], parts,
                                     std::regex(std::to_string(i) + ": " + (i < 2 ? "/live/a" : "-") +
                                                "\t127\\.0\\.0\\.1:" + std::to_string(PortOf(clients[i]->fd)) +
                                                "\t(20[-:0-9]{17})\t" + (i ? "0" : "1") + "\r")))
            << stat.sessions[i];
        tm begun{};
        ASSERT_NE(nullptr, strptime(parts[1].str().c_str(), "%Y-%m-%d-%H:%M:%S", &begun));
        begun.tm_isdst = -1;
        EXPECT_TRUE(IsSince(mktime(&begun))) << stat.sessions[i];
    }
}

TEST_F(ProcessTest, WritesTheLogWhenTold)
{
    server.Start();
    EXPECT_EQ(0, server.Quit());
    EXPECT_TRUE(std::filesystem::is_empty(server.dir.File("log")));
    server.Set("SERVER", "LogFile", "1");
    for (int i = 0; i < 2; i++) {
        server.Start();
        Connect(&player);
        EXPECT_EQ("", Exchange(&player, "A * B/1\r\n\r\n"));
        EXPECT_EQ(0, server.Quit());
    }
    const std::string time = "[0-9]{2}:[0-9]{2}:[0-9]{2}: ";
    auto run = [&](const std::string &fd, const std::string &from) {
        return "\r\n20[-0-9]{8}\r\n" + time + "Begin\r\n" + time + "Create session\\(fd=0x([0-9a-f]+)\\) from " +
               "(127\\.0\\.0\\.1:[0-9]+)\r\n" + time + "Close  session\\(fd=0x" + fd + "\\) from " + from + "\r\n" +
               time + "End\r\n";
    };
    EXPECT_TRUE(std::regex_match(ReadFile(server.LogPath()), std::regex(run("\\1", "\\2") + run("\\3", "\\4"))))
        << ReadFile(server.LogPath());
    EXPECT_FALSE(std::filesystem::exists(server.dir.File("log/orxstate.cur"))) << "only a daemon writes it";
}

TEST_F(ProcessTest, DaemonIsSilentAndWritesItsState)
{
    server.Set("SERVER", "LogFile", "1");
    server.Launch({"-DAEMOND"});
    ASSERT_TRUE(WaitFor([&] { return RtspConnect(&player, server.Url("/cam").c_str()) == 1; }));
    EXPECT_TRUE(Answers(&player));
    ASSERT_EQ(1, RtspOpenPusher(&pusher, server.Url("/cam").c_str(), CameraSdp()));
    std::smatch parts;
    std::string state;
    ASSERT_TRUE(WaitFor([&] {
        state = ReadFile(server.dir.File("log/orxstate.cur"));
        return std::regex_search(state, parts, std::regex("^\\[MAIN\\]\nCurClients=1\nCurLives=1\nCurTime=([0-9]+)\n"));
    })) << state;
    EXPECT_TRUE(IsSince(std::stol(parts[1])));
    for (int nSignal : {SIGINT, SIGCHLD, SIGHUP, SIGTERM})
        server.Signal(nSignal);
    EXPECT_EQ(0, server.WaitExit());
    const std::string output = std::regex_replace(server.Output(), std::regex("[^\n]*/orx\\.cfg:[^\n]*\n"), "");
    EXPECT_THAT(output, EndsWith("[-daemond].\r\ncfg=" + server.dir.path + "/cfg/orx.cfg\r\n")) << "but for doubts";
    EXPECT_THAT(ReadFile(server.LogPath()), EndsWith(": End\r\n"));
}

TEST_F(ProcessTest, OutlivesSignalsButSegmentationFaults)
{
    server.Start();
    server.Signal(SIGHUP);
    for (const auto &[nSignal, szName] : {std::pair{SIGINT, "SIGINT"}, {SIGCHLD, "SIGCHLD"}, {SIGPIPE, "SIGPIPE"}})
        for (int n = 1; n <= 2; n++) {
            server.Signal(nSignal);
            EXPECT_TRUE(server.WaitOutput("Catch: " + std::string(szName) + "\r\n", n));
        }
    EXPECT_EQ(1U, server.Stat().nMonitors);
    server.Signal(SIGSEGV);
    EXPECT_EQ(255, server.WaitExit());
    std::smatch parts;
    ASSERT_TRUE(std::regex_search(server.Output(), parts,
                                  std::regex("Catch\\(tid=([0-9]+)\\[0x([0-9a-f]+)\\]\\): SIGSEGV\r\n$")));
    EXPECT_EQ(std::stoul(parts[1]), std::stoul(parts[2], nullptr, 16));
}

// A descriptor that is missing is none that a socket may take, where prints would then go.
TEST_F(ProcessTest, RunsWithoutStandardStreams)
{
    server.Start();
    EXPECT_EQ(0, server.Quit());
    for (const auto &closed : {std::vector<int>{0}, {0, 1, 2}}) {
        server.closed = closed;
        server.Spawn(server.dir.File("bin/orx"), {"-daemond"});
        ASSERT_TRUE(WaitFor([&] { return RtspConnect(&player, server.Url("/cam").c_str()) == 1; })) << closed.size();
        EXPECT_TRUE(Answers(&player));
        server.Signal(SIGTERM);
        EXPECT_EQ(0, server.WaitExit());
    }
}

// Files that have grown beyond what the store reads key by key: with the guard on a configuration is read
// nevertheless, and what the server itself writes is no reason not to run.
TEST_F(ProcessTest, StartsWithFilesOfAnySize)
{
    server.Set("SERVER", "LogFile", "1");  // which comes last
    for (int i = 999; i >= 0; i--) {
        const std::string n = std::to_string(i);
        server.Set("USERS", "UserName" + n + "=somebody" + n + "\nUserPwd" + n + "=password of " + n);
    }
    server.Set("USERS", "NumUsers", "1000");
    for (const char *szGuard : {"0", "1"}) {
        server.Set("GUARD", "SurvivePeerFaults", szGuard);
        server.Launch({"-daemond"});
        if (*szGuard == '0') {
            EXPECT_EQ(256 + SIGABRT, server.WaitExit());
            EXPECT_EQ(1, CountText(server.Output(), "Assertion `i < 1024*8'"));
            for (const char *szFile : {"cfg/guid.dat", "log/orxstate.cur"})
                WriteFile(server.dir.File(szFile), "[GUID]\n" + std::string(9000, 'x'));
        }
    }
    ASSERT_TRUE(WaitFor([&] { return RtspConnect(&player, server.Url("/cam").c_str()) == 1; }));
    const std::string state = server.dir.File("log/orxstate.cur");
    auto bRenewed = [&] { return ReadFile(state).starts_with("[MAIN]\nCur"); };
    EXPECT_TRUE(WaitFor(bRenewed));
    WriteFile(state, "[MAIN\nCurTime=1\n");
    EXPECT_TRUE(WaitFor(bRenewed)) << "a header that was cut";
    Connect(&player);
    Send(&player, MakeRequest("GETPLAYLIST", "*", 1, UserHeaders("somebody999", "password of 999")));
    std::string text;
    EXPECT_EQ(1, RtspWaitBytes(&player, 8, &text));
    EXPECT_EQ("PlayList", text);
    server.Signal(SIGTERM);
    EXPECT_EQ(0, server.WaitExit());
}

// What cannot start says why, and ends with status 0 before anything has begun. Without a listener it runs.
TEST_F(ProcessTest, RefusesToStart)
{
    for (const auto &[szKey, szLine] :
         {std::pair{"UdpStartPort=999", "Invalid UdpStartPort: 999!\r\n"}, {"AuthType=3", "AuthType 3"}}) {
        OrxProcess orx;
        orx.Set("SERVER", std::string("LogFile=1\n") + szKey);
        orx.Launch();
        EXPECT_EQ(0, orx.WaitExit()) << szKey;
        EXPECT_THAT(orx.Output(), HasSubstr(szLine));
        EXPECT_EQ(0, CountText(orx.Output(), "Server started") + CountText(orx.Output(), "Sanitizer"));
        EXPECT_FALSE(std::filesystem::exists(orx.LogPath()));
    }
    Listener taken;
    server.Set("SERVER", "ListenPort", std::to_string(taken.nPort));
    server.Launch();
    EXPECT_TRUE(server.WaitOutput(kUp));
    EXPECT_THAT(server.Output(), HasSubstr("Listen error 98\n"));
    EXPECT_EQ(0U, server.Stat().nMonitors);
}

// With players over every transport, one of whom does not read.
TEST_F(ProcessTest, StopsUnderLoad)
{
    server.Set("SERVER", "EnableRtcp", "1");
    StartCamera(CameraSdp());
    RtspClient players[4];
    players[0].nReceiveBuffer = 2048;
    for (int i = 0; i < 4; i++)
        ASSERT_EQ(1, RtspOpenPlayer(&players[i], server.Url("/cam").c_str(), static_cast<RtspTransport>(i % 3)));
    SendPictures(&pusher, 0, 500);
    EXPECT_EQ(0, server.Quit());
    EXPECT_EQ(1, RtspWaitClosed(&pusher));
    EXPECT_EQ(1, RtspWaitClosed(&players[2]));
}
