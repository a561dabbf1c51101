// The status socket and orxctl: what is told, what is ordered, and readers that misbehave.
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <filesystem>

#include "system/systemtest.h"

using namespace orx;

using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

struct StatusTest : SystemTest {
    std::string socketPath = server.dir.File("s.sock");

    void Begin()
    {
        server.Set("STATUS", "Socket", socketPath);
        server.Set("INTEROP", "StandardPushers", "1");
        server.Set("STORAGE", "RecordEnable=1\nRecordPath=" + server.dir.File("rec"));
        StartCamera(CameraSdp(2));
    }
    int Dial() const
    {
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        socketPath.copy(addr.sun_path, sizeof(addr.sun_path) - 1);
        int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        EXPECT_EQ(0, connect(fd, reinterpret_cast<sockaddr *>(&addr), sizeof(addr)));
        return fd;
    }
    std::string AskRaw(const std::string &text) const
    {
        Sock sock{Dial()};
        std::string answer;
        char buf[4096];
        EXPECT_EQ(static_cast<ssize_t>(text.size()), send(sock.fd, text.data(), text.size(), MSG_NOSIGNAL));
        for (ssize_t n; (n = recv(sock.fd, buf, sizeof(buf), 0)) > 0;)
            answer.append(buf, static_cast<size_t>(n));
        return answer;
    }
    std::string Get(const std::string &target) const { return AskRaw("GET " + target + " HTTP/1.1\r\n\r\n"); }
    std::string Ctl(std::vector<std::string> arguments) const
    {
        arguments.insert(arguments.end(), {"-s", socketPath});
        ToolProcess tool("orxctl", arguments);
        int nExit = tool.WaitExit();
        return std::to_string(nExit) + " " + tool.Output();
    }
    // Runs a command of the shell on a text. Returns its exit status.
    int Check(const std::string &command, const std::string &text) const
    {
        WriteFile(server.dir.File("answer"), text);
        return system((command + " < " + server.dir.File("answer")).c_str());
    }
};

TEST_F(StatusTest, TellsWhoIsThere)
{
    Begin();
    Describe(&player);
    SendPictures(&pusher, 0, 60);
    ASSERT_TRUE(Answers(&pusher));
    std::string json = Ctl({"status", "--json"});
    EXPECT_THAT(json, HasSubstr(R"("program":"/cam","state":"live")"));
    EXPECT_THAT(json, HasSubstr(R"("role":"player","state":"described")"));
    EXPECT_EQ(0, Check("python3 " ORX_SOURCE_DIR "/tests/support/schema.py " ORX_SOURCE_DIR "/docs/status.schema.json",
                       json.substr(2)));
    EXPECT_THAT(Ctl({"programs"}), HasSubstr("\n/cam "));
    EXPECT_THAT(Ctl({"status"}), HasSubstr("listener    status " + socketPath + " listens"));
    EXPECT_EQ("0 ok\n", Ctl({"health"}));
    std::string config = server.dir.File("long.cfg");
    WriteFile(config, "; " + std::string(9000, 'x') + "\n[STATUS]\nSocket=" + socketPath + "\n");
    EXPECT_EQ(0, ToolProcess("orxctl", {"health", "-c", config}).WaitExit());
    std::string metrics = Ctl({"metrics"}).substr(2);
    EXPECT_THAT(metrics, HasSubstr("\norx_media_packets_total 120\n"));
    EXPECT_EQ(0, Check("python3 " ORX_SOURCE_DIR "/tests/support/metrics.py", metrics));
    EXPECT_EQ(0, Check("! command -v promtool >/dev/null || promtool check metrics", metrics));
    struct stat info {};
    EXPECT_EQ(0, stat(socketPath.c_str(), &info));
    EXPECT_EQ(0660U, info.st_mode & 0777);
}

TEST_F(StatusTest, KicksAndSaysWhy)
{
    Begin();
    Describe(&player);
    std::string sessions = Ctl({"sessions"});
    size_t nLine = sessions.find(" player ");
    ASSERT_NE(std::string::npos, nLine) << sessions;
    nLine = sessions.rfind('\n', nLine) + 1;
    std::string session = sessions.substr(nLine, sessions.find(' ', nLine) - nLine);
    EXPECT_EQ("0 ended\n", Ctl({"kick", session}));
    EXPECT_EQ("3 orxctl: there is no such session\n", Ctl({"kick", session}));
    EXPECT_THAT(Ctl({"kick", "nobody"}), StartsWith("1 orxctl: session= is"));
    EXPECT_THAT(Ctl({"sessions"}), Not(HasSubstr(" player ")));
    EXPECT_EQ(0, server.Quit());
    EXPECT_FALSE(std::filesystem::exists(socketPath));
    EXPECT_THAT(Ctl({"status"}), StartsWith("5 orxctl: " + socketPath));
}

TEST_F(StatusTest, RefusesWhatItCannotAnswer)
{
    Begin();
    static const std::pair<const char *, const char *> cases[] = {
        {"GET /x HTTP/1.1\r\n\r\n", "HTTP/1.1 404 "},
        {"POST /status HTTP/1.1\r\n\r\n", "HTTP/1.1 405 "},
        {"GET /kick?session=0x1 HTTP/1.1\r\n\r\n", "HTTP/1.1 405 "},
        {"POST /reload HTTP/1.1\r\nContent-Length: 5\r\n\r\n", "HTTP/1.1 413 "},
        {"hello\r\n\r\n", "HTTP/1.1 400 "},
        {"GET /recordings?program=a/../../etc HTTP/1.1\r\n\r\n", "HTTP/1.1 400 "},
        {"GET /recordings?program=a%2f..%2f..%2fetc HTTP/1.1\r\n\r\n", "HTTP/1.1 400 "},
        {"GET /recordings?program=cam&day=2026 HTTP/1.1\r\n\r\n", "HTTP/1.1 400 "},
        {"GET /recordings?program=none HTTP/1.1\r\n\r\n", "HTTP/1.1 404 "},
        {"GET /recordings HTTP/1.1\r\n\r\n", "HTTP/1.1 200 "},
    };
    for (const auto &[szRequest, szAnswer] : cases)
        EXPECT_THAT(AskRaw(szRequest), StartsWith(szAnswer)) << szRequest;
    EXPECT_THAT(AskRaw("POST /status HTTP/1.1\r\n\r\n"), HasSubstr("\r\nAllow: GET, HEAD\r\n"));
    std::filesystem::remove_all(server.dir.File("rec"));
    EXPECT_THAT(Ctl({"health"}), StartsWith("1 orxctl: recordings cannot be written to "));
}

// Seven that say nothing, and hundreds more while sessions come and go.
TEST_F(StatusTest, ReadersThatStallHoldNobodyUp)
{
    Begin();
    std::vector<Sock> stalled(7);
    for (Sock &sock : stalled)
        sock.fd = Dial();
    for (int i = 0; i < 300; i++) {
        if (i % 10 == 0)
            Describe(&player);
        ASSERT_THAT(Get(i % 2 ? "/status" : "/metrics"), StartsWith("HTTP/1.1 200 OK"));
    }
    EXPECT_TRUE(Answers(&pusher));
    char c;
    EXPECT_TRUE(WaitFor([&] { return recv(stalled[0].fd, &c, 1, MSG_DONTWAIT) == 0; }));
}
