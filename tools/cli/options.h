// The command line of a tool as a table, one row per option: reading, checks and --help come from its rows.
// Main thread, while no other reads a command line: getopt_long keeps its place in variables of the process.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <variant>
#include <vector>

namespace orx {

// Where a value goes and what it may be. The targets are not owned; what they hold before reading is the
// default, which the help shows where it is within the limits (a value outside of them can mean "none").
struct OptionFlag {
    int *pnTarget;  // 1 when given
};
struct OptionWhole {
    std::variant<int *, int64_t *> target;
    double dLowest, dHighest;  // whole numbers that the target holds
};
struct OptionDecimal {
    double *pdTarget;
    double dLowest, dHighest;
};
struct OptionText {
    std::string *pTarget;
};
struct OptionTexts {  // may be given several times
    std::vector<std::string> *pTarget;
};
struct OptionHeading {};  // no option: a line of the help above those that follow
using OptionTarget =
    std::variant<OptionHeading, OptionFlag, OptionWhole, OptionDecimal, OptionText, OptionTexts>;

struct Option {
    const char *szName;      // without its "--"; one letter is read behind '-'; not read in a heading
    const char *szArgument;  // what stands for the value in the help; not read in flags and headings
    const char *szHelp;
    OptionTarget target;
};

// One way to name what the tool works on. A tool with several has a verb in each; one without any takes
// options only.
struct OptionForm {
    const char *szVerb;       // the word that chooses this form; empty: the only form
    const char *szArguments;  // as they stand in the help
    size_t nLowest, nHighest;
    const char *szHelp;
};

struct CommandLine {
    const char *szTool;
    const char *szTitle;  // what the tool does
    std::vector<OptionForm> forms;
    std::vector<Option> options;  // --help is there without a row
    const char *szNotes;          // stands below the options: exit codes, commands
};

struct CommandArguments {
    size_t nForm = 0;                // index into the forms
    std::vector<std::string> words;  // what is no option, without the verb
};

enum { OPTIONS_GO_ON = -1, OPTIONS_HELPED = 0, OPTIONS_WRONG = 2 };

// Reads the command line into the rows' targets and the rest into *pOut. Options may stand anywhere before
// "--", their value behind '=' or in the next word, and their names may be cut short while only one fits.
// Returns OPTIONS_GO_ON, or the exit code to end with at once: the help was printed, or what is wrong was.
int OptionsRead(const CommandLine *pLine, int argc, char **argv, CommandArguments *pOut);

// Prints "TOOL: text" and a pointer to --help on standard error, for checks that a row cannot say. Returns
// OPTIONS_WRONG.
__attribute__((format(printf, 2, 3))) int OptionsRefuse(const CommandLine *pLine, const char *szFormat, ...);

// Takes the value of one row as OptionsRead does, for values with a number inside. Returns OPTIONS_GO_ON or
// OPTIONS_WRONG (printed).
int OptionsTake(const CommandLine *pLine, const Option &option, const char *szValue);

// The text of --help, lines of at most 96 columns, with the defaults that the targets hold now.
std::string OptionsHelp(const CommandLine *pLine);

// The text with its first "%d" replaced by the number, as tools name several programs or files.
std::string WithNumber(const std::string &text, int nNumber);

}  // namespace orx
