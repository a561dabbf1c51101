// Who is let in, and what the others are told.
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "client/rtspauth.h"
#include "system/orxprocess.h"

namespace orx {
namespace {

using testing::HasSubstr;
using testing::StartsWith;

struct AuthTest : SystemTest {
    RtspClient pusher, player;

    void StartWith(const std::string &authType, bool bUsers = true)
    {
        server.Set("SERVER", "AuthType", authType);
        if (bUsers)
            SetUsers();
        server.Start();
        ASSERT_EQ(1, RtspConnect(&pusher, server.Url("/cam").c_str()));
        ASSERT_EQ(1, RtspAnnounce(&pusher, CameraSdp()));
    }
    void SetUsers()
    {
        server.Set("USERS", "SuperUser", "root");
        server.Set("USERS", "SuperPwd", "rootpw");
        server.Set("USERS", "NumUsers", "2");
        server.Set("USERS", "UserName0", "ann");
        server.Set("USERS", "UserPwd0", "annpw");
        server.Set("USERS", "UserName1", "bob");
        server.Set("USERS", "UserPwd1", "bobpw");
        server.Set("USERS", "UserLevel1", "1");
    }
    void Connect()
    {
        RtspClose(&player);
        ASSERT_EQ(1, RtspConnect(&player, server.Url("/cam").c_str()));
    }
    std::string Describe(int nCSeq, const std::string &headers = "", const std::string &method = "DESCRIBE")
    {
        return Exchange(&player, MakeRequest(method, server.Url("/cam"), nCSeq, headers));
    }
    // The status that a player with these credentials ends up with.
    int Try(const std::string &user, const std::string &password, const std::string &path = "/cam")
    {
        RtspClient client;
        client.user = user;
        client.password = password;
        RtspMessage reply;
        if (!RtspConnect(&client, server.Url(path).c_str()))
            return -1;
        RtspDescribe(&client, &reply);
        return reply.nStatus;
    }
};

// "ann:annpw", "ann:wrong"
const char *const kAnn = "Authorization: Basic YW5uOmFubnB3\r\n";
const char *const kWrong = "Authorization: Basic YW5uOndyb25n\r\n";

std::string Challenge(int nCSeq, const std::string &line)
{
    return "RTSP/1.0 401 Unauthorized\r\n" + kServerLine + "CSeq: " + std::to_string(nCSeq) + "\r\n" + line +
           "\r\n\r\n";
}

TEST_F(AuthTest, ChallengesUntilThePasswordIsRight)
{
    StartWith("1");
    Connect();
    const std::string basic = "WWW-Authenticate: Basic realm=\"Orx\"";
    EXPECT_EQ(Challenge(1, basic), Describe(1));
    EXPECT_EQ(Challenge(2, basic), Describe(2, "Authorization: Digest username=\"ann\"\r\n"));
    EXPECT_EQ(Challenge(3, basic), Describe(3, "", "QUICKPLAY"));
    EXPECT_THAT(Describe(4, kAnn), StartsWith("RTSP/1.0 200 OK"));
}

TEST_F(AuthTest, ForbidsAndClosesAWhileLater)
{
    StartWith("1");
    Connect();
    uint64_t nStart = RtspNowUs();
    EXPECT_EQ("RTSP/1.0 403 Forbidden\r\nCSeq: 5\r\n\r\n", Describe(5, kWrong));
    ASSERT_EQ(1, RtspWaitClosed(&player));
    EXPECT_GT(RtspNowUs() - nStart, 1900000U);

    Connect();
    nStart = RtspNowUs();
    EXPECT_EQ("RTSP/1.0 403 Forbidden\r\nCSeq: 5\r\n\r\n", Describe(5, kWrong, "QUICKPLAY"));
    ASSERT_EQ(1, RtspWaitClosed(&player));
    EXPECT_LT(RtspNowUs() - nStart, 1900000U) << "at once";
}

TEST_F(AuthTest, DigestStaysTheSame)
{
    StartWith("2");
    Connect();
    std::string first = Describe(1);
    RtspMessage reply;
    ASSERT_GT(RtspParse(first.data(), first.size(), &reply), 0);
    const char *szLine = RtspFindHeader(&reply, "WWW-Authenticate");
    ASSERT_NE(nullptr, szLine);
    EXPECT_THAT(szLine, StartsWith("Digest realm=\"Orx\", nonce=\""));
    EXPECT_EQ(Challenge(1, "WWW-Authenticate: " + std::string(szLine)), first);
    EXPECT_EQ(Challenge(2, "WWW-Authenticate: " + std::string(szLine)), Describe(2, kAnn));
    EXPECT_EQ(200, Try("ann", "annpw"));
    EXPECT_EQ(403, Try("ann", "ANNPW"));
    EXPECT_EQ(403, Try("annpw", "ann"));
    EXPECT_EQ(401, Try("", ""));
}

TEST_F(AuthTest, FindsAccountsInTheConfiguration)
{
    StartWith("1");
    EXPECT_EQ(200, Try("root", "rootpw"));
    EXPECT_EQ(200, Try("bob", "bobpw"));
    EXPECT_EQ(403, Try("root", "annpw"));
    EXPECT_EQ(403, Try("eve", ""));
    EXPECT_EQ(403, Try("UserName0", "annpw"));
    EXPECT_EQ(404, Try("ann", "annpw", "/other"));
}

TEST_F(AuthTest, LimitsUsersToTheirPrograms)
{
    server.Set("SERVER", "ControlUsers", "1");
    server.Set("USERCTRL", "UserDevList0", "door,cam");
    server.Set("USERCTRL", "UserDevList1", "door");
    StartWith("1");
    EXPECT_EQ(200, Try("root", "rootpw"));
    EXPECT_EQ(200, Try("ann", "annpw"));
    EXPECT_EQ(403, Try("bob", "bobpw"));
}

// A listed user whose list lacks the program is as good as a stranger.
TEST_F(AuthTest, LetsAnonymousViewersInWithoutAPassword)
{
    server.Set("SERVER", "ControlUsers", "1");
    server.Set("SERVER", "EnableAnonymousViewer", "1");
    StartWith("1");
    EXPECT_EQ(200, Try("anybody", ""));
    EXPECT_EQ(200, Try("bob", ""));
    EXPECT_EQ(403, Try("bob", "bobpw"));
    EXPECT_EQ(403, Try("root", ""));
}

TEST_F(AuthTest, NoSuperUserWithoutAName)
{
    server.Set("USERS", "NumUsers", "1");
    server.Set("USERS", "SuperUser", "");
    server.Set("USERS", "SuperPwd", "");
    server.Set("USERS", "UserName0", "");
    server.Set("USERS", "UserPwd0", "");
    StartWith("1", false);
    Connect();
    EXPECT_EQ("RTSP/1.0 403 Forbidden\r\nCSeq: 1\r\n\r\n",
              Describe(1, "Authorization: Basic Og==\r\n"));  // ":"
}

TEST(AuthType, CustomDoesNotStart)
{
    OrxProcess server;
    server.Set("SERVER", "AuthType", "3");
    server.Launch();
    EXPECT_NE(-1, server.WaitExit());
    EXPECT_THAT(server.Output(), HasSubstr("AuthType 3"));
    EXPECT_EQ(0, CountText(server.Output(), "Server started"));
}

}  // namespace
}  // namespace orx
