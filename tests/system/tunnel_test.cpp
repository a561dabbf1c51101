// RTSP over HTTP: how the two connections find each other, and what travels on them.
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "base/base64.h"
#include "client/rtppacket.h"
#include "system/orxprocess.h"

namespace orx {
namespace {

using testing::HasSubstr;
using testing::StartsWith;

const std::string kGetReply = "HTTP/1.1 200 OK\r\n" + kServerLine +
                              "Content-Type: application/x-rtsp-tunnelled\r\n" + kNoCache +
                              "Date: DATE\r\n\r\n";
const std::string kNoCookie =
    "HTTP/1.1 400 Bad Request(no x-sessioncookie)\r\n" + kServerLine + kNoCache + "\r\n";
const std::string kMismatch = "HTTP/1.1 400 Bad Request(Content Types Mismatched)\r\n" + kServerLine +
                              kNoCache + "Connection: Close\r\n\r\n";
const std::string kTunnelType = "Content-Type: application/x-rtsp-tunnelled\r\n";

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

std::string Post(const std::string &cookie, const std::string &type = kTunnelType)
{
    return "POST /cam HTTP/1.0\r\nx-sessioncookie: " + cookie + "\r\n" + type +
           "Pragma: no-cache\r\nContent-Length: 32767\r\nExpires: Sun, 9 Jan 1972 00:00:00 GMT\r\n\r\n";
}

std::string Options(int nCSeq)
{
    return MakeRequest("OPTIONS", "*", nCSeq);
}

struct TunnelTest : SystemTest {
    RtspClient get, post;

    void Connect(RtspClient *pClient)
    {
        RtspClose(pClient);
        ASSERT_EQ(1, RtspConnect(pClient, server.Url("/cam").c_str()));
    }
    void Send(RtspClient *pClient, const std::string &bytes)
    {
        ASSERT_EQ(1, RtspSendRaw(pClient, bytes.data(), bytes.size()));
    }
    // Both halves, with what the POST delivers right behind its header.
    void Pair(const std::string &behind = "")
    {
        Connect(&get);
        Connect(&post);
        ASSERT_EQ(kGetReply, Exchange(&get, Get("x-sessioncookie: abc\r\n")));
        Send(&post, Post("abc") + behind);
    }
    // The number of the next reply on the GET connection; -1 without one.
    int AnsweredOnGet(int nTimeoutMs = kRtspTimeoutMs)
    {
        RtspMessage reply;
        if (!RtspWaitReply(&get, 0, &reply, nTimeoutMs))
            return -1;
        EXPECT_THAT(reply.raw, StartsWith("RTSP/1.0 200 OK\r\n"));
        return static_cast<int>(RtspHeaderNumber(&reply, "CSeq", -2));
    }
    bool PostSaysNothing() { return RtspPoll(&post) && post.inbox.empty() && post.buffer.empty(); }
};

TEST_F(TunnelTest, AnswersGet)
{
    server.Start();
    const struct {
        std::string headers, reply;
    } cases[] = {
        {"Accept: application/x-rtsp-tunnelled\r\n", kNoCookie},
        {"Accept: APPLICATION/X-RTSP-Tunnelled\r\n", kNoCookie},
        {"", kMismatch},
        {"Accept: text/html\r\n", kMismatch},
        {"X-SessionCookie: 1\r\nAccept: text/html\r\n", kGetReply},
        {"x-sessioncookie: 2\r\n", kGetReply},
        {"x-sessioncookie: 3\r\nAccept: application/x-rtsp-tunnelled\r\n", kGetReply},
    };
    Connect(&post);
    for (const auto &c : cases) {
        Connect(&get);
        EXPECT_EQ(c.reply, Exchange(&get, Get(c.headers))) << c.headers;
        EXPECT_EQ(c.reply, Exchange(&post, Get(c.headers))) << "a refused connection stays open";
        EXPECT_EQ(1, RtspPoll(&get));
    }
}

TEST_F(TunnelTest, RefusesPost)
{
    server.Start();
    Connect(&post);
    for (const char *szType : {"Content-Type: text/plain\r\n", "Content-Type: application/x-rtsp\r\n", ""})
        EXPECT_EQ(kMismatch, Exchange(&post, std::string("POST / HTTP/1.0\r\nx-sessioncookie: abc\r\n") +
                                                 szType + "\r\n"));
    EXPECT_EQ(1, RtspPoll(&post)) << "answered, and still open";

    Connect(&get);
    ASSERT_EQ(kGetReply, Exchange(&get, Get("x-sessioncookie: abc\r\n")));
    Send(&post, Post("abd"));
    EXPECT_EQ(1, RtspWaitClosed(&post)) << "nobody waits under that name";
    EXPECT_TRUE(post.inbox.empty());
    Connect(&post);
    Send(&post, "POST /cam HTTP/1.0\r\n" + kTunnelType + "\r\n" + Encoded(Options(1)));
    EXPECT_EQ(1, RtspWaitClosed(&post));
    EXPECT_TRUE(post.inbox.empty());
    EXPECT_EQ(1, RtspPoll(&get)) << "who waits goes on waiting";
    Connect(&post);
    Send(&post, Post("abc"));
    Send(&post, Encoded(Options(1)));
    EXPECT_EQ(1, AnsweredOnGet());
    RtspClient again;
    Connect(&again);
    Send(&again, Post("abc"));
    EXPECT_EQ(1, RtspWaitClosed(&again)) << "a name pairs once";
    Send(&post, Encoded(Options(2)));
    EXPECT_EQ(2, AnsweredOnGet());
}

TEST_F(TunnelTest, PairsByNameWithoutRegardToCase)
{
    server.Start();
    RtspClient other;
    Connect(&other);
    Connect(&get);
    Connect(&post);
    ASSERT_EQ(kGetReply, Exchange(&other, Get("x-sessioncookie: someone else\r\n")));
    ASSERT_EQ(kGetReply, Exchange(&get, Get("x-sessioncookie: aBc+/9\r\n")));
    EXPECT_EQ(3U, server.Stat().nClients);
    Send(&post,
         "post /cam HTTP/1.0\r\nX-SESSIONCOOKIE: AbC+/9\r\ncontent-type: "
         "Application/X-RTSP-tunnelled\r\n\r\n");
    Send(&post, Encoded(Options(4)));
    EXPECT_EQ(4, AnsweredOnGet());
    EXPECT_TRUE(PostSaysNothing());
    OrxStat stat = server.Stat();
    EXPECT_EQ(2U, stat.nClients) << "both connections are one session";
    EXPECT_EQ(4U, stat.nMonitors);
    EXPECT_TRUE(other.inbox.empty());
    EXPECT_THAT(server.Output(),
                HasSubstr("Base64Decode(OutLen=" + std::to_string(Options(4).size()) + ")\r\n" + Options(4)));
}

TEST_F(TunnelTest, FirstWaitingOfOneNameIsPaired)
{
    server.Start();
    RtspClient second;
    Connect(&get);
    Connect(&second);
    Connect(&post);
    ASSERT_EQ(kGetReply, Exchange(&get, Get("x-sessioncookie: abc\r\n")));
    ASSERT_EQ(kGetReply, Exchange(&second, Get("x-sessioncookie: abc\r\n")));
    Send(&post, Post("abc"));
    Send(&post, Encoded(Options(1)));
    EXPECT_EQ(1, AnsweredOnGet());
    Connect(&post);
    Send(&post, Post("abc"));
    Send(&post, Encoded(Options(2)));
    RtspMessage reply;
    EXPECT_EQ(1, RtspWaitReply(&second, 2, &reply));
}

// A connection that was answered on before leaves its port to the tunnel all the same.
TEST_F(TunnelTest, PostMayComeOnAConnectionInUse)
{
    server.Set("SERVER", "AuthType", "1");
    server.Start();
    RtspClient pusher;
    ASSERT_EQ(1, RtspOpenPusher(&pusher, server.Url("/cam").c_str(), CameraSdp()));
    Connect(&get);
    Connect(&post);
    ASSERT_EQ(kGetReply, Exchange(&get, Get("x-sessioncookie: abc\r\n")));
    ASSERT_THAT(Exchange(&post, MakeRequest("DESCRIBE", server.Url("/cam"), 1)), StartsWith("RTSP/1.0 401 "));
    Send(&post, Post("abc"));
    Send(&post, Encoded(Options(4)));
    EXPECT_EQ(4, AnsweredOnGet());
}

// Requests may stand right behind the header of the POST, whole or torn anywhere.
TEST_F(TunnelTest, TakesWhatCameBehindTheHeader)
{
    server.Start();
    Pair(Encoded(Options(1)));
    EXPECT_EQ(1, AnsweredOnGet());
    std::string text = Encoded(Options(1)) + Encoded(Options(2));
    for (size_t nCut :
         {size_t{1}, size_t{2}, size_t{3}, size_t{4}, size_t{17}, text.size() / 2, text.size() - 1}) {
        Pair(text.substr(0, nCut));
        Send(&post, text.substr(nCut));
        EXPECT_EQ(1, AnsweredOnGet()) << nCut;
        EXPECT_EQ(2, AnsweredOnGet()) << nCut;
    }
}

// Also when there is more of it than the buffer takes at once.
TEST_F(TunnelTest, TakesMuchBehindTheHeader)
{
    server.Set("SERVER", "SessionBufSize", "4096");
    server.Start();
    constexpr int kRequests = 200;
    std::string text;
    for (int i = 1; i <= kRequests; i++)
        text += Encoded(Options(i));
    Pair(text);
    for (int i = 1; i <= kRequests; i++)
        ASSERT_EQ(i, AnsweredOnGet());
}

TEST_F(TunnelTest, TakesTextInAnyPieces)
{
    server.Start();
    Pair();
    std::string text;
    for (int i = 1; i <= 5; i++)
        text += Encoded(MakeRequest("OPTIONS", std::string(static_cast<size_t>(i), 'u'), i)) +
                (i == 3 ? "\r\n" : "");
    text += Encoded(Options(6) + MakeRequest("SET_PARAMETER", "*", 7, "", "a body of some length"));
    for (char c : text)
        Send(&post, std::string(1, c));
    for (int i = 1; i <= 7; i++)
        EXPECT_EQ(i, AnsweredOnGet());
    Send(&post, text.substr(0, 21));
    Send(&post, text.substr(21));
    EXPECT_EQ(7, AnsweredOnGet()) << "the numbers before were dropped";
    // a request whose parts are encoded by themselves, padding in its midst
    std::string request = Options(8);
    Send(&post,
         Encoded(request.substr(0, 10)) + Encoded(request.substr(10, 1)) + Encoded(request.substr(11)));
    EXPECT_EQ(8, AnsweredOnGet());
    EXPECT_TRUE(PostSaysNothing());
}

TEST_F(TunnelTest, PlaysAndIsPushedTo)
{
    server.Set("SERVER", "EnableRtcp", "1");
    server.Start();
    RtspClient pusher, player;
    ASSERT_EQ(1, RtspConnectTunnel(&pusher, server.Url("/cam").c_str()));
    ASSERT_EQ(1, RtspAnnounce(&pusher, CameraSdp()));
    ASSERT_EQ(1, RtspSetupPush(&pusher, 0));
    ASSERT_EQ(1, RtspPlay(&pusher));
    auto frame = [&](int nChannel, const std::string &packet) {
        std::string bytes;
        FrameAddHead(&bytes, nChannel, packet.size());
        bytes += packet;
        ASSERT_EQ(1, RtspSendBytes(&pusher, bytes.data(), bytes.size()));
    };
    std::string key = CameraPacket(0, 1, 90, "\x65" + std::string(1000, 'k'), true);
    frame(0, key);
    frame(1, std::string("\x80\xC9\0\1sent", 8));
    ASSERT_TRUE(server.WaitOutput("Receive RTCP packet on track 1, 8 bytes.\n"));
    ASSERT_EQ(1, RtspOpenPlayer(&player, server.Url("/cam").c_str(), RTSP_OVER_TUNNEL));
    RtspMessage got;
    ASSERT_EQ(1, RtspWaitFrame(&player, 0, &got));
    EXPECT_EQ(key, got.body);
    std::vector<std::string> sent;
    for (uint16_t i = 0; i < 110; i++) {
        sent.push_back(CameraPacket(0, static_cast<uint16_t>(i + 2), 90u + i, std::string(i, 'm'), true));
        frame(0, sent.back());
    }
    for (size_t i = 0; i < 60; i++) {  // the last up to fifty wait for more
        ASSERT_EQ(1, RtspWaitFrame(&player, 0, &got)) << i;
        EXPECT_EQ(sent[i], got.body) << i;
    }
    // a player's report among its requests
    std::string report = RtcpReceiverReport(1, 2, 3), framed;
    FrameAddHead(&framed, 1, report.size());
    framed += report + MakeRequest("PAUSE", server.Url("/cam"), 100);
    ASSERT_EQ(1, RtspSendBytes(&player, framed.data(), framed.size()));
    EXPECT_EQ(1, RtspWaitReply(&player, 100, &got));
    EXPECT_EQ(200, got.nStatus);
    EXPECT_TRUE(server.WaitOutput("RR sender's ssrc=1:\r\n"));
}

TEST_F(TunnelTest, SessionOutlivesThePostHalf)
{
    server.Start();
    RtspClient pusher;
    ASSERT_EQ(1, RtspOpenPusher(&pusher, server.Url("/cam").c_str(), CameraSdp()));
    SendPictures(&pusher, 0, 1);
    RtspClient player;
    ASSERT_EQ(1, RtspOpenPlayer(&player, server.Url("/cam").c_str(), RTSP_OVER_TUNNEL));
    ASSERT_EQ(1, RtspWaitFrame(&player, 0, nullptr));
    shutdown(player.fdPost, SHUT_RDWR);
    ASSERT_TRUE(server.WaitOutput("OnFreePort("));
    SendPictures(&pusher, 1, 60);
    for (int i = 0; i < 50; i++)
        ASSERT_EQ(1, RtspWaitFrame(&player, 0, nullptr)) << "media goes on: " << i;
    EXPECT_EQ(1U, server.Stat().nClients);
    RtspClose(&player);
    EXPECT_TRUE(server.WaitOutput("OnFreeSession()"));
    EXPECT_EQ(2U, server.Stat().nMonitors);

    // the connection that media goes out on takes the other one with it
    ASSERT_EQ(1, RtspOpenPlayer(&player, server.Url("/cam").c_str(), RTSP_OVER_TUNNEL));
    shutdown(player.fd, SHUT_RDWR);
    EXPECT_TRUE(server.WaitOutput("OnFreeSession()", 2));
    OrxStat stat = server.Stat();
    EXPECT_EQ(0U, stat.nClients);
    EXPECT_EQ(2U, stat.nMonitors);
}

// Replies find the GET half also when the media does not travel there.
TEST_F(TunnelTest, MediaMayTravelOverUdp)
{
    server.Start();
    RtspClient pusher, player;
    ASSERT_EQ(1, RtspOpenPusher(&pusher, server.Url("/cam").c_str(), CameraSdp()));
    SendPictures(&pusher, 0, 1);
    ASSERT_EQ(1, RtspConnectTunnel(&player, server.Url("/cam").c_str()));
    ASSERT_EQ(1, RtspDescribe(&player));
    ASSERT_EQ(1, RtspSetup(&player, 0, RTSP_OVER_UDP));
    ASSERT_EQ(1, RtspPlay(&player));
    std::string packet;
    EXPECT_EQ(1, RtspUdpReceive(player.tracks[0].udp.fdRtp, &packet));
    for (int i = 1; i < 20; i++) {
        SendPictures(&pusher, i, 1);  // some of it waits when the next request comes
        RtspMessage reply;
        ASSERT_EQ(1, RtspRequest(&player, "OPTIONS", nullptr, nullptr, "", &reply)) << i;
        EXPECT_THAT(reply.raw, StartsWith("RTSP/1.0 200 OK\r\n"));
    }
}

// Before media travels, either half may go without the other.
TEST_F(TunnelTest, HalvesOfAnIdleTunnelGoByThemselves)
{
    server.Start();
    Pair();
    Send(&post, Encoded(Options(1)));
    ASSERT_EQ(1, AnsweredOnGet());
    RtspClose(&post);
    ASSERT_TRUE(server.WaitOutput("OnFreePort("));
    OrxStat stat = server.Stat();
    EXPECT_EQ(1U, stat.nClients);
    EXPECT_EQ(2U, stat.nMonitors);
    EXPECT_EQ(1, RtspPoll(&get));
    RtspClose(&get);
    ASSERT_TRUE(server.WaitOutput("OnFreeSession()"));

    size_t nMark = server.Output().size();
    Pair();
    Send(&post, Encoded(Options(1)));
    ASSERT_EQ(1, AnsweredOnGet());
    RtspClose(&get);
    ASSERT_TRUE(server.WaitOutput("OnFreePort(", 1, 10000, nMark));
    EXPECT_EQ(1U, server.Stat().nClients);
    EXPECT_EQ(1, RtspPoll(&post));
    RtspClose(&post);
    ASSERT_TRUE(server.WaitOutput("OnFreeSession()", 1, 10000, nMark));
    EXPECT_EQ(1U, server.Stat().nMonitors);
}

// What arrives on the GET half while a request of the POST half waits for its body shares its buffer.
TEST_F(TunnelTest, BytesOnTheGetHalfLeaveNothingBehind)
{
    server.Start();
    Pair();
    std::string request = MakeRequest("SET_PARAMETER", "*", 1, "", std::string(90, 'b'));
    Send(&post, Encoded(request.substr(0, request.size() - 90)));
    ASSERT_TRUE(server.WaitOutput("Base64Decode("));
    Send(&get, "b");  // the first byte of the body, for all the server knows
    Send(&get, "b");
    EXPECT_EQ(-1, AnsweredOnGet(100));
    Send(&post, Encoded(std::string(88, 'b')));
    EXPECT_EQ(1, AnsweredOnGet());
    Send(&get, Options(2));
    EXPECT_EQ(2, AnsweredOnGet());
    Send(&post, Encoded(Options(3)));
    EXPECT_EQ(3, AnsweredOnGet());
}

TEST_F(TunnelTest, TextThatIsNoBase64EndsBothHalves)
{
    server.Start();
    for (const std::string &text : {std::string("T1BU-A=="), Options(1), std::string("\0AAA", 4)}) {
        Pair();
        Send(&post, text);
        EXPECT_EQ(1, RtspWaitClosed(&get)) << text;
        EXPECT_EQ(1, RtspWaitClosed(&post)) << text;
        EXPECT_TRUE(get.inbox.empty());
        Pair(text);  // the same behind the header
        EXPECT_EQ(1, RtspWaitClosed(&get)) << text;
        EXPECT_EQ(1, RtspWaitClosed(&post)) << text;
    }
    EXPECT_EQ(1U, server.Stat().nMonitors);
}

}  // namespace
}  // namespace orx
