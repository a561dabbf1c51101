#include "bridge/cgipush.h"

#include <cstdlib>
#include <cstring>
#include <iterator>
#include <memory>
#include <string>

#include <sys/ipc.h>
#include <sys/msg.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/files.h"
#include "support/namespaces.h"

namespace orx {
namespace {

using namespace std::string_literals;
using testing::HasSubstr;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

const char kPusher[] = "/opt/app/bin/pusher";

// A message as the camera process knows it.
struct WireMsg {
    long nType = 0;
    char bytes[1032] = "";

    int32_t Sender() const
    {
        int32_t nSender;
        memcpy(&nSender, bytes, sizeof(nSender));
        return nSender;
    }
    const char *Text() const { return bytes + 4; }
    void SetText(const std::string &text) { text.copy(bytes + 4, sizeof(bytes) - 4); }
};

// Queues of its own and an empty camera program for their key.
struct CgiPushTest : testing::Test {
    int nQueue = -1;

    void SetUp() override
    {
        if (!EnterNamespaces(CLONE_NEWIPC | CLONE_NEWNS) || !MountEmpty("/opt"))
            GTEST_SKIP() << "needs the right to make namespaces of message queues and mounts";
        std::filesystem::create_directories("/opt/app/bin");
        WriteFile(kPusher, "");
    }
    void TearDown() override { CgiPushClose(); }

    void Open()
    {
        CaptureStdout();
        nQueue = CgiPushOpen(1);
        std::string key = std::to_string(ftok(kPusher, 97));
        ASSERT_EQ("MsgQueueId(key=" + key + ") = " + std::to_string(nQueue) + "\r\n", GetCapturedStdout());
        ASSERT_GE(nQueue, 0);
    }
    size_t Waiting() const
    {
        msqid_ds info{};
        EXPECT_EQ(0, msgctl(nQueue, IPC_STAT, &info));
        return info.msg_qnum;
    }
    // Leaves room for nBytes in the queue.
    void Limit(size_t nBytes) const
    {
        msqid_ds info{};
        ASSERT_EQ(0, msgctl(nQueue, IPC_STAT, &info));
        info.msg_qbytes = nBytes;
        ASSERT_EQ(0, msgctl(nQueue, IPC_SET, &info));
    }
    void Answer(pid_t nPid, const std::string &text, size_t nBytes = 1032) const
    {
        WireMsg msg;
        msg.nType = nPid;
        msg.SetText(text);
        ASSERT_EQ(0, msgsnd(nQueue, &msg, nBytes, IPC_NOWAIT));
    }
    // The oldest message to the camera, or one without a type.
    WireMsg Take() const
    {
        WireMsg msg;
        msgrcv(nQueue, &msg, sizeof(msg.bytes), 1, IPC_NOWAIT);
        return msg;
    }
};

// What an operation prints; its result goes into *pResult.
template <typename Operation>
std::string Printed(int *pResult, Operation operation)
{
    CaptureStdout();
    *pResult = operation();
    return GetCapturedStdout();
}

TEST_F(CgiPushTest, Opens)
{
    int nResult = 0;
    auto open = [] { return CgiPushOpen(0); };
    auto make = [] { return CgiPushOpen(1); };
    std::string key = "key=" + std::to_string(ftok(kPusher, 97));

    unlink(kPusher);
    EXPECT_EQ("Creat Key for MsgQueue Error:No such file or directory\n", Printed(&nResult, make));
    EXPECT_EQ(-1, nResult);
    WriteFile(kPusher, "");
    key = "key=" + std::to_string(ftok(kPusher, 97));
    EXPECT_EQ("Creat MessageQ(" + key + ") errno=2(ENOENT)!\r\n", Printed(&nResult, open));
    EXPECT_EQ(-1, nResult);
    if (WriteProc("/proc/sys/kernel/msgmni", "0")) {
        EXPECT_EQ("Creat MessageQ(" + key + ") errno=28(ENOSPC)!\r\n", Printed(&nResult, make));
        EXPECT_TRUE(WriteProc("/proc/sys/kernel/msgmni", "100"));
    }

    std::string made = Printed(&nResult, make);
    EXPECT_EQ("MsgQueueId(" + key + ") = " + std::to_string(nResult) + "\r\n", made);
    int nMade = nResult;
    EXPECT_EQ(made, Printed(&nResult, open));
    EXPECT_EQ(nMade, nResult);
    msqid_ds info{};
    ASSERT_EQ(0, msgctl(nMade, IPC_STAT, &info));
    EXPECT_EQ(0666, info.msg_perm.mode & 0777);

    CgiPushClose();
    EXPECT_EQ(0, msgctl(nMade, IPC_STAT, &info));  // the camera may still be using it
    EXPECT_EQ(-1, CgiPushControl("reboot", nullptr, nullptr));

    EXPECT_EQ(nMade, CgiPushOpen(0));
    unlink(kPusher);
    EXPECT_EQ(-1, CgiPushOpen(0));
    EXPECT_EQ(-1, CgiPushControl("reboot", nullptr, nullptr));  // the handle of before is gone, too
}

TEST_F(CgiPushTest, Commands)
{
    Open();
    const std::string longest(1023 - strlen("CAMCONTROL s\r\nCamAction: a\r\nActionParam: \r\n\r\n"), 'p');
    const std::string tooLong(1024, 'x');
    const struct {
        int bRequest;
        const char *szAction, *szParam, *szStream;
        std::string text;  // empty: refused
    } cases[] = {
        {0, "left", "10", "ch1.sdp", "CAMCONTROL ch1.sdp\r\nCamAction: left\r\nActionParam: 10\r\n\r\n"},
        {0, "left", nullptr, nullptr,
         "CAMCONTROL vdr_cif.sdp\r\nCamAction: left\r\nActionParam: none\r\n\r\n"},
        {0, "left", "", "", "CAMCONTROL vdr_cif.sdp\r\nCamAction: left\r\nActionParam: none\r\n\r\n"},
        {0, "left", "%s%n", nullptr,
         "CAMCONTROL vdr_cif.sdp\r\nCamAction: left\r\nActionParam: %s%n\r\n\r\n"},
        {0, "a", longest.c_str(), "s",
         "CAMCONTROL s\r\nCamAction: a\r\nActionParam: " + longest + "\r\n\r\n"},
        {0, "aa", longest.c_str(), "s", ""},
        {1, "getcamtime", nullptr, "ch1.sdp", "GETCAMINFO ch1.sdp\r\nGetInfoType: getcamtime\r\n\r\n"},
        {1, "getcamtime", nullptr, nullptr, "GETCAMINFO 0.sdp\r\nGetInfoType: getcamtime\r\n\r\n"},
        {1, tooLong.c_str(), nullptr, nullptr, ""},
    };
    for (const auto &c : cases) {
        int nResult = 0;
        std::string printed = Printed(&nResult, [&] {
            return c.bRequest ? CgiPushRequest(c.szAction, c.szStream)
                              : CgiPushControl(c.szAction, c.szParam, c.szStream);
        });
        WireMsg msg = Take();
        if (c.text.empty()) {
            EXPECT_EQ(-1, nResult);
            EXPECT_EQ("", printed);
            EXPECT_EQ(0, msg.nType);
            continue;
        }
        EXPECT_EQ(0, nResult) << c.text;
        EXPECT_EQ("msgsnd(" + c.text + ") = 0\r\n", printed);
        EXPECT_EQ(1, msg.nType) << c.text;
        EXPECT_EQ(getpid(), msg.Sender()) << c.text;
        std::string rest = c.text;
        rest.resize(1028);  // zeros to the end
        EXPECT_EQ(rest, std::string(msg.Text(), 1028)) << c.text;
    }
    CgiPushControl("left", nullptr, nullptr);
    WireMsg msg;
    EXPECT_EQ(1032, msgrcv(nQueue, &msg, sizeof(msg.bytes), 1, IPC_NOWAIT));
}

TEST_F(CgiPushTest, QueueFullOrGone)
{
    Open();
    Limit(2 * 1032);
    const std::string text = "msgsnd(GETCAMINFO 0.sdp\r\nGetInfoType: x\r\n\r\n) = ";
    int nResult = 0;
    auto send = [] { return CgiPushRequest("x", nullptr); };
    EXPECT_EQ(text + "0\r\n", Printed(&nResult, send));
    EXPECT_EQ(text + "0\r\n", Printed(&nResult, send));
    EXPECT_EQ(text + "-1\r\n", Printed(&nResult, send));
    EXPECT_EQ(-1, nResult);
    EXPECT_EQ(-1, CgiPushAction("getcamtime", nullptr, nullptr, 0));
    EXPECT_EQ(2U, Waiting());
    ASSERT_EQ(0, msgctl(nQueue, IPC_RMID, nullptr));
    EXPECT_EQ(text + "-1\r\n", Printed(&nResult, send));
    char answer[8];
    EXPECT_EQ(-1, WaitReplyMsg(0, answer, sizeof(answer)));
}

TEST_F(CgiPushTest, AnswersAreCopiedAsFarAsTheyGo)
{
    Open();
    const std::string full(1024, 'f');
    const struct {
        std::string text;
        size_t nSent;     // bytes behind the type
        size_t nSize;     // of the caller's buffer
        std::string got;  // all of the buffer
    } cases[] = {
        {"12:30", 1032, 8, "12:30\0\0\0"s},
        {"12:30", 1032, 5, "12:30"},  // no room for a NUL
        {"12:30", 1032, 2, "12"},
        {"12:30", 9, 8, "12:30\0\0\0"s},  // a short message
        {"%s%n", 1032, 5, "%s%n\0"s},
        {full + "fill", 1032, 1030, full + "\0\0\0\0\0\0"s},  // the fill is no text
    };
    for (const auto &c : cases) {
        Answer(getpid(), c.text, c.nSent);
        std::string room(c.nSize + 1, '#');
        int nResult = 0;
        EXPECT_EQ("RecvReplyMsg=" + c.text.substr(0, 1024),
                  Printed(&nResult, [&] { return WaitReplyMsg(0, room.data(), c.nSize); }));
        EXPECT_EQ(int(c.nSent), nResult) << c.text;
        EXPECT_EQ(c.got + "#", room) << c.text;
    }
}

// The camera process: answers the next command with its text.
void CameraAnswersOne(int nQueue)
{
    alarm(30);  // ends this process should no command come
    WireMsg msg;
    if (msgrcv(nQueue, &msg, sizeof(msg.bytes), 1, 0) != sizeof(msg.bytes))
        _exit(1);
    WireMsg answer;
    answer.nType = msg.Sender();
    answer.SetText("to " + std::string(msg.Text()));
    _exit(msgsnd(nQueue, &answer, sizeof(answer.bytes), 0) == 0 ? 0 : 1);
}

TEST_F(CgiPushTest, Actions)
{
    Open();
    static const struct {
        const char *szName, *szText;
        int bWaits, bHandsOut;
    } cases[] = {
        {"reboot", "CAMCONTROL vdr_cif.sdp\r\nCamAction: reboot\r\nActionParam: none\r\n\r\n", 0, 0},
        {"reset", "CAMCONTROL vdr_cif.sdp\r\nCamAction: reset\r\nActionParam: none\r\n\r\n", 0, 0},
        {"checkupdate", "CAMCONTROL vdr_cif.sdp\r\nCamAction: checkupdate\r\nActionParam: none\r\n\r\n", 0,
         0},
        {"toserial", "CAMCONTROL vdr_cif.sdp\r\nCamAction: toserial\r\nActionParam: /tmp/x\r\n\r\n", 0, 0},
        {"cfgauto", "CAMCONTROL vdr_cif.sdp\r\nCamAction: cfgauto\r\nActionParam: /tmp/x\r\n\r\n", 1, 0},
        {"cfgfile", "CAMCONTROL vdr_cif.sdp\r\nCamAction: cfgfile\r\nActionParam: /tmp/x\r\n\r\n", 0, 0},
        {"snapfile", "CAMCONTROL vdr_cif.sdp\r\nCamAction: snapfile\r\nActionParam: /tmp/x\r\n\r\n", 1, 0},
        {"getcamtime", "GETCAMINFO 0.sdp\r\nGetInfoType: getcamtime\r\n\r\n", 1, 1},
        {"getalarmlist", "GETCAMINFO 0.sdp\r\nGetInfoType: getalarmlist\r\n\r\n", 1, 1},
    };
    ASSERT_EQ(std::size(cases), std::size(kCgiActions));
    for (const auto &c : cases) {
        pid_t nCamera = fork();
        if (nCamera == 0)
            CameraAnswersOne(nQueue);
        char answer[100] = "kept";
        int nResult = -1;
        std::string printed =
            Printed(&nResult, [&] { return CgiPushAction(c.szName, "/tmp/x", answer, sizeof(answer)); });
        int nStatus = -1;
        EXPECT_EQ(nCamera, waitpid(nCamera, &nStatus, 0));
        EXPECT_EQ(0, nStatus);
        std::string text = c.szText;
        EXPECT_EQ(0, nResult) << c.szName;
        EXPECT_EQ("msgsnd(" + text + ") = 0\r\n" + (c.bWaits ? "RecvReplyMsg=to " + text : ""), printed);
        EXPECT_EQ(c.bHandsOut ? "to " + text : "kept", answer) << c.szName;
        EXPECT_EQ(c.bWaits ? 0U : 1U, Waiting()) << c.szName;
        WireMsg unread;
        msgrcv(nQueue, &unread, sizeof(unread.bytes), 0, IPC_NOWAIT);
    }
    EXPECT_EQ(-1, CgiPushAction("Reboot", nullptr, nullptr, 0));
    EXPECT_EQ(0U, Waiting());
}

TEST_F(CgiPushTest, NoAnswerIsNoFailure)
{
    Open();
    char answer[8] = "kept";
    EXPECT_EQ(0, CgiPushAction("getcamtime", nullptr, answer, sizeof(answer)));
    EXPECT_STREQ("kept", answer);
    EXPECT_EQ(0, CgiPushAction("snapfile", nullptr, nullptr, 0));
    EXPECT_EQ(2U, Waiting());
}

TEST(CgiPushDeathTest, TimeWentBack)
{
    EXPECT_DEATH(CgiPushElapsedMs({10, 0}, {9, 999999}), HasSubstr("`tvNow.tv_sec >= tvBegin.tv_sec'"));
}

TEST(CfgFileContent, Files)
{
    TempDir dir;
    const std::string big(100000, 'x'), path = dir.File("orx.cfg");
    for (const std::string &content : {"[USERS]\nSuperUser=a\n"s, "x"s, "\0\xFF\r\n"s, "inmem:"s, big}) {
        WriteFile(path, content);
        size_t nSize = 0;
        std::unique_ptr<char, void (*)(void *)> text(GetCfgFileContent(path.c_str(), &nSize), free);
        ASSERT_TRUE(text);
        EXPECT_EQ("inmem:" + content, std::string(text.get(), nSize));
    }
}

}  // namespace
}  // namespace orx
