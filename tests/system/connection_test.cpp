// Connections: how many, what is taken for a message, and that nothing of them stays.
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <iterator>
#include <regex>

#include "system/localserver.h"
#include "system/systemtest.h"

using namespace orx;

using namespace std::string_literals;

const char *const kUnnumbered = "OPTIONS * RTSP/1.0\r\nAccept: x\r\n\r\n";

std::string OptionsReply(int nCSeq)
{
    return "RTSP/1.0 200 OK\r\n" + kServerLine + "CSeq: " + std::to_string(nCSeq) + "\r\n" + kPublic + kNoCache +
           kDate + "\r\n";
}

struct ConnectionTest : SystemTest {
    RtspClient client;

    // Whether the connection ends without another word.
    bool EndsSilently() { return RtspWaitClosed(&client) && client.inbox.empty() && client.buffer.empty(); }
};

TEST_F(ConnectionTest, LimitLetsOneMoreIn)
{
    server.Set("SERVER", "ConnectLimit", "3");  // becomes 5
    server.Start();
    RtspClient clients[6];
    for (RtspClient &one : clients) {
        Connect(&one);
        EXPECT_TRUE(Answers(&one));
    }
    Sock refused = orx::Connect(server.nPort);
    char c;
    EXPECT_TRUE(refused.fd < 0 || (recv(refused.fd, &c, 1, 0) == -1 && errno == ECONNRESET));
    EXPECT_TRUE(server.WaitOutput("Exceed the connect-limit! Refuse to accept new client to connect.\r\n"));
    EXPECT_EQ(6U, server.Stat().nClients);
    RtspClose(&clients[2]);
    ASSERT_TRUE(server.WaitOutput("OnFreeSession()."));
    Connect(&client);
    EXPECT_TRUE(Answers(&client)) << "there is room again";
    EXPECT_EQ(1, CountText(server.Output(), "Exceed the connect-limit!"));
}

// Those that do nothing count, by their address; of loopback only the addresses that bridges come from.
TEST_F(ConnectionTest, AddressesAreBounded)
{
    server.Set("GUARD", "MaxSessionsPerAddress", "2");
    StartCamera(CameraSdp());
    RtspClient clients[8];
    static const struct {
        const char *szFrom;
        bool bIn;
    } cases[] = {
        {"127.0.1.5", true}, {"127.0.1.5", true}, {"127.0.1.5", false}, {"127.0.1.6", true},
        {"127.0.0.1", true}, {"127.0.0.1", true}, {"127.0.0.1", true},
    };
    for (const auto &c : cases) {
        RtspClient *pClient = &clients[&c - cases];
        pClient->sourceIp = c.szFrom;
        RtspConnect(pClient, server.Url("/cam").c_str());
        EXPECT_EQ(c.bIn, Answers(pClient)) << c.szFrom << " " << &c - cases;
    }
    EXPECT_TRUE(server.WaitOutput("Too many sessions of 127.0.1.5:"));
    EXPECT_THAT(Ask(&clients[0], "QUICKPLAY"), kIsOk) << "who plays counts no more";
    clients[7].sourceIp = "127.0.1.5";
    ASSERT_EQ(1, RtspConnect(&clients[7], server.Url("/cam").c_str()));
    EXPECT_TRUE(Answers(&clients[7]));
}

// Who has set up nothing may be silent for a while, who has set up something for two (over UDP) or two and a half
// minutes, and who plays, pushes, subscribes or sleeps for ever. Bytes that make no request are no sign of life.
TEST(States, EndWhenNothingHappens)
{
    LocalServer server(
        "EnableLowEnergy=1\nLiveTime=120\n[USERS]\nSuperUser=root\nSuperPwd=rootpw\n"
        "[GUARD]\nStateTimeout=30\n[INTEROP]\nStandardPlayers=1\n");
    static const struct {
        const char *szWho;
        int nSeconds;  // after which it is closed; 0: never
        void (*pfnDo)(RtspClient *);
    } cases[] = {
        {"one byte", 30, [](RtspClient *p) { Send(p, "O"); }},
        {"half a request", 30, [](RtspClient *p) { Send(p, "OPTIONS * RTSP/1.0\r\nCSeq: 1\r\n"); }},
        {"a GET half", 30, [](RtspClient *p) { Send(p, "GET / HTTP/1.0\r\nx-sessioncookie: a\r\n\r\n"); }},
        {"described", 30, [](RtspClient *p) { EXPECT_EQ(1, RtspDescribe(p)); }},
        {"announced", 30, [](RtspClient *p) { EXPECT_EQ(1, RtspAnnounce(p, CameraSdp())); }},
        {"set up over UDP", 120, [](RtspClient *p) { EXPECT_TRUE(RtspDescribe(p) && RtspSetup(p, 0, RTSP_OVER_UDP)); }},
        {"set up", 150, [](RtspClient *p) { EXPECT_TRUE(RtspDescribe(p) && RtspSetup(p, 0, RTSP_OVER_TCP)); }},
        {"paused", 150,
         [](RtspClient *p) {
             EXPECT_THAT(Ask(p, "QUICKPLAY"), kIsOk);
             EXPECT_THAT(Ask(p, "PAUSE"), kIsOk);
         }},
        {"playing", 0, [](RtspClient *p) { EXPECT_THAT(Ask(p, "QUICKPLAY"), kIsOk); }},
        {"subscribed", 0,
         [](RtspClient *p) { EXPECT_THAT(Ask(p, "SUBSCRIBE", "", UserHeaders("root", "rootpw")), kIsOk); }},
    };
    RtspClient pusher, clients[std::size(cases)];
    ASSERT_EQ(1, RtspOpenPusher(&pusher, server.Url("/cam").c_str(), CameraSdp(3)));
    SendPictures(&pusher, 0, 1);
    for (const auto &c : cases) {
        RtspClient *pClient = &clients[&c - cases];
        std::string path = strcmp(c.szWho, "announced") == 0 ? "/other" : "/cam";
        ASSERT_EQ(1, RtspConnect(pClient, server.Url(path).c_str()));
        c.pfnDo(pClient);
    }
    for (int nSeconds : {25, 40, 80, 110, 140, 160}) {
        server.MoveClock(static_cast<uint32_t>(nSeconds) * 1000);
        if (nSeconds < 30)
            Send(&clients[1], "X");
        EXPECT_TRUE(Answers(&pusher));
        for (const auto &c : cases) {
            RtspClient *pClient = &clients[&c - cases];
            if (c.nSeconds && nSeconds > c.nSeconds)
                EXPECT_EQ(1, RtspWaitClosed(pClient)) << c.szWho;
            else
                EXPECT_EQ(1, RtspPoll(pClient)) << c.szWho << " at " << nSeconds;
        }
    }
}

// One that says nothing, and one that has got its text and says nothing more, are closed after five seconds;
// one byte keeps a connection.
TEST_F(ConnectionTest, SilentOnesAreClosed)
{
    server.Start();
    uint64_t nStart = RtspNowUs();
    Connect(&client);
    Connect(&pusher);
    std::string request = MakeRequest("GETWIFIROUTERS", "*", 1), text;
    EXPECT_EQ(1, RtspSendRaw(&pusher, request.data(), request.size()));
    EXPECT_EQ(1, RtspWaitBytes(&pusher, 8, &text));
    EXPECT_EQ("NULL\r\n\r\n", text);
    Connect(&player);
    EXPECT_EQ(1, RtspSendRaw(&player, "O", 1));
    EXPECT_EQ(1, RtspWaitClosed(&client));
    EXPECT_EQ(1, RtspWaitClosed(&pusher));
    EXPECT_GE(RtspNowUs() - nStart, 4900000U);
    EXPECT_TRUE(server.WaitOutput("Force Close Idle Connection on stocket 0x", 2));
    EXPECT_EQ(OptionsReply(1), Exchange(&player, Options(1).substr(1)));
}

// Of the two events of a reset the newer one, its end, is handled first; the other finds nothing any more. The
// peer has asked for nothing: a read that runs could meet the reset before the monitor tells of it.
TEST_F(ConnectionTest, TellsWhoComesAndGoes)
{
    server.Start();
    Connect(&client);
    std::string port = std::to_string(PortOf(client.fd));
    ASSERT_TRUE(server.WaitOutput("from 127.0.0.1:" + port));
    RtspReset(&client);
    ASSERT_TRUE(server.WaitOutput("OnRead() failed"));
    EXPECT_TRUE(std::regex_search(
        server.Output(), std::regex("\nCreate session\\(fd=(0x[0-9a-f]+)\\) from 127\\.0\\.0\\.1:" + port +
                                    "\r\n[^]*OnClose\\(\\1\\)\r\nOnFreePort\\(fd=\\1\\)\r\nOnFreeSession\\(\\)\\.\r\n"
                                    "OnRead\\(\\) failed and CloseSock\\(fd=\\1\\)\\.\r\n")));
    EXPECT_NE(std::string::npos, server.Output().find(") EPOLLERR|EPOLLHUP!\r\n"));
}

// What comes in pieces of any size is the same message; a frame of no length waits for a fifth byte, which
// belongs to what follows.
TEST_F(ConnectionTest, TakesMessagesInPieces)
{
    server.Start();
    std::string stream = Options(1) + MakeRequest("SET_PARAMETER", "*", 2, "", "$\r\n\r\n body$") + Frame(0, "short") +
                         Frame(1, Options(77)) + Frame(7, "") + Options(3) +
                         MakeRequest("SET_PARAMETER", "*", 4, "", Options(78));
    for (bool bBytes : {true, false}) {
        Connect(&client);
        for (size_t i = 0; bBytes && i + 1 < stream.size(); i++)
            Send(&client, stream.substr(i, 1));
        Send(&client, bBytes ? "" : stream.substr(0, stream.size() - 1));
        ExpectAnswers(&client, 1, 3);
        EXPECT_EQ(-1, NextAnswer(&client, 100)) << "the body is not complete";
        Send(&client, stream.substr(stream.size() - 1) + Options(5) + Frame(0, ""));
        ExpectAnswers(&client, 4, 5);
        Send(&client, Options(6));
        ExpectAnswers(&client, 6, 6);
        EXPECT_TRUE(client.inbox.empty()) << "each was answered once";
    }
}

// Whoever sends them: frames that feed no program are stepped over whole.
TEST_F(ConnectionTest, SkipsFramesThatFeedNothing)
{
    StartCamera(CameraSdp());
    const std::string packet = CameraPacket(0, 1, 90, "\x65payload");
    Describe(&client);
    Send(&client, Frame(0, packet) + Frame(2, packet));  // a player's own
    EXPECT_TRUE(Answers(&client));
    // the pusher's: too short for RTP, of tracks that are not described, of no length
    std::string frames = Frame(0, packet.substr(0, 11)) + Frame(0, "") + Frame(2, packet) + Frame(6, packet) +
                         Frame(1, "rtcp") + Frame(7, "");
    ASSERT_EQ(1, RtspSendRaw(&pusher, frames.data(), frames.size()));
    EXPECT_TRUE(Answers(&pusher));
    EXPECT_EQ(0, CountText(server.Output(), ")->ssrc=")) << "no packet was cached";
    ASSERT_EQ(1, RtspSendFrame(&pusher, 0, packet.data(), 12));
    EXPECT_TRUE(server.WaitOutput(")->ssrc=305441741\r\n"));
}

TEST_F(ConnectionTest, NumbersOfRequests)
{
    StartCamera(CameraSdp());
    Connect(&client);
    EXPECT_EQ(OptionsReply(1), Exchange(&client, kUnnumbered)) << "a first one may come without; the counter begins";
    EXPECT_EQ(OptionsReply(2), Exchange(&client, kUnnumbered)) << "and goes on while nothing was described";
    Send(&client,
         Options(7) + MakeRequest("SET_PARAMETER", "*", 6, "", "dropped with its body") + Options(7) + Options(8));
    for (int nNumber : {7, 7, 8})  // a repeated number is answered
        EXPECT_EQ(nNumber, NextAnswer(&client));
    EXPECT_TRUE(server.WaitOutput("CmdSeq(6) < session->nReqSeq(7)! Drop it!\r\n"));
    Describe(&client);
    EXPECT_EQ("RTSP/1.0 400 Bad Request(no CSeq)\r\n" + kServerLine + "\r\n", Exchange(&client, kUnnumbered));
    EXPECT_EQ(1, RtspWaitClosed(&client));
    EXPECT_TRUE(server.WaitOutput("no CSeq!!!\r\n"));
}

// Unknown methods are answered by their protocol. What can be no request ends its connection without a reply,
// and nobody else's.
TEST_F(ConnectionTest, AnswersWhatItDoesNotKnow)
{
    server.Start();
    Connect(&player);
    EXPECT_TRUE(Answers(&player));
    const std::string head = "OPTIONS * RTSP/1.0\r\nCSeq: 1\r\n";
    const std::pair<std::string, std::string> cases[] = {
        {MakeRequest("FOO", "*", 3), kNotImplemented},
        {"foo x rtsp/2.0\r\nCSeq: 3\r\n\r\n", kNotImplemented},
        {"FOO / HTTP/1.1\r\nCSeq: 3\r\n\r\n", kMismatch},
        {"OPTIONS * SIP/2.0\r\nCSeq: 7\r\n\r\n", OptionsReply(7)},
        {"FOO * SIP/2.0\r\nCSeq: 3\r\n\r\n", ""},
        {"RTSP/1.0 200 OK\r\nCSeq: 1\r\n\r\n", ""},
        {" " + Options(1), ""},
        {"OPTIONS *\r\nCSeq: 1\r\n\r\n", ""},
        {"OPTIONS " + std::string(256, 'u') + " RTSP/1.0\r\n\r\n", ""},
        {head + "X:\r\n\r\n", ""},
        {head + "CSeq: 2\r\n\r\n", ""},
        {head + "nothing\r\nX: y\r\n\r\n", ""},
        {head + "User-Agent: a\r\nuser-agent: b\r\n\r\n", OptionsReply(1)},  // extensions of some players
        {head + "Content-Length: -1\r\n\r\n", ""},
        {head + "Content-Length: 16384\r\n\r\n", ""},
        {"\0\0\0\0\r\n\r\n"s, ""},
        {"OPTIONS * RTSP/1.0\r\nCSeq: -1\r\n\r\n", ""},
        {"OPTIONS * RTSP/1.0\r\nCSeq: +1\r\n\r\n", ""},
        {"OPTIONS * RTSP/1.0\r\nCSeq: 1 2\r\n\r\n", ""},
        {"OPTIONS * RTSP/1.0\r\nCSeq: x\r\n\r\n", ""},
        {"OPTIONS * RTSP/1.0\r\nCSeq: 18446744073709551623 \r\n\r\n", OptionsReply(7)},
        {"OPTIONS * RTSP/1.0\r\nCSeq: 2147483647\r\n\r\n", OptionsReply(2147483647)},
    };
    for (const auto &[text, reply] : cases) {
        Connect(&client);
        EXPECT_EQ(reply, Exchange(&client, text)) << text;
        EXPECT_TRUE(!reply.empty() || EndsSilently()) << text;
    }
    EXPECT_TRUE(Answers(&player));
    Connect(&client);
    Send(&client, "OPTIONS * RTSP/1.0\r\nnothing\r\n\r\n");  // without a colon it is not complete, and waits
    EXPECT_EQ(0, RtspWaitClosed(&client, 100));
}

TEST_F(ConnectionTest, MessagesFitTheBuffer)
{
    constexpr size_t kTotal = 4096;
    server.Set("SERVER", "SessionBufSize", "1000");  // becomes 4096
    server.Start();
    Connect(&client);
    Send(&client, Options(1).insert(20, "X: " + std::string(kTotal, 'x')).substr(0, kTotal - 2));
    EXPECT_EQ(0, RtspWaitClosed(&client, 100)) << "one byte short of full";
    Send(&client, "x");
    EXPECT_TRUE(EndsSilently());
    // the largest message, which fills the buffer to its last byte, and the largest frame
    Connect(&client);
    std::string request = MakeRequest("SET_PARAMETER", "*", 1, "", std::string(kTotal - 60, 'b'));
    ASSERT_EQ(kTotal - 1, request.size());
    Send(&client, request + Frame(3, std::string(kTotal - 1 - 4, 'f')) + Options(2));
    ExpectAnswers(&client, 1, 2);
    Send(&client, Frame(3, std::string(kTotal - 4, 'f')).substr(0, kTotal - 1));
    EXPECT_TRUE(EndsSilently()) << "and one that never fits";
    // the same between media, of which much more is read at once
    std::string media;
    for (uint16_t i = 0; i < 200; i++)
        media += Frame(0, CameraPacket(0, i, i * 3600U, std::string(900, 'm')));
    const std::string largest = request.replace(request.find("CSeq: 1"), 7, "CSeq: 4") + media + Options(5);
    const std::string tooLarge[] = {Frame(0, CameraPacket(0, 0, 0, std::string(kTotal - 16, 'f'))),
                                    Options(6).insert(20, "X: " + std::string(kTotal, 'x') + "\r\n")};
    for (const std::string &last : tooLarge) {
        Connect(&client);
        Send(&client, MakeRequest("ANNOUNCE", "/push", 1, kSdp, CameraSdp()) +
                          MakeRequest("SETUP", "/push/trackID=0", 2, kOverTcp) + MakeRequest("PLAY", "/push", 3));
        ExpectAnswers(&client, 1, 3);
        Send(&client, media + largest);
        ExpectAnswers(&client, 4, 5);
        Send(&client, media + last + media);
        EXPECT_EQ(1, RtspWaitClosed(&client));
    }
}

// A client that closes its direction gets what it asked for before; a refusal arrives before the reset.
TEST_F(ConnectionTest, RepliesLeaveBeforeTheEnd)
{
    server.Start();
    Connect(&client);
    Send(&client, Options(1) + Options(2));
    RtspShutdown(&client);
    ExpectAnswers(&client, 1, 2);
    EXPECT_EQ(1, RtspWaitClosed(&client));
    Connect(&client);
    Send(&client, Options(1).substr(0, 20));
    RtspShutdown(&client);
    EXPECT_TRUE(EndsSilently());
    for (int i = 0; i < 50; i++) {
        Connect(&client, "/none");
        ASSERT_EQ(Refused("404 Not Found"), Ask(&client, "DESCRIBE"));
        ASSERT_EQ(1, RtspWaitClosed(&client));
    }
}

// --- Connections that come and go in all sorts of ways ---

// The n-th visit: what is said, cut somewhere in each third one; before or after the first reply the
// connections end, reset or not. Behind a tunnel's GET, the POST comes on a connection of its own.
void Come(int nPort, int n)
{
    const std::string cookie = " / HTTP/1.0\r\nx-sessioncookie: " + std::to_string(n) + "\r\n";
    const std::string visits[] = {
        Options(1) + Frame(0, std::string(1000, 'x')),
        MakeRequest("DESCRIBE", "/cam", 1) + MakeRequest("TEARDOWN", "/cam", 2),
        MakeRequest("QUICKPLAY", "/cam", 1),
        MakeRequest("DESCRIBE", "/cam", 1) +
            MakeRequest("SETUP", "/cam/trackID=0", 2, "Transport: RTP/AVP;unicast;client_port=9000-9001\r\n") +
            MakeRequest("PLAY", "/cam", 3),
        MakeRequest("ANNOUNCE", "/push", 1, kSdp, CameraSdp()) + MakeRequest("SETUP", "/push/trackID=0", 2, kOverTcp) +
            MakeRequest("PLAY", "/push", 3) + Frame(0, CameraPacket(0, 1, 0, std::string(500, 'e'))),
        "GET" + cookie + "\r\nPOST" + cookie + "Content-Type: application/x-rtsp-tunnelled\r\n\r\n" +
            "T1BUSU9OUyAqIFJUU1AvMS4wDQpDU2VxOiAxDQoNCg==",  // OPTIONS
    };
    const int nWay = n / static_cast<int>(std::size(visits));
    std::string text = visits[static_cast<size_t>(n) % std::size(visits)];
    if (nWay % 3 == 0)
        text.resize(static_cast<size_t>(nWay) % (text.size() + 1));
    size_t nPost = text.find("POST");
    Sock sock = Connect(nPort), post = nPost != std::string::npos ? Connect(nPort) : Sock();
    ASSERT_TRUE(sock.fd >= 0 && sock.Send(text.substr(0, nPost)));
    if (nWay % 3 == 1)
        sock.Readable(20000);
    if (post.fd >= 0)
        post.Send(text.substr(nPost));
    linger reset{nWay & 1, 0};
    for (Sock *pSock : {nWay & 2 ? &post : &sock, nWay & 2 ? &sock : &post}) {
        setsockopt(pSock->fd, SOL_SOCKET, SO_LINGER, &reset, sizeof(reset));
        pSock->Close();
    }
}

TEST_F(ConnectionTest, NothingStaysOfThoseThatWent)
{
    server.Set("GUARD", "SurvivePeerFaults", "1");  // a tunnel may lose the half that replies take
    server.Set("SERVER", "ConnectLimit", "100000");
    StartCamera(CameraSdp());
    SendPictures(&pusher, 0, 3);
    int nTurn = 0, nDescriptors = 0;
    long nResident = 0;
    for (int nVisits : {300, getenv("ORX_LONG") ? 10000 : 3000}) {  // what is allocated once, is by the first
        nResident = server.ResidentKb();
        for (; nTurn < nVisits; nTurn++)
            ASSERT_NO_FATAL_FAILURE(Come(server.nPort, nTurn));
        // idle checks end after seconds; what may stay are the watchdogs of pushers, who have long to be
        // silent
        EXPECT_TRUE(WaitFor([&] {
            OrxStat stat = server.Stat();
            return stat.nTasks <= 2U + static_cast<unsigned>(nTurn) / 6 && stat.sessions.size() == 1;
        }));
        EXPECT_TRUE(nDescriptors == 0 || server.Descriptors() == nDescriptors) << nDescriptors;
        nDescriptors = server.Descriptors();
    }
    ExpectLeft(0, 2);
    EXPECT_LT(server.ResidentKb(), nResident + (kSanitized || kEmulated ? 100000 : 1024));
    const std::string output = server.Output();
    EXPECT_EQ(CountText(output, "Assertion `session->Reply' failed."), CountText(output, "Assertion"));
    // and media ports are all there again
    ASSERT_EQ(1, RtspOpenPlayer(&player, server.Url("/cam").c_str(), RTSP_OVER_UDP));
    EXPECT_EQ(server.nUdpStart, ntohs(player.tracks[0].udp.serverRtp.in4.sin_port));
}
