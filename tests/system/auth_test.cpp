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
        for (const auto &[key, value] : {std::pair{"SuperUser", "root"},
                                         {"SuperPwd", "rootpw"},
                                         {"NumUsers", "2"},
                                         {"UserName0", "ann"},
                                         {"UserPwd0", "annpw"},
                                         {"UserName1", "bob"},
                                         {"UserPwd1", "bobpw"},
                                         {"UserLevel1", "1"}})
            server.Set("USERS", key, value);
        StartCamera(CameraSdp());
        Connect(&player);
    }
    // The status that each player with these credentials ends up with.
    struct Try {
        const char *szUser, *szPassword;
        int nStatus;
        const char *szPath = "/cam";
    };
    void Expect(const std::vector<Try> &tries)
    {
        for (const Try &t : tries) {
            RtspClient client;
            client.user = t.szUser;
            client.password = t.szPassword;
            RtspMessage reply;
            Connect(&client, t.szPath);
            RtspDescribe(&client, &reply);
            EXPECT_EQ(t.nStatus, reply.nStatus) << t.szUser << ":" << t.szPassword << t.szPath;
        }
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
    Expect({{"root", "rootpw", 200},
            {"bob", "bobpw", 200},
            {"root", "annpw", 403},
            {"eve", "", 403},
            {"UserName0", "annpw", 403},
            {"ann", "annpw", 404, "/other"}});
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
    Expect({{"ann", "annpw", 200}, {"ann", "ANNPW", 403}, {"annpw", "ann", 403}, {"", "", 401}});
}

// A listed user whose list lacks the program is as good as a stranger, whom an empty password may let in.
TEST_F(AuthTest, LimitsUsersToTheirPrograms)
{
    server.Set("SERVER", "ControlUsers", "1");
    server.Set("SERVER", "EnableAnonymousViewer", "1");
    server.Set("USERCTRL", "UserDevList0", "door,cam");
    server.Set("USERCTRL", "UserDevList1", "door");
    StartWith("1");
    Expect({{"root", "rootpw", 200},
            {"ann", "annpw", 200},
            {"bob", "bobpw", 403},
            {"anybody", "", 200},
            {"bob", "", 200},
            {"root", "", 403}});
}

TEST_F(AuthTest, NoUserWithoutAName)
{
    server.Set("SERVER", "AuthType", "1");
    server.Set("USERS", "NumUsers", "1");
    for (const char *szKey : {"SuperUser", "SuperPwd", "UserName0", "UserPwd0"})
        server.Set("USERS", szKey, "");
    StartCamera(CameraSdp());
    Connect(&player);
    EXPECT_EQ("RTSP/1.0 403 Forbidden\r\nCSeq: #\r\n\r\n",
              Ask(&player, "DESCRIBE", "", "Authorization: Basic Og==\r\n"));  // ":"
}

}  // namespace
}  // namespace orx
