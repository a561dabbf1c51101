// Players from outside: through the relay, by way of a rendezvous server, and through the web port.
#include <csignal>

#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/sockets.h"
#include "system/orxprocess.h"
#include "system/toolprocess.h"

namespace orx {
namespace {

using testing::HasSubstr;

const char kGuid[] = "box-0123456789abcdef-01";

std::string At(int nPort)
{
    return "127.0.0.1:" + std::to_string(nPort);
}

struct RemoteTest : SystemTest {
    RtspClient pusher;
    int nZupoPort = server.nSparePort, nLocalPort = server.nSparePort + 1, nWebPort = server.nSparePort + 2;

    std::vector<std::string> ZupoArguments(const std::string &refusals = "") const
    {
        std::vector<std::string> words = {"--listen", At(nZupoPort)};
        if (!refusals.empty())
            words.insert(words.end(), {"--refuse", refusals});
        return words;
    }
    std::vector<std::string> RelayArguments() const
    {
        return {"--listen", At(nLocalPort), "--server", At(nZupoPort), "--timeout", "10", kGuid};
    }
    void UseZupo(const std::string &guid = kGuid)
    {
        server.Set("ZUPO", "ZupoEnable", "1");
        server.Set("ZUPO", "ZupoServerAddr", "127.0.0.1");
        server.Set("ZUPO", "ZupoServerPort", std::to_string(nZupoPort));
        server.Set("MAIN", "DeviceGuid", guid);
    }
    void UseProxy(int nTargetPort)
    {
        server.Set("SERVER", "EnableHttpProxy", "1");
        server.Set("SERVER", "HttpProxyListenPort", std::to_string(nWebPort));
        server.Set("SERVER", "HttpProxyTargetPort", std::to_string(nTargetPort));
    }
    void StartPushed()
    {
        ASSERT_NO_FATAL_FAILURE(server.Start());
        ASSERT_EQ(1, RtspOpenPusher(&pusher, server.Url("/cam").c_str(), CameraSdp()));
    }
    static std::string UrlAt(int nPort) { return "rtsp://" + At(nPort) + "/cam"; }
    // Pushes pictures until the player has got one of them.
    void ExpectMedia(RtspClient *pPlayer)
    {
        RtspMessage frame;
        int bGot = 0;
        for (int i = 0; i < 100 && !bGot; i++) {
            SendPictures(&pusher, i, 1);
            bGot = RtspWaitFrame(pPlayer, 0, &frame, 100);
        }
        EXPECT_TRUE(bGot);
    }
};

TEST_F(RemoteTest, PlayersComeThroughTheRelayByIdentity)
{
    UseZupo();
    ToolProcess zupo("orxzupo", ZupoArguments());
    ASSERT_TRUE(zupo.WaitOutput("listening on " + At(nZupoPort) + "\n"));
    ASSERT_NO_FATAL_FAILURE(StartPushed());
    EXPECT_TRUE(server.WaitOutput("ZupoRegisterCreate(Server: " + At(nZupoPort) + ")\r\n"));
    EXPECT_TRUE(server.WaitOutput("Unet local port = " + std::to_string(server.nPort) + ".\r\n"));
    ASSERT_TRUE(zupo.WaitOutput("is registered"));
    zupo.Type("list");
    EXPECT_TRUE(zupo.WaitOutput("1 boxes\nbox-0123456789abcdef-01 at " + At(server.nPort) + ", inside "));

    ToolProcess relay("orxrelay", RelayArguments());
    ASSERT_TRUE(relay.WaitOutput("open rtsp://" + At(nLocalPort)));
    RtspClient players[3];
    for (RtspClient &player : players) {
        ASSERT_EQ(1, RtspOpenPlayer(&player, UrlAt(nLocalPort).c_str(), RTSP_OVER_TCP)) << player.error;
        ExpectMedia(&player);
    }
    EXPECT_TRUE(server.WaitOutput("A punching connected from 127.0.0.1:"));
    int nSessions = static_cast<int>(server.Stat().nClients);
    EXPECT_EQ(3, nSessions);
    RtspClose(&players[0]);  // the box hears of it at once, by a close request
    EXPECT_TRUE(server.WaitOutput("Exit UnetProxyEntry("));
    EXPECT_TRUE(WaitFor([&] { return server.Stat().nClients == 2; }, 3000));

    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(0, server.Quit());  // with two relayed players
    EXPECT_LT(ElapsedMs(start), 1000);
    relay.Signal(SIGTERM);
    EXPECT_EQ(0, relay.WaitExit());
    zupo.Type("quit");
    EXPECT_EQ(0, zupo.WaitExit());
}

TEST_F(RemoteTest, TheRelayIsReachedDirectlyToo)
{
    server.Set("SERVER", "EnableUnet", "1");
    server.Set("SERVER", "UnetPort", std::to_string(server.nSparePort + 3));
    ASSERT_NO_FATAL_FAILURE(StartPushed());
    ToolProcess relay("orxrelay", {"--quiet", "--listen", At(nLocalPort), At(server.nSparePort + 3)});
    ASSERT_TRUE(WaitFor([&] { return Connect(nLocalPort).fd >= 0; }));
    RtspClient player;
    ASSERT_EQ(1, RtspOpenPlayer(&player, UrlAt(nLocalPort).c_str(), RTSP_OVER_TCP)) << player.error;
    ExpectMedia(&player);
    relay.Signal(SIGINT);
    EXPECT_EQ(0, relay.WaitExit());
    EXPECT_EQ("", relay.Output());
    EXPECT_TRUE(WaitFor([&] { return server.Stat().nClients == 0; }));
}

TEST_F(RemoteTest, TheRefusalListKeepsBoxesOut)
{
    UseZupo();
    TempDir dir;
    WriteFile(dir.File("refused"), std::string("# stolen\n  ") + kGuid + "\r\n");
    ToolProcess zupo("orxzupo", ZupoArguments(dir.File("refused")));
    ASSERT_TRUE(zupo.WaitOutput("listening"));
    ASSERT_NO_FATAL_FAILURE(server.Start());
    EXPECT_TRUE(zupo.WaitOutput(std::string("box ") + kGuid + " at " + At(server.nPort) + " is refused\n"));
    ToolProcess refused("orxrelay", {"--check", "--server", At(nZupoPort), kGuid});
    EXPECT_EQ(1, refused.WaitExit());
    EXPECT_EQ("orxrelay: the rendezvous server refuses\n", refused.Output());
    WriteFile(dir.File("refused"), "192.0.2.7\n");
    zupo.Signal(SIGHUP);
    ToolProcess unknown("orxrelay", {"--check", "--server", At(nZupoPort), kGuid});
    EXPECT_EQ(1, unknown.WaitExit());
    EXPECT_EQ("orxrelay: no box of that identity is registered\n", unknown.Output());
}

TEST_F(RemoteTest, AnIdentityOfTwentyCharactersDoesNotRegister)
{
    UseZupo("12345678901234567890");
    ASSERT_NO_FATAL_FAILURE(server.Start());
    EXPECT_EQ(0, CountText(server.Output(), "ZupoRegisterCreate("));
    EXPECT_TRUE(server.WaitOutput("UnetServerEntry("));  // the relay runs all the same
}

TEST_F(RemoteTest, ToolsSayWhatIsWrong)
{
    UseZupo();
    Listener taken;
    const struct {
        const char *szTool;
        std::vector<std::string> arguments;
        int nExit;
        std::string text;
    } cases[] = {
        {"orxzupo", {"--help"}, 0, "Usage: orxzupo"},
        {"orxzupo", {"--listen", "65536"}, 2, "65536 is not a number from 0 to 65535"},
        {"orxzupo", {"--refuse", "/no/such/file"}, 2, "cannot read /no/such/file"},
        {"orxzupo", {"--listen", "nowhere:1"}, 1, "nowhere is no IPv4 address"},
        {"orxzupo", {"extra"}, 2, "Try orxzupo --help"},
        {"orxrelay", {"--help"}, 0, "Usage: orxrelay"},
        {"orxrelay", {}, 2, "name one box"},
        {"orxrelay", {"--timeout", "0", "x"}, 2, "0 is not a number from 1 to 3600"},
        {"orxrelay", {"--server", "127.0.0.1", std::string(32, 'x')}, 2, "at most 31 characters"},
        {"orxrelay", {"--listen", At(taken.nPort), "127.0.0.1"}, 2, "cannot listen on " + At(taken.nPort)},
        {"orxrelay", {"--check", "127.0.0.1:0"}, 2, "127.0.0.1:0 is not a known host and port"},
        {"orxrelay", {"--check", "--timeout", "1", "127.0.0.1:9"}, 1, "the box does not answer"},
        {"orxrelay",
         {"--check", "--timeout", "1", "--server", "127.0.0.1:9", "x"},
         1,
         "the rendezvous server does not answer"},
    };
    for (const auto &c : cases) {
        ToolProcess tool(c.szTool, c.arguments);
        EXPECT_EQ(c.nExit, tool.WaitExit()) << c.text;
        EXPECT_THAT(tool.Output(), HasSubstr(c.text));
    }
}

TEST_F(RemoteTest, PagesAndTunnelledPlayersShareTheWebPort)
{
    Listener web;
    UseProxy(web.nPort);
    ASSERT_NO_FATAL_FAILURE(StartPushed());
    EXPECT_TRUE(server.WaitOutput("listen on " + At(nWebPort) + ", Target=" + At(web.nPort) + "\n"));
    Sock browser = Connect(nWebPort);
    ASSERT_TRUE(browser.Send("GET / HTTP/1.0\r\n\r\n"));
    Sock page = web.Accept();
    EXPECT_EQ("GET / HTTP/1.0\r\n\r\n", page.Read(18));
    page.Send("HTTP/1.0 200 OK\r\n\r\nhello");
    EXPECT_EQ("HTTP/1.0 200 OK\r\n\r\nhello", browser.Read(24));

    RtspClient player;
    ASSERT_EQ(1, RtspOpenPlayer(&player, UrlAt(nWebPort).c_str(), RTSP_OVER_TUNNEL)) << player.error;
    ExpectMedia(&player);
    EXPECT_THAT(server.Output(), testing::ContainsRegex("\nfd0x[0-9a-f]+ received [0-9]+ bytes\r\n"))
        << "the POST half";
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(0, server.Quit());
    EXPECT_LT(ElapsedMs(start), 1000);
}

TEST_F(RemoteTest, AServiceThatCannotStartEndsTheStartUp)
{
    Listener taken;
    UseProxy(80);
    server.Set("SERVER", "HttpProxyListenPort", std::to_string(taken.nPort));
    ASSERT_NO_FATAL_FAILURE(server.Launch());
    EXPECT_TRUE(server.WaitOutput("Listen error " + std::to_string(EADDRINUSE) + "\n"));
    EXPECT_GE(server.WaitExit(), 0);
    EXPECT_EQ(0, CountText(server.Output(), "Enter command:"));
}

}  // namespace
}  // namespace orx
