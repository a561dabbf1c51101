// The administrator's methods, with the camera process at the other end of its message queue and a stand-in
// for the scanning tool. The queue and the camera's program are in namespaces of this test's own.
#include <cstdint>
#include <cstring>
#include <string>

#include <sys/ipc.h>
#include <sys/msg.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/namespaces.h"
#include "system/orxprocess.h"

namespace orx {
namespace {

using testing::HasSubstr;
using testing::StartsWith;

const char kPusher[] = "/opt/app/bin/pusher";
const char kNewCfgText[] = "[VIDEO]\r\nQuality=5\r\n\0%s";

std::string Auth(const std::string &user, const std::string &password)
{
    return "UserAuth: " + RtspUserToken(user, password) + "\r\n";
}

// A reply of these methods: no cache lines.
std::string Short(const std::string &status, int nCSeq)
{
    return "RTSP/1.0 " + status + "\r\n" + kServerLine + "CSeq: " + std::to_string(nCSeq) + "\r\n\r\n";
}

struct DirectCfgTest : SystemTest {
    const std::string newCfg{kNewCfgText, sizeof(kNewCfgText) - 1};
    RtspClient client;
    const std::string admin = Auth("root", "rootpw");

    void Start()
    {
        server.Set("USERS", "SuperUser", "root");
        server.Set("USERS", "SuperPwd", "rootpw");
        server.Start();
        Connect();
    }
    void Connect()
    {
        RtspClose(&client);
        ASSERT_EQ(1, RtspConnect(&client, server.Url("/").c_str()));
    }
    std::string Ask(const std::string &method, const std::string &headers, const std::string &body = "")
    {
        return Exchange(&client, MakeRequest(method, "*", ++client.nCSeq, headers, body));
    }
};

TEST_F(DirectCfgTest, ReadsTheServersConfiguration)
{
    Start();
    EXPECT_EQ(Short("401 Unauthorized", 1), Ask("GETCFGDIRECT", ""));
    EXPECT_EQ(Short("401 Unauthorized", 2), Ask("GETCFGDIRECT", Auth("root", "x")));
    EXPECT_EQ(Short("401 Unauthorized", 3), Ask("GETCFGDIRECT", "UserName: root\r\n" + Auth("", "rootpw")));
    std::string text = ReadFile(server.ConfigPath());
    EXPECT_EQ("RTSP/1.0 200 OK\r\n" + kServerLine +
                  "CSeq: 4\r\nContent-Type: text/plain\r\nContent-length: " + std::to_string(text.size()) +
                  "\r\n\r\n" + text,
              Ask("GETCFGDIRECT", admin));
    // longer than one block of the output queue, with any bytes in it
    text += "[A]\n" + std::string(150000, '\xff') + std::string(1, '\0');
    WriteFile(server.ConfigPath(), text);
    EXPECT_THAT(Ask("GETCFGDIRECT", admin), testing::EndsWith("\r\n\r\n" + text));
    WriteFile(server.ConfigPath(), "");
    EXPECT_EQ(Short("501 Internal error", 6), Ask("GETCFGDIRECT", admin));
    EXPECT_EQ(Short("401 Unauthorized", 7), Ask("SETCFGDIRECT", admin, newCfg));
    ASSERT_EQ(0, unlink(server.ConfigPath().c_str()));
    EXPECT_EQ(Short("501 Internal error", 8), Ask("GETCFGDIRECT", admin));
    EXPECT_EQ(Short("401 Unauthorized", 9), Ask("SETCFGDIRECT", admin, newCfg));
}

TEST_F(DirectCfgTest, OpensToNobodyWithoutASuperUser)
{
    Start();
    for (const char *szUsers :
         {"[USERS]\nSuperPwd=\n", "[USERS]\nSuperUser=\nSuperPwd=\n", "[X]\nSuperUser=a\n"}) {
        WriteFile(server.ConfigPath(), szUsers);
        for (const char *szUser : {"", "anonymous", "a"}) {
            std::string reply = Ask("GETCFGDIRECT", Auth(szUser, ""));
            EXPECT_EQ(Short("401 Unauthorized", client.nCSeq), reply) << szUsers << szUser;
            reply = Ask("SETCFGDIRECT", Auth(szUser, ""), newCfg);
            EXPECT_EQ(Short("401 Unauthorized", client.nCSeq), reply) << szUsers << szUser;
        }
    }
    WriteFile(server.ConfigPath(), "[USERS]\nSuperPwd=p\n");
    EXPECT_THAT(Ask("GETCFGDIRECT", Auth("", "p")), StartsWith("RTSP/1.0 200")) << "a password is enough";
}

// Whoever has got the text and says nothing more is closed after five seconds; whoever goes on is not.
TEST_F(DirectCfgTest, ClosesWhoFallsSilent)
{
    Start();
    RtspClient busy;
    ASSERT_EQ(1, RtspConnect(&busy, server.Url("/").c_str()));
    Exchange(&busy, MakeRequest("GETCFGDIRECT", "*", ++busy.nCSeq, admin));
    Exchange(&busy, MakeRequest("OPTIONS", "*", ++busy.nCSeq));
    uint64_t nAsked = RtspNowUs();
    EXPECT_THAT(Ask("GETCFGDIRECT", admin), StartsWith("RTSP/1.0 200"));
    EXPECT_EQ(1, RtspWaitClosed(&client, 10000));
    EXPECT_GE(RtspNowUs() - nAsked, 4900000U);
    EXPECT_EQ(1, CountText(server.Output(), "Force Close Idle Connection on stocket 0x"));
    EXPECT_EQ(1, RtspPoll(&busy));
}

struct CameraTest : DirectCfgTest {
    int nQueue = -1;

    void SetUp() override
    {
        if (!EnterNamespaces(CLONE_NEWIPC | CLONE_NEWNS) || !MountEmpty("/opt"))
            GTEST_SKIP() << "needs the right to make namespaces of message queues and mounts";
        Start();
    }
    void TearDown() override
    {
        if (server.pid > 0)
            DirectCfgTest::TearDown();
    }
    void MakeCamera()
    {
        std::filesystem::create_directories("/opt/app/bin");
        WriteFile(kPusher, "");
        nQueue = msgget(ftok(kPusher, 'a'), IPC_CREAT | 0666);
        ASSERT_GE(nQueue, 0);
    }
    // The next command to the camera, as the text up to its end; "" when there is none.
    std::string Command()
    {
        struct {
            long nType;
            int32_t nSender;
            char text[1028];
        } msg{};
        if (msgrcv(nQueue, &msg, 1032, 1, IPC_NOWAIT) != 1032)
            return "";
        EXPECT_EQ(server.pid, msg.nSender);
        size_t nText = strlen(msg.text);
        for (size_t i = nText; i < sizeof(msg.text); i++)
            EXPECT_EQ('\0', msg.text[i]);
        return msg.text;
    }
    static std::string Control(const std::string &action, const std::string &param)
    {
        return "CAMCONTROL vdr_cif.sdp\r\nCamAction: " + action + "\r\nActionParam: " + param + "\r\n\r\n";
    }
};

// Where new configurations of the camera lie; the files that came since.
std::string FindNewCfg(const std::string &text)
{
    for (const auto &entry : std::filesystem::directory_iterator("/tmp")) {
        std::string path = entry.path();
        std::error_code error;
        if (path.rfind("/tmp/orx", 0) == 0 && entry.path().extension() == ".cfg" &&
            entry.file_size(error) == text.size() && ReadFile(path) == text)
            return path;
    }
    return "";
}

TEST_F(CameraTest, GetsItsNewConfiguration)
{
    MakeCamera();
    EXPECT_EQ(Short("200 OK", 1), Ask("SETCFGDIRECT", admin, newCfg));
    std::string command = Command();
    const std::string before = "ActionParam: ";
    size_t nAt = command.find(before) + before.size();
    std::string path = command.substr(nAt, command.find('\r', nAt) - nAt);
    EXPECT_EQ(Control("cfgfile", path), command);
    EXPECT_THAT(path, testing::EndsWith(".cfg"));
    EXPECT_EQ(newCfg, ReadFile(path));
    struct stat info {};
    EXPECT_EQ(0, stat(path.c_str(), &info));
    EXPECT_EQ(0600U, info.st_mode & 0777) << "it may hold passwords";
    unlink(path.c_str());
    EXPECT_TRUE(WaitFor([&] { return (command = Command()) == Control("reboot", "none"); })) << command;
    EXPECT_EQ("", Command());
    EXPECT_EQ(1, CountText(server.Output(), "MsgQueueId("));
    EXPECT_EQ(2, CountText(server.Output(), "\r\n\r\n) = 0\r\n"));
}

TEST_F(CameraTest, RefusesBeforeItTouchesTheQueue)
{
    MakeCamera();
    EXPECT_EQ(Short("401 Unauthorized", 1), Ask("SETCFGDIRECT", "", newCfg));
    EXPECT_EQ(Short("401 Unauthorized", 2), Ask("SETCFGDIRECT", ""));
    EXPECT_EQ(Short("400 Bad Request", 3), Ask("SETCFGDIRECT", Auth("root", "x")));
    EXPECT_EQ(Short("401 Unauthorized", 4), Ask("SETCFGDIRECT", Auth("root", "x"), newCfg));
    EXPECT_EQ("", Command());
    EXPECT_EQ("", FindNewCfg(newCfg));
}

TEST_F(CameraTest, IsNotThere)
{
    EXPECT_EQ(Short("501 Internal error", 1), Ask("SETCFGDIRECT", admin, newCfg));
    EXPECT_THAT(server.Output(), HasSubstr("Creat Key for MsgQueue Error:No such file or directory\n"));
    MakeCamera();
    ASSERT_EQ(0, msgctl(nQueue, IPC_RMID, nullptr));
    EXPECT_EQ(Short("501 Internal error", 2), Ask("SETCFGDIRECT", admin, newCfg));
    EXPECT_THAT(server.Output(), HasSubstr("errno=2(ENOENT)!\r\n"));
    EXPECT_EQ("", FindNewCfg(newCfg)) << "nothing is left behind";
    MakeCamera();
    EXPECT_EQ(Short("200 OK", 3), Ask("SETCFGDIRECT", admin, newCfg)) << "and there it is";
    unlink(FindNewCfg(newCfg).c_str());
}

// A camera that reads no more shows on the console only.
TEST_F(CameraTest, HasAFullQueue)
{
    MakeCamera();
    msqid_ds info{};
    ASSERT_EQ(0, msgctl(nQueue, IPC_STAT, &info));
    info.msg_qbytes = 1000;
    ASSERT_EQ(0, msgctl(nQueue, IPC_SET, &info));
    EXPECT_EQ(Short("200 OK", 1), Ask("SETCFGDIRECT", admin, newCfg));
    EXPECT_TRUE(server.WaitOutput(" = -1\r\n", 2));
    EXPECT_EQ("", FindNewCfg(newCfg)) << "a file that nobody will ask for";
    EXPECT_EQ("", Command());
}

struct WifiTest : DirectCfgTest {
    // The scan keeps its files where every other server on the machine does.
    void SetUp() override
    {
        if (!EnterNamespaces(CLONE_NEWNS) || !MountEmpty("/mnt"))
            GTEST_SKIP() << "needs the right to make namespaces of mounts";
        std::filesystem::create_directory("/mnt/ramdisk0");
    }
    void TearDown() override
    {
        if (server.pid > 0)
            DirectCfgTest::TearDown();
    }
    // Puts a stand-in for the scanning tool first in PATH.
    void StandIn(const std::string &script)
    {
        std::string folder = server.dir.File("path");
        std::filesystem::create_directories(folder);
        WriteFile(folder + "/iwlist", "#!/bin/sh\n" + script);
        ASSERT_EQ(0, chmod((folder + "/iwlist").c_str(), 0755));
        server.SetEnvironment("PATH", folder + ":" + getenv("PATH"));
    }
    // What comes back, which is no RTSP message, up to the end of the connection.
    std::string Networks()
    {
        std::string request = MakeRequest("GETWIFIROUTERS", "*", ++client.nCSeq), all, one;
        RtspSendRaw(&client, request.data(), request.size());
        while (all.size() < 4 || all.compare(all.size() - 4, 4, "\r\n\r\n") != 0) {
            if (!RtspWaitBytes(&client, 1, &one))
                return all + "(no end)";
            all += one;
        }
        return all;
    }
};

TEST_F(WifiTest, ListsTheNetworks)
{
    StandIn(
        "echo \"$0 $*\" > \"${0%/*}/called\"\n"
        "printf '  Cell 01 - Address: 00:1D:0F:12:34:56\\n ESSID:\"garage\"\\n Quality=58/70  Signal\\n'\n"
        "printf ' Encryption key:on\\n'\n");
    server.Set("WIFI", "DevName", "wlan0; touch x");
    Start();
    EXPECT_EQ("garage [00:1D:0F:12:34:56] 58/70 WEP\n\r\n\r\n", Networks());
    EXPECT_THAT(ReadFile(server.dir.File("path/called")), HasSubstr("iwlist wlan0; touch x scan\n"));
    EXPECT_EQ("garage [00:1D:0F:12:34:56] 58/70 WEP\n\r\n\r\n", Networks());
    EXPECT_THAT(Ask("OPTIONS", ""), StartsWith("RTSP/1.0 200 OK"));
}

// More than one block of the output queue holds.
TEST_F(WifiTest, ListsVeryMany)
{
    StandIn(
        "i=0; while [ $i -lt 900 ]; do\n"
        "printf '  Cell - Address: 00:1D:0F:12:34:56\\n ESSID:\"%0100d\"\\n Quality=58/70  S\\n "
        "Encryption key:off\\n' $i\n"
        "i=$((i+1)); done\n");
    server.Set("WIFI", "DevName", "wlan0");
    Start();
    std::string list = Networks();
    EXPECT_GT(list.size(), 65536U);
    EXPECT_EQ(900, CountText(list, " [00:1D:0F:12:34:56] 58/70 OPEN\n"));
    EXPECT_THAT(list, testing::EndsWith("899 [00:1D:0F:12:34:56] 58/70 OPEN\n\r\n\r\n"));
}

TEST_F(WifiTest, HasNothingToList)
{
    StandIn("exit 1\n");
    Start();
    EXPECT_EQ("NULL\r\n\r\n", Networks());
    EXPECT_EQ(1, CountText(server.Output(), "GetWifiRouters() DevName is empty!\n"));
    WriteFile(server.ConfigPath(), "[WIFI]\nDevName=wlan0\n");
    EXPECT_EQ("NULL\r\n\r\n", Networks());
    EXPECT_EQ(1, CountText(server.Output(), "DevName is empty"));
    EXPECT_EQ(1, RtspWaitClosed(&client, 10000)) << "closed like an idle connection";
    EXPECT_EQ(1, CountText(server.Output(), "Force Close Idle Connection on stocket 0x"));
}

}  // namespace
}  // namespace orx
