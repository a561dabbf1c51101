// What a peer's bytes can break: with the guard on it ends that peer's session and nothing else, with the
// guard off it stops the process. (The faults of SETUP are with the other methods of players.)
#include <csignal>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "client/rtppacket.h"
#include "system/orxprocess.h"

namespace orx {
namespace {

using testing::HasSubstr;

std::string Frame(int nChannel, const std::string &packet)
{
    std::string frame;
    FrameAddHead(&frame, nChannel, packet.size());
    return frame + packet;
}

std::string LongHead(size_t nBytes)
{
    std::string head = "OPTIONS * RTSP/1.0\r\nCSeq: 1\r\nX: ";
    return head + std::string(nBytes - head.size() - 4, 'x') + "\r\n\r\n";
}

const char kPost[] =
    "POST / HTTP/1.0\r\nx-sessioncookie: c\r\nContent-Type: application/x-rtsp-tunnelled\r\n\r\n";

struct Fault {
    const char *szName;
    const char *szText;  // of the assertion
    // What the peer does; the connection that is to end is the first one.
    void (*pfnDo)(OrxProcess *pServer, RtspClient *pFirst, RtspClient *pSecond);
};

void Connect(OrxProcess *pServer, RtspClient *pClient)
{
    ASSERT_EQ(1, RtspConnect(pClient, pServer->Url("/faulty").c_str()));
}

void Send(RtspClient *pClient, const std::string &bytes)
{
    ASSERT_EQ(1, RtspSendRaw(pClient, bytes.data(), bytes.size()));
}

// A GET half that waits, and what else came on its connection.
void Wait(OrxProcess *pServer, RtspClient *pGet, const std::string &further)
{
    Connect(pServer, pGet);
    Exchange(pGet, "GET / HTTP/1.0\r\nx-sessioncookie: c\r\n\r\n");
    Send(pGet, further);
}

void AnnounceAndPush(OrxProcess *pServer, RtspClient *pPusher, const std::string &rate)
{
    std::string sdp =
        "v=0\r\nm=video 0 RTP/AVP 96\r\na=rtpmap:96 H264/" + rate + "\r\na=control:trackID=0\r\n";
    ASSERT_EQ(1, RtspOpenPusher(pPusher, pServer->Url("/faulty").c_str(), sdp));
    std::string packet = CameraPacket(0, 1, 1, "\x65");
    RtspSendFrame(pPusher, 0, packet.data(), packet.size());
}

constexpr char kRateText[] = "(pProg->mediaInfos[nTrackId].nTimeScale % 1000) == 0";

const Fault kFaults[] = {
    {"channel beyond the tracks", "nTrackId < 8",
     [](OrxProcess *pServer, RtspClient *pFirst, RtspClient *) {
         Connect(pServer, pFirst);
         Send(pFirst, Frame(8, "x"));
     }},
    {"the highest channel", "nTrackId < 8",
     [](OrxProcess *pServer, RtspClient *pFirst, RtspClient *) {
         Connect(pServer, pFirst);
         Send(pFirst, Frame(255, ""));
         Send(pFirst, "x");
     }},
    {"clock rate with odd milliseconds", kRateText,
     [](OrxProcess *pServer, RtspClient *pFirst, RtspClient *) {
         AnnounceAndPush(pServer, pFirst, "44100");
     }},
    {"clock rate below a thousand", kRateText,
     [](OrxProcess *pServer, RtspClient *pFirst, RtspClient *) { AnnounceAndPush(pServer, pFirst, "90"); }},
    {"header block of 4096 bytes", "nLen2Parse < sizeof(szTmpuff)",
     [](OrxProcess *pServer, RtspClient *pFirst, RtspClient *) {
         Connect(pServer, pFirst);
         Send(pFirst, LongHead(4096));
     }},
    {"header block of far more", "nLen2Parse < sizeof(szTmpuff)",
     [](OrxProcess *pServer, RtspClient *pFirst, RtspClient *) {
         Connect(pServer, pFirst);
         Send(pFirst, LongHead(16000));
     }},
    {"POST for a GET half that has a reply connection", "!p->Reply && session->Cmd==port",
     [](OrxProcess *pServer, RtspClient *pFirst, RtspClient *pSecond) {
         RtspMessage reply;
         Wait(pServer, pSecond, MakeRequest("DESCRIBE", "/good", 1));
         ASSERT_EQ(1, RtspWaitReply(pSecond, 1, &reply));
         ASSERT_EQ(200, reply.nStatus);
         Connect(pServer, pFirst);
         Send(pFirst, kPost);
     }},
    {"POST for a GET half that has sent on", "!p->nLen",
     [](OrxProcess *pServer, RtspClient *pFirst, RtspClient *pSecond) {
         Wait(pServer, pSecond, "OPT");
         pServer->Stat();  // it was read before the POST comes
         Connect(pServer, pFirst);
         Send(pFirst, kPost);
     }},
    {"padding that no encoder makes", "!\"Invalid input stream!\"",
     [](OrxProcess *pServer, RtspClient *pFirst, RtspClient *pSecond) {
         Wait(pServer, pSecond, "");
         Connect(pServer, pFirst);
         Send(pFirst, kPost);
         Send(pFirst, "T1BU====");
     }},
    {"a tunnel whose GET half has gone", "session->Reply",
     [](OrxProcess *pServer, RtspClient *pFirst, RtspClient *pSecond) {
         Wait(pServer, pSecond, "");
         Connect(pServer, pFirst);
         Send(pFirst,
              std::string(kPost) + "T1BUSU9OUyAqIFJUU1AvMS4wDQpDU2VxOiAxDQoNCg==");  // OPTIONS, CSeq 1
         ASSERT_EQ(1, RtspWaitReply(pSecond, 1, nullptr));
         int nFreed = CountText(pServer->Output(), "OnFreePort(");
         RtspClose(pSecond);
         ASSERT_TRUE(pServer->WaitOutput("OnFreePort(", nFreed + 1));
         Send(pFirst, "T1BUSU9OUyAqIFJUU1AvMS4wDQpDU2VxOiAxDQoNCg==");
     }},
};

struct GuardTest : testing::TestWithParam<Fault> {
    OrxProcess server;
    RtspClient pusher, first, second;

    void Start(const char *szGuard)
    {
        server.Set("GUARD", "SurvivePeerFaults", szGuard);
        server.Start();
        ASSERT_EQ(1, RtspOpenPusher(&pusher, server.Url("/good").c_str(), CameraSdp()));
    }
    void TearDown() override
    {
        if (HasFailure())
            fprintf(stderr, "--- output of the server ---\n%s\n--- end ---\n", server.Output().c_str());
    }
};

INSTANTIATE_TEST_SUITE_P(Peers, GuardTest, testing::ValuesIn(kFaults),
                         [](const testing::TestParamInfo<Fault> &info) {
                             std::string name;
                             for (const char *p = info.param.szName; *p; p++)
                                 name += isalnum(static_cast<unsigned char>(*p)) ? *p : '_';
                             return name;
                         });

TEST_P(GuardTest, EndsTheSessionWhenOn)
{
    Start("1");
    const Fault &fault = GetParam();
    std::string line = std::string("Assertion `") + fault.szText + "' failed.";
    for (int n = 1; n <= 3; n++) {  // over and over
        fault.pfnDo(&server, &first, &second);
        EXPECT_TRUE(server.WaitOutput(line, n));
        EXPECT_EQ(1, RtspWaitClosed(&first));
        RtspMessage reply;
        EXPECT_EQ(1, RtspRequest(&pusher, "OPTIONS", nullptr, nullptr, "", &reply)) << "nobody else's";
        RtspClose(&first);
        RtspClose(&second);
        EXPECT_TRUE(WaitFor([&] { return server.Stat().nMonitors == 2; })) << "nothing of it stays";
    }
    EXPECT_EQ(0, server.Quit());
    EXPECT_THAT(server.Output(), testing::Not(HasSubstr("Sanitizer")));
}

TEST_P(GuardTest, StopsTheProcessWhenOff)
{
    Start("0");
    GetParam().pfnDo(&server, &first, &second);
    EXPECT_EQ(256 + SIGABRT, server.WaitExit());
    EXPECT_THAT(server.Output(), HasSubstr(std::string("Assertion `") + GetParam().szText + "' failed."));
}

// One byte less, and everything is fine in either setting.
TEST(Guard, LimitsAreNotFaults)
{
    OrxProcess server;
    server.Start();
    RtspClient client, pusher;
    Connect(&server, &client);
    RtspMessage reply;
    Send(&client, LongHead(4095));
    EXPECT_EQ(1, RtspWaitReply(&client, 1, &reply));
    Send(&client, Frame(7, "x"));
    EXPECT_EQ(1, RtspRequest(&client, "OPTIONS", nullptr, nullptr, "", &reply));
    AnnounceAndPush(&server, &pusher, "1000");
    EXPECT_EQ(1, RtspRequest(&pusher, "OPTIONS", nullptr, nullptr, "", &reply));
    EXPECT_EQ(0, server.Quit());
}

}  // namespace
}  // namespace orx
