#include "server/core/configcheck.h"

#include <cerrno>

#include "base/textbuf.h"
#include "server/core/configfind.h"
#include "server/core/configrules.h"
#include "server/core/configtext.h"
#include "server/core/configvalues.h"
#include "server/core/shippedconfig.h"

namespace orx {

constexpr size_t kValueSize = 1100;  // the longest value and its NUL

// A text with the lines that count in it.
struct Reading {
    ConfigText text;
    Settings taken;
    ConfigFound found;
    int bStarts = 0;
};

static int IsKnownSection(std::string_view section)
{
    for (const Setting &row : SettingsTable())
        if (section == row.szSection)
            return 1;
    return 0;
}

// The first line of each key counts.
static void FindLines(ConfigFound *pFound)
{
    ConfigWalk walk(pFound->pText->profile.text);
    ConfigLine line;
    int nUser;
    while (ConfigWalkNext(&walk, &line)) {
        const Setting *pRow =
            line.eKind == ConfigLineKind::Key ? ConfigRowOf(line.section, line.key, &nUser) : nullptr;
        ConfigLine *pPlace = pRow ? ConfigPlaceOf(pFound, pRow, nUser) : nullptr;
        if (pPlace && !pPlace->nLine)
            *pPlace = line;
    }
}

static void ReadingBegin(Reading *p, const char *szPath, Settings *pTaken, DoubtList *pDoubts)
{
    ConfigTextLoad(&p->text, szPath);
    p->bStarts = SettingsReadText(pTaken, &p->text.profile) && !p->text.bTooLong;
    p->found.pText = &p->text;
    p->found.pTaken = pTaken;
    p->found.pDoubts = pDoubts;
    FindLines(&p->found);
}

static void ReadingEnd(Reading *p)
{
    delete[] p->found.pUsers;
    SettingsFree(&p->taken);
    ConfigTextFree(&p->text);
}

// ---------------------------------------------------------------- names

static void CheckSection(const ConfigFound *pFound, const ConfigLine *pLine)
{
    const char *szNear = ConfigNearestSection(pLine->section);
    if (pLine->eKind == ConfigLineKind::Open)
        ConfigSay(pFound, 1, pLine, 0, "has no ']': nothing is read up to the next one");
    if (IsKnownSection(pLine->section))
        return;
    for (const Setting &row : SettingsTable())
        if (ConfigIsSection(pLine->section, row.szSection)) {
            ConfigSay(pFound, ConfigRefusesSection(row.szSection), pLine, 0,
                      "begins with the name of [%s]: its keys are taken as those of that section",
                      row.szSection);
            return;
        }
    if (szNear)
        ConfigSay(pFound, ConfigRefusesSection(szNear), pLine, 0,
                  "is no known section, the nearest is [%s]: nothing of it is taken", szNear);
    else
        ConfigSay(pFound, 0, pLine, 0, "is no known section: nothing of it is taken");
}

// Whether a name looks like that of a key or section with passwords.
static int SoundsSecret(std::string_view name)
{
    char szName[128];
    TextCopy(szName, sizeof(szName), name);
    for (const char *sz : {"pw", "pass", "secret", "token", "account", "user", "login", "credential"})
        if (strcasestr(szName, sz))
            return 1;
    return 0;
}

// Whether a value that belongs to no key may be a password.
static int MayBeSecret(const ConfigLine *pLine)
{
    const char *szNear = ConfigNearestSection(pLine->section);
    ConfigNear near = ConfigNearest(pLine->section, pLine->key);
    return (szNear && strcmp(szNear, "USERS") == 0) || (near.pRow && ConfigIsSecret(near.pRow)) ||
           SoundsSecret(pLine->key) || SoundsSecret(pLine->section);
}

// A key that nobody reads: what it comes near, and what that is instead.
static void SayUnknownKey(const ConfigFound *pFound, const ConfigLine *pLine)
{
    ConfigNear near = ConfigNearest(pLine->section, pLine->key);
    const char *szSection = ConfigNearestSection(pLine->section);
    int bSecret = MayBeSecret(pLine), bRefuses = szSection && ConfigRefusesSection(szSection);
    if (!near.pRow) {
        ConfigSay(pFound, bRefuses, pLine, bSecret, "is no known key: it is not read");
        return;
    }
    int nUser = -1;
    char szTaken[kTakenSize] = "";
    int bKnown = ConfigRowOf(near.pRow->szSection, ConfigTrim(pLine->key), &nUser) == near.pRow;
    bRefuses |= ConfigRefuses(near.pRow);
    if (!IsUserRow(near.pRow) || bKnown)
        ConfigTaken(pFound, near.pRow, nUser, szTaken, sizeof(szTaken));
    const char *sz = szTaken[0] ? szTaken : "nothing", *szNear = near.pRow->szSection;
    if (bKnown && !near.bElsewhere)
        ConfigSay(pFound, bRefuses, pLine, bSecret,
                  "has a blank in front of '=' or of the key, which is part of it: %s is taken", sz);
    else if (bKnown)
        ConfigSay(pFound, bRefuses, pLine, bSecret, "is a key of [%s]: there %s is taken", szNear, sz);
    else if (IsUserRow(near.pRow))
        ConfigSay(pFound, bRefuses, pLine, bSecret,
                  "is no known key, the nearest is [%s] %s with 0 to 1023 for %%d: it is not read", szNear,
                  near.pRow->szKey);
    else
        ConfigSay(pFound, bRefuses, pLine, bSecret, "is no known key, the nearest is [%s] %s: %s is taken",
                  szNear, near.pRow->szKey, sz);
}

// In a section that nobody knows only keys count that are meant for one that is known.
static void CheckKey(ConfigFound *pFound, const ConfigLine *pLine)
{
    int nUser;
    const Setting *pRow = ConfigRowOf(pLine->section, pLine->key, &nUser);
    const ConfigLine *pCounts = pRow ? ConfigLineOf(pFound, pRow, nUser) : nullptr;
    if (pCounts && pCounts->nLine && pCounts->nLine != pLine->nLine)
        ConfigSay(pFound, ConfigRefuses(pRow), pLine, ConfigIsSecret(pRow),
                  "stands twice: that of line %u is taken", pCounts->nLine);
    if (!pRow)
        SayUnknownKey(pFound, pLine);
}

static void CheckLines(ConfigFound *pFound)
{
    ConfigWalk walk(pFound->pText->profile.text);
    ConfigLine line;
    while (!DoubtsFull(pFound->pDoubts) && ConfigWalkNext(&walk, &line)) {
        const char *szNear = ConfigNearestSection(line.section);
        if (line.eKind == ConfigLineKind::Key)
            CheckKey(pFound, &line);
        else if (line.eKind == ConfigLineKind::Stray)
            ConfigSay(pFound, !szNear || ConfigRefusesSection(szNear), &line, 0,
                      "holds a line without '=': it is not read");
        else
            CheckSection(pFound, &line);
    }
}

// ---------------------------------------------------------------- the file

static void CheckFile(const ConfigFound *pFound)
{
    const ConfigText *p = pFound->pText;
    char szError[64];
    if (p->szMissing && p->nErrno)
        ConfigSay(pFound, 1, nullptr, 0, "%s (%s): the defaults are taken", p->szMissing,
                  strerror_r(p->nErrno, szError, sizeof(szError)));
    else if (p->szMissing)
        ConfigSay(pFound, 1, nullptr, 0, "%s: the defaults are taken", p->szMissing);
    if (p->nHidden > 0)
        ConfigSay(pFound, 1, nullptr, 0,
                  "ends at its first byte 0xFF or 0: the %zu bytes from there on are not read", p->nHidden);
    if (p->bTooLong)
        ConfigSay(pFound, 1, nullptr, 0,
                  "has %zu bytes, and without [GUARD] SurvivePeerFaults=1 at most 8191 are read: the server "
                  "does not start",
                  p->nBytes);
    if (strncmp(p->profile.text, "\xEF\xBB\xBF", 3) == 0)
        ConfigSay(pFound, 1, nullptr, 0, "begins with a byte order mark: its first section is not read");
}

static void CheckPath(const ConfigFound *pFound, const char *szPath)
{
    if (strlen(szPath) >= sizeof(Settings::szConfigPath) - strlen("guid.dat"))
        ConfigSay(pFound, 1, nullptr, 0, "has a path of more than 119 characters: the server does not start");
}

static void CheckValues(const ConfigFound *pFound)
{
    for (const Setting &row : SettingsTable()) {
        if (!IsUserRow(&row))
            ConfigCheckValue(pFound, &row, -1);
        for (int i = 0; IsUserRow(&row) && pFound->pUsers && i < kConfigUsers; i++)
            ConfigCheckValue(pFound, &row, i);
    }
}

// ---------------------------------------------------------------- the shipped file

static void EachMissing(const ConfigFound *pFound, ConfigRowProc pfnRow, void *pContext)
{
    ConfigWalk walk(g_szShippedConfig);
    ConfigLine line;
    int nUser;
    while (ConfigWalkNext(&walk, &line)) {
        char szTaken[kValueSize], szShipped[kValueSize];
        const Setting *pRow =
            line.eKind == ConfigLineKind::Key ? ConfigRowOf(line.section, line.key, &nUser) : nullptr;
        if (!pRow || ConfigLineOf(pFound, pRow, nUser)->nLine)
            continue;
        TextCopy(szShipped, sizeof(szShipped), line.value);
        ConfigTaken(pFound, pRow, nUser, szTaken, sizeof(szTaken));
        if (strcmp(szTaken, szShipped) != 0)
            pfnRow(pContext, pRow->szSection, pRow->szKey, szShipped);
    }
}

static void SayMissing(void *pContext, const char *szSection, const char *szKey, const char *szShipped)
{
    const auto *pFound = static_cast<const ConfigFound *>(pContext);
    char szTaken[kTakenSize];
    ConfigLine line;
    line.eKind = ConfigLineKind::Key;
    line.section = szSection;
    line.key = szKey;
    ConfigTaken(pFound, ConfigRow(szSection, szKey), -1, szTaken, sizeof(szTaken));
    ConfigSay(pFound, 0, &line, 0, "is not in the file; a new installation has %.100s: %s is taken",
              szShipped, szTaken[0] ? szTaken : "nothing");
}

// ---------------------------------------------------------------- all of it

ConfigState ConfigCheck(const char *szPath, Settings *pTaken, DoubtList *pDoubts)
{
    Reading reading;
    ReadingBegin(&reading, szPath, pTaken, pDoubts);
    CheckFile(&reading.found);
    CheckPath(&reading.found, szPath);
    CheckLines(&reading.found);
    CheckValues(&reading.found);
    ConfigCheckRules(&reading.found);
    ConfigCheckUsers(&reading.found);
    ConfigCheckSources(&reading.found);
    int bMissing = reading.text.szMissing != nullptr;
    if (!bMissing)
        EachMissing(&reading.found, SayMissing, &reading.found);
    DoubtsSort(pDoubts);
    int bStarts = reading.bStarts && pTaken->nAuthType < 3;
    ReadingEnd(&reading);
    return !bStarts ? ConfigState::Fails : bMissing ? ConfigState::Missing : ConfigState::Good;
}

void ConfigDoubt(const char *szPath, DoubtList *pDoubts, int bRefuses, const char *szSection,
                 const char *szKey, const char *szWhy)
{
    Reading reading;
    ReadingBegin(&reading, szPath, &reading.taken, pDoubts);
    ConfigLine line = *ConfigLineOf(&reading.found, ConfigRow(szSection, szKey), -1);
    line.eKind = ConfigLineKind::Key;
    line.section = szSection;
    line.key = szKey;
    ConfigSay(&reading.found, bRefuses, &line, 0, "%s", szWhy);
    ReadingEnd(&reading);
}

static void ListRow(const Reading *p, const Setting *pRow, ConfigRowProc pfnRow, void *pContext)
{
    char szTaken[kValueSize], szKey[32];
    int bPulled = strcmp(pRow->szSection, "PULL") == 0;
    const Setting *pCount = bPulled ? ConfigRow("PULL", "NumSources") : ConfigRow("USERS", "NumUsers");
    int nUsers = ConfigNumber(&p->found, pCount, -1);
    if (!IsUserRow(pRow)) {
        ConfigTaken(&p->found, pRow, -1, szTaken, sizeof(szTaken));
        pfnRow(pContext, pRow->szSection, pRow->szKey, szTaken);
        return;
    }
    for (int i = 0; i < nUsers; i++) {
        TextBuf key{szKey, sizeof(szKey)};
        TextAdd(&key, "%.*s%d", static_cast<int>(strcspn(pRow->szKey, "%")), pRow->szKey, i);
        ConfigTaken(&p->found, pRow, i, szTaken, sizeof(szTaken));
        pfnRow(pContext, pRow->szSection, szKey, szTaken);
    }
}

// Whether a row is the first of its section.
static int OpensSection(const Setting *pRow)
{
    for (const Setting *p = SettingsTable().data(); p < pRow; p++)
        if (strcmp(p->szSection, pRow->szSection) == 0)
            return 0;
    return 1;
}

void ConfigListTaken(const char *szPath, ConfigRowProc pfnRow, void *pContext)
{
    Reading reading;
    DoubtList none;
    ReadingBegin(&reading, szPath, &reading.taken, &none);
    for (const Setting &first : SettingsTable())
        for (const Setting &row : SettingsTable())
            if (OpensSection(&first) && strcmp(row.szSection, first.szSection) == 0)
                ListRow(&reading, &row, pfnRow, pContext);
    ReadingEnd(&reading);
}

void ConfigListMissing(const char *szPath, ConfigRowProc pfnRow, void *pContext)
{
    Reading reading;
    DoubtList none;
    ReadingBegin(&reading, szPath, &reading.taken, &none);
    EachMissing(&reading.found, pfnRow, pContext);
    ReadingEnd(&reading);
}

}  // namespace orx
