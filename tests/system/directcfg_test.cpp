// The administrator's methods, with the camera process at the other end of its message queue. The queue and
// the camera's program are in namespaces of this test's own.
#include <csignal>
#include <filesystem>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "support/cameraqueue.h"
#include "system/systemtest.h"

using namespace orx;

using testing::EndsWith;

const std::string kUnauthorized = Reply("401 Unauthorized"), kInternal = Reply("501 Internal error");

std::string UserToken(const std::string &user, const std::string &password)
{
    return "UserAuth: " + RtspUserToken(user, password) + "\r\n";
}

struct DirectCfgTest : SystemTest {
    // of this test alone, wherever it lies
    const std::string newCfg = std::string("[VIDEO]\r\nQuality=5\r\n\0%s", 22) + std::to_string(getpid());
    const std::string admin = UserToken("root", "rootpw");
    RtspClient client;

    void Start()
    {
        server.Set("USERS", "SuperUser=root\nSuperPwd=rootpw");
        server.Start();
        Connect(&client);
    }
    std::string GetCfg(const std::string &auth) { return Ask(&client, "GETCFGDIRECT", "*", auth); }
    std::string SetCfg(const std::string &auth, const std::string &text)
    {
        return Ask(&client, "SETCFGDIRECT", "*", auth, text);
    }
};

TEST_F(DirectCfgTest, ReadsTheServersConfiguration)
{
    Start();
    for (const std::string &auth :
         {std::string(), UserToken("root", "x"), "UserName: root\r\n" + UserToken("", "rootpw")})
        EXPECT_EQ(kUnauthorized, GetCfg(auth)) << auth;
    std::string text = ReadFile(server.ConfigPath());
    EXPECT_EQ(Reply("200 OK", kPlain + "Content-length: " + std::to_string(text.size()) + "\r\n") + text,
              GetCfg(admin));
    // longer than one block of the output queue, with any bytes in it
    text += "[A]\n" + std::string(150000, '\xff') + std::string(1, '\0');
    WriteFile(server.ConfigPath(), text);
    EXPECT_THAT(GetCfg(admin), EndsWith("\r\n\r\n" + text));
    // without a name there is no super user, whatever his password is
    for (const char *szUsers :
         {"[USERS]\nSuperUser=\nSuperPwd=\n", "[X]\nSuperUser=a\n", "[USERS]\nSuperUser=\nSuperPwd=p\n"}) {
        WriteFile(server.ConfigPath(), szUsers);
        for (const char *szUser : {"", "anonymous", "a"})
            for (const char *szPassword : {"", "p"}) {
                EXPECT_EQ(kUnauthorized, GetCfg(UserToken(szUser, szPassword))) << szUsers << szUser;
                EXPECT_EQ(kUnauthorized, SetCfg(UserToken(szUser, szPassword), newCfg)) << szUsers << szUser;
            }
    }
    WriteFile(server.ConfigPath(), "");
    EXPECT_EQ(kInternal, GetCfg(admin));
    EXPECT_EQ(kUnauthorized, SetCfg(admin, newCfg));
}

// A stand-in for the scanning tool, first in PATH, which finds a network once it is told to go on.
struct WifiTest : DirectCfgTest {
    const std::string path = getenv("PATH"), runs = server.dir.File("runs"), go = server.dir.File("go");
    const std::string list = "cafe [00:1A] 70/70 WEP\n\r\n\r\n";

    void SetUp() override
    {
        WriteFile(server.dir.File("iwlist"),
                  "#!/bin/sh\necho $$ >> " + runs + "\nread x < " + go +
                      "\necho ' Address: 00:1A'\necho ' Quality=70/70  x'\necho ' key:on'\necho ' ESSID:\"cafe\"'\n");
        std::filesystem::permissions(server.dir.File("iwlist"), std::filesystem::perms::owner_all);
        ASSERT_EQ(0, mkfifo(go.c_str(), 0600));
        setenv("PATH", (server.dir.path + ":" + path).c_str(), 1);
        server.Set("WIFI", "DevName", "wlan0");
    }
    void TearDown() override
    {
        setenv("PATH", path.c_str(), 1);
        DirectCfgTest::TearDown();
    }
    // Waits until the tool waits. Its word to go on is given when the result is closed.
    Sock ToolWaits() const
    {
        Sock told;
        EXPECT_TRUE(WaitFor([&] { return (told.fd = open(go.c_str(), O_WRONLY | O_NONBLOCK)) >= 0; }));
        return told;
    }
    int Runs() const { return CountText(ReadFile(runs), "\n"); }
    static void AskFor(RtspClient *pClient, int nCSeq = 1)
    {
        Send(pClient, MakeRequest("GETWIFIROUTERS", "*", nCSeq) + Options(nCSeq + 1));
    }
    void ExpectList(RtspClient *pClient) const
    {
        std::string text;
        EXPECT_EQ(1, RtspWaitBytes(pClient, list.size(), &text));
        EXPECT_EQ(list, text);
        EXPECT_EQ(2, NextAnswer(pClient)) << "behind it";
    }
};

// The scan takes as long as it takes, and nobody waits for it but those who asked; it ends with the server.
TEST_F(WifiTest, OneScanAnswersAllWhoAskMeanwhile)
{
    Start();
    RtspClient askers[3];
    for (RtspClient &asker : askers) {
        Connect(&asker);
        AskFor(&asker);
    }
    Sock told = ToolWaits();
    EXPECT_TRUE(Answers(&client));
    RtspClose(&askers[2]);
    server.Stat();
    told.Close();
    ExpectList(&askers[0]);
    ExpectList(&askers[1]);
    EXPECT_EQ(1, Runs());
    AskFor(&askers[0], 3);
    told = ToolWaits();
    EXPECT_EQ(0, server.Quit());
    EXPECT_EQ(2, Runs());
    const std::string pids = ReadFile(runs);
    EXPECT_TRUE(WaitFor([&] { return kill(std::stoi(pids.substr(pids.find('\n'))), 0) != 0; }));
}

TEST_F(WifiTest, AYoungListIsShownAgainWhereRolesAreStrict)
{
    server.Set("GUARD", "StrictRoles", "1");
    Start();
    AskFor(&client);
    ToolWaits();
    ExpectList(&client);
    for (RtspClient *pClient : {&player, &pusher}) {
        Connect(pClient);
        AskFor(pClient);
        ExpectList(pClient);
    }
    EXPECT_EQ(1, Runs());
}

struct CameraTest : DirectCfgTest {
    int nQueue = -1;

    void SetUp() override
    {
        if (!MakeCameraProgram())
            GTEST_SKIP() << "needs the right to make namespaces of message queues and mounts";
        Start();
    }
    void MakeCamera()
    {
        nQueue = msgget(ftok(kCameraProgram, 'a'), IPC_CREAT | 0666);
        ASSERT_GE(nQueue, 0);
    }
    std::string Command() const { return TakeCommand(nQueue, server.pid); }
    // The file that a new configuration lies in; "" when there is none.
    std::string FindNewCfg() const
    {
        for (const auto &entry : std::filesystem::directory_iterator("/tmp"))
            if (entry.path().extension() == ".cfg" && ReadFile(entry.path()) == newCfg)
                return entry.path();
        return "";
    }
    static std::string Control(const std::string &action, const std::string &param)
    {
        return "CAMCONTROL vdr_cif.sdp\r\nCamAction: " + action + "\r\nActionParam: " + param + "\r\n\r\n";
    }
};

TEST_F(CameraTest, GetsItsNewConfiguration)
{
    MakeCamera();
    for (const auto &[auth, text] : {std::pair{std::string(), newCfg}, {"", ""}, {UserToken("root", "x"), newCfg}})
        EXPECT_EQ(kUnauthorized, SetCfg(auth, text));
    EXPECT_EQ(Reply("400 Bad Request"), SetCfg(UserToken("root", "x"), ""));
    EXPECT_EQ("", Command()) << "it is refused before the queue is touched";
    EXPECT_EQ("", FindNewCfg());

    EXPECT_EQ(Reply("200 OK"), SetCfg(admin, newCfg));
    std::string path = FindNewCfg();
    EXPECT_EQ(Control("cfgfile", path), Command());
    struct stat info {};
    EXPECT_EQ(0, stat(path.c_str(), &info));
    EXPECT_EQ(0600U, info.st_mode & 0777) << "it may hold passwords";
    unlink(path.c_str());
    std::string command;
    EXPECT_TRUE(WaitFor([&] { return (command = Command()) == Control("reboot", "none"); })) << command;
    EXPECT_EQ("", Command());
    EXPECT_TRUE(server.WaitOutput("\r\n\r\n) = 0\r\n", 2));
    EXPECT_EQ(1, CountText(server.Output(), "MsgQueueId("));
}

TEST_F(CameraTest, IsNotThere)
{
    EXPECT_EQ(kInternal, SetCfg(admin, newCfg));
    EXPECT_TRUE(server.WaitOutput("errno=2(ENOENT)!\r\n"));
    // a camera that reads no more shows on the console only
    MakeCamera();
    msqid_ds info{};
    ASSERT_EQ(0, msgctl(nQueue, IPC_STAT, &info));
    info.msg_qbytes = 1000;
    ASSERT_EQ(0, msgctl(nQueue, IPC_SET, &info));
    EXPECT_EQ(Reply("200 OK"), SetCfg(admin, newCfg));
    EXPECT_TRUE(server.WaitOutput(" = -1\r\n", 2));
    EXPECT_EQ("", Command());
    EXPECT_EQ("", FindNewCfg()) << "nothing is left that nobody will ask for";
    std::filesystem::remove(kCameraProgram);
    EXPECT_EQ(kInternal, SetCfg(admin, newCfg));
    EXPECT_TRUE(server.WaitOutput("Creat Key for MsgQueue Error:No such file or directory\n"));
}
