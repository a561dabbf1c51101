// RECORDEX: what it answers, which files it makes, and that the live program does not suffer.
#include <csignal>
#include <memory>
#include <regex>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "base/bytes.h"
#include "system/recordingtest.h"
#include "system/toolprocess.h"

namespace orx {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::MatchesRegex;

const bool kLong = getenv("ORX_LONG") != nullptr;
const char kNoSpace[] = "200 NOT enough space to RECORD.";

std::string Reply(const std::string &status, int nCSeq)
{
    return "RTSP/1.0 " + status + "\r\n" + kServerLine + "CSeq: " + std::to_string(nCSeq) + "\r\n\r\n";
}

struct RecordTest : RecordingTest {
    Camera camera{{Codec::H264, Codec::G711}};
    RtspClient control;

    void StartCamera(const std::string &moreSdp = "")
    {
        server.Start();
        ASSERT_EQ(1, camera.Open(Url("cam"), moreSdp));
    }
    std::string Ask(RtspClient *pClient, int nCSeq, const std::string &headers)
    {
        return Exchange(pClient, MakeRequest("RECORDEX", Url("cam"), nCSeq, headers));
    }
};

TEST_F(RecordTest, AnswersByteForByte)
{
    StartCamera();
    ASSERT_EQ(1, RtspConnect(&control, Url("cam").c_str()));
    EXPECT_EQ(Reply("400 Bad Request(no RECORDEX yet)", 1), Ask(&control, 1, "ActionParam: x\r\n"));
    ASSERT_EQ(1, RtspDescribe(&control)) << "the connection stays";
    EXPECT_EQ(Reply("400 Bad Request(no ActionParam field)", 5), Ask(&control, 5, ""));
    EXPECT_EQ(Reply("200 OK", 6), Ask(&control, 6, "ActionParam: Cmd=stop\r\n")) << "nothing to stop";
    EXPECT_EQ(Reply("200 OK", 7), Ask(&control, 7, "ActionParam: FileName=" + File("a.zmf") + "\r\n"));
    EXPECT_EQ(Reply("200 OK", 8),
              Ask(&control, 8, "actionparam: EventType=1&LimitLen=100&FileName=" + File("b.zmf") + "&x\r\n"));
    EXPECT_TRUE(
        server.WaitOutput("StartRecord(" + File("a.zmf") + ") Limited=0seconds, PreRecord=0seconds\r\n"));
    EXPECT_TRUE(
        server.WaitOutput("StartRecord(" + File("b.zmf") + ") Limited=100seconds, PreRecord=0seconds\r\n"));
    const char *const refused[] = {"EventType=4", "EventType=0", "EventType=-1", "FileName=/proc/a.zmf",
                                   "FileName=/etc/passwd"};
    int nCSeq = 9;
    for (const char *szParam : refused) {
        EXPECT_EQ(Reply(kNoSpace, nCSeq),
                  Ask(&control, nCSeq, std::string("ActionParam: ") + szParam + "\r\n"))
            << szParam;
        nCSeq++;
    }
    EXPECT_EQ(5, CountText(server.Output(), "Create record file("));
    EXPECT_EQ(Reply("200 OK", nCSeq), Ask(&control, nCSeq, "ActionParam: EventType=2&Cmd=stop\r\n"));
    EXPECT_TRUE(server.WaitOutput("StopRecord(" + File("a.zmf") + ")\r\n"));
    RtspClose(&control);
    RtspClose(&camera.client);
    EXPECT_TRUE(WaitFor([&] { return FilesBelow(root) == std::vector<std::string>{"a.zmf", "b.zmf"}; }));
}

TEST_F(RecordTest, IsRefusedWhenOff)
{
    server.Set("STORAGE", "RecordEnable", "0");
    StartCamera();
    EXPECT_EQ(Reply("405 Method Not Allowed", 9), Ask(&camera.client, 9, "ActionParam: EventType=3\r\n"));
    EXPECT_EQ(Reply("405 Method Not Allowed", 10), Ask(&camera.client, 10, ""));
    EXPECT_TRUE(FilesBelow(root).empty());
}

// A fifth is answered like the others and records nothing; a stop takes the first manual one.
TEST_F(RecordTest, KeepsFourAtMost)
{
    StartCamera();
    const char *const params[] = {
        "EventType=1&FileName=", "EventType=2&FileName=", "FileName=", "EventType=3&FileName=", "FileName="};
    for (int i = 0; i < 5; i++)
        EXPECT_EQ("200 OK", RecordEx(&camera.client, params[i] + File(std::to_string(i) + ".zmf")));
    EXPECT_EQ(4, CountText(server.Output(), "StartRecord("));
    camera.Send(10);
    const std::vector<std::string> stages[] = {{"0.zmf.tm!", "1.zmf.tm!", "2.zmf", "3.zmf.tm!"},
                                               {"0.zmf.tm!", "1.zmf.tm!", "2.zmf", "3.zmf"},
                                               {"0.zmf.tm!", "1.zmf.tm!", "2.zmf", "3.zmf"}};
    for (const auto &files : stages) {
        EXPECT_EQ("200 OK", RecordEx(&camera.client, "Cmd=stop"));
        EXPECT_EQ(files, FilesBelow(root));
    }
    EXPECT_EQ("200 OK", RecordEx(&camera.client, "FileName=" + File("5.zmf"))) << "there is room again";
    camera.Send(30);
    camera.Flush();
    EXPECT_EQ("200 OK", RecordEx(&camera.client, "Cmd=stop"));
    RtspClose(&camera.client);
    EXPECT_TRUE(WaitFor([&] { return server.Stat().nLives == 0; }));
    static const size_t pictures[] = {40, 40, 10, 10, 15};  // the last one from the next key picture on
    std::vector<std::string> files = FilesBelow(root);
    EXPECT_THAT(files, ElementsAre("0.zmf", "1.zmf", "2.zmf", "3.zmf", "5.zmf"));
    for (size_t i = 0; i < 5; i++) {
        std::string file = ReadFile(File(files[i]));
        EXPECT_EQ(pictures[i], CountPictures(file, file.size())) << files[i];
    }
}

TEST_F(RecordTest, NamesFilesByDateAndKind)
{
    StartCamera("a=NickName:the front door\r\n");
    camera.Send(30);
    for (const char *szParam : {"EventType=1", "EventType=2", "EventType=3"})
        EXPECT_EQ("200 OK", RecordEx(&camera.client, szParam));
    camera.Send(30);
    camera.Flush();
    time_t now = time(nullptr);
    RtspClose(&camera.client);
    EXPECT_TRUE(WaitFor([&] { return server.Stat().nLives == 0; }));
    std::vector<std::string> files = FilesBelow(root);
    ASSERT_EQ(3U, files.size());
    for (int i = 0; i < 3; i++) {
        const std::string &name = files[static_cast<size_t>(i)];
        const char chPrefix = "AMS"[i];
        EXPECT_THAT(name, MatchesRegex(std::string("cam/20[0-9]{6}/") + chPrefix + "[0-9]{6}\\.zmf"));
        std::string file = ReadFile(File(name));
        EXPECT_EQ("zmf@", file.substr(0, 4));
        EXPECT_EQ((168U << 16) + 100, GetBe(file.data() + 4, 4));
        EXPECT_EQ(1600U, GetBe(file.data() + 8, 2));
        tm start{};
        std::string text(file.data() + 20);
        EXPECT_EQ(15U, text.size());
        EXPECT_EQ(name.substr(4, 8) + "-" + name.substr(14, 6), text) << "named by its beginning";
        ASSERT_NE(nullptr, strptime(text.c_str(), "%Y%m%d-%H%M%S", &start));
        start.tm_isdst = -1;
        EXPECT_NEAR(static_cast<double>(now), static_cast<double>(mktime(&start)), 60);
        EXPECT_EQ(chPrefix == 'S' ? 1U : chPrefix == 'A' ? 2U : 3U, GetBe(file.data() + 36, 2));
        EXPECT_STREQ("the front door", file.data() + 60);
        EXPECT_EQ(0U, GetBe(file.data() + 134, 2));
        // an alarm's begins with what the cache holds of the time before, if the program is that old
        EXPECT_GE(GetBe(file.data() + 44, 4), 10U) << "pictures";
        EXPECT_EQ(CountPictures(file, file.size()), GetBe(file.data() + 44, 4));
    }
}

// Two begun in the same second have one name: the second one replaces the first.
TEST_F(RecordTest, ReplacesARecordingOfTheSameSecond)
{
    StartCamera();
    int nFiles = 0;
    std::string last;
    for (int i = 0; i < 4; i++) {
        size_t nFrom = server.Output().size();
        ASSERT_EQ("200 OK", RecordEx(&camera.client, "EventType=3"));
        camera.Send(i == 3 ? 25 : 5);
        std::string name = server.Output().substr(nFrom);
        name = name.substr(name.find("StartRecord(") + 12, 3 + root.size() + 20);
        nFiles += name != last;
        last = name;
    }
    camera.Flush();
    RtspClose(&camera.client);
    EXPECT_TRUE(WaitFor([&] { return server.Stat().nLives == 0; }));
    std::vector<std::string> files = FilesBelow(root);
    EXPECT_EQ(static_cast<size_t>(nFiles), files.size());
    for (const std::string &name : files)
        EXPECT_THAT(name, testing::EndsWith(".zmf"));
}

TEST_F(RecordTest, BeginsWithAKeyPicture)
{
    StartCamera();
    camera.Send(10);
    ASSERT_EQ("200 OK", RecordEx(&camera.client, "FileName=" + File("a.zmf")));
    camera.Send(50);
    camera.Flush();
    ASSERT_EQ("200 OK", RecordEx(&camera.client, "Cmd=stop"));
    Viewer viewer;
    ASSERT_EQ(1, viewer.Prepare(Url("a.zmf")));
    viewer.Request("PLAY");
    WatchToTheEnd({&viewer});
    const MediaUnits &pictures = camera.tracks[0].sent, &sound = camera.tracks[1].sent;
    EXPECT_EQ(MediaUnits(pictures.begin() + 25, pictures.end()), viewer.Units(0, Codec::H264));
    EXPECT_TRUE(JoinData(MediaUnits(sound.begin() + 50, sound.end())) ==
                JoinData(viewer.Units(1, Codec::G711)));
}

TEST_F(RecordTest, EndsByItsLimit)
{
    StartCamera();
    ASSERT_EQ("200 OK", RecordEx(&camera.client, "LimitLen=1&FileName=" + File("a.zmf")));
    ASSERT_EQ("200 OK", RecordEx(&camera.client, "FileName=" + File("b.zmf")));
    const std::string ended = "ZMFWriterWriteSample() auto stopped().\r\n";
    EXPECT_TRUE(WaitFor([&] {
        camera.Send(1);
        camera.Flush();
        return CountText(server.Output(), ended) > 0;
    }));
    EXPECT_THAT(FilesBelow(root), ElementsAre("a.zmf", "b.zmf.tm!"));
    std::string file = ReadFile(File("a.zmf"));
    EXPECT_EQ(static_cast<size_t>(camera.nPicture), CountPictures(file, file.size()));
    camera.Send(30);
    camera.Flush();
    EXPECT_EQ(1, CountText(server.Output(), ended)) << "the other one goes on";
}

// Whatever ends the server in an orderly way completes what it is recording.
TEST_F(RecordTest, IsCompletedWhenTheServerEnds)
{
    for (int nSignal : {0, SIGTERM}) {
        Camera another({Codec::JPEG});
        server.Start();
        ASSERT_EQ(1, another.Open(Url("cam")));
        ASSERT_EQ("200 OK", RecordEx(&another.client, "FileName=" + File("a.zmf")));
        another.Send(20);
        another.Flush();
        EXPECT_THAT(FilesBelow(root), ElementsAre("a.zmf.tm!"));
        if (nSignal)
            server.Signal(nSignal);
        EXPECT_EQ(0, nSignal ? server.WaitExit() : server.Quit());
        EXPECT_THAT(FilesBelow(root), ElementsAre("a.zmf"));
        std::string file = ReadFile(File("a.zmf"));
        EXPECT_EQ(20U, CountPictures(file, file.size()));
        EXPECT_EQ(19U * 40, GetBe(file.data() + 40, 4)) << "the duration";
        std::filesystem::remove(File("a.zmf"));
    }
}

TEST_F(RecordTest, KeepsAlarmMessages)
{
    server.Start();
    Camera events({Codec::H264, Codec::EVENTS});
    ASSERT_EQ(1, events.Open(Url("cam")));
    for (const char *szName : {"a.zmf", "b.zmf"})
        ASSERT_EQ("200 OK", RecordEx(&events.client, "EventType=1&FileName=" + File(szName)));
    events.SendEvent("ALARM: before the first picture");
    events.Send(10);
    for (const char *szText : {"ALARM:", "ALARM", "alarm:x", "ALARM:door", " ALARM:x"})
        events.SendEvent(szText);
    events.Send(5);
    events.Flush();
    RtspClose(&events.client);
    EXPECT_TRUE(WaitFor([&] { return server.Stat().nLives == 0; }));
    for (const char *szName : {"a.zmf", "b.zmf"}) {
        std::string file = ReadFile(File(szName));
        EXPECT_EQ(2U, GetBe(file.data() + 56, 4)) << szName;
        EXPECT_THAT(file, HasSubstr("ALARM:door"));
        EXPECT_EQ(std::string::npos, file.find("alarm:x"));
        EXPECT_EQ(std::string::npos, file.find("before the first"));
    }
}

// Four cameras of 8 Mbit/s are recorded while players watch them: none misses a packet, and none waits.
TEST_F(RecordTest, PlayersMissNothing)
{
    const int nPrograms = kLong ? 4 : 2;
    const std::string players = std::to_string((kLong ? 50 : 10) / 2);
    server.Set("SERVER", "ConnectLimit", "200");
    server.Start();
    std::string dumps = server.dir.File("dump%d");
    ToolProcess push("orxpush", {"--wait", "10", "--count", std::to_string(nPrograms), "--loop", "--rate",
                                 kSanitized ? "2000" : "8000", "--audio", "tone", "--stamp", "--first-time",
                                 "0", "--dump", dumps, server.Url("/cam%d")});
    ASSERT_TRUE(push.WaitOutput("programs started"));
    std::vector<std::unique_ptr<RtspClient>> controls;
    for (int i = 1; i <= nPrograms; i++) {
        controls.push_back(std::make_unique<RtspClient>());
        ASSERT_EQ(1, RtspConnect(controls.back().get(), Url("cam" + std::to_string(i)).c_str()));
        ASSERT_EQ(1, RtspDescribe(controls.back().get()));
        ASSERT_EQ("200 OK", RecordEx(controls.back().get(), "EventType=1"));
    }
    ToolProcess load("orxload",
                     {"--tcp", players, "--udp", players, "--programs", std::to_string(nPrograms), "--verify",
                      dumps, "--strict", "--json", "--duration", kLong ? "30" : "3", server.Url("/cam%d")});
    EXPECT_EQ(0, load.WaitExit(90000)) << load.Output();
    EXPECT_EQ(0, CountText(server.Output(), "ZMFWriterWriteSample()"));
    push.Signal(SIGINT);
    EXPECT_EQ(0, push.WaitExit()) << push.Output();
    EXPECT_TRUE(WaitFor([&] { return CountText(server.Output(), "OnFreeSession()") > nPrograms; }));
    controls.clear();
    EXPECT_TRUE(WaitFor([&] { return server.Stat().nLives == 0; }));
    for (const std::string &name : FilesBelow(root)) {
        ToolProcess check("orxzmf", {"check", File(name)});
        EXPECT_EQ(0, check.WaitExit()) << check.Output();
    }
    EXPECT_EQ(static_cast<size_t>(nPrograms), FilesBelow(root).size());
}

// A real minute: the files of a recording follow each other without a gap.
TEST_F(RecordTest, RollsOverEveryMinute)
{
    if (!kLong)
        GTEST_SKIP() << "takes two minutes; set ORX_LONG=1";
    server.Set("STORAGE", "MinutePerFile", "1");
    server.Set("INTEROP", "StandardPushers", "1");
    server.Start();
    ToolProcess push("orxpush", {"--wait", "10", "--duration", "130", "--audio", "tone", "--dump",
                                 server.dir.File("dump"), server.Url("/cam")});
    ASSERT_TRUE(push.WaitOutput("started"));
    ASSERT_EQ(1, RtspConnect(&control, Url("cam").c_str()));
    ASSERT_EQ(1, RtspDescribe(&control));
    ASSERT_EQ("200 OK", RecordEx(&control, "EventType=1"));
    EXPECT_EQ(0, push.WaitExit(150000)) << push.Output();
    std::vector<std::string> files;
    EXPECT_TRUE(WaitFor([&] {
        files = FilesBelow(root);
        return files.size() == 3 && CountText(files[2], ".tm!") == 0;
    }));
    std::vector<Viewer> viewers(3);
    for (size_t i = 0; i < 3; i++) {
        EXPECT_EQ(i, GetBe(ReadFile(File(files[i])).data() + 134, 2));
        ASSERT_EQ(1, viewers[i].Prepare(Url(files[i])));
        viewers[i].Request("PLAY");
    }
    WatchToTheEnd({&viewers[0], &viewers[1], &viewers[2]});
    MediaUnits all;
    std::string sound;
    for (const Viewer &viewer : viewers) {
        MediaUnits part = viewer.Units(0, Codec::H264);
        ASSERT_FALSE(part.empty());
        EXPECT_TRUE(part[0].bKey);
        EXPECT_EQ(0U, part[0].nTimeMs);
        all.insert(all.end(), part.begin(), part.end());
        sound += JoinData(viewer.Units(1, Codec::G711));
    }
    std::string dump = ReadFile(server.dir.File("dump"));
    MediaUnits sent = TakeApart(Codec::H264, ReadDump(dump, 0), 90);
    EXPECT_GT(all.size(), 3000U);
    EXPECT_TRUE(MediaUnits(sent.end() - static_cast<long>(all.size()), sent.end()) == all);
    EXPECT_THAT(JoinData(TakeApart(Codec::G711, ReadDump(dump, 2), 8)), testing::EndsWith(sound));
}

}  // namespace
}  // namespace orx
