// Requests that come in the wrong state, or ask for what is not there or not allowed: what the client is
// told, and whether its connection stays. Nobody else notices.
#include "system/recordingtest.h"

using namespace orx;

const std::string kRoot = UserHeaders("root", "rootpw"), kRecord = "ActionParam: Cmd=stop\r\n";
const std::string kNoSdp = Refused("400 Bad Request(no SDP)"), kNoProgram = Refused("501 Internal error");
const std::string kNotFound = Refused("404 Not Found"), kNotAllowed = Refused("401 Unauthorized");
const std::string kUnusable = Refused("500 Internal error"), kBad = Reply("400 Bad Request");
const std::string kNoGuid = Reply("400 Bad Request(no Guid field)");

std::string Missing(const std::string &what)
{
    return Reply("400 Bad Request(no " + what + ")");
}

const struct {
    int nSteps;  // of DESCRIBE, SETUP, PLAY done before
    std::string method, path, headers, body, reply;
} kRefusals[] = {
    {0, "ANNOUNCE", "/new", "", CameraSdp(), kNoSdp},
    {0, "ANNOUNCE", "/new", "Content-Type: Application/SDP\r\n", CameraSdp(), kNoSdp},
    {0, "ANNOUNCE", "/new", kSdp, "", kNoSdp},
    {0, "ANNOUNCE", "/new", kSdp, LongestSdp() + "x", kNoProgram},
    {0, "ANNOUNCE", "/new", kSdp, "v=0\r\n", kNoProgram},
    {0, "ANNOUNCE", "/new", kSdp, "m=audio 0 RTP/AVP 97\r\na=rtpmap:97 AMR/8000/0\r\n", kNoProgram},
    {1, "ANNOUNCE", "/new", kSdp, CameraSdp(), kWrongState},
    {0, "DESCRIBE", "/new", "", "", kNotFound},  // none of these has made it
    {0, "DESCRIBE", "/ch1-x", "", "", kNotFound},
    {0, "DESCRIBE", "/ch", "", "", kNotFound},
    {0, "DESCRIBE", "/CH1", "", "", kNotFound},  // short names look at case
    {0, "DESCRIBE", "/ch1/", "", "", kNotFound},
    {0, "DESCRIBE", "/", "", "", kNotFound},
    {1, "DESCRIBE", "", "", "", kWrongState},
    {2, "DESCRIBE", "", "", "", kWrongState},
    {1, "QUICKPLAY", "", "", "", kWrongState},
    {0, "SETUP", "/ch1/trackID=0", kOverTcp, "", kWrongState},
    {1, "SETUP", "/ch1/trackID=9", kOverTcp, "", Refused("400 Bad Request(invalid trackID in SETUP)")},
    {1, "SETUP", "/ch1/trackID=0", "Transport: RTP/AVP;multicast\r\n", "", kUnusable},
    {1, "SETUP", "/ch1/trackID=0", "Transport: RTP/AVP/UDP;unicast;x\r\n", "", kUnusable},
    {3, "SETUP", "/ch1/trackID=1", kOverTcp, "", kWrongState},
    {0, "PLAY", "", "", "", kWrongState},
    {1, "PLAY", "", "", "", kWrongState},
    {3, "PLAY", "", "", "", kWrongState},
    {0, "PAUSE", "", "", "", kWrongState},
    {2, "PAUSE", "", "", "", kWrongState},
    {0, "SUBSCRIBE", "", "", "", kNotAllowed},
    {0, "SUBSCRIBE", "", "UserName: root\r\n", "", kNotAllowed},
    {0, "SUBSCRIBE", "", kRoot.substr(kRoot.find("UserAuth")), "", kNotAllowed},
    {0, "SUBSCRIBE", "", UserHeaders("root", "wrong"), "", kNotAllowed},
    {0, "SUBSCRIBE", "", UserHeaders("eve", "rootpw"), "", kNotAllowed},
    {0, "SUBSCRIBE", "/ch2", kRoot, "", kNotFound},
    {0, "SUBSCRIBE", "/two", kRoot, "", kWrongState},  // it has no data track
    {1, "SUBSCRIBE", "", kRoot, "", kWrongState},
    {0, "CAMCONTROL", "", kAction, "", Missing("CAMCONTROL yet")},
    {1, "CAMCONTROL", "", "ActionParam: 1\r\n", "", Missing("CAMCONTROL yet")},
    {1, "CAMCONTROL", "", "CamAction: a\nX: b\r\n", "", Missing("CAMCONTROL yet")},
    {0, "PUTVOICE", "", kVoice, "x", Missing("PUTVOICE yet")},
    {1, "PUTVOICE", "", kVoice, "", kBad},
    {1, "PUTVOICE", "", kPlain, "x", kBad},
    {0, "GETCAMINFO", "", "GetInfoType: getcamcfg\r\n", "", Missing("GETCAMCFG yet")},
    {1, "GETCAMINFO", "", "GetInfoType: a\nb\r\n", "", Reply("400 Bad Request(GetInfoType field not found)")},
    {0, "RESPOND", "", "ClientSsId: 0\r\nForward: 200 OK\r\n", "", Missing("RESPOND yet")},
    {0, "PUTCAMCFG", "", kPlain, "x", Missing("PUTCAMCFG yet")},
    {1, "PUTCAMCFG", "", kPlain, "", kBad},
    {0, "PUTCAMCFG", "", kVoice, "x", kBad},
    {0, "RECORDEX", "", kRecord, "", Missing("RECORDEX yet")},
    {1, "RECORDEX", "", "", "", Missing("ActionParam field")},
    {0, "REGISTER", "", "", "", kNoGuid},
    {0, "REGISTER", "", "Guid: a=b\r\n", "", kNoGuid},
    {0, "REGISTER", "", "Guid: a\nMaxRegisterId\r\n", "", kNoGuid},
};

using RefusalsTest = RecordingTest;

TEST_F(RefusalsTest, ToTheLetter)
{
    server.Set("USERS", "SuperUser=root\nSuperPwd=rootpw");
    StartCamera(CameraSdp(3), "/ch1-s1");
    RtspClient other;
    ASSERT_EQ(1, RtspOpenPusher(&other, server.Url("/two").c_str(), CameraSdp(2)));
    for (const auto &c : kRefusals) {
        SCOPED_TRACE(c.method + " " + c.path + " " + c.headers + std::to_string(c.nSteps));
        Connect(&player, "/ch1");
        EXPECT_TRUE(c.nSteps < 1 || RtspDescribe(&player));
        EXPECT_TRUE(c.nSteps < 2 || RtspSetup(&player, 0, RTSP_OVER_TCP));
        EXPECT_TRUE(c.nSteps < 3 || RtspPlay(&player));
        EXPECT_EQ(c.reply, Ask(&player, c.method, c.path, c.headers, c.body));
        if (c.reply.find(kNoCache) != std::string::npos)
            EXPECT_EQ(1, RtspWaitClosed(&player));
        else
            EXPECT_TRUE(Answers(&player));
    }
    EXPECT_TRUE(Answers(&pusher));
    EXPECT_TRUE(pusher.inbox.empty()) << "nothing of it reached the camera";
    RtspClose(&player);
    ExpectLeft(0, 3);
    ASSERT_EQ(0, server.Quit());
    server.Set("STORAGE", "RecordEnable", "0");
    server.Start();
    Connect(&player);
    for (const std::string &headers : {kRecord, std::string()})
        EXPECT_EQ(Reply("405 Method Not Allowed"), Ask(&player, "RECORDEX", "", headers));
}
