#include "bridge/cgipush.h"

#include <array>
#include <cstdlib>
#include <cstring>
#include <string>
#include <tuple>

#include <sys/msg.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "support/files.h"
#include "support/namespaces.h"

namespace orx {
namespace {

using namespace std::string_literals;

// A message as the camera process knows it: who sends it, and a text.
struct WireMsg {
    long nType = 0;
    int32_t nSender = 0;
    char text[1028] = "";
};
constexpr size_t kWireBytes = sizeof(WireMsg::nSender) + sizeof(WireMsg::text);

// Queues of its own and an empty camera program for their key.
struct CgiPushTest : testing::Test {
    int nQueue = -1;

    void SetUp() override
    {
        if (!EnterNamespaces(CLONE_NEWIPC | CLONE_NEWNS) || !MountEmpty("/opt"))
            GTEST_SKIP() << "needs the right to make namespaces of message queues and mounts";
        std::filesystem::create_directories("/opt/app/bin");
        WriteFile("/opt/app/bin/pusher", "");
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
    // The text of the oldest message to the camera, or "none".
    std::string Take() const
    {
        WireMsg msg;
        if (msgrcv(nQueue, &msg, kWireBytes, 1, IPC_NOWAIT) < 0)
            return "none";
        EXPECT_EQ(getpid(), msg.nSender);
        std::string text = msg.text;
        EXPECT_EQ(std::string(sizeof(msg.text) - text.size(), '\0'),
                  std::string(msg.text + text.size(), sizeof(msg.text) - text.size()));
        return text;
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
        {"aa", longest, "s", "none"},
    };
    for (const auto &[action, param, stream, text] : cases) {
        EXPECT_EQ(text == "none" ? -1 : 0, CgiPushControl(action.c_str(), param.c_str(), stream.c_str()));
        EXPECT_EQ(text, Take());
    }
    EXPECT_EQ(-1, CgiPushRequest(std::string(1024, 'x').c_str(), nullptr));
    EXPECT_EQ("none", Take());
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

}  // namespace
}  // namespace orx
