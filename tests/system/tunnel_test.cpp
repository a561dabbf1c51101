// RTSP over HTTP: how the two connections find each other, and what travels on them.
#include <poll.h>
#include <sys/socket.h>

#include "base/base64.h"
#include "client/rtppacket.h"
#include "system/systemtest.h"

using namespace orx;

const std::string kTunnelType = "application/x-rtsp-tunnelled\r\n";
const std::string kGetReply =
    "HTTP/1.1 200 OK\r\n" + kServerLine + "Content-Type: " + kTunnelType + kNoCache + kDate + "\r\n";
const std::string kNoCookie = "HTTP/1.1 400 Bad Request(no x-sessioncookie)\r\n" + kServerLine + kNoCache + "\r\n";

std::string Encoded(const std::string &bytes)
{
    std::string text(Base64EncodedSize(bytes.size()), '\0');
    text.resize(Base64EncodeCount(text.data(), bytes.data(), bytes.size()) - 1);  // without the NUL
    return text;
}

std::string Get(const std::string &headers)
{
    return "GET /cam HTTP/1.0\r\nUser-Agent: test\r\n" + headers + "\r\n";
}

std::string Post(const std::string &cookie)
{
    return "POST /cam HTTP/1.0\r\nx-sessioncookie: " + cookie + "\r\nContent-Type: " + kTunnelType +
           "Content-Length: 32767\r\nExpires: Sun, 9 Jan 1972 00:00:00 GMT\r\n\r\n";
}

struct TunnelTest : SystemTest {
    RtspClient get, post;

    void SendPost(const std::string &cookie, const std::string &behind = "")
    {
        Connect(&post);
        Send(&post, Post(cookie) + behind);
    }
    // A half that waits.
    void OpenGet(RtspClient *pClient, const std::string &cookie)
    {
        Connect(pClient);
        ASSERT_EQ(kGetReply, Exchange(pClient, Get("x-sessioncookie: " + cookie + "\r\n")));
    }
    // Both halves, with what the POST delivers right behind its header.
    void Pair(const std::string &behind = "")
    {
        OpenGet(&get, "abc");
        SendPost("abc", behind);
    }
};

TEST_F(TunnelTest, RefusesWhatIsNoHalf)
{
    server.Start();
    const std::pair<std::string, std::string> cases[] = {
        {Get("Accept: APPLICATION/X-RTSP-Tunnelled\r\n"), kNoCookie},
        {Get("Accept: text/html\r\n"), kMismatch},
        {"POST / HTTP/1.0\r\nx-sessioncookie: abc\r\n\r\n", kMismatch},
        {"POST / HTTP/1.0\r\nx-sessioncookie: abc\r\nContent-Type: text/plain\r\n\r\n", kMismatch},
        {Get("X-SessionCookie: abc\r\nAccept: text/html\r\n"), kGetReply},
    };
    Connect(&get);
    for (const auto &[request, reply] : cases)  // a refused connection stays open
        EXPECT_EQ(reply, Exchange(&get, request)) << request;
    SendPost("abd");
    EXPECT_EQ(1, RtspWaitClosed(&post)) << "nobody waits under that name";
    EXPECT_TRUE(post.inbox.empty());
    SendPost("abc", Encoded(Options(1)));
    ExpectAnswers(&get, 1, 1);
    Connect(&player);
    Send(&player, Post("abc"));
    EXPECT_EQ(1, RtspWaitClosed(&player)) << "a name pairs once";
    Send(&post, Encoded(Options(2)));
    ExpectAnswers(&get, 2, 2);
}

// Without regard to case; of one name the first that waits; the POST may come on a connection in use.
TEST_F(TunnelTest, PairsByName)
{
    server.Set("SERVER", "AuthType", "1");
    StartCamera(CameraSdp());
    RtspClient other, second, again;
    OpenGet(&other, "someone else");
    OpenGet(&get, "aBc+/9");
    OpenGet(&second, "aBc+/9");
    Connect(&post);
    ASSERT_THAT(Ask(&post, "DESCRIBE"), testing::StartsWith("RTSP/1.0 401 "));
    ExpectLeft(4, 6);
    Send(&post,
         "post /cam HTTP/1.0\r\nX-SESSIONCOOKIE: AbC+/9\r\ncontent-type: "
         "Application/X-RTSP-tunnelled\r\n\r\n" +
             Encoded(Options(4)));
    ExpectAnswers(&get, 4, 4);
    EXPECT_TRUE(RtspPoll(&post) && post.inbox.empty() && post.buffer.empty()) << "it is never answered";
    ExpectLeft(3, 6);  // both connections are one session
    EXPECT_TRUE(server.WaitOutput("Base64Decode(OutLen=" + std::to_string(Options(4).size()) + ")\r\n" + Options(4)));
    Connect(&again);
    Send(&again, Post("aBc+/9") + Encoded(Options(5)));
    EXPECT_EQ(5, NextAnswer(&second));
}

// Behind the header and after it, more than the buffer takes at once.
TEST_F(TunnelTest, TakesMoreThanTheBuffer)
{
    server.Set("SERVER", "SessionBufSize", "4096");
    server.Start();
    std::string text;
    for (int i = 1; i <= 200; i++)
        text += Encoded(Options(i)) + "\r\n";
    for (size_t nCut : {size_t{3}, text.size()}) {
        Pair(text.substr(0, nCut));
        Send(&post, text.substr(nCut));
        ExpectAnswers(&get, 1, 200);
    }
}

TEST_F(TunnelTest, CarriesPushersAndPlayers)
{
    server.Set("SERVER", "EnableRtcp", "1");
    server.Start();
    ASSERT_EQ(1, RtspConnectTunnel(&pusher, server.Url("/cam").c_str()));
    ASSERT_EQ(1, RtspAnnounce(&pusher, CameraSdp()));
    ASSERT_EQ(1, RtspSetupPush(&pusher, 0));
    ASSERT_EQ(1, RtspPlay(&pusher));
    SendPictures(&pusher, 0, 1);
    ASSERT_EQ(1, RtspSendFrame(&pusher, 1, "\x80\xC9\0\1sent", 8));
    ASSERT_TRUE(server.WaitOutput("Receive RTCP packet on track 1, 8 bytes.\n"));
    ASSERT_EQ(1, RtspOpenPlayer(&player, server.Url("/cam").c_str(), RTSP_OVER_TUNNEL));
    SendPictures(&pusher, 1, 30);
    Deliver();
    EXPECT_TRUE(Answers(&player)) << "behind the last five, which would wait for more";
    RtspMessage got;
    for (uint16_t i = 0; i < 62; i++) {
        ASSERT_EQ(1, RtspWaitFrame(&player, 0, &got));
        EXPECT_EQ(CameraPacket(0, i, i / 2 * 3600U, i & 1 ? "\x65picture" : "\x67sps", i & 1), got.body);
    }
    // a player's report among its requests
    std::string report = Frame(1, RtcpReceiverReport(1, 2, 3));
    ASSERT_EQ(1, RtspSendBytes(&player, report.data(), report.size()));
    EXPECT_THAT(Ask(&player, "PAUSE"), kIsOk);
    EXPECT_TRUE(server.WaitOutput("RR sender's ssrc=1:\r\n"));
}

// Media goes on without the POST half; the connection that it goes out on takes the other one with it. Before
// media travels, either half may go without the other.
TEST_F(TunnelTest, HalvesGo)
{
    StartCamera(CameraSdp());
    for (bool bPostFirst : {true, false}) {
        Pair(Encoded(Options(1)));
        ExpectAnswers(&get, 1, 1);
        RtspClose(bPostFirst ? &post : &get);
        ExpectLeft(1, 3);
        EXPECT_EQ(1, RtspPoll(bPostFirst ? &get : &post));
        RtspClose(bPostFirst ? &get : &post);
        ExpectLeft(0, 2);
    }
    ASSERT_EQ(1, RtspOpenPlayer(&player, server.Url("/cam").c_str(), RTSP_OVER_TUNNEL));
    shutdown(player.fdPost, SHUT_RDWR);
    ExpectLeft(1, 3);
    SendPictures(&pusher, 0, 4);
    Deliver();
    EXPECT_EQ(1, RtspWaitFrame(&player, 0, nullptr));
    ASSERT_EQ(1, RtspOpenPlayer(&player, server.Url("/cam").c_str(), RTSP_OVER_TUNNEL));
    ExpectLeft(1, 4);
    shutdown(player.fd, SHUT_RDWR);
    ExpectLeft(0, 2);
    // a POST that ends with its header, which is read together with the end
    OpenGet(&get, "abc");
    SendPost("abc");
    RtspClose(&post);
    ExpectLeft(1, 3);
    // after TEARDOWN both go, whether or not the client takes one away before
    Pair(Encoded(MakeRequest("TEARDOWN", "/cam", 1)));
    EXPECT_EQ(1, NextAnswer(&get));
    RtspClose(&post);
    EXPECT_EQ(1, RtspWaitClosed(&get));
}

// A standard pusher has gone with the half that its media comes on.
TEST_F(TunnelTest, PusherGoesWithItsPost)
{
    server.Set("INTEROP", "StandardPushers", "1");
    server.Start();
    ASSERT_EQ(1, RtspConnectTunnel(&pusher, server.Url("/cam").c_str()));
    ASSERT_TRUE(RtspAnnounce(&pusher, CameraSdp()) && RtspSetupPush(&pusher, 0) && RtspPlay(&pusher));
    shutdown(pusher.fdPost, SHUT_RDWR);
    EXPECT_EQ(1, RtspWaitClosed(&pusher));
    ExpectLeft(0, 1);
}

// For standard players the order in which the halves arrive does not matter, and the POST may be renewed, when it
// has gone or before; half a request goes with the old one. What a POST has sent before its GET is kept, on the RTSP
// port and on the web port; one that nobody wants does not stay.
TEST_F(TunnelTest, PostMayComeFirst)
{
    server.Set("INTEROP", "StandardPlayers", "1");
    server.Set("SERVER",
               "EnableHttpProxy=1\nHttpProxyTargetPort=1\nHttpProxyListenPort=" + std::to_string(server.nSparePort));
    server.Start();
    RtspClient other, second, third;
    Connect(&other);
    for (int nPort : {server.nPort, server.nSparePort}) {
        std::string url = "rtsp://127.0.0.1:" + std::to_string(nPort) + "/cam", sent = Encoded(Options(1) + Options(2));
        std::string cookie = "xyz" + std::to_string(nPort);
        int nCreated = CountText(server.Output(), "Create session");
        ASSERT_EQ(1, RtspConnect(&post, url.c_str()));
        Send(&post, Post(cookie) + sent.substr(0, 70));
        ASSERT_TRUE(server.WaitOutput("Create session", nCreated + 1));
        Send(&post, sent.substr(70));
        ASSERT_TRUE(Answers(&other));
        ASSERT_EQ(1, RtspConnect(&get, url.c_str()));
        EXPECT_THAT(Exchange(&get, Get("x-sessioncookie: XYZ" + cookie.substr(3) + "\r\nAccept: " + kTunnelType)),
                    testing::StartsWith("HTTP/1.1 200 OK\r\n"));
        ExpectAnswers(&get, 1, 2);
        Send(&post, Encoded(Options(3)));
        ExpectAnswers(&get, 3, 3);
        for (int i : {4, 5}) {
            Send(i == 4 ? &post : &second, Encoded("OPTI"));
            if (i == 4)
                RtspClose(&post);
            ASSERT_EQ(1, RtspConnect(i == 4 ? &second : &third, url.c_str()));
            Send(i == 4 ? &second : &third, Post(cookie) + Encoded(Options(i)));
            ExpectAnswers(&get, i, i);
        }
    }
    SendPost("nobody");
    EXPECT_EQ(1, RtspWaitClosed(&post));
}

// What a GET half holds of a request goes with the POST that is renewed: the rest of it is a request of its own.
TEST_F(TunnelTest, ARenewedPostTakesHalfARequestAlong)
{
    server.Set("INTEROP", "StandardPlayers=1\nLowDelay", "1");
    server.Start();
    RtspClient other, second;
    Connect(&other);
    Connect(&get);
    EXPECT_THAT(Exchange(&get, Get("x-sessioncookie: abc\r\nAccept: " + kTunnelType)),
                testing::StartsWith("HTTP/1.1 200 OK\r\n"));
    SendPost("abc", Encoded(Options(1)));
    ExpectAnswers(&get, 1, 1);
    Send(&get, Options(2) + "OPTIONS * RTSP/1.0\r\nCSeq: 3\r\nContent-Length: 10000\r\n\r\n");
    ExpectAnswers(&get, 2, 2);  // what came with it is looked at before anything that comes later
    Connect(&second);
    Send(&second, Post("abc"));
    pollfd gone{post.fd, POLLIN, 0};
    EXPECT_EQ(1, poll(&gone, 1, kRtspTimeoutMs));  // at once: what the new POST brought is looked at 10 ms later
    Send(&get, "O");
    ASSERT_TRUE(Answers(&other));
    Send(&get, Options(4).substr(1));
    ExpectAnswers(&get, 4, 4);
}
