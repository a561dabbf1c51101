// What the program answers without a start, strict starts, and what the console tells where events are logged.
#include <filesystem>
#include <regex>

#include <sys/stat.h>

#include "support/sockets.h"
#include "system/systemtest.h"

using namespace orx;

using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;

struct OptionsTest : SystemTest {
    ChildProcess asked;

    // Runs the program once. Returns its exit status; its words are in asked.Output().
    int Run(const std::vector<std::string> &arguments)
    {
        asked.Spawn(server.dir.File("bin/orx"), arguments);
        asked.EndInput();
        return asked.WaitExit();
    }
};

TEST_F(OptionsTest, AnswersWithoutAStart)
{
    server.Start();
    EXPECT_EQ(0, server.Quit());
    ASSERT_EQ(0, mkfifo(server.dir.File("cfg/fifo").c_str(), 0600));  // a reader would wait for ever
    static const struct {
        std::vector<std::string> arguments;
        int nStatus;
        const char *szSaid;
    } cases[] = {
        {{"--version"}, 0, "Orx version 2.3.1.2, built"},
        {{"--help"}, 0, "Usage: orx [-c CFGFILE] [-daemond] [--strict]\n"},
        {{"--help", "--nonsense"}, 0, "--dump-config"},
        {{"--dump-config"}, 0, "\nStrictConfig=0\n"},
        {{"--check"}, 0, "; the server would start with --strict\n"},
        {{"--check", "-c", "--none"}, 1, "cfg/--none: is missing"},
        {{"--check", "--upgrade"}, 0, "\nStrictConfig=1\n"},
        {{"--strict", "--daemond"}, 2, "orx: unknown option --daemond, see orx --help\n"},
        {{"--check", "--strct"}, 2, "--strct"},
        {{"--verion", "--version"}, 2, "--verion"},
        {{"--dump-config", "--upgrade"}, 2, "--upgrade"},
        {{"--strict", "-c", "fifo"}, 1, "cfg/fifo\" shows all."},
        {{"--strict", "-c", "none.cfg"}, 1, "cfg/none.cfg: is missing (No such file or directory): the defaults"},
    };
    for (const auto &c : cases) {
        EXPECT_EQ(c.nStatus, Run(c.arguments)) << c.arguments[0] << "\n" << asked.Output();
        EXPECT_THAT(asked.Output(), HasSubstr(c.szSaid));
        EXPECT_THAT(asked.Output(), Not(HasSubstr("Server started")));
    }
    server.Start({"--nonsense"});
    EXPECT_THAT(server.Output(), HasSubstr("orx: unknown option --nonsense"));
}

// What --dump-config prints raises no doubt, and what --check --upgrade prints leaves none that is about keys
// that are not in the file.
TEST_F(OptionsTest, PrintsFilesThatRaiseNoDoubt)
{
    server.Start();
    EXPECT_EQ(0, server.Quit());
    const std::string path = server.dir.File("cfg/new.cfg"), port = "\nListenPort=";
    EXPECT_EQ(0, Run({"--dump-config"}));
    std::string text = asked.Output();
    text.replace(text.find(port), port.size() + 3, port + std::to_string(server.nPort));  // 554 may be taken
    WriteFile(path, text);
    EXPECT_EQ(0, Run({"--check", "-c", "new.cfg"}));
    EXPECT_THAT(asked.Output(), EndsWith("\n; doubts: 0; the server would start with --strict\n"));
    EXPECT_EQ(1, CountText(asked.Output(), "\nReserveMegabytes=30\n"));
    EXPECT_EQ(0, Run({"--check", "--upgrade"}));
    const std::string old = ReadFile(server.ConfigPath());
    WriteFile(path, old.substr(0, old.find_last_not_of('\n') + 1) + asked.Output());  // its last line lacks its end
    EXPECT_EQ(0, Run({"--check", "-c", "new.cfg"}));
    EXPECT_THAT(asked.Output(), Not(HasSubstr("new installation")));
}

TEST_F(OptionsTest, CheckDisturbsNoServer)
{
    server.Set("SERVER", "EnableUnet=1\nUnetPort=" + std::to_string(server.nSparePort));
    server.Set("USERS", "SuperUser=me\nSuperPwd=geheim");
    server.Start({"--strict"});
    EXPECT_EQ(1, Run({"--check"}));
    EXPECT_EQ(2, CountText(asked.Output(), ", Address already in use): no connection is taken\n")) << asked.Output();
    EXPECT_THAT(asked.Output(), HasSubstr("\nSuperPwd=***\n"));
    EXPECT_THAT(asked.Output(), Not(HasSubstr("geheim")));
    Connect(&player);
    EXPECT_TRUE(Answers(&player));
    EXPECT_EQ(0, server.Quit());
    EXPECT_EQ(0, Run({"--check"})) << asked.Output();
    // a strict start would fail by it
    WriteFile(server.ConfigPath(), ReadFile(server.ConfigPath()) + "[STATUS]\nSocket=none/orx.sock\n");
    EXPECT_EQ(1, Run({"--check"})) << asked.Output();
    EXPECT_THAT(asked.Output(), HasSubstr("none/orx.sock, No such file or directory): no status connection"));
}

// A strict start ends with status 1 where a doubt refuses it; else the same doubt is a line.
TEST_F(OptionsTest, StrictStartsEndByDoubts)
{
    Listener taken;
    const std::string port = "ListenPort=" + std::to_string(taken.nPort);
    const struct {
        std::string section, lines, said;
        int bStrict, bStarts;  // what a start that is not strict does
    } cases[] = {
        {"SERVER", "AuthType=digest", "AuthType=digest is no number: 0 (everybody may watch) is taken\n", 1, 1},
        {"SERVER", "AuthTyp=2", "the nearest is [SERVER] AuthType: 0 is taken\n", 1, 1},
        {"GUARD", "PinMedia = 1", "has a blank in front of '='", 1, 1},
        {"USERS", "UserName0=joe\nUserPwd0=x", "stands beyond NumUsers=0", 1, 1},
        {"STORAGE", "RecordEnable=1\nRecordPath=/proc/self/mem/x", "which cannot be written (Not a directory)", 1, 1},
        {"SERVER", port, "cannot be listened on (127.0.0.1:" + std::to_string(taken.nPort), 1, 1},
        {"SERVER", "HttpProxyListenPort=" + std::to_string(taken.nPort) + "\nEnableHttpProxy=1",
         "no web connection is taken\n", 1, 0},
        {"SERVER", "UdpStartPort=999", "Invalid UdpStartPort: 999!): the server does not start\n", 1, 0},
        {"SERVER", "Nonsense=1", "Nonsense=1 is no known key", 0, 1},
    };
    for (const auto &c : cases)
        for (const char *szStrict : {"--strict", "StrictConfig=1", ""}) {
            OrxProcess orx;
            orx.Set(c.section, c.lines);
            if (*szStrict == 'S')
                orx.Set("GUARD", szStrict);
            orx.Launch(*szStrict == '-' ? std::vector<std::string>{szStrict} : std::vector<std::string>{});
            if (c.bStarts && (!c.bStrict || !*szStrict)) {
                EXPECT_TRUE(orx.WaitOutput("Enter command:")) << orx.Output();
                orx.Type("quit");
            }
            int nStatus = orx.WaitExit();
            EXPECT_EQ(c.bStrict && *szStrict ? 1 : 0, nStatus) << c.lines << szStrict << "\n" << orx.Output();
            EXPECT_THAT(orx.Output(), HasSubstr(c.said));
            EXPECT_EQ(0, CountText(orx.Output(), "Sanitizer"));
        }
}

TEST_F(OptionsTest, ConsoleTellsMoreWhereEventsAreLogged)
{
    for (const char *szLevel : {"", "info"}) {
        const int n = *szLevel ? 1 : 0;
        server.Set("LOG", "Level", szLevel);
        server.Start();
        server.Type("\nSTAT");
        server.Stat();
        server.Type("stat");
        EXPECT_TRUE(server.WaitOutput("TaskNum=", 3));
        EXPECT_EQ(0, server.Quit());
        const std::string &output = server.Output();
        EXPECT_EQ(n, CountText(output, "\"stat\" lists sessions; configuration: " +
                                           std::string(std::filesystem::canonical(server.ConfigPath())) + "\r\n"));
        EXPECT_EQ(n, CountText(output, "Commands: stat, quit (or q).\r\n"));
        const std::regex last("TaskNum=[^\r]*\r\nConfiguration read at 20[0-9]{2}-[0-9: -]{14}\\.\r\n");
        EXPECT_EQ(3 * n,
                  std::distance(std::sregex_iterator(output.begin(), output.end(), last), std::sregex_iterator()))
            << output;
    }
}
