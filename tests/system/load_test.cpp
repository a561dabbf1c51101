// A camera's encoder and many players, as the tools play them: what was pushed reaches everybody, and the
// disk.
#include <csignal>

#include "support/sockets.h"
#include "system/recordingtest.h"

using namespace orx;

const bool kLong = getenv("ORX_LONG") != nullptr;

using LoadTest = RecordingTest;

// Two programs are recorded while players watch them over every transport. Datagrams may be lost where tests
// get little of the machine, so that players over UDP only have what they got compared.
TEST_F(LoadTest, EveryPlayerGetsEveryByte)
{
    server.Set("SERVER", "ConnectLimit", "400");
    server.Start();
    const std::string rate = kLong ? "8000" : "1000", dump = server.dir.File("dump%d"), url = Url("cam%d");
    const std::string seconds = kLong ? "60" : "2", many = kLong ? "100" : "20", few = kLong ? "20" : "6";
    ToolProcess push("orxpush", {"--wait", "10", "--count", "2", "--loop", "--rate", rate, "--audio", "tone", "--data",
                                 "200", "--rtcp", "--stamp", "--first-time", "0", "--dump", dump, url});
    ASSERT_TRUE(push.WaitOutput("2 programs started"));
    RtspClient controls[2];
    for (int i = 0; i < 2; i++) {
        Connect(&controls[i], "/cam" + std::to_string(i + 1));
        ASSERT_EQ(1, RtspDescribe(&controls[i]));
        EXPECT_EQ(Reply("200 OK"), Ask(&controls[i], "RECORDEX", "", "ActionParam: EventType=1\r\n"));
    }
    ToolProcess streams("orxload", {"--tcp", many, "--tunnel", few, "--stalled", "4", "--timeout", "60000",
                                    "--programs", "2", "--verify", dump, "--strict", "--duration", seconds, url});
    ToolProcess datagrams("orxload", {"--udp", many, "--timeout", "60000", "--programs", "2", "--verify", dump,
                                      "--duration", seconds, url});
    EXPECT_EQ(0, streams.WaitExit(120000)) << streams.Output();
    EXPECT_EQ(0, datagrams.WaitExit(120000)) << datagrams.Output();
    push.Signal(SIGINT);
    EXPECT_EQ(0, push.WaitExit()) << push.Output();
    for (RtspClient &control : controls)
        RtspClose(&control);
    EXPECT_TRUE(WaitFor([&] { return server.Stat().nLives == 0; }));
    EXPECT_EQ(2U, FilesBelow(root).size());
    for (const std::string &name : FilesBelow(root)) {
        ToolProcess check("orxzmf", {"check", File(name)});
        EXPECT_EQ(0, check.WaitExit()) << check.Output();
    }
}

// What a player asks of the camera reaches the encoder, and its answer comes back.
TEST_F(LoadTest, AnEncoderAnswersPlayers)
{
    server.Start();
    ToolProcess push("orxpush", {"--wait", "10", "--loop", "--forward", "200 Moved", Url("cam")});
    ASSERT_TRUE(push.WaitOutput("1 program started"));
    Describe(&player);
    EXPECT_EQ(Reply("200 Moved "), Ask(&player, "CAMCONTROL", "", "CamAction: ptz\r\nActionParam: left\r\n"));
    EXPECT_TRUE(push.WaitOutput("/cam: server asks: CAMCONTROL ptz left\n"));
}

TEST_F(LoadTest, TheToolsSayWhatIsWrong)
{
    server.Start();
    Listener taken;
    const std::string none = server.dir.File("none"), url = Url("cam");
    const std::string listen = "127.0.0.1:" + std::to_string(taken.nPort);
    const struct {
        const char *szTool;
        std::vector<std::string> arguments;
        int nExit;
        std::string text;
    } cases[] = {
        {"orxpush", {"--speed", "fast", url}, 2, "fast is not a number"},
        {"orxpush", {"--file", none, url}, 2, "cannot be read"},
        {"orxpush", {"--record", url}, 1, "RECORD: 500"},
        {"orxload", {"--verify", none, url}, 2, "cannot be read"},
        {"orxload", {"--duration", "1", url}, 1, "DESCRIBE: 404"},
        {"orxrelay", {"--listen", listen, "127.0.0.1"}, 2, "cannot listen on " + listen},
        {"orxrelay", {"--check", "--timeout", "1", "127.0.0.1:9"}, 1, "the box does not answer"},
    };
    for (const auto &c : cases) {
        ToolProcess tool(c.szTool, c.arguments);
        EXPECT_EQ(c.nExit, tool.WaitExit()) << c.text;
        EXPECT_THAT(tool.Output(), testing::HasSubstr(c.text));
    }
}
