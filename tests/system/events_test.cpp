// The log of events: who reads it afterwards finds who came, who went and why.
#include <csignal>
#include <map>
#include <regex>
#include <sstream>

#include "system/mediakit.h"
#include "system/systemtest.h"

using namespace orx;

using Event = std::map<std::string, std::string>;  // "event" and "level" beside the fields

struct EventsTest : SystemTest {
    Camera camera{{Coding::H264}}, second{{Coding::H264}};
    bool bJson = false;

    void StartWith(const std::string &format)
    {
        bJson = format == "json";
        server.Set("LOG", "Level=debug\nFile=log/events.log\nFormat", format);
        server.Set("SERVER", "AuthType", "1");
        server.Set("USERS", "SuperUser=root\nSuperPwd", "rootpw");
        server.Set("INTEROP", "StandardPushers=1\nStandardPlayers=1\nUdpPushers=1\nHoldPlayers", "30");
        server.Set("GUARD", "SurvivePeerFaults", "1");
        server.Set("STORAGE", "RecordEnable=1\nNeverLose=1\nRecordAlways=cam\nRecordPath", server.dir.File("rec"));
        server.Start();
    }
    // A line that is not whole fails the test.
    Event Parse(const std::string &line) const
    {
        static const std::string value = "\"(?:[^\"\\\\]|\\\\.)*\"";
        static const std::string time = "[0-9-]{10}T[0-9:]{8}\\.[0-9]{3}[+-][0-9:]{5}";
        static const std::regex text(time + " [a-z]+ [a-z._]+(?: [a-z_]+=(?:" + value + "|[^ \"=\\\\]+))*");
        static const std::regex json("\\{\"time\":\"" + time + "\"(?:,\"[a-z_]+\":(?:" + value + "|-?[0-9]+))*\\}");
        static const std::regex textField(" ([a-z_]+)=(\"((?:[^\"\\\\]|\\\\.)*)\"|\\S+)");
        static const std::regex jsonField("\"([a-z_]+)\":(\"((?:[^\"\\\\]|\\\\.)*)\"|[0-9-]+)");
        EXPECT_TRUE(std::regex_match(line, bJson ? json : text)) << line;
        Event event;
        if (!bJson)
            std::istringstream(line) >> event["time"] >> event["level"] >> event["event"];
        for (std::sregex_iterator it(line.begin(), line.end(), bJson ? jsonField : textField), end; it != end; ++it)
            event[(*it)[1]] = (*it)[3].matched ? (*it)[3] : (*it)[2];
        return event;
    }
    std::vector<Event> Events() const
    {
        std::istringstream in(ReadFile(server.dir.File("log/events.log")));
        std::vector<Event> events;
        for (std::string line; std::getline(in, line);)
            events.push_back(Parse(line));
        return events;
    }
    // Waits for the last event of that name; an empty one when there is none.
    Event Await(const std::string &name, size_t nTimes = 1) const
    {
        Event found;
        EXPECT_TRUE(WaitFor([&] {
            size_t n = 0;
            for (const Event &event : Events())
                if (event.at("event") == name) {
                    found = event;
                    n++;
                }
            return n >= nTimes;
        })) << name;
        return found;
    }
    void Play(Viewer *pViewer)
    {
        pViewer->client.user = "root";
        pViewer->client.password = "rootpw";
        ASSERT_EQ(1, pViewer->Open(server.Url("/cam")));
        camera.Send(30);
        ASSERT_TRUE(WatchPictures({pViewer}, 5));
    }
    void TellStory();
};

#define EXPECT_FIELDS(event, ...)                                                         \
    do {                                                                                  \
        Event given = event;                                                              \
        for (const auto &[name, wanted] : std::map<std::string, std::string> __VA_ARGS__) \
            EXPECT_EQ(wanted, given[name]) << name;                                       \
    } while (0)

void EventsTest::TellStory()
{
    Viewer tcp, udp{RTSP_OVER_UDP};
    ASSERT_EQ(1, camera.Open(server.Url("/cam")));
    camera.Send(30);
    EXPECT_FIELDS(Await("pusher.start"), {{"level", "info"}, {"program", "/cam"}, {"codecs", "H264"}});
    Await("recording.begin");
    Play(&tcp);
    ASSERT_NE(0, RtspSend(&tcp.client, "TEARDOWN", nullptr));
    Event end = Await("player.end");
    EXPECT_FIELDS(end, {{"level", "info"}, {"user", "root"}, {"transport", "tcp"}, {"reason", "asked for the end"}});
    EXPECT_GT(std::stol(end["bytes"]), 10000);
    Play(&udp);
    RtspClose(&udp.client);
    EXPECT_FIELDS(Await("player.end", 2), {{"transport", "udp"}, {"reason", "the peer closed the connection"}});
    Viewer hasty;  // closes without having read what is on its way, as standard players do
    Play(&hasty);
    server.Signal(SIGSTOP);
    camera.Send(5, false);
    ASSERT_NE(0, RtspSend(&hasty.client, "TEARDOWN", nullptr));
    RtspReset(&hasty.client);
    server.Signal(SIGCONT);
    EXPECT_FIELDS(Await("player.end", 3), {{"transport", "tcp"}, {"reason", "asked for the end"}});

    for (const auto &[path, credentials] : {std::pair{"/none", "cm9vdDpyb290cHc="},            // root:rootpw
                                            std::pair{"/cam", "eA0KMjAyNiBpbmZvIHk9MTpw"}}) {  // a line in it
        Connect(&player, path);
        Ask(&player, "DESCRIBE", "", std::string("Authorization: Basic ") + credentials + "\r\n");
    }
    EXPECT_FIELDS(Await("request.not_found"), {{"level", "warn"}, {"method", "DESCRIBE"}, {"path", "/none"}});
    EXPECT_FIELDS(Await("auth.failed"), {{"user", "x\\u000d\\u000a2026 info y=1"}, {"path", "/cam"}});
    Connect(&player);
    Send(&player, "what\xFF\xFE is\x1b[2J this\r\n\r\n");
    EXPECT_FIELDS(Await("session.malformed"), {{"reason", "a request cannot be read"}});

    ASSERT_EQ(1, second.Open(server.Url("/cam")));
    end = Await("pusher.end");
    EXPECT_FIELDS(end, {{"level", "warn"}, {"reason", "another pusher took its place"}});
    EXPECT_EQ(end["by"], Await("pusher.start", 2)["peer"]);
    Await("program.resumed");
    second.Send(30);
    RtspReset(&second.client);
    EXPECT_FIELDS(Await("pusher.end", 2), {{"reason", "the connection broke"}, {"error", "Connection reset by peer"}});
    EXPECT_FIELDS(Await("program.held", 2), {{"wait_seconds", "30"}, {"cause", "the connection broke"}});
}

TEST_F(EventsTest, TellWhyInEitherForm)
{
    for (const char *szFormat : {"text", "json"}) {
        StartWith(szFormat);
        TellStory();
        EXPECT_EQ(0, server.Quit());
        std::vector<Event> events = Events();
        std::erase_if(events, [](Event &event) { return event["event"] == "config.doubt"; });  // which stand in front
        ASSERT_FALSE(events.empty());
        EXPECT_EQ("server.start", events.front()["event"]);
        EXPECT_EQ("server.stop", events.back()["event"]);
        EXPECT_FIELDS(Await("recording.end"), {{"program", "/cam"}, {"reason", "its program gives no more"}});
        std::filesystem::remove(server.dir.File("log/events.log"));
        for (RtspClient *p : {&camera.client, &second.client, &player})
            RtspClose(p);
    }
}

// With Console=0 the banner and the answers are all that is printed; the two other logs do not change.
TEST_F(EventsTest, ConsoleIsQuietWhenItIsAskedTo)
{
    server.Set("LOG", "Console", "0");
    server.Set("SERVER", "LogFile", "1");
    StartCamera(CameraSdp(3));
    EXPECT_EQ(1U, server.Stat().nLives);
    EXPECT_EQ(0, server.Quit());
    const std::string output = server.Output();
    EXPECT_EQ(0, CountText(output, "CreateLiveProgram")) << output;
    EXPECT_EQ(0, CountText(output, "main() exit OK")) << output;
    EXPECT_EQ(1, CountText(output, "Server started, commands:\nQuit\n\nEnter command: \r\n"));
    EXPECT_EQ(1, CountText(ReadFile(server.LogPath()), "CreateLiveProgram"));
}
