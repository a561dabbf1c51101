// Who may do what: by where somebody comes from, what was shown, and whether StrictRoles, AnnounceFrom and
// AnnounceAuth are set.
#include <deque>

#include "system/recordingtest.h"

using namespace orx;

using testing::HasSubstr;
using testing::StartsWith;

const char kRelayed[] = "127.0.1.9";  // where bridges of the relay come from
const std::string kUsers =
    "SuperUser=root\nSuperPwd=rootpw\nNumUsers=2\nUserName0=ann\nUserPwd0=annpw\nUserLevel0=1\nUserName1=bob\n"
    "UserPwd1=bobpw";
const std::string kCamText = "[CAM]\r\nPwd=secret\r\n[SMTP]\r\nPwd=mail\r\n";
const std::string kStop = "ActionParam: Cmd=stop\r\n";
const std::string kAnn = "Authorization: Basic YW5uOmFubnB3\r\n", kWrong = "Authorization: Basic YW5uOng=\r\n";

struct RolesTest : RecordingTest {
    std::deque<RtspClient> clients;

    RolesTest()
    {
        server.Set("USERS", kUsers);
        server.Set("GUARD", "SurvivePeerFaults", "1");
    }
    RtspClient &Add(const char *szPath = "/cam", const char *szFrom = "")
    {
        RtspClient &client = clients.emplace_back();
        client.sourceIp = szFrom;
        Connect(&client, szPath);
        return client;
    }
    // Sends a request. Returns the status of its reply, 0 when there is none.
    int Status(RtspClient *pClient, const std::string &method, const std::string &headers = "",
               const std::string &body = "")
    {
        RtspPoll(pClient);
        pClient->inbox.clear();  // answers to others, for whom no handle stood
        int nCSeq = RtspSend(pClient, method.c_str(), nullptr, headers.c_str(), body);
        RtspSend(pClient, "OPTIONS", nullptr);
        RtspMessage reply;
        if (!RtspWaitReply(pClient, 0, &reply))
            return -1;
        if (RtspHeaderNumber(&reply, "CSeq", 0) != nCSeq)
            return 0;
        RtspWaitReply(pClient, nCSeq + 1, nullptr);
        return reply.nStatus;
    }
};

// What somebody did before, and from where.
enum Past { FRESH, ASKED, ASKED_NOTHING, ENTERED, UNASKED, PUSHES };
const struct Who {
    const char *szName, *szFrom;
    Past ePast;
    const char *szAuthType, *szUser = "", *szPassword = "";
} kStranger{"stranger", kRelayed, FRESH, "1"}, kAsked{"asked for a password", kRelayed, ASKED, "1"},
    kAskedHere{"asked on the box", "", ASKED, "1"}, kMissed{"asked at no program", kRelayed, ASKED_NOTHING, "1"},
    kBob{"level 2", kRelayed, ENTERED, "1", "bob", "bobpw"}, kAnnIn{"level 1", kRelayed, ENTERED, "1", "ann", "annpw"},
    kOpen{"anybody", kRelayed, ENTERED, "0"}, kOpenHere{"anybody on the box", "", ENTERED, "0"},
    kUnasked{"a password unasked", kRelayed, UNASKED, "0"}, kPusher{"the pusher", "", PUSHES, "1"};

const struct What {
    const char *szMethod;
    std::string headers, body = "";
} kGetText{"GETCAMINFO", kGetCfg}, kAskCamera{"GETCAMINFO", "GetInfoType: x\r\n"},
    kControl{"CAMCONTROL", "CamAction: up\r\n"}, kSpeak{"PUTVOICE", "Content-Type: audio/amr\r\n", "x"},
    kEndRecord{"RECORDEX", kStop}, kEndRecordAsAnn{"RECORDEX", kStop + kAnn},
    kEndRecordWrongly{"RECORDEX", kStop + kWrong}, kSetText{"PUTCAMCFG", kPlain, kCamText},
    kAnswer{"RESPOND", "ClientSsId: 0\r\nForward: 299 x\r\n"}, kRegister{"REGISTER", "Guid: a\r\n"},
    kScan{"GETWIFIROUTERS", ""};

const struct {
    Who who;
    What what;
    int nOff, nOn;  // the status without and with StrictRoles; 0: no reply
} kRoles[] = {
    {kStranger, kGetText, 400, 400},
    {kStranger, kEndRecord, 400, 400},
    {kStranger, kRegister, 200, 401},
    {kStranger, kScan, 0, 401},
    {kAsked, kGetText, 650, 401},
    {kAsked, kAskCamera, 0, 401},
    {kAsked, kControl, 400, 401},
    {kAsked, kSpeak, 400, 401},
    {kAsked, kEndRecord, 200, 401},
    {kAsked, kSetText, 0, 400},
    {kAsked, kAnswer, 0, 400},
    {kAskedHere, kEndRecord, 200, 200},
    {kAskedHere, kGetText, 650, 401},
    {kAskedHere, kRegister, 200, 200},
    {kMissed, kGetText, -1, 401},
    {kMissed, kEndRecord, -1, 401},
    {kBob, kGetText, 650, 650},
    {kBob, kControl, 400, 400},
    {kBob, kEndRecord, 200, 403},
    {kBob, kSetText, 0, 400},
    {kAnnIn, kControl, 0, 0},
    {kAnnIn, kSpeak, 0, 0},
    {kAnnIn, kEndRecord, 200, 200},
    {kAnnIn, kAnswer, 0, 400},
    {kOpen, kControl, 0, 400},
    {kOpen, kSpeak, 0, 400},
    {kOpen, kEndRecord, 200, 401},
    {kOpen, kEndRecordAsAnn, 200, 200},
    {kOpen, kEndRecordWrongly, 200, 401},
    {kOpen, kGetText, 650, 650},
    {kOpenHere, kEndRecord, 200, 200},
    {kOpenHere, kControl, 0, 400},
    {kUnasked, kControl, 0, 0},
    {kUnasked, kEndRecord, 200, 200},
    {kPusher, kEndRecord, 200, 200},
    {kPusher, kGetText, 650, 650},
    {kPusher, kSetText, 0, 0},
    {kPusher, kAnswer, 299, 0},  // the oldest session is its own
};

struct RolesTableTest : RolesTest {
    using RolesTest::Status;
    int Status(RtspClient *pClient, const What &what)
    {
        return Status(pClient, what.szMethod, what.headers, what.body);
    }
    RtspClient &Enter(const Who &who)
    {
        if (who.ePast == PUSHES)
            return pusher;
        RtspClient &client = Add(who.ePast == ASKED_NOTHING ? "/none" : "/cam", who.szFrom);
        client.user = who.szUser;
        client.password = who.szPassword;
        RtspMessage reply;
        if (who.ePast == UNASKED)
            EXPECT_THAT(Ask(&client, "DESCRIBE", "", kAnn), kIsOk);
        else if (who.ePast != FRESH)
            RtspDescribe(&client, &reply);
        return client;
    }
};

TEST_F(RolesTableTest, LetsThoseWhoMay)
{
    for (const auto &[szAuthType, bStrict] :
         {std::pair("0", 0), std::pair("0", 1), std::pair("1", 0), std::pair("1", 1)}) {
        server.Set("SERVER", "AuthType", szAuthType);
        server.Set("GUARD", "AnnounceFrom=127.0.0.0/8\nStrictRoles=" + std::to_string(bStrict));
        StartCamera(CameraSdp());
        EXPECT_EQ(0, Status(&pusher, kSetText));
        for (const auto &c : kRoles) {
            SCOPED_TRACE(std::string(c.who.szName) + " " + c.what.szMethod + " StrictRoles=" + std::to_string(bStrict));
            if (strcmp(c.who.szAuthType, szAuthType) != 0)
                continue;
            RtspClient &client = Enter(c.who);
            EXPECT_EQ(bStrict ? c.nOn : c.nOff, Status(&client, c.what));
            clients.clear();
        }
        if (*szAuthType == '0') {  // the level decides what of the camera's text is shown
            EXPECT_EQ(!bStrict, CountText(Ask(&Enter(kOpen), "GETCAMINFO", "", kGetCfg), "mail"));
            EXPECT_EQ(bStrict ? 401 : 200, Status(&Add(), "DESCRIBE", kWrong));
        }
        ASSERT_EQ(0, server.Quit());
    }
}

// Who asks for a program that is not there is answered as who asks for one that is, until a password is right.
TEST_F(RolesTest, TellsNobodyWhatIsThere)
{
    server.Set("SERVER", "AuthType", "1");
    server.Set("GUARD", "StrictRoles", "1");
    StartCamera(CameraSdp());
    Camera camera({Coding::H264});
    ASSERT_NO_FATAL_FAILURE(Record(&camera, "rec.zmf", 2));
    for (const char *szMethod : {"DESCRIBE", "QUICKPLAY", "SUBSCRIBE"})
        for (const std::string &headers : {std::string(), kWrong, UserHeaders("root", "x"), UserHeaders("eve", "")}) {
            SCOPED_TRACE(szMethod + headers);
            std::string expected = Ask(&Add("/cam", kRelayed), szMethod, "", headers);
            EXPECT_THAT(expected, StartsWith("RTSP/1.0 40"));
            for (const char *szPath : {"/none", "/rec.zmf", "/none.zmf"})
                EXPECT_EQ(expected, Ask(&Add(szPath, kRelayed), szMethod, "", headers)) << szPath;
        }
    EXPECT_EQ(0, CountText(server.Output(), "CreateFileProgram(Uri=/rec.zmf)"));
    const std::string root = "Authorization: Basic cm9vdDpyb290cHc=\r\n";
    EXPECT_EQ(404, Status(&Add("/none"), "DESCRIBE", root));
    EXPECT_EQ(200, Status(&Add("/rec.zmf"), "DESCRIBE", root));
    EXPECT_EQ(404, Status(&Add("/none"), "SUBSCRIBE", UserHeaders("root", "rootpw")));
    EXPECT_EQ(455, Status(&Add("/cam"), "SUBSCRIBE", UserHeaders("root", "rootpw")));
}

// A camera's answer reaches who asked it, and nobody else.
TEST_F(RolesTest, PassesAnswersToAskersOfTheProgram)
{
    server.Set("GUARD", "StrictRoles", "1");
    StartCamera(CameraSdp());
    RtspClient other, *pForeign = &Add("/other"), *pSilent = &Add(), *pAsker = &Add();
    ASSERT_EQ(1, RtspOpenPusher(&other, server.Url("/other").c_str(), CameraSdp()));
    RtspMessage foreign, own;
    for (RtspClient *pClient : {pForeign, pSilent, pAsker})
        ASSERT_EQ(1, RtspDescribe(pClient));
    RtspSend(pForeign, "GETCAMINFO", nullptr, "GetInfoType: x\r\n");
    ASSERT_EQ(1, RtspWaitRequest(&other, nullptr, &foreign));
    auto respond = [&](const std::string &handle) {
        EXPECT_EQ(0, Status(&pusher, "RESPOND", "ClientSsId: " + handle + "\r\nForward: 299 x\r\n"));
    };
    respond("0");  // nobody has asked
    RtspSend(pAsker, "GETCAMINFO", nullptr, "GetInfoType: x\r\n");
    ASSERT_EQ(1, RtspWaitRequest(&pusher, nullptr, &own));
    respond(RtspFindHeader(&foreign, "ClientSsId"));
    respond("0");
    EXPECT_EQ(1, RtspWaitReply(pAsker, 0, &own));
    EXPECT_EQ(299, own.nStatus);
    respond("0");  // the question has ended
    for (RtspClient *pClient : {pForeign, pSilent, pAsker}) {
        EXPECT_TRUE(Answers(pClient));
        EXPECT_TRUE(pClient->inbox.empty());
    }
}

// Who came by the web port is not the box itself, even from there.
TEST_F(RolesTest, TellsTheWebPortFromTheBox)
{
    server.Set("SERVER", "EnableHttpProxy=1\nHttpProxyListenPort=" + std::to_string(server.nSparePort));
    server.Set("GUARD", "StrictRoles", "1");
    StartCamera(CameraSdp());
    const std::string url = "rtsp://127.0.0.1:" + std::to_string(server.nSparePort) + "/cam";
    ASSERT_EQ(1, RtspConnectTunnel(&player, url.c_str()));
    ASSERT_EQ(1, RtspDescribe(&player));
    EXPECT_THAT(Ask(&player, "RECORDEX", "", kStop), StartsWith("RTSP/1.0 401 "));
    ASSERT_EQ(1, RtspConnectTunnel(&player, server.Url("/cam").c_str()));
    ASSERT_EQ(1, RtspDescribe(&player));
    EXPECT_EQ(Reply("200 OK"), Ask(&player, "RECORDEX", "", kStop));
}

// A list of programs names them whole.
TEST_F(RolesTest, OpensWhatAListNames)
{
    for (const char *szStrict : {"0", "1"}) {
        SCOPED_TRACE(szStrict);
        server.Set("SERVER", "AuthType=1\nControlUsers=1");
        server.Set("USERCTRL", "UserDevList0=ch10,/live/door cam");
        server.Set("GUARD", "StrictRoles", szStrict);
        StartCamera(CameraSdp());
        RtspClient pushers[4];
        const char *const paths[] = {"/ch1", "/ch10", "/live/door", "/door"};
        for (int i = 0; i < 4; i++)
            ASSERT_EQ(1, RtspOpenPusher(&pushers[i], server.Url(paths[i]).c_str(), CameraSdp()));
        RtspMessage list;
        RtspSend(&Add(), "GETPLAYLIST", nullptr, UserHeaders("ann", "annpw").c_str());
        ASSERT_EQ(1,
                  RtspWait(
                      &clients.back(), [](const RtspMessage &message) { return message.kind == RTSP_OTHER; }, &list));
        EXPECT_EQ(*szStrict == '0', CountText(list.raw, "|/ch1\r\n") == 1) << list.raw;
        EXPECT_EQ(1, CountText(list.raw, "|/ch10\r\n"));
        for (const char *szPath : {"/cam", "/ch1", "/ch10", "/live/door", "/door"}) {
            bool bNamed = szPath != paths[0] && szPath != paths[3];
            EXPECT_EQ(bNamed || *szStrict == '0' ? 200 : 403, Status(&Add(szPath), "DESCRIBE", kAnn)) << szPath;
        }
        ASSERT_EQ(0, server.Quit());
    }
}

// Whoever may see a list of programs has no level at one that is not on his.
TEST_F(RolesTest, ListsLendNoLevel)
{
    server.Set("SERVER", "AuthType=0\nControlUsers=1");
    server.Set("GUARD", "StrictRoles", "1");
    for (const char *szList : {"ch10", "cam"}) {
        server.Set("USERCTRL", "UserDevList0", szList);
        StartCamera(CameraSdp());
        RtspClient &viewer = Add("/cam", kRelayed);
        ASSERT_EQ(200, Status(&viewer, "DESCRIBE"));
        RtspSend(&viewer, "GETPLAYLIST", nullptr, UserHeaders("ann", "annpw").c_str());
        EXPECT_EQ(szList[1] == 'h' ? 401 : 200, Status(&viewer, "RECORDEX", kStop)) << szList;
        ASSERT_EQ(0, server.Quit());
    }
}

const struct {
    const char *szFrom, *szPeer;
    int nStatus;
} kAnnouncers[] = {
    {"", "", 200},
    {"", kRelayed, 200},
    {"10.0.0.0/8 127.0.0.2", "127.0.0.2", 200},
    {"10.0.0.0/8 127.0.0.2", "127.0.0.1", 403},
    {"127.0.0.0/8", "127.0.0.1", 200},
    {"127.0.0.0/8 127.0.1.9", kRelayed, 403},
    {"127.0.0.1/33", "127.0.0.1", 403},
};

TEST_F(RolesTest, TakesPushersFromWhereTheyMayCome)
{
    for (const auto &c : kAnnouncers) {
        SCOPED_TRACE(std::string(c.szFrom) + " " + c.szPeer);
        server.Set("GUARD", "AnnounceFrom", c.szFrom);
        server.Start();
        RtspClient &client = Add("/cam", c.szPeer);
        std::string reply = Ask(&client, "ANNOUNCE", "", kSdp, CameraSdp());
        EXPECT_EQ(c.nStatus == 200 ? Dated() : "RTSP/1.0 403 Forbidden\r\nCSeq: #\r\n\r\n", reply);
        EXPECT_TRUE(c.nStatus == 200 || RtspWaitClosed(&client));
        EXPECT_EQ(strchr(c.szFrom, '3') != nullptr, CountText(server.Output(), "AnnounceFrom: \"127.0.0.1/33\"") == 1);
        ASSERT_EQ(0, server.Quit());
    }
}

TEST_F(RolesTest, AsksPushersForAPassword)
{
    server.Set("GUARD", "AnnounceAuth", "1");
    server.Start();
    RtspClient &client = Add();
    std::string challenge = Ask(&client, "ANNOUNCE", "", kSdp, CameraSdp());
    EXPECT_THAT(challenge, testing::MatchesRegex("RTSP/1.0 401 Unauthorized\r\n" + kServerLine +
                                                 "CSeq: #\r\nWWW-Authenticate: Digest realm=\"Orx\"[^\r]*\r\n"
                                                 "WWW-Authenticate: Basic realm=\"Orx\"\r\n\r\n"));
    EXPECT_THAT(Ask(&client, "ANNOUNCE", "", kSdp + kWrong, CameraSdp()), StartsWith("RTSP/1.0 401 "));
    EXPECT_EQ(Dated(), Ask(&client, "ANNOUNCE", "", kSdp + kAnn, CameraSdp())) << "the connection stayed";
    EXPECT_EQ(0, Status(&client, "PUTCAMCFG", kPlain,
                        "[USERS]\r\nSuperUser=eve\r\nSuperPwd=evepw\r\nNumUsers=1\r\nUserName0=bob\r\nUserPwd0=x\r\n"
                        "UserLevel0=0\r\n[X]\r\n"));
    static const struct {
        const char *szUser, *szPassword, *szPath;
        int nStatus;
    } cases[] = {
        {"eve", "evepw", "/cam", 401},                                   // an account of the camera's is none here
        {"bob", "x", "/new", 401},       {"bob", "bobpw", "/new", 403},  // level 2
        {"root", "rootpw", "/cam", 502}, {"root", "rootpw", "/new", 200}, {"ann", "annpw", "/new", 502},
    };
    const RtspChallenge basic;
    for (const auto &c : cases) {
        const std::string url = server.Url(c.szPath);
        std::string shown = RtspAuthorization(&basic, c.szUser, c.szPassword, "ANNOUNCE", url);
        std::string request = MakeRequest("ANNOUNCE", url, 1, kSdp + "Authorization: " + shown + "\r\n", CameraSdp());
        EXPECT_THAT(Exchange(&Add(c.szPath), request), StartsWith("RTSP/1.0 " + std::to_string(c.nStatus)))
            << c.szUser << c.szPath;
    }
    ASSERT_TRUE(Answers(&client));
    pusher.sourceIp = "127.0.0.2";
    pusher.user = "ann";
    pusher.password = "annpw";
    EXPECT_EQ(1, RtspOpenPusher(&pusher, server.Url("/cam").c_str(), CameraSdp())) << "by Digest, from elsewhere";
    EXPECT_EQ(1, RtspWaitClosed(&client)) << "it was replaced";
}
