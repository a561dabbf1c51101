#include "cli/options.h"

#include <getopt.h>

#include <algorithm>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace orx {

constexpr int kFirstRow = 256;  // what getopt_long gives for row 0, above all letters
constexpr size_t kHelpColumns = 96;
constexpr size_t kWidestGiven = 24;  // the help of what is wider begins in the next line

int OptionsRefuse(const CommandLine *pLine, const char *szFormat, ...)
{
    va_list args;
    va_start(args, szFormat);
    fprintf(stderr, "%s: ", pLine->szTool);
    vfprintf(stderr, szFormat, args);
    fprintf(stderr, "\nTry %s --help.\n", pLine->szTool);
    va_end(args);
    return OPTIONS_WRONG;
}

// The number in a text. Returns 1, or 0 for no number, one out of bounds, or a fraction where a whole one is
// wanted.
static int ReadNumber(const char *szText, double dLowest, double dHighest, int bWhole, double *pdOut)
{
    char *pEnd = nullptr;
    *pdOut = strtod(szText, &pEnd);
    return pEnd != szText && !*pEnd && *pdOut >= dLowest && *pdOut <= dHighest &&
           (!bWhole || *pdOut == std::floor(*pdOut));
}

static int RefuseNumber(const CommandLine *pLine, const char *szName, const char *szText, double dLowest,
                        double dHighest, const char *szKind)
{
    return OptionsRefuse(pLine, "--%s: %s is not a %s from %.15g to %.15g", szName, szText, szKind, dLowest,
                         dHighest);
}

static int TakeWhole(const CommandLine *pLine, const char *szName, const OptionWhole &whole,
                     const char *szValue)
{
    double dValue = 0;
    if (!ReadNumber(szValue, whole.dLowest, whole.dHighest, 1, &dValue)) {
        int bFraction = ReadNumber(szValue, whole.dLowest, whole.dHighest, 0, &dValue);
        return RefuseNumber(pLine, szName, szValue, whole.dLowest, whole.dHighest,
                            bFraction ? "whole number" : "number");
    }
    if (int *const *ppn = std::get_if<int *>(&whole.target))
        **ppn = static_cast<int>(dValue);
    else if (int64_t *const *ppnLong = std::get_if<int64_t *>(&whole.target))
        **ppnLong = static_cast<int64_t>(dValue);
    return OPTIONS_GO_ON;
}

int OptionsTake(const CommandLine *pLine, const Option &option, const char *szValue)
{
    if (const auto *pWhole = std::get_if<OptionWhole>(&option.target))
        return TakeWhole(pLine, option.szName, *pWhole, szValue);
    if (const auto *pDecimal = std::get_if<OptionDecimal>(&option.target)) {
        double dValue = 0;
        if (!ReadNumber(szValue, pDecimal->dLowest, pDecimal->dHighest, 0, &dValue))
            return RefuseNumber(pLine, option.szName, szValue, pDecimal->dLowest, pDecimal->dHighest,
                                "number");
        *pDecimal->pdTarget = dValue;
    }
    if (const auto *pFlag = std::get_if<OptionFlag>(&option.target))
        *pFlag->pnTarget = 1;
    if (const auto *pText = std::get_if<OptionText>(&option.target))
        *pText->pTarget = szValue;
    if (const auto *pTexts = std::get_if<OptionTexts>(&option.target))
        pTexts->pTarget->emplace_back(szValue);
    return OPTIONS_GO_ON;
}

static int IsHeading(const Option &option)
{
    return std::holds_alternative<OptionHeading>(option.target);
}

static int HasArgument(const Option &option)
{
    return !std::holds_alternative<OptionFlag>(option.target);
}

// A name of one letter stands behind one '-'.
static int IsLetter(const Option &option)
{
    return option.szName[0] != '\0' && option.szName[1] == '\0';
}

static int HasVerbs(const CommandLine *pLine)
{
    return !pLine->forms.empty() && pLine->forms[0].szVerb[0] != '\0';
}

// How an option, or a form, is written.
static std::string Given(const Option &option)
{
    return (IsLetter(option) ? "-" : "--") + std::string(option.szName) +
           (HasArgument(option) ? std::string(" ") + option.szArgument : "");
}

static std::string Given(const OptionForm &form)
{
    return std::string(form.szVerb) + (form.szVerb[0] ? " " : "") + form.szArguments;
}

// getopt_long's form of the table.
static std::vector<option> LongOptions(const CommandLine *pLine)
{
    std::vector<option> all;
    for (size_t i = 0; i < pLine->options.size(); i++) {
        const Option &row = pLine->options[i];
        if (!IsHeading(row) && !IsLetter(row))
            all.push_back({row.szName, HasArgument(row) ? required_argument : no_argument, nullptr,
                           kFirstRow + static_cast<int>(i)});
    }
    all.push_back({"help", no_argument, nullptr, 'h'});
    all.push_back({nullptr, 0, nullptr, 0});
    return all;
}

// The same for letters.
static std::string ShortOptions(const CommandLine *pLine)
{
    std::string all = ":h";
    for (const Option &row : pLine->options)
        if (IsLetter(row))
            all += std::string(row.szName) + (HasArgument(row) ? ":" : "");
    return all;
}

// The row of an option that getopt_long found.
static const Option &RowOf(const CommandLine *pLine, int nCode)
{
    size_t i = 0;
    if (nCode >= kFirstRow)
        return pLine->options[static_cast<size_t>(nCode - kFirstRow)];
    while (!IsLetter(pLine->options[i]) || pLine->options[i].szName[0] != nCode)
        i++;
    return pLine->options[i];
}

// What getopt_long did not take: szWord is where it stopped.
static int RefuseWord(const CommandLine *pLine, int nCode, const char *szWord)
{
    if (nCode == ':')
        return OptionsRefuse(pLine, "%s needs a value", szWord);
    if (optopt > 0 && optopt < kFirstRow && optopt != 'h')
        return OptionsRefuse(pLine, "there is no option -%c", optopt);
    return OptionsRefuse(
        pLine, optopt ? "%s: that option takes no value" : "there is no option %s, or no single one", szWord);
}

// "info, list, check, export"
static std::string Verbs(const CommandLine *pLine)
{
    std::string out;
    for (const OptionForm &form : pLine->forms)
        out += (out.empty() ? "" : ", ") + std::string(form.szVerb);
    return out;
}

// Finds the form that the first word names. Returns OPTIONS_GO_ON or OPTIONS_WRONG.
static int TakeVerb(const CommandLine *pLine, const char *szVerb, CommandArguments *pOut)
{
    for (pOut->nForm = 0; pOut->nForm < pLine->forms.size(); pOut->nForm++)
        if (strcmp(pLine->forms[pOut->nForm].szVerb, szVerb) == 0)
            return OPTIONS_GO_ON;
    return OptionsRefuse(pLine, "%s is none of its commands (%s)", szVerb, Verbs(pLine).c_str());
}

// Takes apart what is no option. Returns OPTIONS_GO_ON or OPTIONS_WRONG.
static int TakeWords(const CommandLine *pLine, int nWords, char **words, CommandArguments *pOut)
{
    if (pLine->forms.empty())
        return nWords ? OptionsRefuse(pLine, "what is %s for?", words[0]) : OPTIONS_GO_ON;
    int bVerb = HasVerbs(pLine);
    if (bVerb && !nWords)
        return OptionsRefuse(pLine, "say what to do (%s)", Verbs(pLine).c_str());
    if (bVerb && TakeVerb(pLine, words[0], pOut) != OPTIONS_GO_ON)
        return OPTIONS_WRONG;
    const OptionForm &form = pLine->forms[pOut->nForm];
    pOut->words.assign(words + bVerb, words + nWords);
    if (pOut->words.size() < form.nLowest || pOut->words.size() > form.nHighest)
        return OptionsRefuse(pLine, "give %s", Given(form).c_str());
    return OPTIONS_GO_ON;
}

static int PrintHelp(const std::string &help)
{
    fputs(help.c_str(), stdout);
    return OPTIONS_HELPED;
}

int OptionsRead(const CommandLine *pLine, int argc, char **argv, CommandArguments *pOut)
{
    const std::vector<option> all = LongOptions(pLine);
    const std::string help = OptionsHelp(pLine);  // before the targets change
    optind = 0;                                   // begins anew
    opterr = 0;
    const std::string letters = ShortOptions(pLine);
    int nCode;
    while ((nCode = getopt_long(argc, argv, letters.c_str(), all.data(), nullptr)) != -1) {
        if (nCode == 'h')
            return PrintHelp(help);
        if (nCode == '?' || nCode == ':')
            return RefuseWord(pLine, nCode, argv[optind - 1]);
        if (OptionsTake(pLine, RowOf(pLine, nCode), optarg) != OPTIONS_GO_ON)
            return OPTIONS_WRONG;
    }
    if (HasVerbs(pLine) && optind < argc && strcmp(argv[optind], "help") == 0)
        return PrintHelp(help);
    return TakeWords(pLine, argc - optind, argv + optind, pOut);
}

// Appends the text from column nColumn on, with line breaks at blanks and where the text has them; further
// lines begin at column nIndent.
static void AddWrapped(std::string *pOut, const std::string &text, size_t nColumn, size_t nIndent)
{
    size_t nFrom = 0;
    while (nFrom < text.size()) {
        size_t nRoom = kHelpColumns - nColumn;
        size_t nEnd = std::min(text.find('\n', nFrom), text.size());
        if (nEnd - nFrom > nRoom) {
            size_t nBlank = text.rfind(' ', nFrom + nRoom);
            nEnd = nBlank != std::string::npos && nBlank > nFrom ? nBlank
                                                                 : std::min(nEnd, text.find(' ', nFrom));
        }
        *pOut += text.substr(nFrom, nEnd - nFrom) + "\n";
        nFrom = nEnd + 1;
        nColumn = nIndent;
        if (nFrom < text.size() && text[nFrom] != '\n')
            pOut->append(nIndent, ' ');
    }
}

// One line of a list: what is given, and what it is for.
static void AddRow(std::string *pOut, const std::string &given, size_t nWidest, const std::string &help)
{
    size_t nIndent = 2 + nWidest + 2;
    *pOut += "  " + given;
    if (given.size() > nWidest)
        *pOut += "\n" + std::string(nIndent, ' ');
    else
        pOut->append(nWidest + 2 - given.size(), ' ');
    AddWrapped(pOut, help, nIndent, nIndent);
}

static std::string NumberText(double dValue)
{
    char szText[32];
    snprintf(szText, sizeof(szText), "%.15g", dValue);
    return szText;
}

// " (default 25; 0.01 to 1000)", the default only where it is within the limits.
static std::string RangeText(double dDefault, double dLowest, double dHighest)
{
    int bDefault = dDefault >= dLowest && dDefault <= dHighest;
    return " (" + (bDefault ? "default " + NumberText(dDefault) + "; " : "") + NumberText(dLowest) + " to " +
           NumberText(dHighest) + ")";
}

static std::string LimitsText(const Option &option)
{
    if (const auto *pWhole = std::get_if<OptionWhole>(&option.target)) {
        double dDefault =
            std::visit([](auto *pnTarget) { return static_cast<double>(*pnTarget); }, pWhole->target);
        return RangeText(dDefault, pWhole->dLowest, pWhole->dHighest);
    }
    if (const auto *pDecimal = std::get_if<OptionDecimal>(&option.target))
        return RangeText(*pDecimal->pdTarget, pDecimal->dLowest, pDecimal->dHighest);
    if (const auto *pText = std::get_if<OptionText>(&option.target))
        return pText->pTarget->empty() ? "" : " (default " + *pText->pTarget + ")";
    return std::holds_alternative<OptionTexts>(option.target) ? " (may be repeated)" : "";
}

static void AddUsage(std::string *pOut, const CommandLine *pLine)
{
    const std::string tool = std::string(pLine->szTool) + (pLine->options.empty() ? "" : " [options]");
    const char *szBefore = "Usage: ";
    for (const OptionForm &form : pLine->forms) {
        *pOut += szBefore + tool + " " + Given(form) + "\n";
        szBefore = "       ";
    }
    if (pLine->forms.empty())
        *pOut += szBefore + tool + "\n";
}

// How many columns the list's left side takes.
static size_t WidestGiven(const CommandLine *pLine)
{
    size_t nWidest = strlen("--help");
    auto widen = [&](size_t nColumns) {
        nWidest = nColumns > kWidestGiven ? nWidest : std::max(nWidest, nColumns);
    };
    for (const OptionForm &form : pLine->forms)
        widen(Given(form).size());
    for (const Option &option : pLine->options)
        if (!IsHeading(option))
            widen(Given(option).size());
    return nWidest;
}

std::string OptionsHelp(const CommandLine *pLine)
{
    std::string out;
    size_t nWidest = WidestGiven(pLine);
    AddUsage(&out, pLine);
    AddWrapped(&out, pLine->szTitle, 0, 0);
    out += "\n";
    for (const OptionForm &form : pLine->forms)
        AddRow(&out, Given(form), nWidest, form.szHelp);
    for (const Option &option : pLine->options) {
        if (IsHeading(option))
            AddWrapped(&out, option.szHelp, 0, 0);
        else
            AddRow(&out, Given(option), nWidest, option.szHelp + LimitsText(option));
    }
    AddRow(&out, "--help", nWidest, "this text");
    out += "\n";
    AddWrapped(&out, pLine->szNotes, 0, 0);
    return out;
}

std::string WithNumber(const std::string &text, int nNumber)
{
    size_t nAt = text.find("%d");
    std::string out = text;
    return nAt == std::string::npos ? out : out.replace(nAt, 2, std::to_string(nNumber));
}

}  // namespace orx
