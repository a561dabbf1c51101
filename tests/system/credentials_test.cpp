// What wrong passwords cost who shows them, and for whom and how long a Digest challenge is good. The server
// runs inside the test, so that its clock can be moved.
#include <unistd.h>

#include <memory>
#include <utility>

#include "server/core/registry.h"
#include "server/core/settings.h"
#include "server/methods/auth.h"
#include "system/localserver.h"
#include "system/systemtest.h"

using namespace orx;

struct CredentialsTest : testing::Test {
    std::unique_ptr<LocalServer> server;
    RtspClient pusher;
    const std::string right = UserHeaders("root", "rootpw"), wrong = UserHeaders("root", "guess");
    uint32_t nClockMs = 0;

    void Start(const std::string &guard, unsigned nAuthType)
    {
        server = std::make_unique<LocalServer>("[USERS]\nSuperUser=root\nSuperPwd=rootpw\n[GUARD]\n" + guard + "\n");
        server->server.Run([=] { g_settings.nAuthType = nAuthType; });
        ASSERT_EQ(1, RtspOpenPusher(&pusher, server->Url("/cam").c_str(), CameraSdp(3)));
    }
    void Connect(RtspClient *pClient, const std::string &from)
    {
        RtspClose(pClient);
        pClient->sourceIp = from;
        pClient->nCSeq = 0;
        ASSERT_EQ(1, RtspConnect(pClient, server->Url("/cam").c_str()));
    }
    // Sends a request whose answer is to wait, and others behind it: none is answered while others are.
    void SendAndWait(RtspClient *pClient, const std::string &method, const std::string &headers,
                     const std::string &body = "", int nLast = 9)
    {
        std::string text = MakeRequest(method, server->Url("/cam"), 8, headers, body);
        for (int i = 9; i <= nLast; i++)
            text += Options(i);
        ASSERT_EQ(1, RtspSendBytes(pClient, text.data(), text.size()));
        RtspClient other;
        Connect(&other, "127.0.0.99");
        for (int i = 0; i < 3; i++)
            ASSERT_TRUE(Answers(&other));
        RtspPoll(pClient);
        EXPECT_TRUE(pClient->inbox.empty() && !pClient->bClosed) << method;
    }
    void PassTime(uint32_t nMs) { server->MoveClock(nClockMs += nMs); }
    static int NextStatus(RtspClient *pClient)
    {
        RtspMessage reply;
        return RtspWaitReply(pClient, 0, &reply) ? reply.nStatus : -1;
    }
};

// From the third on they wait, over all connections of an address together; whoever else asks does not.
TEST_F(CredentialsTest, WrongOnesWait)
{
    Start("AuthFailDelay=2000", AUTH_BASIC);
    static const struct {
        const char *szMethod, *szHeaders, *szBody;
        int nStatus;
    } cases[] = {
        {"DESCRIBE", "Authorization: Basic cm9vdDpndWVzcw==\r\n", "", 403},  // root:guess
        {"QUICKPLAY", "Authorization: Basic cm9vdDpndWVzcw==\r\n", "", 403},
        {"SUBSCRIBE", wrong.c_str(), "", 401},
        {"GETPLAYLIST", wrong.c_str(), "", 401},
        {"GETCFGDIRECT", wrong.c_str(), "", 401},
        {"SETCFGDIRECT", wrong.c_str(), "x", 401},
    };
    RtspClient first, second;
    int nHost = 10;
    for (const auto &c : cases) {
        SCOPED_TRACE(c.szMethod);
        const std::string from = "127.0.0." + std::to_string(nHost++);
        Connect(&first, from);
        Connect(&second, from);
        for (int i = 0; i < 2; i++) {
            EXPECT_THAT(Ask(&first, "GETPLAYLIST", "", wrong), testing::HasSubstr(" 401 "));
            EXPECT_THAT(Ask(&first, "GETPLAYLIST"), testing::HasSubstr(" 401 ")) << "a missing one is no guess";
        }
        EXPECT_TRUE(Answers(&second)) << "what needs no password does not wait";
        SendAndWait(&second, c.szMethod, c.szHeaders, c.szBody);
        PassTime(2100);
        EXPECT_EQ(c.nStatus, NextStatus(&second));
        // the third of this connection ends it, and what was sent behind it is not answered
        SendAndWait(&first, c.szMethod, c.szHeaders, c.szBody);
        PassTime(4100);
        EXPECT_EQ(c.nStatus, NextStatus(&first));
        EXPECT_EQ(1, RtspWaitClosed(&first));
        EXPECT_TRUE(first.inbox.empty());
    }
}

// A right one waits as well, or its speed would tell it from a wrong one, and then ends the count.
TEST_F(CredentialsTest, RightOneEndsTheCount)
{
    Start("AuthFailDelay=2000", AUTH_DIGEST);
    RtspClient guesser, owner;
    Connect(&guesser, "127.0.0.10");
    Send(&guesser, MakeRequest("GETPLAYLIST", "*", 1, wrong) + MakeRequest("GETPLAYLIST", "*", 2, wrong) +
                       MakeRequest("GETPLAYLIST", "*", 3, wrong));
    EXPECT_EQ(401, NextStatus(&guesser));
    EXPECT_EQ(401, NextStatus(&guesser));
    Connect(&owner, "127.0.0.10");
    SendAndWait(&owner, "GETPLAYLIST", right, "", 1000);  // more than the session's buffer holds
    PassTime(2100);
    std::string list;
    ASSERT_EQ(1, RtspWaitBytes(&owner, 9, &list));
    EXPECT_EQ("PlayList:", list) << "before the answers to what came behind it";
    ExpectAnswers(&owner, 9, 1000);
    Connect(&owner, "127.0.0.10");
    EXPECT_THAT(Ask(&owner, "GETPLAYLIST", "", wrong), testing::HasSubstr(" 401 "));
    EXPECT_TRUE(Answers(&owner));
    // who serves others from the box itself is never slowed down
    Connect(&owner, "127.0.0.1");
    for (int i = 0; i < 5; i++)
        EXPECT_THAT(Ask(&owner, "GETPLAYLIST", "", wrong), testing::HasSubstr(" 401 "));
}

// Neither the wait nor its end needs the connections that asked.
TEST_F(CredentialsTest, WhoWaitsMayGo)
{
    Start("AuthFailDelay=2000", AUTH_BASIC);
    RtspClient guesser;
    for (int i = 0; i < 2; i++) {
        Connect(&guesser, "127.0.0.10");
        Ask(&guesser, "GETPLAYLIST", "", wrong);
    }
    Connect(&guesser, "127.0.0.10");
    SendAndWait(&guesser, "GETPLAYLIST", wrong);
    RtspReset(&guesser);
    // a tunnel loses its half of requests, then the other one; or both at once
    for (bool bWhole : {false, true}) {
        RtspClose(&guesser);
        ASSERT_EQ(1, RtspConnectTunnel(&guesser, server->Url("/cam").c_str()));
        SendAndWait(&guesser, "GETPLAYLIST", wrong);
        if (bWhole)
            RtspReset(&guesser);
        else
            close(std::exchange(guesser.fdPost, -1));
        ASSERT_TRUE(Answers(&pusher));
    }
    PassTime(8100);
    EXPECT_TRUE(Answers(&pusher));
}

TEST_F(CredentialsTest, StaleNonceIsRenewed)
{
    Start("FreshNonce=1\nAuthFailDelay=2000", AUTH_DIGEST);
    RtspClient player, other;
    player.user = other.user = "root";
    player.password = other.password = "rootpw";
    Connect(&player, "127.0.0.10");
    RtspMessage reply;
    ASSERT_EQ(1, RtspDescribe(&player));
    ASSERT_TRUE(player.bChallenged);
    Connect(&other, "127.0.0.12");
    other.challenge = player.challenge;
    other.bChallenged = 1;
    RtspSend(&other, "DESCRIBE", nullptr);
    EXPECT_EQ(401, NextStatus(&other)) << "given to somebody else";
    PassTime(65000);
    RtspChallenge old = player.challenge;
    for (int i = 0; i < 4; i++) {  // no failure, however often
        Connect(&player, "127.0.0.10");
        player.challenge = old;
        player.bChallenged = 1;
        RtspSend(&player, "DESCRIBE", nullptr);
        ASSERT_EQ(1, RtspWaitReply(&player, 0, &reply));
        EXPECT_EQ(401, reply.nStatus);
        EXPECT_THAT(reply.raw, testing::HasSubstr(", stale=true\r\n"));
    }
    ASSERT_EQ(1, RtspParseChallenge(RtspFindHeader(&reply, "WWW-Authenticate"), &player.challenge));
    EXPECT_EQ(1, RtspDescribe(&player, &reply));
    // what was admitted goes on, however old its answer
    ASSERT_TRUE(Answers(&pusher));  // who is silent for two minutes goes
    PassTime(65000);
    EXPECT_EQ(1, RtspSetup(&player, 0, RTSP_OVER_TCP));
    EXPECT_EQ(1, RtspPlay(&player));
}
