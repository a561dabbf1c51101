// RECORDEX: what it answers, and which files it makes.
#include <csignal>
#include <ctime>
#include <filesystem>

#include "base/bytes.h"
#include "system/recordingtest.h"

namespace orx {
namespace {

using testing::ElementsAre;

struct RecordTest : RecordingTest {
    Camera camera{{Codec::H264, Codec::G711}};

    void StartRecorder(const std::string &moreSdp = "")
    {
        server.Start();
        ASSERT_EQ(1, camera.Open(Url("cam"), moreSdp));
    }
    std::string RecordEx(RtspClient *pClient, const std::string &headers)
    {
        return Ask(pClient, "RECORDEX", "", headers);
    }
    // Ends what the camera records; everything that was recorded.
    std::vector<std::string> Finish()
    {
        RtspClose(&camera.client);
        EXPECT_TRUE(WaitFor([&] { return server.Stat().nLives == 0; }));
        return FilesBelow(root);
    }
};

TEST_F(RecordTest, AnswersByteForByte)
{
    StartRecorder();
    Connect(&player);
    EXPECT_EQ(Reply("400 Bad Request(no RECORDEX yet)"), RecordEx(&player, "ActionParam: x\r\n"));
    ASSERT_EQ(1, RtspDescribe(&player)) << "the connection stays";
    EXPECT_EQ(Reply("400 Bad Request(no ActionParam field)"), RecordEx(&player, ""));
    const struct {
        std::string param, status;
    } cases[] = {
        {"Cmd=stop", "200 OK"},  // nothing to stop
        {"FileName=" + File("a.zmf"), "200 OK"},
        {"EventType=1&LimitLen=100&FileName=" + File("b.zmf") + "&x", "200 OK"},
        {"EventType=4", "200 NOT enough space to RECORD."},
        {"EventType=0", "200 NOT enough space to RECORD."},
        {"EventType=-1", "200 NOT enough space to RECORD."},
        {"FileName=/proc/a.zmf", "200 NOT enough space to RECORD."},
        {"FileName=/etc/passwd", "200 NOT enough space to RECORD."},
        {"EventType=2&Cmd=stop", "200 OK"},
    };
    for (const auto &c : cases)
        EXPECT_EQ(Reply(c.status), RecordEx(&player, "actionparam: " + c.param + "\r\n")) << c.param;
    for (const std::string &line :
         {"StartRecord(" + File("a.zmf") + ") Limited=0seconds, PreRecord=0seconds\r\n",
          "StartRecord(" + File("b.zmf") + ") Limited=100seconds, PreRecord=0seconds\r\n",
          "StopRecord(" + File("a.zmf") + ")\r\n"})
        EXPECT_TRUE(server.WaitOutput(line)) << line;
    EXPECT_EQ(5, CountText(server.Output(), "Create record file("));
    EXPECT_THAT(Finish(), ElementsAre("a.zmf", "b.zmf"));
    ASSERT_EQ(0, server.Quit());
    server.Set("STORAGE", "RecordEnable", "0");
    StartRecorder();
    EXPECT_EQ(Reply("405 Method Not Allowed"), RecordEx(&camera.client, "ActionParam: EventType=3\r\n"));
    EXPECT_EQ(Reply("405 Method Not Allowed"), RecordEx(&camera.client, ""));
}

// A fifth is answered like the others and records nothing; a stop takes the first manual one.
TEST_F(RecordTest, KeepsFourAtMost)
{
    StartRecorder();
    int n = 0;
    for (const char *szKind : {"EventType=1&", "EventType=2&", "", "EventType=3&", ""})
        EXPECT_EQ("200 OK", camera.Record(szKind + ("FileName=" + File(std::to_string(n++) + ".zmf"))));
    EXPECT_EQ(4, CountText(server.Output(), "StartRecord("));
    camera.Send(10);
    EXPECT_EQ("200 OK", camera.Record("Cmd=stop"));
    EXPECT_THAT(FilesBelow(root), ElementsAre("0.zmf.tm!", "1.zmf.tm!", "2.zmf", "3.zmf.tm!"));
    for (int i = 0; i < 2; i++) {
        EXPECT_EQ("200 OK", camera.Record("Cmd=stop"));
        EXPECT_THAT(FilesBelow(root), ElementsAre("0.zmf.tm!", "1.zmf.tm!", "2.zmf", "3.zmf"));
    }
    EXPECT_EQ("200 OK", camera.Record("FileName=" + File("5.zmf"))) << "there is room again";
    camera.Send(30);
    EXPECT_EQ("200 OK", camera.Record("Cmd=stop"));
    EXPECT_THAT(Finish(), ElementsAre("0.zmf", "1.zmf", "2.zmf", "3.zmf", "5.zmf"));
    static const size_t pictures[] = {40, 40, 10, 10, 15};  // the last one from the next key picture on
    for (size_t i = 0; i < 5; i++)
        EXPECT_EQ(pictures[i], CountPictures(ReadFile(File(FilesBelow(root)[i])))) << i;
}

// Two that begin in the same second have one name: the second one replaces the first.
TEST_F(RecordTest, NamesFilesByDateAndKind)
{
    time_t tStart = time(nullptr);
    StartRecorder("a=NickName:the front door\r\n");
    for (int nKind : {1, 2, 3, 3, 3}) {
        EXPECT_EQ("200 OK", camera.Record("EventType=" + std::to_string(nKind)));
        camera.Send(12);
    }
    std::vector<std::string> files = Finish();
    ASSERT_GE(files.size(), 3U);
    const std::string today = files[0].substr(4, 8);
    for (const std::string &name : files) {
        EXPECT_THAT(name, testing::MatchesRegex("cam/20[0-9]{6}/[SAM][0-9]{6}\\.zmf"));
        std::string file = ReadFile(File(name)), begun = file.data() + 20;
        EXPECT_EQ("zmf@", file.substr(0, 4));
        EXPECT_EQ((168U << 16) + 100, GetBe(file.data() + 4, 4));
        EXPECT_EQ(1600U, GetBe(file.data() + 8, 2));
        EXPECT_EQ(name.substr(4, 8) + "-" + name.substr(14, 6), begun) << "named by its beginning";
        tm start{};
        ASSERT_NE(nullptr, strptime(begun.c_str(), "%Y%m%d-%H%M%S", &start));
        start.tm_isdst = -1;
        EXPECT_GE(mktime(&start), tStart);
        EXPECT_LE(mktime(&start), time(nullptr));
        EXPECT_EQ(std::string("0SAM").find(name[13]), GetBe(file.data() + 36, 2));
        EXPECT_STREQ("the front door", file.data() + 60);
        EXPECT_EQ(CountPictures(file), GetBe(file.data() + 44, 4));
    }
}

// Whatever ends the server in an orderly way completes what it is recording.
TEST_F(RecordTest, IsCompletedWhenTheServerEnds)
{
    for (int nSignal : {0, SIGTERM}) {
        Camera another({Codec::JPEG});
        server.Start();
        ASSERT_EQ(1, another.Open(Url("cam")));
        ASSERT_EQ("200 OK", another.Record("FileName=" + File("a.zmf")));
        another.Send(20);
        EXPECT_THAT(FilesBelow(root), ElementsAre("a.zmf.tm!"));
        if (nSignal)
            server.Signal(nSignal);
        EXPECT_EQ(0, nSignal ? server.WaitExit() : server.Quit());
        EXPECT_THAT(FilesBelow(root), ElementsAre("a.zmf"));
        std::string file = ReadFile(File("a.zmf"));
        EXPECT_EQ(20U, CountPictures(file));
        EXPECT_EQ(19U * 40, GetBe(file.data() + 40, 4)) << "the duration";
        std::filesystem::remove(File("a.zmf"));
    }
}

}  // namespace
}  // namespace orx
