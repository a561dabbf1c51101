// Who is let in, and what the others are told.
#include "system/systemtest.h"

using namespace orx;

using testing::MatchesRegex;

const std::string kForbidden = "RTSP/1.0 403 Forbidden\r\nCSeq: #\r\n\r\n";

struct AuthTest : SystemTest {
    void StartWith(const std::string &authType, const std::string &path = "/cam")
    {
        server.Set("SERVER", "AuthType", authType);
        server.Set("USERS",
                   "SuperUser=root\nSuperPwd=rootpw\nNumUsers=2\nUserName0=ann\nUserPwd0=annpw\n"
                   "UserName1=bob\nUserPwd1=bobpw\nUserLevel1=1");
        StartCamera(CameraSdp(3), path);
        Connect(&player);
    }
    // The status that a player with these credentials ends up with.
    int Try(const char *szUser, const char *szPassword, const char *szPath = "/cam")
    {
        RtspClient client;
        client.user = szUser;
        client.password = szPassword;
        RtspMessage reply;
        Connect(&client, szPath);
        RtspDescribe(&client, &reply);
        return reply.nStatus;
    }
};

TEST_F(AuthTest, ChallengesUntilThePasswordIsRight)
{
    StartWith("1");
    const std::string challenge = Reply("401 Unauthorized", "WWW-Authenticate: Basic realm=\"Orx\"\r\n");
    EXPECT_EQ(challenge, Ask(&player, "DESCRIBE"));
    EXPECT_EQ(challenge, Ask(&player, "DESCRIBE", "", "Authorization: Digest username=\"ann\"\r\n"));
    EXPECT_EQ(challenge, Ask(&player, "QUICKPLAY"));
    EXPECT_THAT(Ask(&player, "DESCRIBE", "", "Authorization: Basic YW5uOmFubnB3\r\n"), kIsOk);  // ann:annpw
    EXPECT_EQ(200, Try("root", "rootpw"));
    EXPECT_EQ(403, Try("root", "annpw"));
    EXPECT_EQ(404, Try("ann", "annpw", "/other"));
    for (const char *szMethod : {"QUICKPLAY", "DESCRIBE"}) {
        uint64_t nStart = RtspNowUs();
        Connect(&player);
        EXPECT_EQ(kForbidden, Ask(&player, szMethod, "", "Authorization: Basic YW5uOndyb25n\r\n"));  // ann:wrong
        EXPECT_EQ(1, RtspWaitClosed(&player));
        EXPECT_EQ(szMethod[0] == 'D', RtspNowUs() - nStart > 1900000U) << "a while later";
    }
}

TEST_F(AuthTest, DigestStaysTheSame)
{
    StartWith("2");
    std::string challenge = Ask(&player, "DESCRIBE");
    EXPECT_THAT(challenge, MatchesRegex("RTSP/1.0 401 Unauthorized\r\n" + kServerLine +
                                        "CSeq: #\r\nWWW-Authenticate: Digest realm=\"Orx\", "
                                        "nonce=\"[0-9a-f]+\"\r\n\r\n"));
    EXPECT_EQ(challenge, Ask(&player, "DESCRIBE", "", "Authorization: Basic YW5uOmFubnB3\r\n"));
    EXPECT_EQ(200, Try("ann", "annpw"));
    EXPECT_EQ(403, Try("ann", "ANNPW"));
}

// Whoever is asked for a password goes on being asked for that of the program that the session found then. A
// stranger's program, whose path is nearer to the URL by now, has no say with the accounts that it brought.
TEST_F(AuthTest, AccountsAreThoseOfTheProgramHeld)
{
    StartWith("1", "/ch01-s1");
    const std::string planted = "[USERS]\nSuperUser=evil\nSuperPwd=evilpw\n[X]\n";
    RtspClient stranger, subscriber;
    for (RtspClient *pClient : {&player, &subscriber}) {
        Connect(pClient, "/ch01");
        EXPECT_THAT(Ask(pClient, "DESCRIBE"), testing::HasSubstr(" 401 "));
    }
    ASSERT_EQ(1, RtspOpenPusher(&stranger, server.Url("/ch01").c_str(), CameraSdp(3)));
    Send(&stranger, MakeRequest("PUTCAMCFG", "*", ++stranger.nCSeq, kPlain, planted));
    ASSERT_TRUE(Answers(&stranger));
    EXPECT_EQ(kForbidden, Ask(&player, "DESCRIBE", "", "Authorization: Basic ZXZpbDpldmlscHc=\r\n"));  // evil:evilpw
    EXPECT_EQ(Refused("401 Unauthorized"), Ask(&subscriber, "SUBSCRIBE", "", UserHeaders("evil", "evilpw")));
    EXPECT_EQ(200, Try("evil", "evilpw", "/ch01")) << "his own program is his";
    EXPECT_EQ(403, Try("root", "rootpw", "/ch01"));
}

// A listed user whose list lacks the program is as good as a stranger, whom an empty password may let in.
TEST_F(AuthTest, LimitsUsersToTheirPrograms)
{
    server.Set("SERVER", "ControlUsers=1\nEnableAnonymousViewer=1");
    server.Set("USERCTRL", "UserDevList0=door,cam\nUserDevList1=door");
    StartWith("1");
    static const struct {
        const char *szUser, *szPassword;
        int nStatus;
    } cases[] = {{"root", "rootpw", 200}, {"ann", "annpw", 200}, {"bob", "bobpw", 403},
                 {"anybody", "", 200},    {"bob", "", 200},      {"root", "", 403}};
    for (const auto &c : cases)
        EXPECT_EQ(c.nStatus, Try(c.szUser, c.szPassword)) << c.szUser << c.szPassword;
}
