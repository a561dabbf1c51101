// Players from outside: through the relay, by way of a rendezvous server, and through the web port.
#include <csignal>

#include "support/sockets.h"
#include "system/systemtest.h"

using namespace orx;

const std::string kGuid = "box-0123456789abcdef-01";

std::string At(int nPort)
{
    return "127.0.0.1:" + std::to_string(nPort);
}

struct RemoteTest : SystemTest {
    int nZupoPort = server.nSparePort, nLocalPort = server.nSparePort + 1, nWebPort = server.nSparePort + 2;
    int nUnetPort = server.nSparePort + 3, nPicture = 0;

    // A player that comes by a port gets pictures.
    void ExpectPlays(RtspClient *pPlayer, int nPort, RtspTransport transport = RTSP_OVER_TCP)
    {
        SendPictures(&pusher, nPicture, 3);
        nPicture += 3;
        Deliver();
        ASSERT_EQ(1, RtspOpenPlayer(pPlayer, ("rtsp://" + At(nPort) + "/cam").c_str(), transport)) << pPlayer->error;
        EXPECT_EQ(1, RtspWaitFrame(pPlayer, 0, nullptr));
    }
};

TEST_F(RemoteTest, PlayersComeThroughTheRelayByIdentity)
{
    server.Set("ZUPO", "ZupoEnable=1\nZupoServerAddr=127.0.0.1\nZupoServerPort=" + std::to_string(nZupoPort));
    server.Set("MAIN", "DeviceGuid", kGuid);
    ToolProcess zupo("orxzupo", {"--listen", At(nZupoPort)});
    ASSERT_TRUE(zupo.WaitOutput("listening on " + At(nZupoPort) + "\n"));
    StartCamera(CameraSdp());
    EXPECT_TRUE(server.WaitOutput("ZupoRegisterCreate(Server: " + At(nZupoPort) + ")\r\n"));
    EXPECT_TRUE(server.WaitOutput("Unet local port = " + std::to_string(server.nPort) + ".\r\n"));
    ASSERT_TRUE(zupo.WaitOutput("is registered"));
    zupo.Type("list");
    EXPECT_TRUE(zupo.WaitOutput("1 boxes\n" + kGuid + " at " + At(server.nPort) + ", inside "));
    ToolProcess relay("orxrelay", {"--listen", At(nLocalPort), "--server", At(nZupoPort), kGuid});
    ASSERT_TRUE(relay.WaitOutput("open rtsp://" + At(nLocalPort)));
    RtspClient players[3];
    for (RtspClient &one : players)
        ExpectPlays(&one, nLocalPort);
    EXPECT_TRUE(server.WaitOutput("A punching connected from 127.0.0.1:"));
    EXPECT_EQ(3U, server.Stat().nClients);
    RtspClose(&players[0]);
    EXPECT_TRUE(server.WaitOutput("Exit UnetProxyEntry("));
    EXPECT_TRUE(WaitFor([&] { return server.Stat().nClients == 2; }));
    EXPECT_EQ(0, server.Quit()) << "with two relayed players";
    relay.Signal(SIGTERM);
    EXPECT_EQ(0, relay.WaitExit());
    zupo.Type("quit");
    EXPECT_EQ(0, zupo.WaitExit());
}

TEST_F(RemoteTest, PagesAndTunnelledPlayersShareTheWebPort)
{
    Listener web;
    server.Set("SERVER", "EnableHttpProxy=1\nHttpProxyListenPort=" + std::to_string(nWebPort) +
                             "\nHttpProxyTargetPort=" + std::to_string(web.nPort));
    StartCamera(CameraSdp());
    EXPECT_TRUE(server.WaitOutput("listen on " + At(nWebPort) + ", Target=" + At(web.nPort) + "\n"));
    Sock browser = orx::Connect(nWebPort);
    ASSERT_TRUE(browser.Send("GET / HTTP/1.0\r\n\r\n"));
    Sock page = web.Accept();
    EXPECT_EQ("GET / HTTP/1.0\r\n\r\n", page.Read(18));
    page.Send("HTTP/1.0 200 OK\r\n\r\nhello");
    EXPECT_EQ("HTTP/1.0 200 OK\r\n\r\nhello", browser.Read(24));
    ExpectPlays(&player, nWebPort, RTSP_OVER_TUNNEL);
    EXPECT_THAT(server.Output(), testing::ContainsRegex("\nfd0x[0-9a-f]+ received [0-9]+ bytes\r\n"))
        << "the POST half";
}
