#include "bridge/cgipush.h"

#include <array>
#include <cstdlib>
#include <cstring>
#include <string>
#include <tuple>

#include <unistd.h>

#include <gtest/gtest.h>

#include "support/cameraqueue.h"

namespace orx {

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
    const std::array<std::string, 4> cases[] = {
        // action, parameter and stream, and the message
        {"left", "%s%n", "ch1.sdp", "CAMCONTROL ch1.sdp\r\nCamAction: left\r\nActionParam: %s%n\r\n\r\n"},
        {"left", "", "", "CAMCONTROL vdr_cif.sdp\r\nCamAction: left\r\nActionParam: none\r\n\r\n"},
        {"a", longest, "s", "CAMCONTROL s\r\nCamAction: a\r\nActionParam: " + longest + "\r\n\r\n"},
        {"aa", longest, "s", ""},
    };
    for (const auto &[action, param, stream, text] : cases) {
        EXPECT_EQ(text.empty() ? -1 : 0, CgiPushControl(action.c_str(), param.c_str(), stream.c_str()));
        EXPECT_EQ(text, TakeCommand(nQueue, getpid()));
    }
    EXPECT_EQ(-1, CgiPushRequest(std::string(1024, 'x').c_str(), nullptr));
    EXPECT_EQ("", TakeCommand(nQueue, getpid()));
}

TEST_F(CgiPushTest, AnswersAreCopiedAsFarAsTheyGo)
{
    const std::string full(1024, 'f');
    const std::tuple<std::string, size_t, std::string> cases[] = {
        // a text, the bytes sent behind the type, and all of the caller's buffer
        {"12:30", kWireBytes, "12:30\0\0\0"s},
        {"12:30", kWireBytes, "12:30"},  // no room for a NUL
        {"12:30", kWireBytes, "12"},
        {"12:30", 9, "12:30\0\0\0"s},                         // a short message
        {full + "fill", kWireBytes, full + "\0\0\0\0\0\0"s},  // the fill is no text
    };
    for (const auto &[text, nSent, got] : cases) {
        Answer(text, nSent);
        std::string room(got.size() + 1, '#');
        EXPECT_EQ(int(nSent), WaitReplyMsg(0, room.data(), got.size())) << text;
        EXPECT_EQ(got + "#", room) << text;
    }
}

}  // namespace orx
