#include "server/core/configvalues.h"

#include <cstdlib>

#include <strings.h>

#include "base/netaddr.h"
#include "base/textbuf.h"
#include "net/addrlist.h"

namespace orx {

constexpr size_t kNumberBytes = 31;  // of a value that are looked at for a number

// Says where blanks stand in front of a value or behind it. Returns whether there are any.
static int SayBlanks(const ConfigFound *pFound, const Setting *pRow, int nUser, std::string_view value)
{
    std::string_view trimmed = ConfigTrim(value);
    if (trimmed.size() == value.size())
        return 0;
    int bFront = trimmed.data() != value.data() && !trimmed.empty();
    const char *szWhere = trimmed.empty() ? "is nothing but blanks"
                          : bFront        ? "has a blank behind '='"
                                          : "has a blank at its end";
    ConfigSayRow(pFound, pRow, nUser, "%s%s", szWhere,
                 pRow->kind == SettingKind::Text ? ", which is part of the value" : "");
    return 1;
}

// ---------------------------------------------------------------- numbers

// Whether the text is digits with an optional sign; *pnValue is then the number, as far as it can be held.
static int IsNumber(std::string_view value, long long *pnValue)
{
    char szNumber[kNumberBytes + 1];
    size_t nSign = value.starts_with('-') || value.starts_with('+');
    *pnValue = 0;
    if (value.size() == nSign || value.find_first_not_of("0123456789", nSign) != std::string_view::npos)
        return 0;
    TextCopy(szNumber, sizeof(szNumber), value);
    *pnValue = strtoll(szNumber, nullptr, 10);
    return 1;
}

static void SayLimits(const ConfigFound *pFound, const Setting *pRow, int nUser)
{
    if (pRow->clamp == Clamp::Flag)
        ConfigSayRow(pFound, pRow, nUser, "is neither 0 nor 1");
    else if (pRow->clamp == Clamp::None)
        ConfigSayRow(pFound, pRow, nUser, "is too large");
    else if (pRow->nHighest == INT32_MAX)
        ConfigSayRow(pFound, pRow, nUser, "is less than %d, or too large", pRow->nLowest);
    else
        ConfigSayRow(pFound, pRow, nUser, "is not in %d..%d", pRow->nLowest, pRow->nHighest);
}

static void CheckNumber(const ConfigFound *pFound, const Setting *pRow, int nUser, std::string_view value)
{
    long long nValue = 0;
    if (value.empty()) {
        ConfigSayRow(pFound, pRow, nUser, "is empty, not a number");
        return;
    }
    if (!IsNumber(ConfigTrim(value), &nValue)) {
        ConfigSayRow(pFound, pRow, nUser, "is no number");
        return;
    }
    if (SayBlanks(pFound, pRow, nUser, value))
        return;
    if (nValue != ConfigNumber(pFound, pRow, nUser))
        SayLimits(pFound, pRow, nUser);
}

// ---------------------------------------------------------------- texts

struct WordList {
    const char *szSection, *szKey;
    const char *szWords;  // between blanks; an empty value is one as well
    const char *szTaken;
};
static constexpr WordList g_words[] = {
    {"LOG", "Level", " error warn info debug ", "nothing is logged"},
    {"LOG", "Format", " text json ", "text is taken"},
    {"PULL", "Transport%d", " tcp udp http ", "nothing is pulled"},
};

static void CheckWords(const ConfigFound *pFound, const Setting *pRow, const ConfigLine *pLine)
{
    char szWord[32];
    TextBuf word{szWord, sizeof(szWord)};
    for (const WordList &list : g_words) {
        if (strcmp(list.szSection, pRow->szSection) != 0 || strcmp(list.szKey, pRow->szKey) != 0)
            continue;
        TextAdd(&word, " %.*s ", static_cast<int>(pLine->value.size()), pLine->value.data());
        if (!pLine->value.empty() && (word.bFull || !strcasestr(list.szWords, szWord)))
            ConfigSay(pFound, 0, pLine, 0, "is none of%s: %s", list.szWords, list.szTaken);
    }
}

static void CheckAddresses(const ConfigFound *pFound, const Setting *pRow, const ConfigLine *pLine)
{
    static constexpr char kBlanks[] = " \t";
    if (!strstr(pRow->szKey, "From"))
        return;
    std::string_view rest = pLine->value.substr(0, pRow->place.nBytes - 1);
    while (!(rest = rest.substr(std::min(rest.find_first_not_of(kBlanks), rest.size()))).empty()) {
        std::string_view entry = rest.substr(0, rest.find_first_of(kBlanks));
        rest.remove_prefix(entry.size());
        if (!AddrEntryParse(entry, 1, nullptr))
            ConfigSay(pFound, 1, pLine, 0, "\"%.*s\" is no address and no network: it matches nobody",
                      static_cast<int>(std::min(entry.size(), size_t{60})),
                      ConfigHoldsPassword(entry) ? "***" : entry.data());
        else if (entry.find(':') != std::string_view::npos && !pFound->pTaken->bStandardPlayers)
            ConfigSay(pFound, 1, pLine, 0, "\"%.*s\" needs StandardPlayers=1: it matches nobody",
                      static_cast<int>(entry.size()), entry.data());
    }
}

// Quotes and comments are part of a text, which may be meant so.
static void CheckMarks(const ConfigFound *pFound, const Setting *pRow, const ConfigLine *pLine)
{
    std::string_view value = pLine->value;
    int bSecret = ConfigIsSecret(pRow);
    if (value.size() > 1 && (value[0] == '"' || value[0] == '\'') && value.back() == value[0])
        ConfigSay(pFound, 0, pLine, bSecret, "stands in quotes, which are part of the value");
    for (const char *sz : {" ;", "\t;", " #", "\t#"})
        if (value.find(sz) != std::string_view::npos) {
            ConfigSay(pFound, 0, pLine, bSecret,
                      "has a '%c' behind a blank: it is part of the value, no comment", sz[1]);
            return;
        }
}

// Programs are named without the '/' in front.
static void CheckPrograms(const ConfigFound *pFound, const Setting *pRow, const ConfigLine *pLine)
{
    int bDevices = strcmp(pRow->szKey, "UserDevList%d") == 0;
    std::string_view value = pLine->value;
    if (!bDevices && strcmp(pRow->szKey, "RecordAlways") != 0)
        return;
    if (value.starts_with('/') || value.find(" /") != std::string_view::npos)
        ConfigSay(pFound, bDevices, pLine, 0, "names a program with '/' in front: it matches none");
}

static void CheckText(const ConfigFound *pFound, const Setting *pRow, int nUser, const ConfigLine *pLine)
{
    if (pLine->value.size() >= pRow->place.nBytes)
        ConfigSayRow(pFound, pRow, nUser, "is longer than %zu characters and cut", pRow->place.nBytes - 1);
    if (SayBlanks(pFound, pRow, nUser, pLine->value) && !strstr(pRow->szKey, "From"))
        return;
    if (!strstr(pRow->szKey, "From"))
        CheckMarks(pFound, pRow, pLine);
    CheckWords(pFound, pRow, pLine);
    CheckPrograms(pFound, pRow, pLine);
    CheckAddresses(pFound, pRow, pLine);
}

void ConfigCheckValue(const ConfigFound *pFound, const Setting *pRow, int nUser)
{
    const ConfigLine *pLine = ConfigLineOf(pFound, pRow, nUser);
    if (!pLine->nLine)
        return;
    if (pRow->kind == SettingKind::Number)
        CheckNumber(pFound, pRow, nUser, pLine->value);
    else
        CheckText(pFound, pRow, nUser, pLine);
}

}  // namespace orx
