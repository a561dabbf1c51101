// Connections: how many, how long, what is taken for a message, and that nothing of them stays.
#include <arpa/inet.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <deque>
#include <functional>
#include <iterator>
#include <regex>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "client/rtppacket.h"
#include "system/orxprocess.h"

namespace orx {
namespace {

using testing::HasSubstr;
using testing::MatchesRegex;
using testing::StartsWith;

const std::string kNotImplemented = "RTSP/1.0 500 Not implemented\r\n" + kServerLine + kNoCache + "\r\n";
const std::string kMismatch = "HTTP/1.1 400 Bad Request(Content Types Mismatched)\r\n" + kServerLine +
                              kNoCache + "Connection: Close\r\n\r\n";
const std::string kNoCSeq = "RTSP/1.0 400 Bad Request(no CSeq)\r\n" + kServerLine + "\r\n";

std::string Options(int nCSeq)
{
    return MakeRequest("OPTIONS", "*", nCSeq);
}

std::string OptionsReply(int nCSeq)
{
    return "RTSP/1.0 200 OK\r\n" + kServerLine + "CSeq: " + std::to_string(nCSeq) +
           "\r\nPublic: DESCRIBE, SETUP, PLAY, TEARDOWN, SET_PARAMETER, GETCAMINFO, CAMCONTROL\r\n" +
           kNoCache + "Date: DATE\r\n\r\n";
}

std::string Frame(int nChannel, const std::string &packet)
{
    std::string frame;
    FrameAddHead(&frame, nChannel, packet.size());
    return frame + packet;
}

// A plain connection; -1 when it was reset before it stood.
int OpenTo(int nPort)
{
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = htons(static_cast<uint16_t>(nPort));
    if (connect(fd, reinterpret_cast<sockaddr *>(&addr), sizeof(addr)) == 0)
        return fd;
    close(fd);
    return -1;
}

struct ConnectionTest : SystemTest {
    RtspClient client;
    void Connect(RtspClient *pClient)
    {
        RtspClose(pClient);
        ASSERT_EQ(1, RtspConnect(pClient, server.Url("/cam").c_str()));
    }
    void Connect() { Connect(&client); }
    void Send(const std::string &bytes) { ASSERT_EQ(1, RtspSendRaw(&client, bytes.data(), bytes.size())); }
    std::string Reply()
    {
        RtspMessage reply;
        return RtspWaitReply(&client, 0, &reply) ? Normalized(reply.raw) : "(none)";
    }
    // Whether the connection ends without another word.
    bool EndsSilently() { return RtspWaitClosed(&client) && client.inbox.empty() && client.buffer.empty(); }
    // Everything that was sent before is taken when this is answered.
    bool Answers(int nCSeq)
    {
        Send(Options(nCSeq));
        return Reply() == OptionsReply(nCSeq);
    }
};

TEST_F(ConnectionTest, LimitLetsOneMoreIn)
{
    server.Set("SERVER", "ConnectLimit", "3");  // becomes 5
    server.Start();
    RtspClient clients[7];
    for (int i = 0; i < 6; i++) {
        Connect(&clients[i]);
        EXPECT_EQ(OptionsReply(1), Exchange(&clients[i], Options(1))) << i;
    }
    int fd = OpenTo(server.nPort);
    char c;
    EXPECT_TRUE(fd < 0 || (recv(fd, &c, 1, 0) == -1 && errno == ECONNRESET)) << "closed by a reset";
    close(fd);
    EXPECT_TRUE(server.WaitOutput("Exceed the connect-limit! Refuse to accept new client to connect.\r\n"));
    EXPECT_EQ(6U, server.Stat().nClients);
    RtspClose(&clients[2]);
    ASSERT_TRUE(server.WaitOutput("OnFreeSession()."));
    Connect(&clients[6]);
    EXPECT_EQ(OptionsReply(1), Exchange(&clients[6], Options(1))) << "there is room again";
    EXPECT_EQ(1, CountText(server.Output(), "Exceed the connect-limit!"));
}

TEST_F(ConnectionTest, OneThatSaysNothingIsClosedAfterFiveSeconds)
{
    OrxProcess patient;  // its LiveTime is longer than the wait for a first byte
    server.Set("SERVER", "LiveTime", "1");
    server.Start();
    patient.Start();
    RtspClient silent, alike, talker;
    auto tStart = std::chrono::steady_clock::now();
    Connect(&silent);
    Connect(&talker);
    EXPECT_EQ(1, RtspSendRaw(&talker, "O", 1));
    ASSERT_EQ(1, RtspConnect(&alike, patient.Url("/cam").c_str()));
    EXPECT_EQ(1, RtspWaitClosed(&silent, 10000));
    EXPECT_EQ(1, RtspWaitClosed(&alike, 10000));
    EXPECT_GE(std::chrono::steady_clock::now() - tStart, std::chrono::milliseconds(4800));
    EXPECT_TRUE(patient.WaitOutput("Force Close Idle Connection on stocket 0x"));
    EXPECT_TRUE(server.WaitOutput("TimeOut! The network will be closed.\r\n"));
    EXPECT_TRUE(server.WaitOutput("Idle Connection Client(socket=0x"));
    // one byte keeps a connection, also when it is silent for longer than LiveTime afterwards
    EXPECT_EQ(1, RtspPoll(&talker));
    EXPECT_EQ(OptionsReply(1), Exchange(&talker, Options(1).substr(1)));
    EXPECT_EQ(0, patient.Quit());
}

TEST_F(ConnectionTest, NamesThePeerWhenItComes)
{
    server.Start();
    Connect();
    sockaddr_in addr{};
    socklen_t nSize = sizeof(addr);
    getsockname(client.fd, reinterpret_cast<sockaddr *>(&addr), &nSize);
    ASSERT_TRUE(Answers(1));
    EXPECT_TRUE(std::regex_search(server.Output(),
                                  std::regex("\nCreate session\\(fd=0x[0-9a-f]+\\) from 127\\.0\\.0\\.1:" +
                                             std::to_string(ntohs(addr.sin_port)) + "\r\n")));
    RtspShutdown(&client);
    EXPECT_EQ(1, RtspWaitClosed(&client));
    EXPECT_TRUE(std::regex_search(
        server.Output(),
        std::regex("Client\\(socket=(0x[0-9a-f]+)\\) close\\.\r\nrecv\\(socket=\\1\\)  err=[0-9]+\\.\r\n")));
}

// Of the two events of a reset the newer one, its end, is handled first; the other finds nothing any more.
TEST_F(ConnectionTest, ResetIsClosedAndThenUnknown)
{
    server.Start();
    Connect();
    ASSERT_TRUE(Answers(1));
    linger reset{1, 0};
    setsockopt(client.fd, SOL_SOCKET, SO_LINGER, &reset, sizeof(reset));
    RtspClose(&client);
    ASSERT_TRUE(server.WaitOutput("OnRead() failed"));
    EXPECT_TRUE(std::regex_search(
        server.Output(),
        std::regex(
            "Monitor: socket\\((0x[0-9a-f]+)\\) EPOLLERR\\|EPOLLHUP!\r\nOnClose\\(\\1\\)\r\nOnFreePort\\(fd="
            "\\1\\)\r\nOnFreeSession\\(\\)\\.\r\nOnRead\\(\\) failed and CloseSock\\(fd=\\1\\)\\.\r\n")));
}

// What comes in pieces of any size is the same message.
TEST_F(ConnectionTest, TakesMessagesInPieces)
{
    server.Start();
    Connect();
    std::string stream = Options(1) + MakeRequest("SET_PARAMETER", "*", 2, "", "$\r\n\r\n body$") +
                         Options(3) + Frame(0, "short") + Frame(4, CameraPacket(0, 1, 2, "x")) + Options(4);
    for (char c : stream)
        Send(std::string(1, c));
    EXPECT_EQ(OptionsReply(1), Reply());
    EXPECT_THAT(Reply(), HasSubstr("CSeq: 2\r\n"));
    EXPECT_EQ(OptionsReply(3), Reply());
    EXPECT_EQ(OptionsReply(4), Reply());
    Send(stream);
    for (int i = 1; i <= 4; i++)
        RtspWaitReply(&client, 0, nullptr, 50);  // numbers below the last one: no replies but to 4
    Send(Options(5) + Options(6) + Options(7));
    EXPECT_EQ(OptionsReply(5), Reply());
    EXPECT_EQ(OptionsReply(6), Reply());
    EXPECT_EQ(OptionsReply(7), Reply());
}

TEST_F(ConnectionTest, WaitsForTheBody)
{
    server.Start();
    Connect();
    std::string request = MakeRequest("SET_PARAMETER", "*", 1, "", "OPTIONS * RTSP/1.0\r\n");
    Send(request.substr(0, request.size() - 20));
    EXPECT_EQ(0, RtspWaitReply(&client, 0, nullptr, 200));
    Send(request.substr(request.size() - 20, 19));
    EXPECT_EQ(0, RtspWaitReply(&client, 0, nullptr, 200));
    Send(request.substr(request.size() - 1) + Options(2));
    EXPECT_THAT(Reply(), HasSubstr("CSeq: 1\r\n"));
    EXPECT_EQ(OptionsReply(2), Reply());
    EXPECT_TRUE(client.inbox.empty()) << "answered once";
}

// Whoever sends them: frames that feed no program are stepped over whole.
TEST_F(ConnectionTest, SkipsFramesThatFeedNothing)
{
    server.Start();
    Connect();
    const std::string packet = CameraPacket(0, 1, 90, "\x65payload");
    std::string inner = Options(77);  // inside a frame it is no request
    Send(Frame(0, packet) + Frame(1, inner) + Frame(6, inner) + Frame(7, "") + Options(1));
    EXPECT_EQ(OptionsReply(1), Reply());

    RtspClient pusher;
    ASSERT_EQ(1, RtspOpenPusher(&pusher, server.Url("/cam").c_str(), CameraSdp()));
    ASSERT_EQ(1, RtspDescribe(&client));
    std::string all = Frame(0, packet) + Frame(2, packet);  // a player's own
    Send(all);
    ASSERT_TRUE(Answers(100));
    // the pusher's: too short for RTP, of tracks that are not described, of no length
    for (const std::string &frame : {Frame(0, packet.substr(0, 11)), Frame(0, ""), Frame(2, packet),
                                     Frame(6, packet), Frame(1, "rtcp"), Frame(7, "")})
        ASSERT_EQ(1, RtspSendRaw(&pusher, frame.data(), frame.size()));
    RtspMessage reply;
    ASSERT_EQ(1, RtspRequest(&pusher, "OPTIONS", nullptr, nullptr, "", &reply));
    EXPECT_THAT(server.Output(), testing::Not(HasSubstr(")->ssrc="))) << "no packet was cached";
    ASSERT_EQ(1, RtspSendFrame(&pusher, 0, packet.data(), 12));
    EXPECT_TRUE(server.WaitOutput(")->ssrc=305441741\r\n"));
}

TEST_F(ConnectionTest, FrameOfNoLengthWaitsForAFifthByte)
{
    server.Start();
    Connect();
    Send(std::string("$\0\0\0", 4));
    EXPECT_EQ(0, RtspWaitReply(&client, 0, nullptr, 200));
    EXPECT_TRUE(Answers(1)) << "the fifth byte belongs to what follows";
}

TEST_F(ConnectionTest, NumbersOfRequests)
{
    server.Start();
    Connect();
    Send("OPTIONS * RTSP/1.0\r\nAccept: x\r\n\r\n");
    EXPECT_EQ(OptionsReply(1), Reply()) << "a first request may come without; the counter starts at 1";
    Send("OPTIONS * RTSP/1.0\r\nAccept: x\r\n\r\n");
    EXPECT_EQ(OptionsReply(2), Reply()) << "and goes on while nothing was described";
    ASSERT_TRUE(Answers(7));
    Send(Options(5) + MakeRequest("SET_PARAMETER", "*", 6, "", "dropped with its body"));
    EXPECT_TRUE(Answers(7)) << "a repeated number is answered";
    EXPECT_TRUE(client.inbox.empty());
    EXPECT_THAT(server.Output(), HasSubstr("CmdSeq(5) < session->nReqSeq(7)! Drop it!\r\n"));
    EXPECT_THAT(server.Output(), HasSubstr("CmdSeq(6) < session->nReqSeq(7)! Drop it!\r\n"));
    EXPECT_TRUE(Answers(2000000000));

    RtspClient pusher;
    ASSERT_EQ(1, RtspOpenPusher(&pusher, server.Url("/cam").c_str(), CameraSdp()));
    Connect();
    ASSERT_EQ(1, RtspDescribe(&client));
    Send("OPTIONS * RTSP/1.0\r\nAccept: x\r\n\r\n");
    EXPECT_EQ(kNoCSeq, Reply());
    EXPECT_EQ(1, RtspWaitClosed(&client));
    EXPECT_TRUE(server.WaitOutput("no CSeq!!!\r\n"));
    EXPECT_EQ(1, RtspPoll(&pusher));
}

TEST_F(ConnectionTest, AnswersUnknownMethodsByTheirProtocol)
{
    server.Start();
    Connect();
    Send(MakeRequest("FOO", "*", 3));
    EXPECT_EQ(kNotImplemented, Reply());
    EXPECT_TRUE(server.WaitOutput("HandleUnknown(Cmd=FOO)!\r\n"));
    Send("FOO / HTTP/1.1\r\nCSeq: 4\r\n\r\n");
    EXPECT_EQ(kMismatch, Reply());
    Send(MakeRequest("RECORD", "*", 5));
    EXPECT_EQ(kNotImplemented, Reply()) << "for others than pushers";
    Send("foo x rtsp/2.0\r\nCSeq: 6\r\n\r\n");
    EXPECT_EQ(kNotImplemented, Reply());
    Send("OPTIONS * SIP/2.0\r\nCSeq: 7\r\n\r\n");
    EXPECT_EQ(OptionsReply(7), Reply()) << "known methods do not look at it";
    Send("FOO * SIP/2.0\r\nCSeq: 8\r\n\r\n");
    EXPECT_TRUE(EndsSilently());
}

// What can be no request ends its connection without a reply, and nobody else's.
TEST_F(ConnectionTest, MalformedMessagesEndTheirConnection)
{
    server.Start();
    RtspClient other;
    Connect(&other);
    const std::string head = "OPTIONS * RTSP/1.0\r\nCSeq: 1\r\n";
    const std::string cases[] = {
        "RTSP/1.0 200 OK\r\nCSeq: 1\r\n\r\n",
        "\r\n" + Options(1),
        " " + Options(1),
        "OPTIONS *\r\nCSeq: 1\r\n\r\n",
        "OPTIONS * RTSP\r\nCSeq: 1\r\n\r\n",
        "OPTIONS " + std::string(256, 'u') + " RTSP/1.0\r\nCSeq: 1\r\n\r\n",
        head + "X:\r\n\r\n",
        head + "nothing\r\nX: y\r\n\r\n",
        head + "CSeq: 2\r\n\r\n",
        head + "X: 1\r\nY: 2\r\nx: 3\r\n\r\n",
        head + "Content-Length: -1\r\n\r\n",
        head + "Content-Length: 5x\r\n\r\n",
        head + "Content-Length: 0x5\r\n\r\n",
        head + "Content-Length: 99999999999999999999\r\n\r\n",
        head + "Content-Length: 16384\r\n\r\n",
        std::string("\0\0\0\0\r\n\r\n", 8),
    };
    for (const std::string &bytes : cases) {
        Connect();
        Send(bytes);
        EXPECT_TRUE(EndsSilently()) << bytes;
    }
    EXPECT_EQ(OptionsReply(1), Exchange(&other, Options(1)));
    EXPECT_EQ(1U, server.Stat().nClients);
}

// A block without a colon is not complete and waits, for ever if need be.
TEST_F(ConnectionTest, IncompleteHeadersWait)
{
    server.Start();
    Connect();
    Send("OPTIONS * RTSP/1.0\r\nnothing\r\n\r\n");
    EXPECT_EQ(0, RtspWaitReply(&client, 0, nullptr, 200));
    EXPECT_EQ(1, RtspPoll(&client));
    Send("X: y\r\n\r\n");  // now there is one, beyond the line's end
    EXPECT_EQ(0, RtspWaitReply(&client, 0, nullptr, 200));
}

TEST_F(ConnectionTest, BufferSizesAreKeptBetweenTheirLimits)
{
    static const struct {
        const char *szConfigured;
        size_t nTotal;
    } cases[] = {{"1000", 4096}, {"5000", 5000}, {"16384", 16384}, {"100000", 65536}};
    for (const auto &c : cases) {
        server.Set("SERVER", "SessionBufSize", c.szConfigured);
        server.Start();
        Connect();
        std::string head = "OPTIONS * RTSP/1.0\r\nCSeq: 1\r\nX: ";
        Send(head + std::string(c.nTotal - 2 - head.size(), 'x'));  // one byte short of full
        EXPECT_EQ(0, RtspWaitClosed(&client, 200)) << c.szConfigured;
        Send("x");
        EXPECT_TRUE(EndsSilently()) << c.szConfigured;
        // the largest message, which fills the buffer to its last byte
        Connect();
        head = "SET_PARAMETER * RTSP/1.0\r\nCSeq: 1\r\nContent-Length: ";
        size_t nBody = c.nTotal - 1 - head.size() - 4 - std::to_string(c.nTotal - 1 - head.size() - 4).size();
        nBody -= head.size() + 4 + std::to_string(nBody).size() + nBody > c.nTotal - 1;
        Send(head + std::to_string(nBody) + "\r\n\r\n" + std::string(nBody, 'b'));
        EXPECT_THAT(Reply(), StartsWith("RTSP/1.0 200 OK")) << c.szConfigured;
        Send(Frame(3, std::string(c.nTotal - 1 - 4, 'f')));
        EXPECT_TRUE(Answers(2)) << "so does the largest frame";
        if (c.nTotal - 4 < 65536) {
            Send(Frame(3, std::string(c.nTotal - 4, 'f')).substr(0, c.nTotal - 1));
            EXPECT_TRUE(EndsSilently()) << "and one that never fits";
        }
        EXPECT_EQ(0, server.Quit());
    }
}

// A client that closes its direction gets what it asked for before.
TEST_F(ConnectionTest, AnswersBeforeAHalfClose)
{
    server.Start();
    Connect();
    Send(Options(1) + Options(2));
    RtspShutdown(&client);
    EXPECT_EQ(OptionsReply(1), Reply());
    EXPECT_EQ(OptionsReply(2), Reply());
    EXPECT_EQ(1, RtspWaitClosed(&client));
    Connect();
    Send(Options(1).substr(0, 20));
    RtspShutdown(&client);
    EXPECT_TRUE(EndsSilently());
}

// A reply that a refusal sends is on its way before the reset that follows.
TEST_F(ConnectionTest, RefusalsArriveBeforeTheReset)
{
    server.Start();
    for (int i = 0; i < 50; i++) {
        Connect();
        Send(MakeRequest("DESCRIBE", server.Url("/none"), 9));
        ASSERT_EQ(StatusReply("404 Not Found", 9), Reply());
        ASSERT_EQ(1, RtspWaitClosed(&client));
    }
}

// ---- connections that come and go in all sorts of ways

void Drop(int fd, bool bReset)
{
    linger reset{1, 0};
    if (bReset)
        setsockopt(fd, SOL_SOCKET, SO_LINGER, &reset, sizeof(reset));
    close(fd);
}

void Write(int fd, const std::string &bytes)
{
    send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
}

// Waits for something to read, and reads it.
void Read(int fd)
{
    pollfd in{fd, POLLIN, 0};
    char bytes[16384];
    if (poll(&in, 1, 2000) > 0)
        recv(fd, bytes, sizeof(bytes), MSG_DONTWAIT);
}

struct Visitor {
    const char *szName;
    void (*pfnVisit)(int fd, int nPort, int nTurn);  // ends the connection in its own way
};

const char kTunnelGet[] = "GET /cam HTTP/1.0\r\nx-sessioncookie: ";

const Visitor kVisitors[] = {
    {"at once", [](int fd, int, int) { Drop(fd, false); }},
    {"at once, reset", [](int fd, int, int) { Drop(fd, true); }},
    {"in the middle of a request",
     [](int fd, int, int n) {
         std::string request = Options(1);
         Write(fd, request.substr(0, 1 + static_cast<size_t>(n) % (request.size() - 1)));
         Drop(fd, n & 1);
     }},
    {"in the middle of a body",
     [](int fd, int, int n) {
         Write(fd, "ANNOUNCE /x RTSP/1.0\r\nCSeq: 1\r\nContent-Length: 4000\r\n\r\nv=0");
         Drop(fd, n & 1);
     }},
    {"in the middle of a frame",
     [](int fd, int, int n) {
         Write(fd, Frame(0, std::string(1000, 'x')).substr(0, 1 + static_cast<size_t>(n) % 1000));
         Drop(fd, n & 1);
     }},
    {"without waiting for the reply",
     [](int fd, int, int n) {
         Write(fd, Options(1) + Options(2));
         Drop(fd, n & 1);
     }},
    {"half closed",
     [](int fd, int, int) {
         Write(fd, Options(1));
         shutdown(fd, SHUT_WR);
         Read(fd);
         Read(fd);
         Drop(fd, false);
     }},
    {"byte by byte",
     [](int fd, int, int n) {
         for (char c : Options(1))
             Write(fd, std::string(1, c));
         Read(fd);
         Drop(fd, n & 1);
     }},
    {"malformed",
     [](int fd, int, int n) {
         Write(fd, "RTSP/1.0 200 OK\r\n\r\n");
         Read(fd);
         Drop(fd, n & 1);
     }},
    {"refused",
     [](int fd, int, int n) {
         Write(fd, MakeRequest("DESCRIBE", "/none", 1));
         Read(fd);
         Drop(fd, n & 1);
     }},
    {"torn down",
     [](int fd, int, int n) {
         Write(fd, MakeRequest("DESCRIBE", "/cam", 1) + MakeRequest("TEARDOWN", "/cam", 2));
         Read(fd);
         Drop(fd, n & 1);
     }},
    {"playing",
     [](int fd, int, int n) {
         Write(fd, MakeRequest("QUICKPLAY", "/cam", 1));
         Read(fd);
         Drop(fd, n & 1);
     }},
    {"playing over UDP",
     [](int fd, int, int n) {
         const char *szTransport = "Transport: RTP/AVP;unicast;client_port=9000-9001\r\n";
         Write(fd, MakeRequest("DESCRIBE", "/cam", 1));
         Read(fd);
         Write(fd, MakeRequest("SETUP", "/cam/trackID=0", 2, szTransport) + MakeRequest("PLAY", "/cam", 3));
         Read(fd);
         Drop(fd, n & 1);
     }},
    {"pushing",
     [](int fd, int, int n) {
         std::string path = "/push" + std::to_string(n);
         Write(fd, MakeRequest("ANNOUNCE", path, 1, "Content-Type: application/sdp\r\n", CameraSdp()) +
                       MakeRequest("SETUP", path + "/trackID=0", 2,
                                   "Transport: RTP/AVP/TCP;unicast;interleaved=0-1\r\n") +
                       MakeRequest("PLAY", path, 3));
         Read(fd);
         for (int i = 0; i < 5; i++)
             Write(fd, Frame(0, CameraPacket(0, static_cast<uint16_t>(i), 0, std::string(500, 'e'))));
         Drop(fd, n & 1);
     }},
    {"half a tunnel",
     [](int fd, int, int n) {
         Write(fd, kTunnelGet + std::to_string(n) + "\r\n\r\n");
         Read(fd);
         Drop(fd, n & 1);
     }},
    {"a tunnel",
     [](int fd, int nPort, int n) {
         Write(fd, kTunnelGet + std::to_string(n) + "\r\n\r\n");
         Read(fd);
         int fdPost = OpenTo(nPort);
         Write(fdPost,
               "POST /cam HTTP/1.0\r\nx-sessioncookie: " + std::to_string(n) +
                   "\r\nContent-Type: application/x-rtsp-tunnelled\r\n\r\nT1BUSU9OUyAqIFJUU1AvMS4wDQoNCg==");
         Read(fd);
         Drop(n & 2 ? fd : fdPost, n & 1);
         Drop(n & 2 ? fdPost : fd, n & 4);
     }},
    {"a POST without a GET",
     [](int fd, int, int n) {
         Write(fd,
               "POST /cam HTTP/1.0\r\nx-sessioncookie: none\r\nContent-Type: "
               "application/x-rtsp-tunnelled\r\n\r\n");
         Read(fd);
         Drop(fd, n & 1);
     }},
};

TEST_F(ConnectionTest, NothingStaysOfThoseThatWent)
{
    const int nVisits = kSanitized && !getenv("ORX_LONG") ? 2000 : 10000;
    server.Set("SERVER", "LiveTime", "1");
    server.Set("SERVER", "ConnectLimit", "100000");
    server.Start();
    RtspClient pusher;
    ASSERT_EQ(1, RtspOpenPusher(&pusher, server.Url("/cam").c_str(), CameraSdp()));
    SendPictures(&pusher, 0, 3);
    // the pusher's own task is the watchdog; further ones belong to connections and end after seconds
    auto settled = [&] {
        OrxStat stat;
        for (int i = 0; i < 100; i++) {
            RtspMessage reply;
            RtspRequest(&pusher, "OPTIONS", nullptr, nullptr, "", &reply);  // lest it be silent for too long
            stat = server.Stat();
            if (stat.nTasks <= 1 && stat.nClients == 0)
                break;
        }
        return stat;
    };
    int nTurn = 0;
    auto visit = [&](int nTimes) {
        for (int i = 0; i < nTimes; i++, nTurn++) {
            int fd = OpenTo(server.nPort);
            ASSERT_GE(fd, 0);
            kVisitors[static_cast<size_t>(nTurn) % std::size(kVisitors)].pfnVisit(fd, server.nPort, nTurn);
            if (i % 200 == 0) {
                RtspMessage reply;
                ASSERT_EQ(1, RtspRequest(&pusher, "OPTIONS", nullptr, nullptr, "", &reply));
            }
        }
    };
    visit(300);  // what is allocated once, is
    OrxStat before = settled();
    int nDescriptors = server.Descriptors();
    long nResident = server.ResidentKb();
    visit(nVisits);
    OrxStat after = settled();
    EXPECT_EQ(1U, after.nLives);
    EXPECT_EQ(0U, after.nClients);
    EXPECT_EQ(1U, after.nTasks);
    EXPECT_EQ(2U, after.nMonitors) << "the listener and the pusher";
    EXPECT_EQ(before.nMonitors, after.nMonitors);
    EXPECT_EQ(1U, after.sessions.size());
    EXPECT_EQ(nDescriptors, server.Descriptors());
    EXPECT_LT(server.ResidentKb(), nResident + (kSanitized ? 100000 : 1024));
    EXPECT_EQ(0, CountText(server.Output(), "Assertion"));
    // and media ports are all there again
    RtspClient player;
    ASSERT_EQ(1, RtspOpenPlayer(&player, server.Url("/cam").c_str(), RTSP_OVER_UDP));
    EXPECT_EQ(server.nUdpStart, ntohs(player.tracks[0].udp.serverRtp.sin_port));
}

// Many at the same time, gone at the same time, and a stop in the midst of them.
TEST_F(ConnectionTest, ManyAtOnce)
{
    constexpr int kMany = 800;
    server.Set("SERVER", "ConnectLimit", "100000");
    server.Start();
    std::vector<int> sockets;
    auto openAll = [&] {
        for (int i = 0; i < kMany; i++) {
            sockets.push_back(OpenTo(server.nPort));
            ASSERT_GE(sockets.back(), 0) << i;
            Write(sockets.back(), i % 2 ? Options(1) : Options(1).substr(0, 20));
            if (i % 2)
                Read(sockets.back());  // lest more wait to be accepted than the listener holds
        }
    };
    auto dropAll = [&] {
        for (int fd : sockets)
            Drop(fd, fd & 2);
        sockets.clear();
    };
    for (int nRound = 0; nRound < 2; nRound++) {
        openAll();
        EXPECT_TRUE(WaitFor([&] { return server.Stat().nClients == kMany; }));
        dropAll();
        EXPECT_TRUE(WaitFor([&] { return server.Stat().nMonitors == 1; }));
    }
    openAll();
    EXPECT_EQ(0, server.Quit());
    dropAll();
}

}  // namespace
}  // namespace orx
