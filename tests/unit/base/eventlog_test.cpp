// The log of events: how a line is formed whatever a peer sent, and where it goes.
#include <algorithm>
#include <csignal>
#include <filesystem>
#include <regex>
#include <set>
#include <string>

#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "base/eventlog.h"
#include "support/files.h"

using namespace orx;

using testing::HasSubstr;

struct EventLog : testing::Test {
    TempDir dir;
    const std::string path = dir.File("events.log");

    void Open(const char *szLevel = "info", const char *szFormat = "text") const
    {
        EventLogOpen(szLevel, path.c_str(), szFormat);
    }
    std::string Text() const { return ReadFile(path); }
    void TearDown() override { EventLogClose(); }
};

// A value is one value, whatever is in it; both forms escape alike.
TEST_F(EventLog, ValuesForgeNothing)
{
    const std::string longValue(600, 'x');
    const std::string cut = std::string(511, 'x') + "\xC3\xA4";  // the cut goes through a character
    const struct {
        std::string value, text, json;
    } cases[] = {
        {"live/cam3", "live/cam3", "\"live/cam3\""},
        {"two words", "\"two words\"", "\"two words\""},
        {"a=b", "\"a=b\"", "\"a=b\""},
        {"say \"x\" \\ y", R"("say \"x\" \\ y")", R"("say \"x\" \\ y")"},
        {"x\r\n2026 info y\x1b[2J\x7f", R"("x\u000d\u000a2026 info y\u001b[2J\u007f")",
         R"("x\u000d\u000a2026 info y\u001b[2J\u007f")"},
        {"K\xC3\xBC"
         "che",
         "\"K\xC3\xBC"
         "che\"",
         "\"K\xC3\xBC"
         "che\""},
        {"\xF0\x9F\x98\x80", "\"\xF0\x9F\x98\x80\"", "\"\xF0\x9F\x98\x80\""},
        {"\xC2\x85\xE2\x80\xAE\xE2\x80\xA8", R"("\u0085\u202e\u2028")", R"("\u0085\u202e\u2028")"},
        {"\xFF\xC0\xAF\xED\xA0\x80\xE2\x82", R"("\ufffd\ufffd\ufffd\ufffd\ufffd\ufffd\ufffd\ufffd")",
         R"("\ufffd\ufffd\ufffd\ufffd\ufffd\ufffd\ufffd\ufffd")"},
        {longValue, '"' + longValue.substr(88) + "...\"", '"' + longValue.substr(88) + "...\""},
        {cut, '"' + cut.substr(0, 511) + "...\"", '"' + cut.substr(0, 511) + "...\""},
    };
    for (const char *szFormat : {"text", "json"})
        for (const auto &c : cases) {
            Open("info", szFormat);
            std::filesystem::remove(path);
            EventSay(EventLevel::Warn, "some.event",
                     {EventText("empty", ""), EventText("value", c.value.c_str()), EventText("null", nullptr),
                      EventNumberIf(0, "none", 1), EventNumber("bytes", -5000000000)});
            const std::string line = Text();
            const bool bJson = szFormat[0] == 'j';
            EXPECT_TRUE(line.ends_with(bJson ? "\",\"level\":\"warn\",\"event\":\"some.event\",\"value\":" + c.json +
                                                   ",\"bytes\":-5000000000}\n"
                                             : " warn some.event value=" + c.text + " bytes=-5000000000\n"))
                << line;
            EXPECT_EQ(1, std::count(line.begin(), line.end(), '\n')) << line;
            EXPECT_TRUE(std::regex_search(
                line, std::regex(std::string(bJson ? "^\\{\"time\":\"" : "^") +
                                 "[0-9]{4}(-[0-9]{2}){2}T[0-9]{2}(:[0-9]{2}){2}\\.[0-9]{3}[+-][0-9]{2}:[0-9]{2}")))
                << line;
        }
}

TEST_F(EventLog, FieldsThatDoNotFitAreLeftOutWhole)
{
    Open("info", "json");
    const std::string bad(512, '\x01');
    EventSay(EventLevel::Info, "some.event",
             {EventText("first", bad.c_str()), EventText("second", bad.c_str()), EventNumber("bytes", 1)});
    EXPECT_THAT(Text(), testing::EndsWith("\\u0001\",\"bytes\":1}\n"));
    EXPECT_THAT(Text(), Not(HasSubstr("second")));
}

TEST_F(EventLog, LevelsChoose)
{
    const struct {
        const char *szLevel;
        int nLines;
    } cases[] = {{"", 0}, {"error", 1}, {"warn", 2}, {"info", 3}, {"DEBUG", 4}, {"loud", 3}};
    for (const auto &c : cases) {
        Open(c.szLevel);
        std::filesystem::remove(path);
        for (EventLevel eLevel : {EventLevel::Error, EventLevel::Warn, EventLevel::Info, EventLevel::Debug})
            EventSay(eLevel, "e", {});
        const std::string text = std::filesystem::exists(path) ? Text() : "";
        EXPECT_EQ(c.nLines, std::count(text.begin(), text.end(), '\n')) << c.szLevel;
    }
}

// Moved away and asked to reopen; deleted by somebody; in a directory that comes later.
TEST_F(EventLog, FollowsItsName)
{
    Open();
    EventSay(EventLevel::Info, "first", {});
    struct stat info {};
    ASSERT_EQ(0, stat(path.c_str(), &info));
    EXPECT_EQ(0U, info.st_mode & 0137);
    std::filesystem::rename(path, path + ".old");
    EventSay(EventLevel::Info, "second", {});
    EventLogReopen();
    EventSay(EventLevel::Info, "third", {});
    EXPECT_THAT(ReadFile(path + ".old"), HasSubstr("second"));
    EXPECT_THAT(Text(), AllOf(HasSubstr("third"), Not(HasSubstr("second"))));
    std::filesystem::remove(path);
    EventSay(EventLevel::Info, "fourth", {});
    EXPECT_THAT(Text(), HasSubstr("fourth"));

    const std::string late = dir.File("late/events.log");
    EventLogOpen("info", late.c_str(), "text");
    testing::internal::CaptureStderr();
    EventSay(EventLevel::Info, "missed", {});
    EventSay(EventLevel::Info, "missed", {});
    const std::string said = testing::internal::GetCapturedStderr();
    EXPECT_EQ("The log of events " + late + " cannot be opened: No such file or directory.\n", said);
    std::filesystem::create_directory(dir.File("late"));
    EventSay(EventLevel::Info, "missed", {});  // not tried again yet
    EventLogReopen();
    EventSay(EventLevel::Info, "fifth", {});
    EXPECT_TRUE(std::regex_match(ReadFile(late), std::regex("\\S+ warn log.lost lines=3\n\\S+ info fifth\n")));
}

TEST_F(EventLog, FullDiskLeavesNoHalfLine)
{
    rlimit before{};
    Open();
    EventSay(EventLevel::Info, "first", {});
    auto pfnBefore = signal(SIGXFSZ, SIG_IGN);
    ASSERT_EQ(0, getrlimit(RLIMIT_FSIZE, &before));
    const rlimit some{Text().size() + 10, before.rlim_max};
    ASSERT_EQ(0, setrlimit(RLIMIT_FSIZE, &some));
    EventSay(EventLevel::Info, "second", {});
    setrlimit(RLIMIT_FSIZE, &before);
    signal(SIGXFSZ, pfnBefore);
    EventSay(EventLevel::Info, "third", {});
    EXPECT_TRUE(std::regex_match(Text(), std::regex("\\S+ info first\n\\S+ warn log.lost lines=1\n\\S+ info third\n")))
        << Text();
}

TEST_F(EventLog, GivesWayBeforeItIsTooLarge)
{
    Open();
    EventSay(EventLevel::Info, "old", {});
    ASSERT_EQ(0, truncate(path.c_str(), kEventFileBytes - 10));
    EventSay(EventLevel::Info, "new", {});
    EXPECT_EQ(static_cast<uintmax_t>(kEventFileBytes - 10), std::filesystem::file_size(path + ".1"));
    EXPECT_TRUE(std::regex_match(Text(), std::regex("\\S+ info new\n")));
}

TEST_F(EventLog, StrangersFillNothing)
{
    Open();
    for (unsigned i = 0; i < 3 * kEventsPerMinute; i++)
        EventSayBounded(EventLevel::Warn, "auth.failed", {EventNumber("i", i)});
    EventSayBounded(EventLevel::Warn, "other", {});
    EventSay(EventLevel::Warn, "auth.failed", {EventText("own", "1")});
    EventLogClose();
    const std::string text = Text();
    EXPECT_EQ(int{kEventsPerMinute} + 3, std::count(text.begin(), text.end(), '\n')) << text;
    EXPECT_THAT(text, testing::EndsWith(" warn log.unsaid of=auth.failed events=20\n"));
}

static int g_nEventCalls = 0;

TEST_F(EventLog, WaitsForNobodysDisk)
{
    g_nEventCalls = 0;
    EventLogDivert([] { g_nEventCalls++; });
    Open();
    for (int i = 0; i < 3; i++)
        EventSay(EventLevel::Info, "some.event", {EventNumber("i", i)});
    EXPECT_FALSE(std::filesystem::exists(path));
    EXPECT_EQ(1, g_nEventCalls);
    EXPECT_EQ(1, EventLogWriteSome());
    EXPECT_THAT(Text(), testing::EndsWith(" i=2\n"));
    EventSay(EventLevel::Info, "last", {});
    EventLogDivert(nullptr);
    EXPECT_THAT(Text(), HasSubstr("last"));
}

// docs/events.md has a row for each event that the sources say, and no other.
TEST(EventDocs, NameEveryEvent)
{
    const std::regex call("Say[A-Za-z]*\\([^;\"]*\"([a-z_]+\\.[a-z_]+)\""), row("\n\\| `([a-z_]+\\.[a-z_]+)` ");
    const std::regex made("MakeLine\\([^;\"]*\"([a-z_]+\\.[a-z_]+)\"");
    auto collect = [](const std::string &text, const std::regex &pattern, std::set<std::string> *pNames) {
        for (std::sregex_iterator it(text.begin(), text.end(), pattern), end; it != end; ++it)
            pNames->insert((*it)[1]);
    };
    std::set<std::string> said, documented;
    for (const auto &entry : std::filesystem::recursive_directory_iterator(ORX_SOURCE_DIR "/src"))
        if (entry.path().extension() == ".cpp") {
            collect(ReadFile(entry.path()), call, &said);
            collect(ReadFile(entry.path()), made, &said);
        }
    collect(ReadFile(ORX_SOURCE_DIR "/docs/events.md"), row, &documented);
    EXPECT_EQ(documented, said);
    EXPECT_LT(30U, said.size());
}
