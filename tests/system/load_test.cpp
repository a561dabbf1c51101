// A camera's encoder and many players, as orxpush and orxload play them: what was pushed reaches everybody.
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "system/orxprocess.h"

namespace orx {
namespace {

using testing::HasSubstr;

// A tool at work; its output goes to a file.
struct Tool {
    pid_t pid = -1;
    std::string output;

    Tool(const std::string &outputPath, std::vector<std::string> words) : output(outputPath)
    {
        std::vector<char *> argv;
        argv.reserve(words.size() + 1);
        for (std::string &word : words)
            argv.push_back(word.data());
        argv.push_back(nullptr);
        pid = fork();
        if (pid != 0)
            return;
        int fd = open(output.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        dup2(fd, 1);
        dup2(fd, 2);
        signal(SIGPIPE, SIG_DFL);
        execv(argv[0], argv.data());
        _exit(127);
    }
    ~Tool() { Stop(); }
    Tool(const Tool &) = delete;
    Tool &operator=(const Tool &) = delete;

    // The exit status, or -1 when it does not end in time.
    int Wait(int nMs = 60000)
    {
        int nStatus = 0;
        if (pid < 0 || !WaitFor([&] { return waitpid(pid, &nStatus, WNOHANG) == pid; }, nMs))
            return -1;
        pid = -1;
        return WIFEXITED(nStatus) ? WEXITSTATUS(nStatus) : 256 + WTERMSIG(nStatus);
    }
    // Ends it as Ctrl-C does. Returns as Wait.
    int Stop()
    {
        if (pid < 0)
            return -1;
        kill(pid, SIGINT);
        int nStatus = Wait(10000);
        if (nStatus >= 0)
            return nStatus;
        kill(pid, SIGKILL);
        return Wait();
    }
    std::string Output() const { return ReadFile(output); }
};

struct LoadTest : SystemTest {
    std::vector<std::string> Push(std::vector<std::string> more)
    {
        more.insert(more.begin(), {ORXPUSH_PROGRAM, "--wait", "10"});
        return more;
    }
    std::string File(const std::string &name) { return server.dir.File(name); }
};

// Two programs of about 2 Mbit/s, every transport, and players that stop reading meanwhile.
TEST_F(LoadTest, EveryPlayerGetsEveryByte)
{
    server.Set("SERVER", "ConnectLimit", "400");
    server.Start();
    Tool push(File("push"),
              Push({"--count", "2", "--loop", "--rate", "1960", "--audio", "tone", "--data", "200", "--rtcp",
                    "--stamp", "--dump", File("dump%d"), server.Url("/cam%d")}));
    ASSERT_TRUE(WaitFor([&] { return push.Output().find("2 programs started") != std::string::npos; }));
    Tool load(File("load"), {ORXLOAD_PROGRAM, "--tcp", "100", "--udp", "100", "--tunnel", "20", "--stalled",
                             "4", "--programs", "2", "--verify", File("dump%d"), "--strict", "--duration",
                             "4", server.Url("/cam%d")});
    EXPECT_EQ(0, load.Wait()) << load.Output();
    EXPECT_THAT(load.Output(), HasSubstr("\"total\":{\"players\":220,\"failed\":0,\"cut\":0,"));
    EXPECT_EQ(0, push.Stop()) << push.Output();
}

TEST_F(LoadTest, PicturesOfAWholeFileArriveInOneGo)
{
    server.Start();
    Tool push(File("push"), Push({"--speed", "0", "--dump", File("dump"), server.Url("/cam")}));
    EXPECT_EQ(0, push.Wait()) << push.Output();
    EXPECT_THAT(push.Output(), HasSubstr("1 program started"));
    EXPECT_GT(ReadFile(File("dump")).size(), 240000U);
    EXPECT_TRUE(WaitFor([&] { return server.Stat().nLives == 0; }));
}

// What a player asks of the camera reaches the encoder, and its answer comes back.
TEST_F(LoadTest, AnEncoderAnswersPlayers)
{
    server.Start();
    Tool push(File("push"), Push({"--loop", "--forward", "200 Moved", server.Url("/cam")}));
    ASSERT_TRUE(WaitFor([&] { return push.Output().find("started") != std::string::npos; }));
    RtspClient player;
    ASSERT_TRUE(RtspConnect(&player, server.Url("/cam").c_str()));
    ASSERT_TRUE(RtspDescribe(&player));
    RtspMessage reply;
    ASSERT_TRUE(
        RtspRequest(&player, "CAMCONTROL", nullptr, "CamAction: ptz\r\nActionParam: left\r\n", "", &reply));
    EXPECT_EQ(200, reply.nStatus);
    EXPECT_EQ("Moved ", reply.reason);
    EXPECT_THAT(push.Output(), HasSubstr("/cam: server asks: CAMCONTROL ptz left\n"));
}

TEST_F(LoadTest, TheToolsSayWhatIsWrong)
{
    server.Start();
    std::string clip = ORX_TEST_DATA "/clip.h264";
    const struct {
        std::vector<std::string> words;
        int nExit;
        const char *szText;
    } cases[] = {
        {{ORXPUSH_PROGRAM, "--help"}, 0, "Usage: orxpush"},
        {{ORXPUSH_PROGRAM}, 2, "give one URL"},
        {{ORXPUSH_PROGRAM, "--speed", "fast", server.Url("/cam")}, 2, "fast is not a number"},
        {{ORXPUSH_PROGRAM, "--count", "2", server.Url("/cam")}, 2, "needs a %d"},
        {{ORXPUSH_PROGRAM, "--file", File("none"), server.Url("/cam")}, 2, "cannot be read"},
        {{ORXPUSH_PROGRAM, "--file", File("*.jpg"), server.Url("/cam")}, 2, "no picture fits"},
        {{ORXPUSH_PROGRAM, "--file", clip, "http://x/cam"}, 1, "not a URL"},
        {{ORXPUSH_PROGRAM, "--record", server.Url("/cam")}, 1, "RECORD: 500"},
        {{ORXLOAD_PROGRAM, "--help"}, 0, "Usage: orxload"},
        {{ORXLOAD_PROGRAM, "--tcp", "-1", server.Url("/cam")}, 2, "-1 is not a number"},
        {{ORXLOAD_PROGRAM, "--verify", File("none"), server.Url("/cam")}, 2, "cannot be read"},
        {{ORXLOAD_PROGRAM, "--duration", "1", server.Url("/cam")}, 1, "DESCRIBE: 404"},
    };
    for (const auto &c : cases) {
        Tool tool(File("out"), c.words);
        EXPECT_EQ(c.nExit, tool.Wait()) << c.szText;
        EXPECT_THAT(tool.Output(), HasSubstr(c.szText));
    }
}

}  // namespace
}  // namespace orx
