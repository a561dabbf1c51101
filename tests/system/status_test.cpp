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

// A day of more files than one answer holds.
TEST_F(StatusTest, ListsRecordingsInPages)
{
    Begin();
    const std::string day = "live/cam1/20260101", ask = "/recordings?program=live/cam1&day=20260101";
    std::filesystem::create_directories(server.dir.File("rec/" + day));
    for (int i = 100; i < 1101; i++)
        WriteFile(server.dir.File("rec/" + day + "/" + std::to_string(10000 + i) + ".zmf"), "x");
    size_t nRows = 0, nPages = 0;
    for (std::string after = "/", answer; !after.empty(); nPages++) {
        answer = Get(ask + (after == "/" ? "" : "&after=" + after));
        nRows += static_cast<size_t>(CountText(answer, R"("state":"unreadable")"));
        EXPECT_THAT(answer, HasSubstr(R"("file":")" + day + "/1"));
        size_t nLast = answer.rfind(R"("file":")") + 8;
        int bMore = answer.find(R"("more":true)") != std::string::npos;
        after = bMore ? answer.substr(nLast, answer.find('"', nLast) - nLast) : "";
    }
    EXPECT_EQ(1001U, nRows);
    EXPECT_EQ(3U, nPages);
}

// By the same accounts as DESCRIBE, and without a password in any log.
TEST_F(StatusTest, TellsWhatAnAccountMaySee)
{
    server.Set("SERVER", "AuthType=1\nControlUsers=1");
    server.Set("GUARD", "StrictRoles", "1");
    server.Set("LOG", "Level=info\nFile=" + server.dir.File("events"));
    server.Set(
        "USERS",
        "SuperUser=boss\nSuperPwd=b&ss\nNumUsers=2\nUserName0=ann\nUserPwd0=secret1\nUserLevel0=1\nUserName1=bob\n"
        "UserPwd1=secret2");
    server.Set("USERCTRL", "UserDevList0=cam live/two\nUserDevList1=/dog");
    Begin();
    static const std::tuple<const char *, const char *, const char *> cases[] = {
        // the form, the level, and what follows it
        {"", "none", R"("user_level":null,"anonymous":false,"super_user_exists":true,"programs":[]})"},
        {"name=boss&password=b%26ss&program=cam", "super", R"("programs":["*"],"may_see":true})"},
        {"name=boss&password=b", "none", R"("programs":[]})"},
        {"name=ann&password=secret1&program=%2Fcam", "control", R"("programs":["cam","live/two"],"may_see":true})"},
        {"name=ann&password=secret1&program=dog", "control", R"("may_see":false})"},
        {"name=ann&password=secret2&program=cam", "none", R"("may_see":false})"},
        {"name=bob&password=secret2&program=dog/20260101/x.zmf", "viewer", R"("programs":["dog"],"may_see":true})"},
        {"name=bob&password=secret2&program=cam", "viewer", R"("may_see":false})"},
        {"name=bob&password=", "none", ""},
    };
    auto ask = [this](const std::string &form) {
        return AskRaw("POST /access HTTP/1.1\r\nContent-Length: " + std::to_string(form.size()) + "\r\n\r\n" + form);
    };
    for (const auto &[szForm, szLevel, szRest] : cases) {
        std::string answer = ask(szForm);
        EXPECT_THAT(answer, StartsWith("HTTP/1.1 200 "));
        EXPECT_THAT(answer, HasSubstr(R"({"auth":"basic","level":")" + std::string(szLevel) + '"')) << szForm;
        EXPECT_THAT(answer, HasSubstr(szRest)) << szForm;
        EXPECT_EQ(0,
                  Check("python3 " ORX_SOURCE_DIR "/tests/support/schema.py " ORX_SOURCE_DIR "/docs/access.schema.json",
                        answer.substr(answer.find("\r\n\r\n") + 4)));
    }
    EXPECT_THAT(ask("name=" + std::string(2000, 'x')), HasSubstr(R"("level":"none")"));
    EXPECT_THAT(ask("program=%zz"), StartsWith("HTTP/1.1 400 "));
    EXPECT_THAT(AskRaw("POST /access HTTP/1.1\r\nContent-Length: 4097\r\n\r\n"), StartsWith("HTTP/1.1 413 "));
    EXPECT_THAT(AskRaw("GET /access HTTP/1.1\r\n\r\n"), HasSubstr("\r\nAllow: POST\r\n"));
    std::string log = ReadFile(server.dir.File("events")) + server.Output();
    EXPECT_THAT(log, HasSubstr("auth.failed peer=status user=boss method=ACCESS"));
    EXPECT_THAT(log, Not(HasSubstr("secret")));
}

// Where nobody has to show a password, and where anybody may come without one.
TEST_F(StatusTest, TellsThatEverythingIsOpen)
{
    server.Set("SERVER", "AuthType", "0");
    Begin();
    auto ask = [this](const std::string &form) {
        return AskRaw("POST /access HTTP/1.1\r\nContent-Length: " + std::to_string(form.size()) + "\r\n\r\n" + form);
    };
    EXPECT_THAT(ask("program=cam"), HasSubstr(R"({"auth":"none","level":"viewer","user_level":3,"anonymous":true,)"
                                              R"("super_user_exists":false,"programs":["*"],"may_see":true})"));
    EXPECT_THAT(ask("name=x&password=y"), HasSubstr(R"("level":"none")"));
    WriteFile(server.ConfigPath(),
              "[SERVER]\nAuthType=0\nEnableAnonymousViewer=1\n[STATUS]\nSocket=" + socketPath + "\n");
    EXPECT_THAT(Ctl({"reload"}), StartsWith("0 "));
    EXPECT_THAT(ask("name=x&password="), HasSubstr(R"("level":"viewer","user_level":3,"anonymous":true)"));
    EXPECT_THAT(ask("name=x&password=y"), HasSubstr(R"("level":"none")"));
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
