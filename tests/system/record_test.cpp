// RECORDEX: what it answers, and which files it makes. GETPLAYLIST: what it lists, and for whom.
#include <algorithm>
#include <csignal>
#include <ctime>
#include <deque>
#include <filesystem>
#include <regex>

#include "base/bytes.h"
#include "support/sockets.h"
#include "system/recordingtest.h"

using namespace orx;

using testing::ElementsAre;

struct RecordTest : RecordingTest {
    Camera camera{{Coding::H264, Coding::G711}};

    void StartRecorder(const std::string &moreSdp = "")
    {
        server.Start();
        ASSERT_EQ(1, camera.Open(Url("cam"), moreSdp));
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
    Describe(&player);
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
        EXPECT_EQ(Reply(c.status), Ask(&player, "RECORDEX", "", "actionparam: " + c.param + "\r\n")) << c.param;
    for (const std::string &line : {"StartRecord(" + File("a.zmf") + ") Limited=0seconds, PreRecord=0seconds\r\n",
                                    "StartRecord(" + File("b.zmf") + ") Limited=100seconds, PreRecord=0seconds\r\n",
                                    "StopRecord(" + File("a.zmf") + ")\r\n"})
        EXPECT_TRUE(server.WaitOutput(line)) << line;
    EXPECT_EQ(5, CountText(server.Output(), "Create record file("));
    EXPECT_THAT(Finish(), ElementsAre("a.zmf", "b.zmf"));
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
    ASSERT_EQ(4U, files.size()) << "a program has four at most";
    for (const std::string &name : files) {
        EXPECT_THAT(name, testing::MatchesRegex("cam/20[0-9]{6}/[SAM][0-9]{6}\\.zmf"));
        std::string file = ReadFile(File(name)), begun = file.data() + 20;
        tm start{}, named{};
        ASSERT_NE(nullptr, strptime(begun.c_str(), "%Y%m%d-%H%M%S", &start));
        ASSERT_NE(nullptr, strptime((name.substr(4, 8) + name.substr(14, 6)).c_str(), "%Y%m%d%H%M%S", &named));
        start.tm_isdst = named.tm_isdst = -1;
        EXPECT_GE(mktime(&named), mktime(&start)) << "named by its beginning";
        EXPECT_LE(mktime(&named), mktime(&start) + 2) << "or the next second that none of the others has";
        EXPECT_GE(mktime(&start), tStart);
        EXPECT_LE(mktime(&start), time(nullptr));
        EXPECT_EQ(std::string("0SAM").find(name[13]), GetBe(file.data() + 36, 2));
        EXPECT_STREQ("the front door", file.data() + 60);
    }
}

// Whatever ends the server in an orderly way completes what it is recording.
TEST_F(RecordTest, IsCompletedWhenTheServerEnds)
{
    StartRecorder();
    ASSERT_EQ("200 OK", camera.Record("FileName=" + File("a.zmf")));
    camera.Send(20);
    EXPECT_THAT(FilesBelow(root), ElementsAre("a.zmf.tm!"));
    server.Signal(SIGTERM);
    EXPECT_EQ(0, server.WaitExit());
    EXPECT_THAT(FilesBelow(root), ElementsAre("a.zmf"));
    std::string file = ReadFile(File("a.zmf"));
    EXPECT_EQ(20U, CountPictures(file));
    EXPECT_EQ(19U * 40 + 20, GetBe(file.data() + 40, 4)) << "the duration, with the last sound";
}

// Whatever links and ".." make of a name, and whoever has it already.
TEST_F(RecordTest, StaysBelowItsDirectoryWhenConfined)
{
    const std::string out = root + "-other", refused = "200 NOT enough space to RECORD.";
    for (const std::string &dir : {out, File("sub")})
        std::filesystem::create_directories(dir);
    for (const char *szLink : {"away", "l.zmf", "m.zmf.tm!"})
        std::filesystem::create_symlink(out + (*szLink == 'a' ? "" : "/x.zmf"), File(szLink));
    std::filesystem::create_symlink("sub", File("in"));
    for (const char *szTaken : {"a.zmf", "b.zmf.tm!"})  // the second one is settled at the start
        WriteFile(File(szTaken), std::string(70000, 'x'));
    WriteFile(File("b.zmf"), "precious");
    server.Set("GUARD", "ConfineRecordings", "1");
    StartRecorder();
    const struct {
        std::string name, file;  // "": none
    } cases[] = {
        {"a.zmf", "a-1.zmf"},      {File("a.zmf"), "a-2.zmf"},
        {"l.zmf", "l-1.zmf"},      {"m.zmf", "m-1.zmf"},
        {"sub/../c.zmf", "c.zmf"}, {"in/d.zmf", "sub/d.zmf"},
        {"../rec/e.zmf", "e.zmf"}, {"../f.zmf", ""},
        {"in/../../f.zmf", ""},    {"away/f.zmf", ""},
        {out + "/f.zmf", ""},      {"/proc/self/cwd/f.zmf", ""},
        {"missing/f.zmf", ""},     {"f.txt", ""},
    };
    std::vector<std::string> expected = {"a.zmf", "b-1.zmf", "b.zmf"};
    for (const auto &c : cases) {
        EXPECT_EQ(c.file.empty() ? refused : "200 OK", camera.Record("FileName=" + c.name)) << c.name;
        camera.Send(1);
        EXPECT_EQ("200 OK", camera.Record("Cmd=stop"));
        if (!c.file.empty())
            expected.push_back(c.file);
    }
    Camera others[2] = {Camera({Coding::H264}), Camera({Coding::H264})};
    ASSERT_EQ(1, others[0].Open(Url("two//parts/")));
    for (int i = 0; i < 3; i++)  // within a second
        EXPECT_EQ("200 OK", others[0].Record("EventType=3"));
    ASSERT_EQ(1, others[1].Open(Url("away")));
    EXPECT_EQ(refused, others[1].Record("EventType=3"));
    for (Camera &other : others)
        RtspClose(&other.client);
    std::vector<std::string> files = Finish();
    auto pTree = std::stable_partition(files.begin(), files.end(), [](auto &name) { return !name.starts_with("two"); });
    EXPECT_EQ(3, files.end() - pTree);
    for (const std::string &name : std::vector<std::string>(pTree, files.end()))
        EXPECT_THAT(name, testing::MatchesRegex("two/parts/20[0-9]{6}/M[0-9]{6}\\.zmf"));
    files.erase(pTree, files.end());
    std::erase_if(files, [](auto &name) { return name == "l.zmf" || name == "m.zmf.tm!" || name == "away"; });
    EXPECT_THAT(files, testing::UnorderedElementsAreArray(expected));
    EXPECT_EQ("precious", ReadFile(File("b.zmf")));
    EXPECT_TRUE(std::filesystem::is_empty(out));
}

struct PlayListTest : RecordingTest {
    std::deque<RtspClient> pushers;
    const std::string admin = UserHeaders("admin", "secret");

    void SetUp() override
    {
        server.Set("USERS",
                   "SuperUser=admin\nSuperPwd=secret\nNumUsers=2\nUserName0=ann\nUserPwd0=anna\nUserName1=bob");
        server.Set("USERCTRL", "UserDevList0", "cam/back, bare");
        server.Start();
    }
    // A program of sound alone, or with pictures whose size is looked at by all who parse it.
    void Announce(const std::string &name, const std::string &lines, bool bPictures = false)
    {
        std::string sdp = CameraSdp(bPictures ? 1 : 2);
        if (!bPictures)
            sdp.replace(sdp.find("m=video"), sdp.find("m=audio") - sdp.find("m=video"), "");
        ASSERT_EQ(1, RtspOpenPusher(&pushers.emplace_back(), Url(name).c_str(), sdp + lines));
    }
    // What comes on a connection of its own, up to the empty line; a well-formed time is replaced by "TIME".
    std::string List(const std::string &headers) const
    {
        Sock sock = orx::Connect(server.nPort);
        EXPECT_TRUE(sock.Send(MakeRequest("GETPLAYLIST", "*", 7, headers)));
        std::string text, more;
        do
            text += more = sock.Read(1);
        while (!more.empty() && text.find("\r\n\r\n") == std::string::npos);
        EXPECT_TRUE(sock.StillOpen());
        return std::regex_replace(text, std::regex("^PlayList:20[0-9]{6}-[0-9]{4}\r\n"), "TIME\r\n");
    }
};

TEST_F(PlayListTest, ListsWhatAUserMaySeeOnHisScreen)
{
    Announce("cam/front", "a=NickName:front door\r\na=framesize:96 640-480\r\n", true);
    Announce("cam/back", "a=cliprect:0,0,240,320\r\na=NickName:back\r\n", true);
    Announce("bare", "");
    Announce("odd", "a=framesize:96\r\n");
    Announce("odder", "a=framesize:96 640x480\r\n");
    const std::string front = "640x480|front door|/cam/front\r\n", back = "240x320|back|/cam/back\r\n",
                      bare = "0x0||/bare\r\n", odd = "0x0||/odd\r\n0x0||/odder\r\n";
    const struct {
        std::string headers, lines;
    } cases[] = {
        {admin, front + back + bare + odd},
        {admin + "Screen-Size: 0x240\r\n", front + back + bare + odd},
        {admin + "Screen-Size: 640x480\r\n", front + back + bare + odd},
        {admin + "Screen-Size: 640x479\r\n", back + bare + odd},
        {admin + "Screen-Size: 320x239\r\n", bare + odd},
        {UserHeaders("ann", "anna"), back + bare},
        {UserHeaders("bob", ""), ""},
    };
    for (const auto &c : cases)
        EXPECT_EQ("TIME\r\n" + c.lines + "\r\n", List(c.headers)) << c.headers;
    for (const std::string &headers :
         {std::string(), std::string("UserName: admin\r\n"), UserHeaders("admin", "wrong"), UserHeaders("eve", "")})
        EXPECT_EQ("RTSP/1.0 401 Unauthorized\r\n" + kServerLine + "CSeq: 1\r\n\r\n", List(headers)) << headers;
    EXPECT_TRUE(server.WaitOutput("bad SDP: invalid frame size line\n"));
    EXPECT_TRUE(server.WaitOutput("bad SDP: invalid frame size line(no height)\n"));
}

// No program is added from byte 3904 on.
TEST_F(PlayListTest, EndsBeforeItIsTooLong)
{
    const std::string name(80, 'n');
    for (int i = 10; i < 60; i++)
        Announce("cam" + std::to_string(i), "a=NickName:" + name + "\r\n");
    const size_t nLine = strlen("0x0||/cam10\r\n") + name.size();
    const size_t nLines = (3904 - strlen("PlayList:20261122-0101\r\n") + nLine - 1) / nLine;
    std::string list = List(admin);
    EXPECT_EQ(strlen("TIME\r\n") + nLines * nLine + 2, list.size()) << list;
}
