// Who is let in, and what the others are told.
#include "system/systemtest.h"

namespace orx {
namespace {

// "ann:annpw", "ann:wrong"
const char *const kAnn = "Authorization: Basic YW5uOmFubnB3\r\n";
const char *const kWrong = "Authorization: Basic YW5uOndyb25n\r\n";

struct AuthTest : SystemTest {
    void StartWith(const std::string &authType)
    {
        server.Set("SERVER", "AuthType", authType);
        server.Set("USERS",
                   "SuperUser=root\nSuperPwd=rootpw\nNumUsers=2\nUserName0=ann\nUserPwd0=annpw\n"
                   "UserName1=bob\nUserPwd1=bobpw\nUserLevel1=1");
        StartCamera(CameraSdp());
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
    EXPECT_THAT(Ask(&player, "DESCRIBE", "", kAnn), kIsOk);
    EXPECT_EQ(200, Try("root", "rootpw"));
    EXPECT_EQ(200, Try("bob", "bobpw"));
    EXPECT_EQ(403, Try("root", "annpw"));
    EXPECT_EQ(403, Try("eve", ""));
    EXPECT_EQ(404, Try("ann", "annpw", "/other"));
    uint64_t nStart = 0;
    for (const char *szMethod : {"QUICKPLAY", "DESCRIBE"}) {
        nStart = RtspNowUs();
        Connect(&player);
        EXPECT_EQ("RTSP/1.0 403 Forbidden\r\nCSeq: #\r\n\r\n", Ask(&player, szMethod, "", kWrong));
        EXPECT_EQ(1, RtspWaitClosed(&player));
    }
    EXPECT_GT(RtspNowUs() - nStart, 1900000U) << "a while later";
}

TEST_F(AuthTest, DigestStaysTheSame)
{
    StartWith("2");
    std::string challenge = Ask(&player, "DESCRIBE");
    EXPECT_THAT(challenge, testing::MatchesRegex("RTSP/1.0 401 Unauthorized\r\n" + kServerLine +
                                                 "CSeq: #\r\nWWW-Authenticate: Digest realm=\"Orx\", "
                                                 "nonce=\"[0-9a-f]+\"\r\n\r\n"));
    EXPECT_EQ(challenge, Ask(&player, "DESCRIBE", "", kAnn));
    EXPECT_EQ(200, Try("ann", "annpw"));
    EXPECT_EQ(403, Try("ann", "ANNPW"));
    EXPECT_EQ(401, Try("", ""));
}

// A listed user whose list lacks the program is as good as a stranger, whom an empty password may let in.
TEST_F(AuthTest, LimitsUsersToTheirPrograms)
{
    server.Set("SERVER", "ControlUsers", "1");
    server.Set("SERVER", "EnableAnonymousViewer", "1");
    server.Set("USERCTRL", "UserDevList0", "door,cam");
    server.Set("USERCTRL", "UserDevList1", "door");
    StartWith("1");
    EXPECT_EQ(200, Try("root", "rootpw"));
    EXPECT_EQ(200, Try("ann", "annpw"));
    EXPECT_EQ(403, Try("bob", "bobpw"));
    EXPECT_EQ(200, Try("anybody", ""));
    EXPECT_EQ(200, Try("bob", ""));
    EXPECT_EQ(403, Try("root", ""));
}

TEST_F(AuthTest, NoUserWithoutAName)
{
    server.Set("SERVER", "AuthType", "1");
    server.Set("USERS", "NumUsers=1\nSuperUser=\nSuperPwd=\nUserName0=\nUserPwd0=");
    StartCamera(CameraSdp());
    Connect(&player);
    EXPECT_EQ("RTSP/1.0 403 Forbidden\r\nCSeq: #\r\n\r\n",
              Ask(&player, "DESCRIBE", "", "Authorization: Basic Og==\r\n"));  // ":"
}

}  // namespace
}  // namespace orx
