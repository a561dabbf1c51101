// A server that listens on "::": peers of both families, and who is taken for whom.
#include "system/systemtest.h"

using namespace orx;

using testing::HasSubstr;

struct Ipv6Test : SystemTest {
    void SetUp() override
    {
        Sock sock(socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0));
        sockaddr_in6 own{};
        own.sin6_family = AF_INET6;
        own.sin6_addr = in6addr_loopback;
        if (bind(sock.fd, reinterpret_cast<sockaddr *>(&own), sizeof(own)) != 0)
            GTEST_SKIP() << "this machine has no ::1";
        server.Set("SERVER",
                   "ListenIp=::\nEnableHttpProxy=1\nHttpProxyListenPort=" + std::to_string(server.nSparePort));
        server.Set("INTEROP", "StandardPushers=1\nStandardPlayers=1");
    }
    static std::string Url(const std::string &host, int nPort)
    {
        return "rtsp://" + host + ":" + std::to_string(nPort) + "/cam";
    }
    static std::string Sdp(const char *szConnection)
    {
        std::string sdp = CameraSdp();
        return sdp.insert(sdp.find("t=0 0"), std::string("c=IN ") + szConnection + "\r\n");
    }
    int Push(RtspClient *pClient, const std::string &host, const std::string &sdp)
    {
        return RtspOpenPusher(pClient, Url(host, server.nPort).c_str(), sdp, "RECORD", kRtspTimeoutMs);
    }
};

TEST_F(Ipv6Test, ServesBothFamiliesOnEveryWay)
{
    server.Start();
    int nPicture = 0;
    for (const char *szPusher : {"[::1]", "127.0.0.1"}) {
        ASSERT_EQ(1, Push(&pusher, szPusher, Sdp(szPusher[0] == '[' ? "IP6 ::1" : "IP4 127.0.0.1"))) << pusher.error;
        for (const char *szPlayer : {"[::1]", "127.0.0.1"}) {
            const bool bIpv6 = szPlayer[0] == '[';
            for (auto [transport, nPort] : {std::pair{RTSP_OVER_TCP, server.nPort},
                                            {RTSP_OVER_UDP, server.nPort},
                                            {RTSP_OVER_TUNNEL, server.nPort},
                                            {RTSP_OVER_TUNNEL, server.nSparePort}}) {
                SCOPED_TRACE(testing::Message() << szPusher << " " << szPlayer << " " << transport << " " << nPort);
                RtspClient viewer;
                ASSERT_EQ(1, RtspOpenPlayer(&viewer, Url(szPlayer, nPort).c_str(), transport)) << viewer.error;
                const char *szForeign = bIpv6 ? "IP6 ::" : "IP4 0.0.0.0", *szOwn = bIpv6 ? "IP6 ::1" : "IP4 127.0.0.1";
                EXPECT_EQ(Sdp(szPusher == std::string(szPlayer) ? szOwn : szForeign), viewer.sdp);
                std::string packet;
                RtspMessage frame;
                EXPECT_TRUE(WaitFor([&] {
                    SendPictures(&pusher, nPicture++, 1);
                    return transport == RTSP_OVER_UDP ? RtspUdpReceive(viewer.tracks[0].udp.fdRtp, &packet, 20)
                                                      : RtspWaitFrame(&viewer, 0, &frame, 20);
                }));
                auto peers = server.Stat().sessions;
                EXPECT_EQ(2U, peers.size());
                EXPECT_THAT(peers, testing::Each(testing::AnyOf(HasSubstr("\t[::1]:"), HasSubstr("\t127.0.0.1:"))));
                EXPECT_THAT(peers, testing::Contains(testing::AllOf(HasSubstr(std::string("\t") + szPlayer + ":"),
                                                                    testing::EndsWith("\t0\r"))));
                RtspClose(&viewer);
                ExpectLeft(0, 2);
            }
        }
        RtspClose(&pusher);
        ExpectLeft(0, 1);
    }
}

TEST_F(Ipv6Test, TellsHostsApart)
{
    server.Set("GUARD", "AnnounceFrom=127.0.0.1 ::1/128\nMaxSessionsPerAddress=1");
    server.Start();
    RtspClient other;
    ASSERT_EQ(1, Push(&pusher, "[::1]", CameraSdp())) << pusher.error;
    EXPECT_EQ(0, Push(&other, "127.0.0.1", CameraSdp())) << "another one, who may push";
    EXPECT_THAT(other.error, HasSubstr("502"));
    EXPECT_EQ(1, Push(&other, "[::1]", CameraSdp())) << other.error;
    EXPECT_THAT(server.Output(), HasSubstr("The same pusher Announce again"));
    RtspClient idle[2];
    for (RtspClient &client : idle)
        EXPECT_EQ(1, RtspConnect(&client, Url("[::1]", server.nPort).c_str()));
    EXPECT_TRUE(Answers(&idle[1])) << "the box itself is not counted";
}

TEST_F(Ipv6Test, IsForStandardPlayers)
{
    server.Set("INTEROP", "StandardPlayers=0");
    server.Set("SERVER", "EnableHttpProxy=0");
    server.Launch();
    EXPECT_TRUE(server.WaitOutput("Enter command:"));
    EXPECT_THAT(server.Output(), HasSubstr("Listen error"));
}
