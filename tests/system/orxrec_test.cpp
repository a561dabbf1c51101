// orxrec: recordings begun, ended and found from the shell.
#include <filesystem>

#include "system/recordingtest.h"

using namespace orx;

using testing::HasSubstr;
using testing::MatchesRegex;

struct OrxRecTest : RecordingTest {
    Camera camera{{Coding::H264}};

    // What the tool says, with its exit code in front.
    static std::string Rec(const std::vector<std::string> &arguments)
    {
        ToolProcess tool("orxrec", arguments);
        int nExit = tool.WaitExit();
        return std::to_string(nExit) + " " + tool.Output();
    }
    std::string OnBox(const std::string &command, const std::string &path = "")
    {
        return Rec({command, "-c", server.ConfigPath(), Url(path)});
    }
};

// On the box itself no password is needed, and the list's URLs play.
TEST_F(OrxRecTest, RecordsAndFindsWhatItRecorded)
{
    server.Set("SERVER", "AuthType=2\nControlUsers=1");
    server.Set("USERS", "SuperUser=boss\nSuperPwd=secret");
    server.Set("GUARD", "StrictRoles=1\nSurvivePeerFaults=1");
    server.Start();
    std::filesystem::create_directories(File("keep"));
    ASSERT_EQ(1, camera.Open(Url("live/cam%201")));
    EXPECT_THAT(OnBox("status"), HasSubstr("3 orxrec: nothing is being recorded below " + root));
    EXPECT_THAT(OnBox("list", "live/cam%201"), HasSubstr("3 orxrec: there is no recording of live/cam 1 below "));
    EXPECT_EQ("0 /live/cam%201: is being recorded\n", Rec({"start", Url("live/cam%201"), "--limit=60"}));
    EXPECT_EQ("0 /live/cam%201: is being recorded\n",
              Rec({"alarm", Url("live/cam%201"), "--file", File("keep/front door.zmf")}));
    camera.Send(60);
    EXPECT_TRUE(Answers(&camera.client));
    const std::string row = "\n2...-..-..T..:..:.. +0:..:.. +[0-9]+ ";
    EXPECT_THAT(OnBox("status"), MatchesRegex("0 BEGUN[^\n]*" + row + "(manual|alarm) +writing [^\n]*" + row +
                                              "(manual|alarm) +writing [^\n]*\n"));
    EXPECT_THAT(OnBox("list", "live/cam%201"), MatchesRegex("0 BEGUN[^\n]*" + row + "manual +writing +-\n"));
    EXPECT_THAT(Rec({"stop", Url("live/cam%201")}), HasSubstr("0 /live/cam%201: the manual recording has ended"));
    server.Kill();
    WriteFile(File("broken.zmf"), "zmf?");
    std::filesystem::create_directories(File("live/other"));
    ASSERT_NO_FATAL_FAILURE(server.Start());
    std::string list = OnBox("list"), ofOne = OnBox("list", "live/cam%201/");
    EXPECT_THAT(list, HasSubstr(" unreadable  " + Url("broken.zmf") + "\n"));
    EXPECT_THAT(ofOne,
                MatchesRegex("0 BEGUN[^\n]*" + row + "manual +complete +rtsp://[^ ]*/live/cam%201/2.*/M.*zmf\n"));
    RtspClient viewer;
    viewer.user = "boss";
    viewer.password = "secret";
    std::string url = ofOne.substr(ofOne.rfind("rtsp://"));
    EXPECT_EQ(1, RtspOpenPlayer(&viewer, url.substr(0, url.size() - 1).c_str(), RTSP_OVER_TCP));
    EXPECT_THAT(OnBox("list", "live"), HasSubstr("3 orxrec: there is no recording of live below "));
}

// Each way to fail has an exit code and says what to do.
TEST_F(OrxRecTest, SaysWhyNot)
{
    server.Set("STORAGE", "ReserveMegabytes", "1000000");
    server.Set("STORAGE", "AutoDelOldFile", "0");
    server.Start();
    ASSERT_EQ(1, camera.Open(Url("cam")));
    static const struct {
        std::vector<std::string> arguments;
        const char *szSaid;
    } cases[] = {
        {{"start", "rtsp://127.0.0.1:1/cam"}, "5 orxrec: cannot connect to 127.0.0.1:1: is the server running"},
        {{"start", "http://x/cam"}, "2 orxrec: http://x/cam is no URL"},
        {{"start", "rtsp://x"}, "2 orxrec: the URL needs a program"},
        {{"alarm", "URL/cam", "--file", "x.txt"}, "2 orxrec: --file: x.txt is no name of a recording"},
        {{"start", "URL/cam", "--file=a&b.zmf"}, "2 orxrec: --file: a&b.zmf is no name of a recording"},
        {{"stop", "URL/dog"}, "3 orxrec: the server has no program /dog: its camera must push"},
        {{"start", "URL/cam"}, "4 orxrec: there is no space for a recording"},
        {{"list", "URL", "-c", "/none/orx.cfg"}, "6 orxrec: /none/orx.cfg: No such file or directory: give"},
        {{"list", "URL/../..", "-c", "CONFIG"}, "3 orxrec: /../.. is no name of a program"},
    };
    for (const auto &[words, szSaid] : cases) {
        std::vector<std::string> arguments = words;
        for (std::string &word : arguments) {
            if (word.starts_with("URL"))
                word.replace(0, 3, Url("").substr(0, Url("").size() - 1));
            if (word == "CONFIG")
                word = server.ConfigPath();
        }
        EXPECT_THAT(Rec(arguments), testing::StartsWith(szSaid));
    }
    ASSERT_EQ(0, server.Quit());
    std::filesystem::remove_all(root);
    EXPECT_THAT(OnBox("list"), HasSubstr("6 orxrec: " + root + "/: No such file or directory: run this on"));
    server.Set("STORAGE", "RecordEnable", "0");
    ASSERT_NO_FATAL_FAILURE(server.Start());
    Camera again({Coding::H264});
    ASSERT_EQ(1, again.Open(Url("cam")));
    EXPECT_THAT(Rec({"start", Url("cam")}), HasSubstr("1 orxrec: recording is off: set RecordEnable=1"));
}
