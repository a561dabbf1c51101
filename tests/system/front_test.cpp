// Connections of a front, which names their peer by a PROXY header: who counts as the peer then, and what is
// no such connection.
#include "system/systemtest.h"

using namespace orx;
using testing::HasSubstr;
using testing::Not;

static const std::string kFrom = "PROXY TCP4 ", kTo = " 127.0.0.1 1000 554\r\n";
static const std::string kTunnelGet =
    "GET /cam HTTP/1.0\r\nx-sessioncookie: c\r\nAccept: application/x-rtsp-tunnelled\r\n\r\n";

static std::string Local()
{
    return std::string("\r\n\r\n\0\r\nQUIT\n\x20\0\0\0", 16);
}

struct FrontTest : SystemTest {
    // 127.0.0.2 is a front.
    void StartBehind(const std::string &guard = "")
    {
        server.Set("INTEROP",
                   "ProxyProtocolFrom=127.0.0.2\nStandardPlayers=1\nStandardPushers=1\nUdpPushers=1\nFastWebPort=1");
        server.Set("GUARD", "SurvivePeerFaults=1\n" + guard);
        server.Set("SERVER", "EnableHttpProxy=1\nHttpProxyListenPort=" + std::to_string(server.nSparePort));
        server.Start();
    }
    Sock From(int nHost, const std::string &bytes, int nPort = 0) const
    {
        Sock client = ::orx::Connect(nPort ? nPort : server.nPort, nHost);
        EXPECT_TRUE(client.Send(bytes));
        return client;
    }
    static bool Gets(const Sock &client, const std::string &text)
    {
        std::string read;
        while (read.find(text) == std::string::npos && client.Readable(20000)) {
            std::string more = client.Read(1);
            if (more.empty())
                return false;
            read += more;
        }
        return read.find(text) != std::string::npos;
    }
    // A client of a peer that the front names.
    void ConnectFor(RtspClient *pClient, const std::string &peer) const
    {
        pClient->sourceIp = "127.0.0.2";
        EXPECT_EQ(1, RtspConnect(pClient, server.Url("/cam").c_str()));
        ::orx::Send(pClient, kFrom + peer + kTo);
    }
};

TEST_F(FrontTest, NamesThePeerOnBothPorts)
{
    StartBehind();
    static const struct {
        std::string header;
        const char *szPeer;
    } cases[] = {
        {kFrom + "10.1.2.3" + kTo, "from 10.1.2.3:1000"},
        {"PROXY TCP6 2001:db8::7 ::1 7 8\r\n", "from [2001:db8::7]:7"},
        {"PROXY UNKNOWN\r\n", "from 127.0.0.2:"},
        {Local(), "from 127.0.0.2:"},
    };
    for (const auto &c : cases) {
        size_t nFrom = server.Output().size();
        Sock whole = From(2, c.header + Options(7));  // what stands behind the header is the first request
        EXPECT_TRUE(Gets(whole, "CSeq: 7")) << c.szPeer;
        EXPECT_TRUE(server.WaitOutput(c.szPeer, 1, nFrom));
        Sock slow = From(2, c.header.substr(0, 9));
        Sock other = From(1, Options(8));
        EXPECT_TRUE(Gets(other, "CSeq: 8"));
        EXPECT_EQ(1, CountText(server.Output(), c.szPeer, nFrom)) << "no session before the header is whole";
        EXPECT_TRUE(slow.Send(c.header.substr(9)));
        EXPECT_TRUE(server.WaitOutput(c.szPeer, 2, nFrom));
        nFrom = server.Output().size();
        Sock web = From(2, c.header, server.nSparePort);
        EXPECT_TRUE(web.Send(kTunnelGet));
        EXPECT_TRUE(server.WaitOutput(std::string("Create session(fd=0x"), 1, nFrom));
        EXPECT_TRUE(server.WaitOutput(c.szPeer, 2, nFrom)) << "of the web port, and of the session";
    }
}

TEST_F(FrontTest, WantsAHeaderOfItsFrontsAlone)
{
    StartBehind();
    std::vector<Sock> all;
    for (int nPort : {server.nPort, server.nSparePort})
        for (const std::string &bytes : {Options(1), std::string(), std::string("PROXY TC")})
            all.push_back(From(2, bytes, nPort));
    for (const Sock &client : all)
        EXPECT_TRUE(client.Closed(10000)) << "at once, or after 5 s";
    EXPECT_THAT(server.Output(), Not(HasSubstr("Create session")));
    Sock other = From(1, kFrom + "10.1.2.3" + kTo + Options(1));
    EXPECT_TRUE(server.WaitOutput("Create session")) << "and of nobody else";
    EXPECT_TRUE(other.Closed(10000));
}

TEST_F(FrontTest, CountsThePeerThatIsNamed)
{
    StartBehind("MaxSessionsPerAddress=2\nAnnounceFrom=10.1.2.0/24\nAuthFailDelay=10");
    auto push = [&](const char *szPeer) {
        RtspClient client;
        ConnectFor(&client, szPeer);
        return RtspAnnounce(&client, CameraSdp());
    };
    EXPECT_EQ(1, push("10.1.2.3"));
    EXPECT_EQ(0, push("10.1.3.3"));
    EXPECT_EQ(0, push("127.0.0.1"));
    Sock a = From(2, kFrom + "127.0.0.1" + kTo), b = From(2, kFrom + "127.0.0.1" + kTo);
    ASSERT_TRUE(server.WaitOutput("from 127.0.0.1:1000", 3));
    Sock c = From(2, kFrom + "127.0.0.1" + kTo);
    EXPECT_TRUE(server.WaitOutput("Too many sessions of 127.0.0.1:1000")) << "nobody behind a front is the box itself";
    EXPECT_TRUE(c.Closed(10000));
    Sock d = From(2, kFrom + "10.9.9.9" + kTo);
    EXPECT_TRUE(server.WaitOutput("from 10.9.9.9:1000"));
}

TEST_F(FrontTest, RefusesDatagrams)
{
    StartBehind();
    EXPECT_EQ(1, RtspOpenPusher(&pusher, server.Url("/cam").c_str(), CameraSdp()));
    ConnectFor(&player, "10.1.2.3");
    ASSERT_EQ(1, RtspDescribe(&player));
    EXPECT_THAT(Ask(&player, "SETUP", "/cam/trackID=0", "Transport: RTP/AVP;unicast;client_port=5000-5001\r\n"),
                testing::StartsWith("RTSP/1.0 461 "));
    EXPECT_EQ(1, RtspSetup(&player, 0, RTSP_OVER_TCP));
}

// A shell of the box may record without a password; who says through a front that it is there may not.
TEST_F(FrontTest, IsNotTheBoxItself)
{
    server.Set("SERVER", "AuthType", "1");
    server.Set("STORAGE", "RecordEnable", "1");
    StartBehind("StrictRoles=1");
    EXPECT_EQ(1, RtspOpenPusher(&pusher, server.Url("/cam").c_str(), CameraSdp()));
    RtspClient shell;
    Connect(&shell);
    ConnectFor(&player, "127.0.0.1");
    for (RtspClient *pClient : {&shell, &player}) {
        EXPECT_THAT(Ask(pClient, "DESCRIBE"), testing::StartsWith("RTSP/1.0 401 "));
        EXPECT_THAT(Ask(pClient, "RECORDEX", "", "ActionParam: Cmd=stop\r\n"),
                    testing::StartsWith(pClient == &shell ? "RTSP/1.0 200 " : "RTSP/1.0 401 "));
    }
}
