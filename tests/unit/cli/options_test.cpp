// The tools' command lines: what is taken, what is refused and with which words, and the help.
#include "cli/options.h"

#include <algorithm>

namespace orx {
namespace {

using testing::HasSubstr;

struct Values {
    int bLoop = 0, nCount = 3;
    int64_t nFirst = -1;
    double dSpeed = 1.5;
    std::string name = "cam";
    std::vector<std::string> lines;
};

CommandLine Line(Values *pValues)
{
    return {"tool",
            "Does this and that.",
            {{"", "URL [FILE]", 1, 2, "what to work on"}},
            {{"", "", "All of them", OptionHeading{}},
             {"loop", "", "again", OptionFlag{&pValues->bLoop}},
             {"count", "N", "how many", OptionWhole{&pValues->nCount, 1, 10}},
             {"first", "N", "where from", OptionWhole{&pValues->nFirst, 0, UINT32_MAX}},
             {"speed", "X", "how fast", OptionDecimal{&pValues->dSpeed, 0, 2}},
             {"name", "TEXT", "what it is called", OptionText{&pValues->name}},
             {"line", "TEXT-THAT-TAKES-SPACE", "what it says", OptionTexts{&pValues->lines}}},
            "Exit code: 0 or 2."};
}

int Read(const CommandLine &line, const std::vector<std::string> &words, CommandArguments *pOut)
{
    std::vector<std::string> all = words;
    all.insert(all.begin(), "program");
    std::vector<char *> argv(all.size() + 1, nullptr);
    std::transform(all.begin(), all.end(), argv.begin(), [](std::string &word) { return word.data(); });
    return OptionsRead(&line, static_cast<int>(all.size()), argv.data(), pOut);
}

TEST(CommandOptions, TakeWhatIsAllowedAndNameWhatIsNot)
{
    static const struct {
        std::vector<std::string> words;
        const char *szRefusal;  // null: taken
    } cases[] = {
        {{"u"}, nullptr},
        {{"u", "f", "--loop"}, nullptr},
        {{"--count", "1", "u"}, nullptr},
        {{"--count=10", "u"}, nullptr},
        {{"--count", "1e1", "u"}, nullptr},
        {{"--cou", "2", "u"}, nullptr},
        {{"--first", "4294967295", "u"}, nullptr},
        {{"--speed", "0", "--speed", "2", "u"}, nullptr},
        {{"--name", "--loop", "u"}, nullptr},
        {{"--", "--loop"}, nullptr},
        {{"-h", "u"}, ""},
        {{"--count", "0", "u"}, "tool: --count: 0 is not a number from 1 to 10\nTry tool --help.\n"},
        {{"--count", "11", "u"}, "--count: 11 is not a number from 1 to 10\n"},
        {{"--count", "2.5", "u"}, "--count: 2.5 is not a whole number from 1 to 10\n"},
        {{"--count", "2x", "u"}, "--count: 2x is not a number"},
        {{"--count", "", "u"}, "--count:  is not a number"},
        {{"--first", "4294967296", "u"}, "is not a number from 0 to 4294967295\n"},
        {{"--speed", "2.01", "u"}, "--speed: 2.01 is not a number from 0 to 2\n"},
        {{"--speed", "nan", "u"}, "--speed: nan is not a number"},
        {{"u", "--count"}, "tool: --count needs a value\nTry tool --help.\n"},
        {{"--loop=1", "u"}, "--loop=1: that option takes no value\nTry"},
        {{"--none", "u"}, "there is no option --none"},
        {{"--l", "u"}, "there is no option --l, or no single one"},
        {{"-x", "u"}, "there is no option -x\n"},
        {{}, "tool: give URL [FILE]\nTry tool --help.\n"},
        {{"u", "f", "more"}, "tool: give URL [FILE]\nTry tool --help.\n"},
    };
    for (const auto &c : cases) {
        Values values;
        CommandArguments arguments;
        testing::internal::CaptureStderr();
        testing::internal::CaptureStdout();
        int nResult = Read(Line(&values), c.words, &arguments);
        int bHelp = !testing::internal::GetCapturedStdout().empty();
        EXPECT_THAT(testing::internal::GetCapturedStderr(), HasSubstr(c.szRefusal ? c.szRefusal : ""));
        EXPECT_EQ(c.szRefusal ? bHelp ? OPTIONS_HELPED : OPTIONS_WRONG : OPTIONS_GO_ON, nResult)
            << testing::PrintToString(c.words);
    }
}

TEST(CommandOptions, ReachTheirTargets)
{
    Values values;
    CommandArguments arguments;
    ASSERT_EQ(OPTIONS_GO_ON, Read(Line(&values),
                                  {"u", "--loop", "--count=7", "--first", "4294967295", "--speed", "0.25",
                                   "--name=", "--line", "a", "f", "--line=b"},
                                  &arguments));
    EXPECT_EQ(1, values.bLoop);
    EXPECT_EQ(7, values.nCount);
    EXPECT_EQ(4294967295, values.nFirst);
    EXPECT_EQ(0.25, values.dSpeed);
    EXPECT_EQ("", values.name);
    EXPECT_THAT(values.lines, testing::ElementsAre("a", "b"));
    EXPECT_THAT(arguments.words, testing::ElementsAre("u", "f"));
}

TEST(CommandOptions, VerbsChooseAForm)
{
    const CommandLine line{"tool", "", {{"list", "DIR", 1, 1, ""}, {"check", "FILE...", 1, 9, ""}}, {}, ""};
    static const struct {
        std::vector<std::string> words;
        const char *szRefusal;
    } cases[] = {
        {{"check", "a", "b"}, nullptr},
        {{}, "tool: say what to do (list, check)\n"},
        {{"lis", "a"}, "tool: lis is none of its commands (list, check)\n"},
        {{"list", "a", "b"}, "tool: give list DIR\n"},
    };
    for (const auto &c : cases) {
        CommandArguments arguments;
        testing::internal::CaptureStderr();
        EXPECT_EQ(c.szRefusal ? OPTIONS_WRONG : OPTIONS_GO_ON, Read(line, c.words, &arguments));
        EXPECT_THAT(testing::internal::GetCapturedStderr(), HasSubstr(c.szRefusal ? c.szRefusal : ""));
        if (!c.szRefusal) {
            EXPECT_EQ(1U, arguments.nForm);
            EXPECT_THAT(arguments.words, testing::ElementsAre("a", "b"));
        }
    }
}

TEST(CommandOptions, HelpComesFromTheTable)
{
    Values values;
    CommandLine line = Line(&values);
    const std::string fits = std::string(96 - 15 - 6, 'x') + " words", tooLong = fits + "s";
    line.options[1].szHelp = fits.c_str();
    const std::string head =
        "Usage: tool [options] URL [FILE]\n"
        "Does this and that.\n"
        "\n"
        "  URL [FILE]   what to work on\n"
        "All of them\n"
        "  --loop       ";
    EXPECT_EQ(head + fits +
                  "\n"
                  "  --count N    how many (default 3; 1 to 10)\n"
                  "  --first N    where from (0 to 4294967295)\n"
                  "  --speed X    how fast (default 1.5; 0 to 2)\n"
                  "  --name TEXT  what it is called (default cam)\n"
                  "  --line TEXT-THAT-TAKES-SPACE\n"
                  "               what it says (may be repeated)\n"
                  "  --help       this text\n"
                  "\n"
                  "Exit code: 0 or 2.\n",
              OptionsHelp(&line));
    line.options[1].szHelp = tooLong.c_str();
    EXPECT_THAT(OptionsHelp(&line), HasSubstr("xxx\n               wordss\n"));
}

}  // namespace
}  // namespace orx
