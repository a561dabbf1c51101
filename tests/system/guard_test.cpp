// What a peer's bytes can break: with the guard on it ends that peer's session and nothing else, with the
// guard off it stops the process.
#include <csignal>
#include <cstring>

#include <sys/socket.h>

#include "system/systemtest.h"

using namespace orx;

const std::string kCookie = " / HTTP/1.0\r\nx-sessioncookie: c\r\n";
const std::string kPost = "POST" + kCookie + "Content-Type: application/x-rtsp-tunnelled\r\n\r\n";

std::string LongHead(size_t nBytes)
{
    std::string head = "OPTIONS * RTSP/1.0\r\nCSeq: 1\r\nX: ";
    return head + std::string(nBytes - head.size() - 4, 'x') + "\r\n\r\n";
}

// A server with a good program, the peer that is at fault, and the other half of its tunnel.
struct Scene {
    OrxProcess server;
    RtspClient pusher, peer, get;

    explicit Scene(const char *szGuard)
    {
        server.Set("GUARD", "SurvivePeerFaults", szGuard);
        server.Start();
        EXPECT_EQ(1, RtspOpenPusher(&pusher, server.Url("/good").c_str(), CameraSdp()));
        SendPictures(&pusher, 0, 1);
    }
    void Connect(const char *szPath = "/good") { ASSERT_EQ(1, RtspConnect(&peer, server.Url(szPath).c_str())); }
    // A GET half that waits; what else comes on its connection.
    void Wait(const std::string &further)
    {
        ASSERT_EQ(1, RtspConnect(&get, server.Url("/good").c_str()));
        Exchange(&get, "GET" + kCookie + "\r\n");
        Send(&get, further);
    }
    void Setup(const char *szPath, const std::string &headers)
    {
        EXPECT_EQ(1, RtspDescribe(&peer));
        Send(&peer, MakeRequest("SETUP", server.Url(szPath), ++peer.nCSeq, headers));
    }
    // The same of a pusher, whose tracks are not looked for as those of standard players are.
    void SetupPush(int nTracks, const char *szPath)
    {
        Connect("/own");
        EXPECT_EQ(1, RtspAnnounce(&peer, CameraSdp(nTracks)));
        Send(&peer, MakeRequest("SETUP", server.Url(szPath), ++peer.nCSeq, kOverTcp));
    }
    void Push(const char *szRate)
    {
        std::string sdp =
            "v=0\r\nm=video 0 RTP/AVP 96\r\na=rtpmap:96 H264/" + std::string(szRate) + "\r\na=control:trackID=0\r\n";
        ASSERT_EQ(1, RtspOpenPusher(&peer, server.Url("/faulty").c_str(), sdp));
        Send(&peer, Frame(0, CameraPacket(0, 1, 1, "\x65")));
    }
    // A tunnel that has lost the half which replies go to, when media is to come over UDP.
    void LoseReplies(const char *szMethod)
    {
        ASSERT_EQ(1, RtspConnectTunnel(&peer, server.Url("/good").c_str()));
        bool bPlay = strcmp(szMethod, "PLAY") == 0;
        ASSERT_TRUE(!bPlay || (RtspDescribe(&peer) && RtspSetup(&peer, 0, RTSP_OVER_UDP)));
        ASSERT_TRUE(Answers(&peer));
        int nFreed = CountText(server.Output(), "OnFreePort(");
        shutdown(peer.fd, SHUT_RDWR);
        ASSERT_TRUE(server.WaitOutput("OnFreePort(", nFreed + 1));
        ASSERT_NE(0, RtspSend(&peer, szMethod, nullptr));
    }
};

const std::string kUdp = "Transport: RTP/AVP;unicast;client_port=";
const char kHeadText[] = "nLen2Parse < sizeof(szTmpuff)";
const char kRateText[] = "(pProg->mediaInfos[nTrackId].nTimeScale % 1000) == 0";
const char kTracksText[] = "session->nTrackCount>=1 && session->nTrackCount < 4";

const struct Fault {
    const char *szName, *szText;  // the text of the assertion
    void (*pfnDo)(Scene *);       // what the peer, who is connected, does
    bool bRefused = false;        // it is told so
} kFaults[] = {
    {"channel beyond the tracks", "nTrackId < 8", [](Scene *p) { Send(&p->peer, Frame(8, "x")); }},
    {"clock rate with odd milliseconds", kRateText, [](Scene *p) { p->Push("44100"); }},
    {"header block of 4096 bytes", kHeadText, [](Scene *p) { Send(&p->peer, LongHead(4096)); }},
    {"POST for a GET half that has a reply connection", "!p->Reply && session->Cmd==port",
     [](Scene *p) {
         p->Wait(MakeRequest("DESCRIBE", "/good", 1));
         ASSERT_EQ(1, RtspWaitReply(&p->get, 1, nullptr));
         Send(&p->peer, kPost);
     }},
    {"POST for a GET half that has sent on", "!p->nLen",
     [](Scene *p) {
         p->Wait("OPT");
         ASSERT_TRUE(Answers(&p->pusher));  // it was read before the POST comes
         p->server.Stat();
         Send(&p->peer, kPost);
     }},
    {"padding that no encoder makes", "!\"Invalid input stream!\"",
     [](Scene *p) {
         p->Wait("");
         Send(&p->peer, kPost + "T1BU====");
     }},
    {"OPTIONS on half a tunnel", "session->Reply", [](Scene *p) { p->LoseReplies("OPTIONS"); }},
    {"PLAY on half a tunnel", "session->Reply", [](Scene *p) { p->LoseReplies("PLAY"); }},
    {"DESCRIBE on half a tunnel", "session->Reply!=((void *)0) && session->Reply!=port",
     [](Scene *p) { p->LoseReplies("DESCRIBE"); }},
    {"SETUP of no track", "", [](Scene *p) { p->SetupPush(1, "/own"); }, true},
    {"SETUP over nothing known", "", [](Scene *p) { p->Setup("/good/trackID=0", "Transport: RAW/RAW/UDP\r\n"); }, true},
    {"ports that are no pair", "atoi(s+1)==nRemotePort+1",
     [](Scene *p) { p->Setup("/good/trackID=0", kUdp + "5000-5003\r\n"); }, true},
    {"port 0", "nLocalPort && nRemotePort", [](Scene *p) { p->Setup("/good/trackID=0", kUdp + "0-1\r\n"); }, true},
    {"a program of four tracks", kTracksText, [](Scene *p) { p->SetupPush(4, "/own/trackID=0"); }, true},
};

TEST(Guard, EndsTheSessionWhenOn)
{
    Scene scene("1");
    for (const Fault &fault : kFaults) {
        SCOPED_TRACE(fault.szName);
        size_t nFrom = scene.server.Output().size();
        scene.Connect();
        fault.pfnDo(&scene);
        EXPECT_TRUE(scene.server.WaitOutput("Assertion `" + std::string(fault.szText), 1, nFrom));
        RtspMessage reply;
        if (fault.bRefused) {
            EXPECT_EQ(1, RtspWaitReply(&scene.peer, scene.peer.nCSeq, &reply));
            EXPECT_EQ(400, reply.nStatus);
        }
        EXPECT_EQ(1, RtspWaitClosed(&scene.peer));
        EXPECT_TRUE(Answers(&scene.pusher)) << "nobody else's";
        RtspClose(&scene.peer);
        RtspClose(&scene.get);
    }
    EXPECT_TRUE(WaitFor([&] { return scene.server.Stat().nMonitors == 2; })) << "nothing of them stays";
    EXPECT_EQ(0, scene.server.Quit());
    EXPECT_EQ(0, CountText(scene.server.Output(), "Sanitizer"));
}

TEST(Guard, StopsTheProcessWhenOff)
{
    for (const Fault &fault : kFaults) {
        SCOPED_TRACE(fault.szName);
        Scene scene("0");
        scene.Connect();
        fault.pfnDo(&scene);
        EXPECT_EQ(256 + SIGABRT, scene.server.WaitExit());
        EXPECT_EQ(1, CountText(scene.server.Output(), "Assertion `" + std::string(fault.szText)));
    }
}

// What strangers write on the console and into the log begins no line there and commands no terminal, and
// nobody's credentials are in it.
TEST(Guard, PrintsNoControlBytes)
{
    for (const char *szGuard : {"0", "1"}) {
        const bool bGuard = *szGuard == '1';
        Scene scene(szGuard);
        scene.Connect();
        EXPECT_EQ(bGuard, Exchange(&scene.peer, "ANNOUNCE /x%0d%0aforged RTSP/1.0\r\nCSeq: 1\r\n\r\n").empty());
        scene.Connect();
        Send(&scene.peer, "X\x1b[2J * RTSP/1.0\r\nCSeq: 1\r\n\r\n");
        EXPECT_TRUE(scene.server.WaitOutput(bGuard ? "Cmd=X?[2J)" : "Cmd=X\x1b[2J)"));
        scene.Connect();
        Send(&scene.peer, MakeRequest("ANNOUNCE", "/y", 1, kSdp, "m=\x1bvideo\nforged\r\n"));
        EXPECT_TRUE(scene.server.WaitOutput(bGuard ? "bad SDP:\r\n m=?video\n forged\r\n" : "m=\x1bvideo\nforged\r\n"));
        ASSERT_EQ(1, RtspConnectTunnel(&scene.peer, scene.server.Url("/good").c_str()));
        for (const std::string piece :
             {"OPTIONS * RTSP/1.0\r\nCSeq: 5\r\nAuthor", "ization: Basic r", "oot:rootpw\r\n\r\n"})
            ASSERT_EQ(1, RtspSendBytes(&scene.peer, piece.data(), piece.size(), kRtspTimeoutMs));
        ASSERT_EQ(1, RtspWaitReply(&scene.peer, 5, nullptr));
        EXPECT_TRUE(scene.server.WaitOutput(bGuard ? ": *" : "rootpw"));
        EXPECT_EQ(bGuard ? 0 : 1, CountText(scene.server.Output(), "rootpw"));
        EXPECT_EQ(0, scene.server.Quit());
    }
}

// One byte less, and everything is fine in either setting.
TEST(Guard, LimitsAreNotFaults)
{
    Scene scene("0");
    scene.Connect();
    Send(&scene.peer, LongHead(4095));
    EXPECT_EQ(1, NextAnswer(&scene.peer));
    Send(&scene.peer, Frame(7, "x"));
    scene.peer.nCSeq = 1;
    EXPECT_TRUE(Answers(&scene.peer));
    scene.Push("1000");
    EXPECT_TRUE(Answers(&scene.peer));
    EXPECT_EQ(0, scene.server.Quit());
}
