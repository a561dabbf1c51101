// The process frame: arguments, console, daemon, log and state file, signals.
#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <regex>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "system/orxprocess.h"

namespace orx {
namespace {

using testing::EndsWith;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::Not;
using testing::StartsWith;

struct ProcessTest : SystemTest {
    bool IsUp() { return server.WaitOutput("Enter command: \r\n"); }
};

TEST_F(ProcessTest, SaysWhatItIsAndWhatItReads)
{
    server.LaunchWith({});
    ASSERT_TRUE(IsUp());
    std::string program = server.dir.File("bin/orx");
    std::string output = server.Output();
    EXPECT_TRUE(std::regex_search(
        output, std::regex("^Orx .*version 2\\.3\\.1\\.2.*[A-Z][a-z]{2} [ 0-9]?[0-9] 20[0-9]{2} "
                           "[0-9]{2}:[0-9]{2}:[0-9]{2}\r\n\r\nUsage:")))
        << output;
    size_t nAt = 0;
    for (const std::string &line :
         {"Usage:" + program + " [-c cfgfile] [-daemond].\r\n",
          "cfg=" + std::filesystem::canonical(server.dir.path).string() + "/cfg/orx.cfg\r\n",
          std::string("Main(tid=0x"), " listen on TCP 127.0.0.1:" + std::to_string(server.nPort) + "\n",
          std::string("Server started, commands:\nQuit\n\nEnter command: \r\n")}) {
        size_t nNext = output.find(line, nAt);
        EXPECT_NE(std::string::npos, nNext) << line;
        nAt = nNext == std::string::npos ? nAt : nNext;
    }
    EXPECT_THAT(output, HasSubstr("Main(tid=0x" + [&] {
                    char sz[16];
                    snprintf(sz, sizeof(sz), "%x", static_cast<unsigned>(server.pid));
                    return std::string(sz);
                }() + ") begin...\r\n"));
}

TEST_F(ProcessTest, FindsItsConfiguration)
{
    server.LaunchWith({});
    ASSERT_TRUE(IsUp());
    EXPECT_EQ(0, server.Quit());
    std::string parent = std::filesystem::canonical(server.dir.path).string();
    std::filesystem::copy_file(server.ConfigPath(), parent + "/cfg/my.cfg");
    std::filesystem::copy_file(server.ConfigPath(), parent + "/other.cfg");
    std::string relative = std::filesystem::relative(parent + "/other.cfg");
    ASSERT_THAT(relative, HasSubstr("/"));
    const struct {
        std::vector<std::string> arguments;
        std::string path;
    } cases[] = {
        {{"-c", "my.cfg"}, parent + "/cfg/my.cfg"},
        {{"-cfoo", "my.cfg"}, parent + "/cfg/my.cfg"},
        {{"-c", parent + "/other.cfg"}, parent + "/other.cfg"},
        {{"-c", relative}, relative},
        {{"-C", "my.cfg"}, parent + "/cfg/orx.cfg"},
        {{"my.cfg", "--help", "-x"}, parent + "/cfg/orx.cfg"},
        {{"-c"}, parent + "/cfg/orx.cfg"},
        {{"-c", "other.cfg", "-c", "my.cfg"}, parent + "/cfg/my.cfg"},
        {{"daemond"}, parent + "/cfg/orx.cfg"},
    };
    for (const auto &c : cases) {
        server.LaunchWith(c.arguments);
        ASSERT_TRUE(IsUp()) << c.path;
        EXPECT_THAT(server.Output(), HasSubstr("\ncfg=" + c.path + "\r\n"));
        EXPECT_EQ(0, server.Quit());
    }
}

TEST_F(ProcessTest, ConsoleKnowsItsCommands)
{
    static const struct {
        const char *szTyped;
        bool bEnds;
    } cases[] = {
        {"quit\n", true},   {"QuiT\n", true},    {"q\n", true},      {"Q\r\n", true},
        {"quit\r\n", true}, {"STAT\n", false},   {" quit\n", false}, {"quit \n", false},
        {"\n", false},      {"stat x\n", false}, {"exit\n", false},  {"stat\r\n\n", false},
    };
    for (const auto &c : cases) {
        if (server.pid < 0)
            server.Start();
        size_t nMark = server.Output().size();
        server.TypeBytes(c.szTyped);
        if (c.bEnds) {
            EXPECT_EQ(0, server.WaitExit()) << c.szTyped;
            EXPECT_THAT(server.Output(), EndsWith("main() exit OK.\n"));
            continue;
        }
        server.Stat();  // it lives, and has taken the line before
        EXPECT_EQ(2, CountText(server.Output().substr(nMark), "TaskNum=")) << c.szTyped;
    }
    size_t nMark = server.Output().size();
    server.TypeBytes("stat\r\n");
    EXPECT_TRUE(server.WaitOutput("TaskNum=", 1, 10000, nMark));
    if (server.pid < 0)
        server.Start();
    for (size_t n : {252, 256, 511, 512, 5000}) {
        server.TypeBytes(std::string(n, 'x') + "quit\n");  // one line, and none that is known
        server.Stat();
    }
    server.TypeBytes("qu");
    server.Stat();  // "qustat" is dropped
    EXPECT_GT(server.pid, 0);
}

TEST_F(ProcessTest, RunsOnWithoutStandardInput)
{
    server.Start();
    server.EndInput();
    RtspClient client;
    ASSERT_EQ(1, RtspConnect(&client, server.Url("/").c_str()));
    EXPECT_THAT(Exchange(&client, MakeRequest("OPTIONS", "*", 1)), StartsWith("RTSP/1.0 200 OK"));
    EXPECT_EQ(-1, server.WaitExit(500));
    server.Signal(SIGTERM);
    EXPECT_EQ(0, server.WaitExit());
    EXPECT_THAT(server.Output(), EndsWith("main() exit OK.\n"));
}

TEST_F(ProcessTest, TakesALastLineWithoutItsEnd)
{
    server.Start();
    server.TypeBytes("quit");
    server.EndInput();
    EXPECT_EQ(0, server.WaitExit());
}

TEST_F(ProcessTest, StatListsSessions)
{
    server.Start();
    OrxStat idle = server.Stat();
    EXPECT_EQ(0U, idle.nLives);
    EXPECT_EQ(0U, idle.nClients);
    EXPECT_EQ(1U, idle.nMonitors) << "the listener";
    EXPECT_TRUE(idle.sessions.empty());

    RtspClient pusher, player, idler;
    ASSERT_EQ(1, RtspOpenPusher(&pusher, server.Url("/live/a").c_str(), CameraSdp(2)));
    ASSERT_EQ(1, RtspOpenPlayer(&player, server.Url("/live/a").c_str(), RTSP_OVER_UDP));
    ASSERT_EQ(1, RtspConnect(&idler, server.Url("/live/a").c_str()));
    Exchange(&idler, MakeRequest("OPTIONS", "*", 1));
    OrxStat stat = server.Stat();
    EXPECT_EQ(1U, stat.nLives);
    EXPECT_EQ(2U, stat.nClients);
    EXPECT_EQ(1U + 3 + 4, stat.nMonitors) << "listener, connections, and two pairs of a player over UDP";
    ASSERT_EQ(3U, stat.sessions.size());
    const char *const names[] = {"/live/a", "/live/a", "-"};
    for (int i = 0; i < 3; i++) {
        EXPECT_EQ(names[i], stat.sessions[i].program);
        EXPECT_EQ(i == 0, stat.sessions[i].bPusher);
        sockaddr_in addr{};
        socklen_t nSize = sizeof(addr);
        RtspClient *const clients[] = {&pusher, &player, &idler};
        getsockname(clients[i]->fd, reinterpret_cast<sockaddr *>(&addr), &nSize);
        EXPECT_EQ("127.0.0.1:" + std::to_string(ntohs(addr.sin_port)), stat.sessions[i].remote);
        struct tm t {};
        ASSERT_NE(nullptr, strptime(stat.sessions[i].start.c_str(), "%Y-%m-%d-%H:%M:%S", &t));
        t.tm_isdst = -1;
        EXPECT_NEAR(static_cast<double>(time(nullptr)), static_cast<double>(mktime(&t)), 10);
    }
    EXPECT_THAT(server.Output(), HasSubstr("\r\n1: /live/a\t127.0.0.1:"));
}

std::string Today()
{
    time_t now = time(nullptr);
    char sz[16];
    strftime(sz, sizeof(sz), "%Y-%m-%d", localtime(&now));
    return sz;
}

TEST_F(ProcessTest, WritesTheLog)
{
    server.Set("SERVER", "LogFile", "1");
    server.Start();
    {
        RtspClient client;
        ASSERT_EQ(1, RtspConnect(&client, server.Url("/").c_str()));
        EXPECT_EQ(1, RtspSendRaw(&client, "A * B/1\r\n\r\n", 11));
        EXPECT_EQ(1, RtspWaitClosed(&client));
    }
    EXPECT_EQ(0, server.Quit());
    std::string log = ReadFile(server.LogPath());
    const std::string time = "[0-9]{2}:[0-9]{2}:[0-9]{2}: ";
    const std::regex form("\r\n" + Today() + "\r\n" + time + "Begin\r\n" + time +
                          "Create session\\(fd=0x([0-9a-f]+)\\) from (127\\.0\\.0\\.1:[0-9]+)\r\n" + time +
                          "Close  session\\(fd=0x\\1\\) from \\2\r\n" + time + "End\r\n");
    EXPECT_TRUE(std::regex_match(log, form)) << log;
    EXPECT_FALSE(std::filesystem::exists(server.dir.File("log/orxstate.cur"))) << "only a daemon writes it";
    server.Start();
    EXPECT_EQ(0, server.Quit());
    std::string more = ReadFile(server.LogPath()).substr(log.size());
    EXPECT_TRUE(
        std::regex_match(more, std::regex("\r\n" + Today() + "\r\n" + time + "Begin\r\n" + time + "End\r\n")))
        << more;
}

TEST_F(ProcessTest, WritesNothingUnlessTold)
{
    server.Start();
    EXPECT_EQ(0, server.Quit());
    EXPECT_TRUE(std::filesystem::is_empty(server.dir.File("log")));
}

TEST_F(ProcessTest, DaemonIsSilentAndWritesItsState)
{
    server.Set("SERVER", "LogFile", "1");
    time_t tStart = time(nullptr);
    server.Launch();  // writes the configuration
    EXPECT_TRUE(IsUp());
    EXPECT_EQ(0, server.Quit());
    std::filesystem::remove(server.LogPath());
    server.LaunchWith({"-DAEMOND", "-c", server.ConfigPath()});
    RtspClient pusher, player;
    ASSERT_TRUE(WaitFor([&] { return RtspConnect(&player, server.Url("/cam").c_str()) == 1; }));
    Exchange(&player, MakeRequest("OPTIONS", "*", 1));
    ASSERT_EQ(1, RtspOpenPusher(&pusher, server.Url("/cam").c_str(), CameraSdp()));
    std::string stateFile = server.dir.File("log/orxstate.cur");
    ASSERT_TRUE(
        WaitFor([&] { return ReadFile(stateFile).find("CurClients=1") != std::string::npos; }, 15000));
    EXPECT_GE(time(nullptr), tStart + 5);
    std::string state = ReadFile(stateFile);
    std::smatch parts;
    EXPECT_THAT(state, StartsWith("[MAIN]\n"));
    EXPECT_THAT(state, HasSubstr("\nCurLives=1\n"));
    EXPECT_THAT(state, HasSubstr("\nCurClients=1\n"));
    ASSERT_TRUE(std::regex_search(state, parts, std::regex("\nCurTime=([0-9]+)\n"))) << state;
    EXPECT_NEAR(static_cast<double>(time(nullptr)), atof(parts[1].str().c_str()), 5);
    server.Signal(SIGINT);
    server.Signal(SIGCHLD);
    server.Signal(SIGTERM);
    EXPECT_EQ(0, server.WaitExit());
    EXPECT_EQ("", server.Output());
    EXPECT_THAT(ReadFile(server.LogPath()), EndsWith(": End\r\n"));
}

// A name behind "-c" is looked at as an option as well.
TEST_F(ProcessTest, TakesTheDaemonOptionAlsoForAName)
{
    server.Launch();
    EXPECT_TRUE(IsUp());
    EXPECT_EQ(0, server.Quit());
    std::filesystem::copy_file(server.ConfigPath(), server.dir.File("cfg/-daemond"));
    server.LaunchWith({"-c", "-daemond"});
    RtspClient client;
    EXPECT_TRUE(WaitFor([&] { return RtspConnect(&client, server.Url("/cam").c_str()) == 1; }));
    server.Signal(SIGTERM);
    EXPECT_EQ(0, server.WaitExit());
    EXPECT_EQ("", server.Output());
    EXPECT_TRUE(std::filesystem::is_empty(server.dir.File("log")));
}

TEST_F(ProcessTest, OutlivesSignals)
{
    server.Start();
    static const struct {
        int nSignal;
        const char *szLine;
    } cases[] = {
        {SIGINT, "Catch: SIGINT\r\n"}, {SIGCHLD, "Catch: SIGCHLD\r\n"}, {SIGPIPE, "Catch: SIGPIPE\r\n"}};
    for (const auto &c : cases) {
        for (int n = 1; n <= 2; n++) {
            server.Signal(c.nSignal);
            EXPECT_TRUE(server.WaitOutput(c.szLine, n));
        }
    }
    EXPECT_EQ(1U, server.Stat().nMonitors);
}

TEST_F(ProcessTest, EndsAtASegmentationFault)
{
    server.Start();
    server.Signal(SIGSEGV);
    EXPECT_EQ(255, server.WaitExit());
    std::smatch parts;
    std::string output = server.Output();
    ASSERT_TRUE(std::regex_search(output, parts,
                                  std::regex("Catch\\(tid=([0-9]+)\\[0x([0-9a-f]+)\\]\\): SIGSEGV\r\n$")));
    EXPECT_EQ(std::stoul(parts[1]), std::stoul(parts[2], nullptr, 16));
}

// What cannot start says why, and ends with status 0.
TEST_F(ProcessTest, RefusesToStart)
{
    static const struct {
        const char *szKey, *szValue, *szLine;
    } cases[] = {
        {"UdpStartPort", "999", "Invalid UdpStartPort: 999!\r\n"},
        {"UdpEndPort", "65535", "Invalid UdpEndPort: 65535!\r\n"},
        {"UdpEndPort", "1001", "Invalid UdpPort Range: from "},
        {"AuthType", "3", "AuthType 3"},
    };
    for (const auto &c : cases) {
        OrxProcess orx;
        orx.Set("SERVER", "LogFile", "1");
        orx.Set("SERVER", c.szKey, c.szValue);
        orx.Launch();
        EXPECT_EQ(0, orx.WaitExit()) << c.szKey;
        EXPECT_THAT(orx.Output(), HasSubstr(c.szLine));
        EXPECT_THAT(orx.Output(), Not(HasSubstr("Server started")));
        EXPECT_THAT(orx.Output(), Not(HasSubstr("Sanitizer")));
        EXPECT_FALSE(std::filesystem::exists(orx.LogPath())) << "nothing has begun";
    }
}

TEST_F(ProcessTest, StartsWithoutAListener)
{
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = htons(static_cast<uint16_t>(server.nPort));
    ASSERT_EQ(0, bind(fd, reinterpret_cast<sockaddr *>(&addr), sizeof(addr)));
    ASSERT_EQ(0, listen(fd, 1));
    server.Launch();
    EXPECT_TRUE(IsUp());
    EXPECT_THAT(server.Output(), HasSubstr("Listen error 98\n"));
    EXPECT_EQ(0U, server.Stat().nMonitors);
    close(fd);
}

TEST_F(ProcessTest, StopsUnderLoadWithinASecond)
{
    for (bool bDaemon : {false, true}) {
        server.Set("SERVER", "EnableRtcp", "1");
        server.Start(bDaemon);
        RtspClient pusher, tunnel, stalled;
        RtspClient players[10];
        ASSERT_EQ(1, RtspOpenPusher(&pusher, server.Url("/cam").c_str(), CameraSdp()));
        int n = 0;
        for (RtspClient &player : players)
            ASSERT_EQ(1, RtspOpenPlayer(&player, server.Url("/cam").c_str(),
                                        n++ % 2 ? RTSP_OVER_UDP : RTSP_OVER_TCP));
        ASSERT_EQ(1, RtspOpenPlayer(&tunnel, server.Url("/cam").c_str(), RTSP_OVER_TUNNEL));
        stalled.nReceiveBuffer = 2048;
        ASSERT_EQ(1, RtspOpenPlayer(&stalled, server.Url("/cam").c_str(), RTSP_OVER_TCP));
        SendPictures(&pusher, 0, 500);
        auto tStart = std::chrono::steady_clock::now();
        if (bDaemon)
            server.Signal(SIGTERM);
        else
            server.Type("quit");
        EXPECT_EQ(0, server.WaitExit());
        auto spent = std::chrono::steady_clock::now() - tStart;
        EXPECT_LT(spent, std::chrono::milliseconds(kSanitized ? 5000 : 1000));
        EXPECT_EQ(1, RtspWaitClosed(&pusher));
        EXPECT_EQ(1, RtspWaitClosed(&tunnel));
        EXPECT_THAT(server.Output(), Not(HasSubstr("Sanitizer")));
    }
}

TEST_F(ProcessTest, NeedsLittleMemory)
{
    if (kSanitized)
        GTEST_SKIP() << "sanitizers take memory of their own";
    server.Start();
    server.Stat();
    EXPECT_LT(server.ResidentKb(), 6 * 1024);
}

}  // namespace
}  // namespace orx
