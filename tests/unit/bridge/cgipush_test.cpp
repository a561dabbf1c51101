#include "bridge/cgipush.h"

#include <cstdlib>
#include <cstring>
#include <string>

#include <unistd.h>

#include <gtest/gtest.h>

#include "support/cameraqueue.h"

namespace orx {
namespace {

using namespace std::string_literals;

// Queues of its own and an empty camera program for their key.
struct CgiPushTest : testing::Test {
    int nQueue = -1;

    void SetUp() override
    {
        if (!MakeCameraProgram())
            GTEST_SKIP() << "needs the right to make namespaces of message queues and mounts";
        nQueue = CgiPushOpen(1);
        ASSERT_GE(nQueue, 0);
    }
    void TearDown() override { CgiPushClose(); }

    void Answer(const std::string &text, size_t nBytes = kWireBytes) const
    {
        WireMsg msg;
        msg.nType = getpid();
        text.copy(msg.text, sizeof(msg.text));
        ASSERT_EQ(0, msgsnd(nQueue, &msg, nBytes, IPC_NOWAIT));
    }
};

TEST_F(CgiPushTest, CommandsAreSentWholeOrNotAtAll)
{
    const std::string longest(1023 - strlen("CAMCONTROL s\r\nCamAction: a\r\nActionParam: \r\n\r\n"), 'p');
    const struct {
        std::string action, param, stream, text;
    } cases[] = {
        {"left", "%s%n", "ch1.sdp", "CAMCONTROL ch1.sdp\r\nCamAction: left\r\nActionParam: %s%n\r\n\r\n"},
        {"left", "", "", "CAMCONTROL vdr_cif.sdp\r\nCamAction: left\r\nActionParam: none\r\n\r\n"},
        {"a", longest, "s", "CAMCONTROL s\r\nCamAction: a\r\nActionParam: " + longest + "\r\n\r\n"},
        {"aa", longest, "s", ""},
    };
    for (const auto &c : cases) {
        EXPECT_EQ(c.text.empty() ? -1 : 0,
                  CgiPushControl(c.action.c_str(), c.param.c_str(), c.stream.c_str()));
        EXPECT_EQ(c.text, TakeCommand(nQueue, getpid()));
    }
    EXPECT_EQ(-1, CgiPushRequest(std::string(1024, 'x').c_str(), nullptr));
    EXPECT_EQ("", TakeCommand(nQueue, getpid()));
}

TEST_F(CgiPushTest, AnswersAreCopiedAsFarAsTheyGo)
{
    const std::string full(1024, 'f');
    const struct {
        std::string text;
        size_t nSent;     // bytes behind the type
        std::string got;  // all of the caller's buffer
    } cases[] = {
        {"12:30", kWireBytes, "12:30\0\0\0"s},
        {"12:30", kWireBytes, "12:30"},  // no room for a NUL
        {"12:30", kWireBytes, "12"},
        {"12:30", 9, "12:30\0\0\0"s},                         // a short message
        {full + "fill", kWireBytes, full + "\0\0\0\0\0\0"s},  // the fill is no text
    };
    for (const auto &c : cases) {
        Answer(c.text, c.nSent);
        std::string room(c.got.size() + 1, '#');
        EXPECT_EQ(int(c.nSent), WaitReplyMsg(0, room.data(), c.got.size())) << c.text;
        EXPECT_EQ(c.got + "#", room) << c.text;
    }
}

}  // namespace
}  // namespace orx
