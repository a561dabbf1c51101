// Players from outside: through the relay, by way of a rendezvous server, and through the web port.
#include <sys/resource.h>

#include <cerrno>
#include <csignal>
#include <tuple>

#include "support/sockets.h"
#include "system/systemtest.h"

using namespace orx;

const std::string kUuid = "0b1e5a52-5d3f-4c7e-9f10-6a1d2c3b4e5f", kGuid = kUuid.substr(0, 31);

std::string At(int nPort)
{
    return "127.0.0.1:" + std::to_string(nPort);
}

struct RemoteTest : SystemTest {
    int nZupoPort = server.nSparePort, nLocalPort = server.nSparePort + 1, nWebPort = server.nSparePort + 2;
    int nUnetPort = server.nSparePort + 3, nPicture = 0;

    // Has the server register under an identity.
    void Register(const std::string &guid, int nPort)
    {
        server.Set("ZUPO", "ZupoEnable=1\nZupoServerAddr=127.0.0.1\nZupoServerPort=" + std::to_string(nPort));
        server.Set("MAIN", "DeviceGuid", guid);
    }
    // Connects a client through a relay.
    void ConnectRelayed(RtspClient *pClient)
    {
        RtspClose(pClient);
        ASSERT_EQ(1, RtspConnect(pClient, ("rtsp://" + At(nLocalPort) + "/cam").c_str()));
    }
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
    Register(kUuid, nZupoPort);
    ToolProcess zupo("orxzupo", {"--listen", At(nZupoPort)});
    ASSERT_TRUE(zupo.WaitOutput("listening on " + At(nZupoPort) + "\n"));
    StartCamera(CameraSdp());
    EXPECT_TRUE(server.WaitOutput("ZupoRegisterCreate(Server: " + At(nZupoPort) + ")\r\n"));
    EXPECT_TRUE(server.WaitOutput("Unet local port = " + std::to_string(server.nPort) + ".\r\n"));
    ASSERT_TRUE(zupo.WaitOutput("is registered"));
    zupo.Type("list");
    EXPECT_TRUE(zupo.WaitOutput("1 boxes\n" + kGuid + " at " + At(server.nPort) + ", inside "));
    ToolProcess relay("orxrelay", {"--listen", At(nLocalPort), "--server", At(nZupoPort), kUuid});
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

TEST_F(RemoteTest, ABoxThatIsNotRegisteredIsSaidToBeNone)
{
    WriteFile(server.dir.File("refused"), kUuid + "\n");
    ToolProcess zupo("orxzupo", {"--listen", At(nZupoPort), "--refuse", server.dir.File("refused")});
    ASSERT_TRUE(zupo.WaitOutput("listening on "));
    const std::tuple<std::string, int, std::string> cases[] = {
        {"only-20-characters-00", 0, "Not registered: 127.0.0.1:0 is no server.\r\n"},
        {"only-20-characters-0", nZupoPort, "Not registered: DeviceGuid has no more than 20 characters.\r\n"},
        {kUuid, nZupoPort, "ZupoRegisterCreate("},
    };
    for (const auto &[guid, nPort, said] : cases) {
        if (server.pid >= 0)
            server.Quit();
        Register(guid, nPort);
        server.Start();
        EXPECT_TRUE(server.WaitOutput(said)) << guid;
    }
    EXPECT_TRUE(zupo.WaitOutput("box " + kGuid + " at " + At(server.nPort) + " is refused"));
}

// Behind the relay is nobody who could pass for the box's own encoder, or take datagrams.
TEST_F(RemoteTest, ARelayedStrangerIsNotTheBox)
{
    server.Set("SERVER", "EnableUnet=1\nListenIp=localhost");
    server.Set("INTEROP", "StandardPlayers", "1");
    StartCamera(CameraSdp());
    ToolProcess relay("orxrelay", {"--listen", At(nLocalPort), At(server.nPort)});
    ASSERT_TRUE(relay.WaitOutput("open rtsp://" + At(nLocalPort)));
    ConnectRelayed(&player);
    EXPECT_THAT(Ask(&player, "ANNOUNCE", "/cam", kSdp, CameraSdp()), testing::HasSubstr(" 502 Duplicate\r\n"));
    ConnectRelayed(&player);
    ASSERT_EQ(1, RtspDescribe(&player));
    EXPECT_TRUE(server.WaitOutput(" from 127.0.1.1:"));
    EXPECT_EQ(Refused("461 Unsupported Transport"),
              Ask(&player, "SETUP", "/cam/trackID=0", "Transport: RTP/AVP;unicast;client_port=6000-6001\r\n"));
    EXPECT_EQ(1, RtspSetup(&player, 0, RTSP_OVER_TCP));
    EXPECT_EQ(1, RtspPoll(&pusher));
}

TEST_F(RemoteTest, BridgesFindTheOneAddressThatListens)
{
    server.Set("SERVER", "EnableUnet=1\nListenIp=127.0.0.9");
    server.Launch();
    ASSERT_TRUE(server.WaitOutput("Unet local port = "));
    ToolProcess relay("orxrelay", {"--listen", At(nLocalPort), "127.0.0.9:" + std::to_string(server.nPort)});
    ASSERT_TRUE(relay.WaitOutput("open rtsp://" + At(nLocalPort)));
    ConnectRelayed(&player);
    EXPECT_THAT(Ask(&player, "OPTIONS", "*"), kIsOk);
}

TEST_F(RemoteTest, WithoutDescriptorsBothPortsWaitAndSaySoOnce)
{
    Listener web;
    server.Set("SERVER", "EnableHttpProxy=1\nHttpProxyListenPort=" + std::to_string(nWebPort) +
                             "\nHttpProxyTargetPort=" + std::to_string(web.nPort));
    server.Start();
    ASSERT_TRUE(server.WaitOutput("Http proxy: "));
    rlimit before{}, none{};
    prlimit(server.pid, RLIMIT_NOFILE, nullptr, &before);
    none = before;
    none.rlim_cur = 3;  // it has more than these already
    prlimit(server.pid, RLIMIT_NOFILE, &none, nullptr);
    Sock browsers[] = {orx::Connect(nWebPort), orx::Connect(nWebPort)};
    for (const Sock &browser : browsers)
        browser.Send("GET / HTTP/1.0\r\n\r\n");
    Connect(&player);
    const std::string said = " err=" + std::to_string(EMFILE) + ".\r\n";
    EXPECT_TRUE(server.WaitOutput(said, 2));
    prlimit(server.pid, RLIMIT_NOFILE, &before, nullptr);
    EXPECT_TRUE(Answers(&player));
    for (size_t i = 0; i < 2; i++)
        EXPECT_EQ("GET / HTTP/1.0\r\n\r\n", web.Accept().Read(18));
    EXPECT_EQ(2, CountText(server.Output(), said));
}

TEST_F(RemoteTest, PagesAndTunnelledPlayersShareTheWebPort)
{
    Listener web;
    server.Set("SERVER", "EnableHttpProxy=1\nHttpProxyListenPort=" + std::to_string(nWebPort) +
                             "\nHttpProxyTargetPort=" + std::to_string(web.nPort));
    server.Set("INTEROP", "FastWebPort", "1");
    StartCamera(CameraSdp());
    EXPECT_TRUE(server.WaitOutput("listen on " + At(nWebPort) + ", Target=" + At(web.nPort) + "\n"));
    Sock browser = orx::Connect(nWebPort);
    ASSERT_TRUE(browser.Send("GET / HTTP/1.0\r\n\r\n"));
    Sock page = web.Accept();
    EXPECT_EQ("GET / HTTP/1.0\r\n\r\n", page.Read(18));
    shutdown(browser.fd, SHUT_WR);  // which ends no answer
    EXPECT_TRUE(page.Closed(20000));
    page.Send("HTTP/1.0 200 OK\r\n\r\nhello");
    EXPECT_EQ("HTTP/1.0 200 OK\r\n\r\nhello", browser.Read(24));
    ExpectPlays(&player, nWebPort, RTSP_OVER_TUNNEL);
    EXPECT_THAT(server.Output(), testing::ContainsRegex("\nfd0x[0-9a-f]+ received [0-9]+ bytes\r\n"))
        << "the POST half";
}
