// What waits for the disk, and who does not. The server runs inside the test, so that its disk thread can be
// held and its clock be moved.
#include <unistd.h>

#include <atomic>

#include "base/console.h"
#include "server/core/settings.h"
#include "server/methods/attempts.h"
#include "support/longrecording.h"
#include "system/localserver.h"
#include "system/systemtest.h"

using namespace orx;

// A disk that stalls until the end of the block.
struct Stall {
    DiskJob job;  // first
    DiskLane lane;
    std::atomic<bool> bBegun{false}, bOver{false};
    Stall()
    {
        job.pfnRun = [](DiskJob *pJob) {
            auto *p = reinterpret_cast<Stall *>(pJob);
            p->bBegun = true;
            while (!p->bOver)
                usleep(1000);
            return 1;
        };
        DiskPost(&lane, &job);
        EXPECT_TRUE(WaitFor([&] { return bBegun.load(); }));
    }
    ~Stall()
    {
        bOver = true;
        EXPECT_EQ(0U, DiskAwait(60000));
    }
    Stall(const Stall &) = delete;
    Stall &operator=(const Stall &) = delete;
};

struct DiskTest : testing::Test {
    LocalServer server{"EnableFilePrg=1\n[USERS]\nSuperUser=root\nSuperPwd=old\n[GUARD]\nAuthFailDelay=2000\n"};
    RtspClient client;

    void Connect(RtspClient *pClient)
    {
        pClient->sourceIp = "127.0.0.2";
        RtspClose(pClient);
        ASSERT_EQ(1, RtspConnect(pClient, server.Url("/cam").c_str()));
    }
    // Whether a password opens the list of programs.
    bool Opens(const std::string &password)
    {
        std::string reply;
        RtspClient asker;
        EXPECT_EQ(1, RtspConnect(&asker, server.Url("/cam").c_str()));
        RtspSend(&asker, "GETPLAYLIST", nullptr, UserHeaders("root", password).c_str());
        EXPECT_EQ(1, RtspWaitBytes(&asker, 9, &reply));
        return reply == "PlayList:";
    }
};

// Passwords, connections and the log go on; what needs a file waits by itself, and what came behind it too.
TEST_F(DiskTest, AStallHoldsUpWhoNeedsAFileAlone)
{
    const std::string config = server.server.dir.File("orx.cfg"), path = server.server.dir.File("orx.log");
    RtspClient registrar, admin;
    LogSetup(path.c_str(), 1);
    ASSERT_TRUE(Opens("old"));
    Connect(&registrar);
    Connect(&admin);
    std::string text = ReadFile(config);
    text.replace(text.find("=old"), 4, "=new");
    {
        Stall stall;
        WriteFile(config, text);
        server.MoveClock(600);
        EXPECT_TRUE(Opens("old")) << "what is held counts while nothing else is to be had";
        Send(&registrar, MakeRequest("REGISTER", "*", 1, "Guid: a\r\n") + Options(2));
        Send(&admin,
             MakeRequest("GETCFGDIRECT", "*", 1, "UserAuth: " + RtspUserToken("root", "new") + "\r\n") + Options(2));
        log("during the stall");
        Connect(&client);
        for (int i = 0; i < 3; i++)
            EXPECT_TRUE(Answers(&client));
        for (RtspClient *pWaiting : {&registrar, &admin}) {
            RtspPoll(pWaiting);
            EXPECT_TRUE(pWaiting->inbox.empty());
        }
        EXPECT_EQ(std::string::npos, ReadFile(path).find("during the stall"));
    }
    RtspMessage reply;
    ASSERT_EQ(1, RtspWaitReply(&registrar, 1, &reply));
    EXPECT_EQ("[GUID]\na=cam1001\nMaxRegisterId=1002\n", ReadFile(server.server.dir.File("guid.dat")));
    EXPECT_EQ(2, NextAnswer(&registrar));
    ASSERT_EQ(1, RtspWaitReply(&admin, 1, &reply));
    EXPECT_EQ(200, reply.nStatus);
    EXPECT_EQ(text, reply.body);
    EXPECT_TRUE(WaitFor([&] { return Opens("new"); }));
    EXPECT_TRUE(WaitFor([&] { return ReadFile(path).find("during the stall") != std::string::npos; }));
    unlink(config.c_str());
    EXPECT_TRUE(WaitFor([&] { return !Opens("new"); }));
    server.server.Stop();
    LogSetup("", 0);
}

// The answer has waited for the file, but for no wrong password.
TEST_F(DiskTest, GuessesAtARecordingCount)
{
    const std::string root = server.server.dir.path + "/";
    server.server.Run([&] {
        g_settings.nAuthType = 1;
        free(std::exchange(g_settings.szRecordPath, strdup(root.c_str())));
    });
    WriteLongRecording(root + "long.zmf", 10, 1);
    uint32_t nDelay = 0;
    for (int i = 0; i < 3; i++) {
        Connect(&client);
        Send(&client, MakeRequest("DESCRIBE", server.Url("/long.zmf"), 1, "Authorization: Basic cm9vdDpndWVzcw==\r\n"));
        EXPECT_TRUE(i == 2 || RtspWaitReply(&client, 1, nullptr));
    }
    EXPECT_TRUE(WaitFor([&] {
        server.server.Run([&] { nDelay = AttemptsDelay(INADDR_LOOPBACK + 1); });
        return nDelay > 0;
    }));
}
