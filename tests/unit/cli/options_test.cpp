// The tools' command lines: what is taken, what is refused and with which words, and the help.
#include "cli/options.h"

#include <tuple>
#include <utility>

namespace orx {

using testing::HasSubstr;

struct Values {
    int bLoop = 0, nCount = 3;
    int64_t nFirst = -1;
    double dSpeed = 1.5;
    std::string name = "cam";
    std::vector<std::string> lines;
};

static CommandLine Line(Values *pValues)
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
             {"n", "TEXT", "the same", OptionText{&pValues->name}},
             {"line", "TEXT-THAT-TAKES-SPACE", "what it says", OptionTexts{&pValues->lines}}},
            "Exit code: 0 or 2."};
}

// What a reading of words, each with a '|' behind it, says: "taken", "helped", or why it is refused.
static std::string Said(const CommandLine &line, std::string words, CommandArguments *pOut)
{
    char program[] = "program";
    std::vector<char *> argv = {program};
    for (size_t nFrom = 0, nEnd; (nEnd = words.find('|', nFrom)) != std::string::npos; nFrom = nEnd + 1) {
        words[nEnd] = '\0';
        argv.push_back(&words[nFrom]);
    }
    argv.push_back(nullptr);
    testing::internal::CaptureStderr();
    testing::internal::CaptureStdout();
    int nResult = OptionsRead(&line, static_cast<int>(argv.size()) - 1, argv.data(), pOut);
    std::string help = testing::internal::GetCapturedStdout(), refusal = testing::internal::GetCapturedStderr();
    EXPECT_EQ(nResult == OPTIONS_HELPED, !help.empty());
    EXPECT_EQ(nResult == OPTIONS_WRONG, !refusal.empty());
    return nResult == OPTIONS_GO_ON ? "taken" : nResult == OPTIONS_HELPED ? "helped" : refusal;
}

TEST(CommandOptions, TakeWhatIsAllowedAndNameWhatIsNot)
{
    Values values;
    CommandArguments arguments;
    for (const char *szWords : {"u|", "u|f|--loop|", "--count|1|u|", "--count=10|u|", "--count|1e1|u|", "--cou|2|u|",
                                "--first|4294967295|u|", "--speed|0|--speed|2|u|", "--name|--loop|u|", "--|--loop|"})
        EXPECT_EQ("taken", Said(Line(&values), szWords, &arguments)) << szWords;
    static const std::pair<const char *, const char *> refused[] = {
        {"-h|u|", "helped"},
        {"--count|0|u|", "tool: --count: 0 is not a number from 1 to 10\nTry tool --help.\n"},
        {"--count|11|u|", "--count: 11 is not a number from 1 to 10\n"},
        {"--count|2.5|u|", "--count: 2.5 is not a whole number from 1 to 10\n"},
        {"--count|2x|u|", "--count: 2x is not a number"},
        {"--count||u|", "--count:  is not a number"},
        {"--first|4294967296|u|", "is not a number from 0 to 4294967295\n"},
        {"--speed|2.01|u|", "--speed: 2.01 is not a number from 0 to 2\n"},
        {"--speed|nan|u|", "--speed: nan is not a number"},
        {"u|--count|", "tool: --count needs a value\nTry tool --help.\n"},
        {"--loop=1|u|", "--loop=1: that option takes no value\nTry"},
        {"--none|u|", "there is no option --none"},
        {"--l|u|", "there is no option --l, or no single one"},
        {"-x|u|", "there is no option -x\n"},
        {"u|-n|", "tool: -n needs a value\n"},
        {"", "tool: give URL [FILE]\nTry tool --help.\n"},
        {"u|f|more|", "tool: give URL [FILE]\nTry tool --help.\n"},
    };
    for (const auto &[szWords, szSaid] : refused)
        EXPECT_THAT(Said(Line(&values), szWords, &arguments), HasSubstr(szSaid)) << szWords;
}

TEST(CommandOptions, ReachTheirTargets)
{
    Values values;
    CommandArguments arguments;
    const char *szWords = "u|--loop|--count=7|--first|4294967295|--speed|0.25|--name=|--line|a|f|--line=b|";
    EXPECT_EQ("taken", Said(Line(&values), szWords, &arguments));
    EXPECT_EQ(std::tuple(1, 7, 4294967295, 0.25, ""),
              std::tie(values.bLoop, values.nCount, values.nFirst, values.dSpeed, values.name));
    EXPECT_THAT(values.lines, testing::ElementsAre("a", "b"));
    EXPECT_THAT(arguments.words, testing::ElementsAre("u", "f"));
    EXPECT_EQ("taken", Said(Line(&values), "u|-n|dog|", &arguments));
    EXPECT_EQ("dog", values.name);
}

TEST(CommandOptions, VerbsChooseAForm)
{
    const CommandLine line{"tool", "", {{"list", "DIR", 1, 1, ""}, {"check", "FILE...", 1, 9, ""}}, {}, ""};
    CommandArguments arguments;
    EXPECT_THAT(Said(line, "", &arguments), HasSubstr("tool: say what to do (list, check)\n"));
    EXPECT_THAT(Said(line, "lis|a|", &arguments), HasSubstr("tool: lis is none of its commands (list, check)\n"));
    EXPECT_THAT(Said(line, "list|a|b|", &arguments), HasSubstr("tool: give list DIR\n"));
    EXPECT_EQ("taken", Said(line, "check|a|b|", &arguments));
    EXPECT_EQ(1U, arguments.nForm);
    EXPECT_THAT(arguments.words, testing::ElementsAre("a", "b"));
}

TEST(CommandOptions, HelpComesFromTheTable)
{
    Values values;
    CommandLine line = Line(&values);
    const std::string fits = std::string(96 - 15 - 6, 'x') + " words", tooLong = fits + "s";
    line.options[1].szHelp = fits.c_str();
    EXPECT_EQ(R"(Usage: tool [options] URL [FILE]
Does this and that.

  URL [FILE]   what to work on
All of them
  --loop       )" +
                  fits + R"(
  --count N    how many (default 3; 1 to 10)
  --first N    where from (0 to 4294967295)
  --speed X    how fast (default 1.5; 0 to 2)
  --name TEXT  what it is called (default cam)
  -n TEXT      the same (default cam)
  --line TEXT-THAT-TAKES-SPACE
               what it says (may be repeated)
  --help       this text

Exit code: 0 or 2.
)",
              OptionsHelp(&line));
    line.options[1].szHelp = tooLong.c_str();
    EXPECT_THAT(OptionsHelp(&line), HasSubstr("xxx\n               wordss\n"));
}

}  // namespace orx
