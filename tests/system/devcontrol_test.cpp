// Requests that reach the camera through the server, its answers, and the configuration that it leaves there.
#include <deque>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "system/orxprocess.h"

namespace orx {
namespace {

using namespace std::string_literals;
using testing::HasSubstr;
using testing::StartsWith;

const char *const kAction = "CamAction: up\r\n";

// A reply of these methods: no cache lines.
std::string Short(const std::string &status, int nCSeq)
{
    return "RTSP/1.0 " + status + "\r\n" + kServerLine + "CSeq: " + std::to_string(nCSeq) + "\r\n\r\n";
}

std::string Header(const RtspMessage &message, const char *szName)
{
    const char *szValue = RtspFindHeader(&message, szName);
    return szValue ? szValue : "";
}

struct DevControlTest : SystemTest {
    RtspClient pusher;
    std::deque<RtspClient> players;

    void StartCamera()
    {
        server.Start();
        OpenCamera();
    }
    void OpenCamera()
    {
        RtspClose(&pusher);
        ASSERT_EQ(1, RtspOpenPusher(&pusher, server.Url("/cam").c_str(), CameraSdp()));
    }
    RtspClient &Connect()
    {
        RtspClient &player = players.emplace_back();
        EXPECT_EQ(1, RtspConnect(&player, server.Url("/cam").c_str()));
        return player;
    }
    // A player that may control the camera: without accounts everybody is the super user.
    RtspClient &Watch(const std::string &user = "", const std::string &password = "")
    {
        RtspClient &player = players.emplace_back();
        player.user = user;
        player.password = password;
        EXPECT_EQ(1, RtspConnect(&player, server.Url("/cam").c_str()));
        EXPECT_EQ(1, RtspDescribe(&player));
        return player;
    }
    std::string Ask(RtspClient &client, const std::string &method, const std::string &headers = "",
                    const std::string &body = "")
    {
        return Exchange(&client, MakeRequest(method, server.Url("/cam"), ++client.nCSeq, headers, body));
    }
    RtspMessage Forwarded(const char *szMethod = nullptr)
    {
        RtspMessage request;
        EXPECT_EQ(1, RtspWaitRequest(&pusher, szMethod, &request)) << server.Output();
        return request;
    }
    // The pusher's answer as a text of its own.
    void Respond(const std::string &headers)
    {
        EXPECT_NE(0, RtspSend(&pusher, "RESPOND", nullptr, headers.c_str()));
    }
    void ExpectOpen(RtspClient &client, const std::string &why = "")
    {
        EXPECT_THAT(Ask(client, "OPTIONS"), StartsWith("RTSP/1.0 200 OK\r\n")) << why;
    }
};

std::string Bytes(size_t nBytes)
{
    std::string bytes(nBytes, '\0');
    for (size_t i = 0; i < nBytes; i++)
        bytes[i] = static_cast<char>(i * 7);
    return bytes;
}

TEST_F(DevControlTest, ForwardsToTheLetterAndBringsTheAnswerBack)
{
    StartCamera();
    RtspClient &player = Watch();
    const std::string voice = "Content-Type: audio/amr\r\n";
    const std::string text = "two\r\n\r\nlines\0of $text"s;
    const struct {
        std::string method, headers, body, lines;
    } cases[] = {
        {"CAMCONTROL", kAction, "", "CamAction: up\r\nActionParam: none\r\n"},
        {"camcontrol", "ActionParam: speed=3\r\nCamAction: zoom in\r\n", "",
         "CamAction: zoom in\r\nActionParam: speed=3\r\n"},
        {"CAMCONTROL", kAction, text,
         "CamAction: up\r\nActionParam: none\r\nContent-Type: text/plain\r\nContent-length: 21\r\n"},
        {"PUTVOICE", voice, Bytes(1500), "Content-Type: audio/amr\r\nContent-length: 1500\r\n"},
        {"PUTVOICE", voice, "$", "Content-Type: audio/amr\r\nContent-length: 1\r\n"},
        {"GETCAMINFO", "GetInfoType: getcamtime\r\n", "", "GetInfoType: getcamtime\r\n"},
        {"GETCAMINFO", "GetInfoType: GetCamCfg\r\n", "", "GetInfoType: GetCamCfg\r\n"},
    };
    // the pusher's last request had this number, and its reply went out with it
    int nNumber = pusher.nCSeq;
    std::string handle;
    for (const auto &c : cases) {
        int nAsked = RtspSend(&player, c.method.c_str(), nullptr, c.headers.c_str(), c.body);
        ASSERT_NE(0, nAsked);
        RtspMessage request = Forwarded();
        if (handle.empty())
            handle = Header(request, "ClientSsId");
        std::string method = c.method == "camcontrol" ? "CAMCONTROL" : c.method;
        std::string expected = method + " RTSP/1.0\r\n";
        expected += kServerLine;
        expected += "CSeq: " + std::to_string(++nNumber) + "\r\n";
        expected += c.lines + "ClientSsId: ";
        expected += handle + "\r\n\r\n";
        expected += c.body;
        EXPECT_EQ(expected, request.raw);
        ASSERT_EQ(1, RtspRespond(&pusher, &request, "200 OK"));
        nNumber = pusher.nCSeq - 1;  // an answer has no reply, and leaves its number to the next request
        RtspMessage reply;
        ASSERT_EQ(1, RtspWaitReply(&player, 0, &reply)) << c.lines;
        EXPECT_EQ("RTSP/1.0 200 OK \r\n" + kServerLine + "CSeq: " + std::to_string(nAsked) + "\r\n\r\n",
                  reply.raw);
    }
    EXPECT_THAT(handle, testing::MatchesRegex("[1-9][0-9]*"));
    EXPECT_EQ(0, RtspWaitReply(&pusher, 0, nullptr, 1)) << "no reply to the answers";
}

TEST_F(DevControlTest, RefusesAndKeepsTheConnection)
{
    StartCamera();
    const std::string noControl = "400 Bad Request(no CAMCONTROL yet)";
    const std::string voice = "Content-Type: audio/amr\r\n", info = "GetInfoType: x\r\n";
    const struct {
        bool bWatches;
        std::string method, headers, body, status;
    } cases[] = {
        {false, "CAMCONTROL", kAction, "", noControl},
        {true, "CAMCONTROL", "ActionParam: 1\r\n", "", noControl},
        {true, "CAMCONTROL", "CamAction: a\nX: b\r\n", "", noControl},
        {true, "CAMCONTROL", "CamAction: a\r\nActionParam: a\rb\r\n", "", noControl},
        {false, "PUTVOICE", voice, "x", "400 Bad Request(no PUTVOICE yet)"},
        {true, "PUTVOICE", voice, "", "400 Bad Request"},
        {true, "PUTVOICE", "Content-Type: text/plain\r\n", "x", "400 Bad Request"},
        {false, "PUTVOICE", "", "x", "400 Bad Request"},
        {true, "GETCAMINFO", "", "", "400 Bad Request(GetInfoType field not found)"},
        {true, "GETCAMINFO", "GetInfoType: a\nb\r\n", "", "400 Bad Request(GetInfoType field not found)"},
        {false, "GETCAMINFO", info, "", "400 Bad Request(no GETCAMCFG yet)"},
        {false, "GETCAMINFO", "GetInfoType: getcamcfg\r\n", "", "400 Bad Request(no GETCAMCFG yet)"},
        {false, "RESPOND", "ClientSsId: 0\r\nForward: 200 OK\r\n", "", "400 Bad Request(no RESPOND yet)"},
        {true, "RESPOND", "ClientSsId: 0\r\nForward: 200 OK\r\n", "", "400 Bad Request(no RESPOND yet)"},
        {false, "PUTCAMCFG", "Content-Type: text/plain\r\n", "x", "400 Bad Request(no PUTCAMCFG yet)"},
        {true, "PUTCAMCFG", "Content-Type: text/plain\r\n", "x", "400 Bad Request(no PUTCAMCFG yet)"},
        {true, "PUTCAMCFG", "Content-Type: text/plain\r\n", "", "400 Bad Request"},
        {false, "PUTCAMCFG", "Content-Type: text/html\r\n", "x", "400 Bad Request"},
        {false, "PUTCAMCFG", "", "x", "400 Bad Request"},
    };
    RtspClient &stranger = Connect(), &player = Watch();
    for (const auto &c : cases) {
        RtspClient &client = c.bWatches ? player : stranger;
        std::string reply = Ask(client, c.method, c.headers, c.body);
        EXPECT_EQ(Short(c.status, client.nCSeq), reply) << c.method << c.headers;
    }
    ExpectOpen(stranger);
    ExpectOpen(player);
    EXPECT_EQ(0, RtspWaitRequest(&pusher, nullptr, nullptr, 1)) << "nothing of it reached the camera";
}

// The whole request fits 2048 bytes or is refused; it is never cut.
TEST_F(DevControlTest, RefusesWhatDoesNotFit)
{
    StartCamera();
    RtspClient &player = Watch();
    const std::string voice = "Content-Type: audio/amr\r\n";
    struct {
        const char *szMethod, *szStatus;
        std::string headers;
        bool bBody;
    } cases[] = {
        {"CAMCONTROL", "400 Bad Request(no CAMCONTROL yet)", std::string(kAction) + "ActionParam: ", false},
        {"CAMCONTROL", "400 Bad Request(no CAMCONTROL yet)", kAction, true},
        {"PUTVOICE", "400 Bad Request", voice, true},
        {"GETCAMINFO", "400 Bad Request(no GETCAMCFG yet)", "GetInfoType: ", false},
    };
    for (const auto &c : cases) {
        auto ask = [&](size_t nFill) {
            std::string fill(nFill, 'x');
            std::string headers = c.bBody ? c.headers : c.headers + fill + "\r\n";
            RtspSend(&player, c.szMethod, nullptr, headers.c_str(), c.bBody ? fill : "");
        };
        ask(1000);
        RtspMessage request = Forwarded();
        // the next one has the same number of digits everywhere
        size_t nLargest = 1000 + 2048 - request.raw.size();
        ask(nLargest);
        EXPECT_EQ(2048U, Forwarded().raw.size()) << c.szMethod;
        RtspMessage reply;
        ask(nLargest + 1);
        ASSERT_EQ(1, RtspWaitReply(&player, player.nCSeq, &reply));
        EXPECT_EQ(Short(c.szStatus, player.nCSeq), reply.raw);
    }
}

TEST_F(DevControlTest, ServesManyPlayersInAnyOrder)
{
    StartCamera();
    constexpr size_t kPlayers = 6;
    std::vector<RtspMessage> requests;
    for (size_t i = 0; i < kPlayers; i++) {
        RtspClient &player = Watch();
        player.nCSeq = 100 * static_cast<int>(i + 1);
        RtspSend(&player, "CAMCONTROL", nullptr, ("CamAction: a" + std::to_string(i) + "\r\n").c_str());
        requests.push_back(Forwarded("CAMCONTROL"));
        EXPECT_EQ("a" + std::to_string(i), Header(requests.back(), "CamAction"));
    }
    for (size_t i = kPlayers; i-- > 0;)
        ASSERT_EQ(1, RtspRespond(&pusher, &requests[i], ("20" + std::to_string(i) + " fine, a: b").c_str()));
    for (size_t i = 0; i < kPlayers; i++) {
        RtspMessage reply;
        ASSERT_EQ(1, RtspWaitReply(&players[i], players[i].nCSeq, &reply)) << i;
        EXPECT_EQ(Short("20" + std::to_string(i) + " fine, a: b ", players[i].nCSeq), reply.raw);
    }
}

// A player that watches over a tunnel gets the answer on its GET connection, between its media.
TEST_F(DevControlTest, AnswersThroughATunnel)
{
    StartCamera();
    RtspClient &player = players.emplace_back();
    ASSERT_EQ(1, RtspOpenPlayer(&player, server.Url("/cam").c_str(), RTSP_OVER_TUNNEL));
    RtspSend(&player, "CAMCONTROL", nullptr, kAction);
    RtspMessage request = Forwarded(), reply;
    SendPictures(&pusher, 0, 3);
    ASSERT_EQ(1, RtspRespond(&pusher, &request, "200 OK"));
    ASSERT_EQ(1, RtspWaitReply(&player, player.nCSeq, &reply));
    EXPECT_EQ(Short("200 OK ", player.nCSeq), reply.raw);
}

TEST_F(DevControlTest, DropsAnswersThatNobodyWaitsFor)
{
    server.Start();
    RtspClient &first = Connect();  // the oldest session
    ExpectOpen(first);
    OpenCamera();
    Watch();
    RtspSend(&players[1], "CAMCONTROL", nullptr, kAction);
    RtspMessage request = Forwarded();
    RtspClose(&players[1]);
    ASSERT_TRUE(WaitFor([&] { return server.Stat().sessions.size() == 2; }));
    ASSERT_EQ(1, RtspRespond(&pusher, &request, "200 OK"));
    const std::string forward = "Forward: 200 OK\r\n";
    for (const char *szHandle : {"4294967296", "18446744073709551616", "-1", "x", "1x"})
        Respond("ClientSsId: " + std::string(szHandle) + "\r\n" + forward);
    Respond(forward);
    Respond("ClientSsId: 0\r\n");
    Respond("ClientSsId: 0\r\nForward: 200 OK\nX: y\r\n");
    ExpectOpen(pusher);
    RtspMessage reply;
    EXPECT_EQ(0, RtspWaitReply(&first, 0, &reply, 1)) << reply.raw;
    // 0 stands for the oldest session; its own counter numbers the reply, and a long phrase is not cut
    std::string phrase = "299 " + std::string(3900, 'y');
    Respond("ClientSsId: 0\r\nForward: " + phrase + "\r\n");
    ASSERT_EQ(1, RtspWaitReply(&first, 0, &reply));
    EXPECT_EQ(Short(phrase + " ", first.nCSeq + 1), reply.raw);
}

TEST_F(DevControlTest, LosesThePusherInBetween)
{
    StartCamera();
    for (int i = 0; i < 3; i++)
        RtspSend(&Watch(), "CAMCONTROL", nullptr, kAction);
    RtspMessage old;
    for (int i = 0; i < 3; i++)
        old = Forwarded();
    RtspReset(&pusher);
    for (RtspClient &player : players)
        EXPECT_EQ(1, RtspWaitClosed(&player));
    OpenCamera();
    players.clear();
    RtspSend(&Watch(), "CAMCONTROL", nullptr, kAction);
    RtspMessage request = Forwarded();
    EXPECT_NE(Header(old, "ClientSsId"), Header(request, "ClientSsId")) << "handles are not used again";
    ASSERT_EQ(1, RtspRespond(&pusher, &old, "200 OK")) << "the answer to one that has gone";
    ASSERT_EQ(1, RtspRespond(&pusher, &request, "500 Camera busy"));
    RtspMessage reply;
    ASSERT_EQ(1, RtspWaitReply(&players[0], 0, &reply));
    EXPECT_EQ(Short("500 Camera busy ", players[0].nCSeq), reply.raw);
}

// A pusher that takes nothing any more is given up, with its players, before its queue grows without end.
TEST_F(DevControlTest, GivesUpAPusherThatDoesNotRead)
{
    server.Start();
    pusher.nReceiveBuffer = 4096;
    OpenCamera();
    RtspClient &player = Watch();
    std::string headers = kAction + ("ActionParam: " + std::string(1800, 'x')) + "\r\n";
    for (int i = 0; i < 20000 && RtspPoll(&player); i++)
        RtspSend(&player, "CAMCONTROL", nullptr, headers.c_str());
    EXPECT_EQ(1, RtspWaitClosed(&player));
    EXPECT_TRUE(server.WaitOutput("StopProgramAssociatedSessions().\r\n"));
    EXPECT_LT(server.ResidentKb(), 100 * 1024);
    RtspClose(&pusher);
    players.clear();
    OpenCamera();
    ExpectOpen(Watch());
}

// Nor does any other client make the server keep replies without end.
TEST_F(DevControlTest, GivesUpAClientThatDoesNotRead)
{
    StartCamera();
    RtspSend(&pusher, "PUTCAMCFG", nullptr, "Content-Type: text/plain\r\n", std::string(4000, 'x'));
    ExpectOpen(pusher);
    RtspClient &client = players.emplace_back();
    client.nReceiveBuffer = 4096;
    ASSERT_EQ(1, RtspConnect(&client, server.Url("/cam").c_str()));
    ASSERT_EQ(1, RtspDescribe(&client));
    for (int i = 0; i < 20000 && RtspSend(&client, "GETCAMINFO", nullptr, "GetInfoType: getcamcfg\r\n");)
        i++;
    EXPECT_TRUE(server.WaitOutput("Too many replies wait on fd=0x"));
    EXPECT_TRUE(WaitFor([&] { return server.Stat().sessions.size() == 1; }));
    EXPECT_LT(server.ResidentKb(), 100 * 1024);
    ExpectOpen(Watch());
}

const char kCamCfg[] =
    "[USERS]\r\nNumUsers=3\r\nSuperUser=boss\r\nSuperPwd=bosspw\r\nUserName0=ann\r\nUserPwd0=annpw\r\n"
    "UserLevel0=1\r\nUserName1=bob\r\nUserPwd1=bobpw\r\nUserName2=cy\r\nUserPwd2=cypw\r\n"
    "[SMTP]\r\nPwd=mail\r\n[VIDEO]\r\nSize=1\r\n[SEND2FTP]\r\nPwd=ftp\r\n";
const char kBobsView[] = "[USERS]\r\nNumUsers=3\r\nUserName1=bob\r\nUserPwd1=bobpw\r\n[VIDEO]\r\nSize=1\r\n";
const char *const kPlain = "Content-Type: text/plain\r\n";
const char *const kGetCfg = "GetInfoType: getcamcfg\r\n";

std::string CamCfgReply(const std::string &status, int nCSeq, const std::string &text)
{
    return "RTSP/1.0 " + status + "\r\n" + kServerLine + "CSeq: " + std::to_string(nCSeq) +
           "\r\nContent-Type: text/plain\r\nContent-Length: " + std::to_string(text.size()) + "\r\n" +
           kNoCache + "Date: DATE\r\n\r\n" + text;
}

TEST_F(DevControlTest, KeepsTheConfigurationOfTheCamera)
{
    StartCamera();
    RtspClient &player = Watch();
    EXPECT_EQ(CamCfgReply("651 Get camera config failed", 2, ""), Ask(player, "GETCAMINFO", kGetCfg));
    const std::string binary = "[USERS]\r\nSuperPwd=x\r\n" + Bytes(300);
    for (const std::string &text : {std::string(kCamCfg), binary, "x"s}) {
        RtspSend(&pusher, "PUTCAMCFG", nullptr, kPlain, text);
        ExpectOpen(pusher, "the next reply is the one to the next request");
        std::string reply = Ask(player, "GETCAMINFO", kGetCfg);
        EXPECT_EQ(CamCfgReply("650 Get camera config OK", player.nCSeq, text), reply);
    }
}

TEST_F(DevControlTest, ShowsEverybodyTheirOwnConfiguration)
{
    server.Set("SERVER", "AuthType", "1");
    server.Set("SERVER", "EnableAnonymousViewer", "1");
    StartCamera();
    RtspSend(&pusher, "PUTCAMCFG", nullptr, kPlain, kCamCfg);
    ExpectOpen(pusher);
    // the accounts of the text count at once
    struct {
        const char *szUser, *szPassword;
        std::string shown, control;
    } cases[] = {
        {"boss", "bosspw", kCamCfg, "taken"},
        {"bob", "bobpw", kBobsView, "400 Bad Request(no CAMCONTROL yet)"},
        {"stranger", "", "[USERS]\r\nNumUsers=3\r\n[VIDEO]\r\nSize=1\r\n",
         "400 Bad Request(no CAMCONTROL yet)"},
    };
    for (const auto &c : cases) {
        RtspClient &player = Watch(c.szUser, c.szPassword);
        std::string reply = Ask(player, "GETCAMINFO", kGetCfg);
        EXPECT_EQ(CamCfgReply("650 Get camera config OK", player.nCSeq, c.shown), reply) << c.szUser;
        RtspSend(&player, "CAMCONTROL", nullptr, kAction);
        if (c.control == "taken") {
            Forwarded("CAMCONTROL");
            continue;
        }
        RtspMessage message;
        ASSERT_EQ(1, RtspWaitReply(&player, player.nCSeq, &message));
        EXPECT_EQ(Short(c.control, player.nCSeq), message.raw) << c.szUser;
    }
    RtspClient &ann = Watch("ann", "annpw");  // level 1
    RtspSend(&ann, "CAMCONTROL", nullptr, kAction);
    Forwarded("CAMCONTROL");
    // a text whose accounts are followed by nothing leaves those that are known
    RtspSend(&pusher, "PUTCAMCFG", nullptr, kPlain, "[USERS]\r\nNumUsers=0\r\n");
    ExpectOpen(pusher);
    Watch("bob", "bobpw");
    RtspSend(&pusher, "PUTCAMCFG", nullptr, kPlain, "[USERS][VIDEO]\r\n");
    ExpectOpen(pusher);
    RtspClient &bob = players.emplace_back();
    bob.user = "bob";
    bob.password = "bobpw";
    ASSERT_EQ(1, RtspConnect(&bob, server.Url("/cam").c_str()));
    RtspMessage reply;
    RtspDescribe(&bob, &reply);
    EXPECT_EQ(403, reply.nStatus) << "the old accounts are gone";
}

// Who was only asked for a password is attached to the program already, and yet has no say in it.
TEST_F(DevControlTest, TakesNothingFromAChallengedPlayer)
{
    server.Set("SERVER", "AuthType", "1");
    StartCamera();
    RtspSend(&pusher, "PUTCAMCFG", nullptr, kPlain, kCamCfg);
    ExpectOpen(pusher);
    RtspClient &player = Connect();
    ASSERT_THAT(Ask(player, "DESCRIBE"), StartsWith("RTSP/1.0 401"));
    EXPECT_EQ(Short("400 Bad Request(no PUTCAMCFG yet)", 2), Ask(player, "PUTCAMCFG", kPlain, kCamCfg));
    EXPECT_EQ(Short("400 Bad Request(no CAMCONTROL yet)", 3), Ask(player, "CAMCONTROL", kAction));
    std::string shown = Ask(player, "GETCAMINFO", kGetCfg);
    EXPECT_THAT(shown, StartsWith("RTSP/1.0 650"));
    EXPECT_THAT(shown, testing::Not(HasSubstr("pw")));
}

struct RegisterTest : DevControlTest {
    std::string Name(RtspClient &client, const std::string &guid)
    {
        std::string reply = Ask(client, "REGISTER", "Guid: " + guid + "\r\n");
        std::string head =
            "RTSP/1.0 200 OK\r\n" + kServerLine + "CSeq: " + std::to_string(client.nCSeq) + "\r\nResult: ";
        EXPECT_THAT(reply, StartsWith(head));
        EXPECT_THAT(reply, testing::EndsWith("\r\n\r\n"));
        return reply.size() > head.size() + 4 ? reply.substr(head.size(), reply.size() - head.size() - 4)
                                              : "";
    }
};

TEST_F(RegisterTest, GivesEveryGuidItsName)
{
    server.Start();
    RtspClient &camera = Connect(), &other = Connect();
    EXPECT_EQ(Short("400 Bad Request(no Guid field)", 1), Ask(camera, "REGISTER"));
    for (const char *szGuid : {"MaxRegisterId", "a=b", "[GUID]", "a\nMaxRegisterId"}) {
        std::string reply = Ask(camera, "REGISTER", "Guid: " + std::string(szGuid) + "\r\n");
        EXPECT_EQ(Short("400 Bad Request(no Guid field)", camera.nCSeq), reply) << szGuid;
    }
    EXPECT_FALSE(std::filesystem::exists(server.dir.File("cfg/guid.dat")));
    EXPECT_EQ("cam1001", Name(camera, "00000000-1111-2222-3333-444444444444"));
    EXPECT_EQ("cam1002", Name(other, "b"));
    EXPECT_EQ("cam1001", Name(other, "00000000-1111-2222-3333-444444444444"));
    std::string store = ReadFile(server.dir.File("cfg/guid.dat"));
    for (const char *szLine : {"[GUID]\n", "\nMaxRegisterId=1003\n", "\nb=cam1002\n",
                               "\n00000000-1111-2222-3333-444444444444=cam1001\n"})
        EXPECT_THAT(store, HasSubstr(szLine));
    // the names outlive the server
    ASSERT_EQ(0, server.Quit());
    server.Start();
    RtspClient &again = Connect();
    EXPECT_EQ("cam1003", Name(again, "c"));
    EXPECT_EQ("cam1002", Name(again, "b"));
}

}  // namespace
}  // namespace orx
