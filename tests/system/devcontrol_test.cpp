// Requests that reach the camera through the server, its answers, and the configuration that it leaves there.
#include <deque>
#include <filesystem>

#include "support/sockets.h"
#include "system/systemtest.h"

using namespace orx;

using namespace std::string_literals;
using testing::HasSubstr;

const std::string kNoControl = Reply("400 Bad Request(no CAMCONTROL yet)");

struct DevControlTest : SystemTest {
    std::deque<RtspClient> players;

    RtspClient &Add(const std::string &user = "", const std::string &password = "")
    {
        RtspClient &client = players.emplace_back();
        client.user = user;
        client.password = password;
        Connect(&client);
        return client;
    }
    // A player that may control the camera: without accounts everybody is the super user.
    RtspClient &Watch(const std::string &user = "", const std::string &password = "")
    {
        RtspClient &client = Add(user, password);
        EXPECT_EQ(1, RtspDescribe(&client)) << user;
        return client;
    }
    void Send(RtspClient *pClient, const char *szMethod, const std::string &headers, const std::string &body = "")
    {
        EXPECT_NE(0, RtspSend(pClient, szMethod, nullptr, headers.c_str(), body));
    }
    // What reaches the camera next.
    RtspMessage Forwarded(const char *szMethod = nullptr)
    {
        RtspMessage request;
        EXPECT_EQ(1, RtspWaitRequest(&pusher, szMethod, &request)) << server.Output();
        return request;
    }
    // What a player is told of it, after "RTSP/1.0 ", with its own number.
    void ExpectTold(RtspClient *pClient, const std::string &status)
    {
        RtspMessage reply;
        ASSERT_EQ(1, RtspWaitReply(pClient, 0, &reply));
        EXPECT_EQ("RTSP/1.0 " + status + "\r\n" + kServerLine + "CSeq: " + std::to_string(pClient->nCSeq) + "\r\n\r\n",
                  reply.raw);
    }
    // Leaves a configuration of the camera's.
    void Leave(const std::string &text)
    {
        Send(&pusher, "PUTCAMCFG", kPlain, text);
        ASSERT_TRUE(Answers(&pusher));
    }
};

// Over a tunnel the answer comes on the GET connection, between the media.
TEST_F(DevControlTest, ForwardsToTheLetterAndBringsTheAnswerBack)
{
    StartCamera(CameraSdp());
    Watch();
    RtspClient &watcher = players.emplace_back();
    ASSERT_EQ(1, RtspOpenPlayer(&watcher, server.Url("/cam").c_str(), RTSP_OVER_TUNNEL));
    const std::string text = "two\r\n\r\nlines\0of $text"s;
    const struct {
        const char *szMethod, *szForwarded;
        std::string headers, body, lines;
    } cases[] = {
        {"CAMCONTROL", "CAMCONTROL", kAction, "", kAction + "ActionParam: none\r\n"},
        {"camcontrol", "CAMCONTROL", "ActionParam: speed=3\r\nCamAction: zoom in\r\n", "",
         "CamAction: zoom in\r\nActionParam: speed=3\r\n"},
        {"CAMCONTROL", "CAMCONTROL", kAction, text,
         kAction + "ActionParam: none\r\n" + kPlain + "Content-length: 21\r\n"},
        {"PUTVOICE", "PUTVOICE", kVoice, "$" + Pattern(1500, 7), kVoice + "Content-length: 1501\r\n"},
        {"GETCAMINFO", "GETCAMINFO", "GetInfoType: GetCamCfg\r\n", "", "GetInfoType: GetCamCfg\r\n"},
    };
    // the pusher's last request had this number, and its reply went out with it
    int nNumber = pusher.nCSeq;
    int64_t nHandle = 0;
    for (const auto &c : cases) {
        Send(&watcher, c.szMethod, c.headers, c.body);
        RtspMessage request = Forwarded();
        nHandle = nHandle ? nHandle : RtspHeaderNumber(&request, "ClientSsId", -1);
        EXPECT_EQ(c.szForwarded + (" RTSP/1.0\r\n" + kServerLine) + "CSeq: " + std::to_string(++nNumber) + "\r\n" +
                      c.lines + "ClientSsId: " + std::to_string(nHandle) + "\r\n\r\n" + c.body,
                  request.raw);
        SendPictures(&pusher, 0, 3);
        ASSERT_EQ(1, RtspRespond(&pusher, &request, "200 OK"));
        nNumber = pusher.nCSeq - 1;  // an answer has no reply, and leaves its number to the next request
        ExpectTold(&watcher, "200 OK ");
    }
    EXPECT_TRUE(Answers(&pusher));
    EXPECT_TRUE(pusher.inbox.empty()) << "no reply to the answers";
}

// The whole request fits 2048 bytes or is refused; it is never cut.
TEST_F(DevControlTest, RefusesWhatDoesNotFit)
{
    StartCamera(CameraSdp());
    RtspClient &watcher = Watch();
    for (bool bBody : {false, true}) {
        auto ask = [&](size_t nFill) {
            std::string fill(nFill, 'x');
            Send(&watcher, "CAMCONTROL", bBody ? kAction : kAction + "ActionParam: " + fill + "\r\n",
                 bBody ? fill : "");
        };
        ask(1000);
        size_t nLargest = 1000 + 2048 - Forwarded().raw.size();  // as many digits everywhere
        ask(nLargest);
        EXPECT_EQ(2048U, Forwarded().raw.size());
        ask(nLargest + 1);
        ExpectTold(&watcher, "400 Bad Request(no CAMCONTROL yet)");
    }
}

TEST_F(DevControlTest, DropsAnswersThatNobodyWaitsFor)
{
    server.Start();
    RtspClient &first = Add();  // the oldest session
    EXPECT_TRUE(Answers(&first));
    ASSERT_EQ(1, RtspOpenPusher(&pusher, server.Url("/cam").c_str(), CameraSdp()));
    RtspClient &gone = Watch();
    Send(&gone, "CAMCONTROL", kAction);
    RtspMessage request = Forwarded();
    RtspClose(&gone);
    ASSERT_TRUE(WaitFor([&] { return server.Stat().sessions.size() == 2; }));
    ASSERT_EQ(1, RtspRespond(&pusher, &request, "200 OK"));
    const std::string forward = "Forward: 200 OK\r\n";
    for (const char *szHandle : {"4294967296", "18446744073709551616", "-1", "x", "1x"})
        Send(&pusher, "RESPOND", "ClientSsId: " + std::string(szHandle) + "\r\n" + forward);
    for (const std::string &headers : {forward, "ClientSsId: 0\r\n"s, "ClientSsId: 0\r\nForward: 200 OK\nX: y\r\n"s})
        Send(&pusher, "RESPOND", headers);
    EXPECT_TRUE(Answers(&pusher));
    EXPECT_TRUE(Answers(&first));
    EXPECT_TRUE(first.inbox.empty());
    // 0 stands for the oldest session; its own counter numbers the reply, and a long phrase is not cut
    std::string phrase = "299 " + std::string(3900, 'y');
    Send(&pusher, "RESPOND", "ClientSsId: 0\r\nForward: " + phrase + "\r\n");
    first.nCSeq++;
    ExpectTold(&first, phrase + " ");
}

// Who takes nothing any more is given up before its queue grows without end. A pusher is not, for what others ask
// it: each has a share of its queue, and is refused what is beyond that.
TEST_F(DevControlTest, GivesUpWhoDoesNotRead)
{
    pusher.nReceiveBuffer = 4096;
    StartCamera(CameraSdp());
    Leave(std::string(4000, 'x'));
    RtspClient &lazy = players.emplace_back();
    lazy.nReceiveBuffer = 4096;
    Describe(&lazy);
    for (int i = 0; i < 20000 && RtspSend(&lazy, "GETCAMINFO", nullptr, kGetCfg.c_str());)
        i++;
    EXPECT_TRUE(server.WaitOutput("Too many replies wait on fd=0x"));
    EXPECT_TRUE(WaitFor([&] { return server.Stat().sessions.size() == 1; }));
    RtspClient &watcher = Watch(), &other = Watch();
    std::string headers = kAction + "ActionParam: " + std::string(1800, 'x') + "\r\n", asked;
    for (int i = 0; i < 1300; i++)
        asked += MakeRequest("CAMCONTROL", server.Url("/cam"), ++watcher.nCSeq, headers);
    ASSERT_EQ(1, RtspSendBytes(&watcher, asked.data(), asked.size()));
    RtspMessage reply;
    ASSERT_EQ(1, RtspWaitReply(&watcher, watcher.nCSeq, &reply));
    EXPECT_EQ(400, reply.nStatus);
    Send(&other, "PUTVOICE", kVoice, "x");
    RtspMessage request = Forwarded("PUTVOICE");
    EXPECT_EQ(1, RtspRespond(&pusher, &request, "200 OK"));
    ExpectTold(&other, "200 OK ");
    EXPECT_LT(server.ResidentKb(), 100 * 1024);
}

const std::string kCamCfg =
    "[USERS]\r\nNumUsers=3\r\nSuperUser=boss\r\nSuperPwd=bosspw\r\nUserName0=ann\r\nUserPwd0=annpw\r\n"
    "UserLevel0=1\r\nUserName1=bob\r\nUserPwd1=bobpw\r\nUserName2=cy\r\nUserPwd2=cypw\r\n"
    "[SMTP]\r\nPwd=mail\r\n[VIDEO]\r\nSize=1\r\n[SEND2FTP]\r\nPwd=ftp\r\n";
const std::string kBobsView = "[USERS]\r\nNumUsers=3\r\nUserName1=bob\r\nUserPwd1=bobpw\r\n[VIDEO]\r\nSize=1\r\n";

// Everybody sees their own part of the camera's configuration; its accounts count at once.
TEST_F(DevControlTest, ShowsEverybodyTheirOwnConfiguration)
{
    server.Set("SERVER", "AuthType=1\nEnableAnonymousViewer=1");
    StartCamera(CameraSdp());
    EXPECT_EQ(WithBody("651 Get camera config failed", kPlain, ""), Ask(&Watch("stranger"), "GETCAMINFO", "", kGetCfg));
    Leave(kCamCfg);
    RtspClient &boss = Watch("boss", "bosspw"), &bob = Watch("bob", "bobpw");
    EXPECT_EQ(WithBody("650 Get camera config OK", kPlain, kCamCfg), Ask(&boss, "GETCAMINFO", "", kGetCfg));
    EXPECT_EQ(WithBody("650 Get camera config OK", kPlain, kBobsView), Ask(&bob, "GETCAMINFO", "", kGetCfg));
    EXPECT_EQ(kNoControl, Ask(&bob, "CAMCONTROL", "", kAction));
    Send(&boss, "CAMCONTROL", kAction);
    Forwarded("CAMCONTROL");
    Leave("[USERS]\r\nNumUsers=0\r\n");  // accounts that are followed by nothing leave those that are known
    Watch("bob", "bobpw");
    Leave("[USERS][VIDEO]\r\n");
    RtspMessage reply;
    RtspDescribe(&Add("bob", "bobpw"), &reply);
    EXPECT_EQ(403, reply.nStatus) << "the old accounts are gone";
}

// The names outlive the server.
TEST_F(DevControlTest, GivesEveryGuidItsName)
{
    auto ask = [this](const std::string &guid) { return Ask(&Add(), "REGISTER", "", "Guid: " + guid + "\r\n"); };
    server.Start();
    EXPECT_EQ(Reply("200 OK", "Result: cam1001\r\n"), ask("a"));
    EXPECT_EQ(Reply("200 OK", "Result: cam1002\r\n"), ask("b"));
    ASSERT_EQ(0, server.Quit());
    server.Start();
    EXPECT_EQ(Reply("200 OK", "Result: cam1003\r\n"), ask("c"));
    EXPECT_EQ(Reply("200 OK", "Result: cam1001\r\n"), ask("a"));
    std::string full = "[GUID]\na=cam1001\nMaxRegisterId=1004\n;" + std::string(8140, 'x') + "\n";
    WriteFile(server.dir.File("cfg/guid.dat"), full);
    EXPECT_EQ(Reply("501 Internal error"), ask(std::string(100, 'd'))) << "it would not be kept";
    EXPECT_EQ(Reply("200 OK", "Result: cam1001\r\n"), ask("a"));
    EXPECT_EQ(full, ReadFile(server.dir.File("cfg/guid.dat")));
    WriteFile(server.dir.File("cfg/guid.dat"), "[GUID]\na=cam1001\nMaxRegisterId=1004\n");
    EXPECT_EQ(Reply("200 OK", "Result: cam1004\r\n"), ask("d")) << "no number was lost";
}

// With StandardPushers: a standard encoder is asked nothing, and what others answer in the form of a status
// line reaches who asked, by its number or in its order.
TEST_F(DevControlTest, BringsStatusLinesBack)
{
    server.Set("INTEROP", "StandardPushers", "1");
    server.Start();
    Connect(&pusher);
    EXPECT_THAT(Ask(&pusher, "ANNOUNCE", "/cam", kSdp, CameraSdp(2)), kIsOk);
    RtspClient *askers[] = {&Watch(), &Watch()};
    Send(askers[0], "CAMCONTROL", kAction);
    ExpectTold(askers[0], "501 Not Implemented(the pusher takes no requests)");
    auto answer = [this](const std::string &text) {
        ASSERT_TRUE(RtspSendBytes(&pusher, text.data(), text.size()));
        EXPECT_TRUE(Answers(&pusher)) << text;
    };
    answer("RTSP/1.0 501 Not Implemented\r\n\r\n");  // nothing was asked
    answer("RTSP/1.0 moved\r\nno header\r\n\r\n");
    Send(&pusher, "RESPOND", "");
    EXPECT_TRUE(Answers(&pusher)) << "it has shown that it knows";
    RtspMessage asked[2];
    for (int i = 0; i < 2; i++) {
        Send(askers[i], "CAMCONTROL", kAction);
        asked[i] = Forwarded();
    }
    EXPECT_TRUE(Answers(askers[1]));
    askers[1]->nCSeq--;  // the answer has the number of its question
    answer("RTSP/1.0 405 No Such Thing\r\nContent-Length: 4\r\nCSeq: " +
           std::to_string(RtspHeaderNumber(&asked[1], "CSeq", -1)) + "\r\n\r\nbody");
    ExpectTold(askers[1], "405 No Such Thing");
    answer("RTSP/1.0 100 Continue\r\n\r\n");
    answer("RTSP/1.0 501 Not Implemented\r\n\r\n");
    ExpectTold(askers[0], "501 Not Implemented");
}
