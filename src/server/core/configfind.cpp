#include "server/core/configfind.h"

#include <algorithm>
#include <cctype>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <new>

#include <strings.h>

#include "base/textbuf.h"
#include "base/textnumber.h"

namespace orx {

constexpr size_t kNumberBytes = 31;  // of a value that are looked at for a number
constexpr size_t kNameBytes = 40;    // longer names are near none
constexpr int kShownBytes = 80;      // of a value
constexpr size_t kReasonSize = 300;  // room of why it is doubtful

// ---------------------------------------------------------------- rows

// The name without the place of its number.
static std::string_view NameOf(const Setting *pRow)
{
    std::string_view name(pRow->szKey);
    return name.substr(0, name.find('%'));
}

// The number behind a name, written as it is printed; -1 when it is none that counts.
static int UserNumber(std::string_view digits)
{
    if (digits.empty() || digits.size() > 4 || (digits[0] == '0' && digits.size() > 1) ||
        digits.find_first_not_of("0123456789") != std::string_view::npos)
        return -1;
    int nUser = TextToInt(digits);
    return nUser < kConfigUsers ? nUser : -1;
}

int ConfigIsSection(std::string_view section, const char *szName)
{
    return section.starts_with(szName);
}

const Setting *ConfigRowOf(std::string_view section, std::string_view key, int *pnUser)
{
    *pnUser = -1;
    for (const Setting &row : SettingsTable()) {
        if (!ConfigIsSection(section, row.szSection) || !key.starts_with(NameOf(&row)))
            continue;
        if (!IsUserRow(&row) && key.size() == strlen(row.szKey))
            return &row;
        *pnUser = IsUserRow(&row) ? UserNumber(key.substr(NameOf(&row).size())) : -1;
        if (*pnUser >= 0)
            return &row;
    }
    return nullptr;
}

const Setting *ConfigRow(const char *szSection, const char *szKey)
{
    for (const Setting &row : SettingsTable())
        if (strcmp(row.szSection, szSection) == 0 && strcmp(row.szKey, szKey) == 0)
            return &row;
    return SettingsTable().data();
}

static size_t UserKeyOf(const Setting *pRow)
{
    size_t n = 0;
    for (const Setting *p = SettingsTable().data(); p < pRow; p++)
        n += static_cast<size_t>(IsUserRow(p));
    return std::min(n, kConfigUserKeys - 1);
}

static size_t IndexOf(const Setting *pRow)
{
    return std::min(static_cast<size_t>(pRow - SettingsTable().data()), kMaxConfigRows - 1);
}

ConfigLine *ConfigPlaceOf(ConfigFound *pFound, const Setting *pRow, int nUser)
{
    if (!IsUserRow(pRow))
        return &pFound->lines[IndexOf(pRow)];
    if (!pFound->pUsers)
        pFound->pUsers = new (std::nothrow) ConfigLine[kConfigUsers][kConfigUserKeys];
    return pFound->pUsers ? &pFound->pUsers[nUser][UserKeyOf(pRow)] : nullptr;
}

const ConfigLine *ConfigLineOf(const ConfigFound *pFound, const Setting *pRow, int nUser)
{
    static constexpr ConfigLine kNone;
    if (!IsUserRow(pRow))
        return &pFound->lines[IndexOf(pRow)];
    return pFound->pUsers && nUser >= 0 ? &pFound->pUsers[nUser][UserKeyOf(pRow)] : &kNone;
}

int ConfigRefusesSection(const char *szSection)
{
    static constexpr const char *kSections[] = {
        "USERS",
        "USERCTRL",
        "GUARD",
    };
    for (const char *sz : kSections)
        if (strcmp(sz, szSection) == 0)
            return 1;
    return 0;
}

int ConfigRefuses(const Setting *pRow)
{
    for (const char *sz : {"AuthType", "EnableAnonymousViewer", "ControlUsers", "ProxyProtocolFrom"})
        if (strcmp(sz, pRow->szKey) == 0)
            return 1;
    return ConfigRefusesSection(pRow->szSection);
}

int ConfigIsSecret(const Setting *pRow)
{
    return strstr(pRow->szKey, "Pwd") || strstr(pRow->szKey, "Password");
}

int ConfigHoldsPassword(std::string_view value)
{
    size_t nScheme = value.find("//");
    size_t nColon = value.find(':', nScheme == std::string_view::npos ? 0 : nScheme + 2);
    size_t nHost = value.rfind('@');
    if (nScheme != std::string_view::npos && value.find('=', nScheme) != std::string_view::npos)
        return 1;  // cameras have it in the path or query, too
    return nColon < nHost && nHost != std::string_view::npos;
}

// ---------------------------------------------------------------- near names

static int Lower(char c)
{
    return c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c;
}

// How many letters are to be added, left out or changed to make one name the other, in any case.
static size_t Distance(std::string_view one, std::string_view other)
{
    size_t costs[kNameBytes + 1];
    if (one.size() > kNameBytes || other.size() > kNameBytes)
        return kNameBytes;
    for (size_t i = 0; i <= other.size(); i++)
        costs[i] = i;
    for (size_t i = 1; i <= one.size(); i++) {
        size_t nDiagonal = costs[0];
        costs[0] = i;
        for (size_t j = 1; j <= other.size(); j++) {
            size_t nChanged = nDiagonal + (Lower(one[i - 1]) != Lower(other[j - 1]));
            nDiagonal = costs[j];
            costs[j] = std::min({costs[j] + 1, costs[j - 1] + 1, nChanged});
        }
    }
    return costs[other.size()];
}

// So far at most a name is from the one that was meant.
static size_t FarthestOf(std::string_view name)
{
    return std::max(name.size() / 2, size_t{2});
}

// How far a key is from the name of a row, whose number it may lack.
static size_t DistanceOf(const Setting *pRow, std::string_view key)
{
    if (IsUserRow(pRow))
        key = key.substr(0, key.find_last_not_of("0123456789") + 1);
    return Distance(NameOf(pRow), key);
}

// A name of the same section is nearer than one of another, unless that one is right.
ConfigNear ConfigNearest(std::string_view section, std::string_view key)
{
    ConfigNear found;
    size_t nNearest = 2 * FarthestOf(key) + 2;
    key = ConfigTrim(key);
    for (const Setting &row : SettingsTable()) {
        int bElsewhere = !ConfigIsSection(section, row.szSection);
        size_t nDistance = 2 * DistanceOf(&row, key) + static_cast<size_t>(bElsewhere);
        if (nDistance >= nNearest)
            continue;
        nNearest = nDistance;
        found = {&row, bElsewhere};
    }
    return found;
}

const char *ConfigNearestSection(std::string_view section)
{
    const char *szFound = nullptr;
    section = ConfigTrim(section);
    size_t nNearest = FarthestOf(section) + 1;
    for (const Setting &row : SettingsTable()) {
        size_t nDistance = Distance(row.szSection, section);
        if (nDistance >= nNearest)
            continue;
        nNearest = nDistance;
        szFound = row.szSection;
    }
    return szFound;
}

// ---------------------------------------------------------------- what is taken

int ConfigNumber(const ConfigFound *pFound, const Setting *pRow, int nUser)
{
    const ConfigLine *pLine = ConfigLineOf(pFound, pRow, nUser);
    if (pRow->place.nOffset != kNotHere) {
        int32_t nValue = 0;
        memcpy(&nValue, reinterpret_cast<const char *>(pFound->pTaken) + pRow->place.nOffset, sizeof(nValue));
        return nValue;
    }
    int nValue = pLine->nLine ? TextToInt(pLine->value.substr(0, kNumberBytes)) : pRow->nDefault;
    return SettingClamped(pRow, nValue);
}

void ConfigTaken(const ConfigFound *pFound, const Setting *pRow, int nUser, char *szOut, size_t nSize)
{
    TextBuf text{szOut, nSize};
    szOut[0] = '\0';
    if (pRow->kind == SettingKind::Number) {
        TextAdd(&text, "%d", ConfigNumber(pFound, pRow, nUser));
        return;
    }
    const ConfigLine *pLine = ConfigLineOf(pFound, pRow, nUser);
    std::string_view value = pLine->nLine ? pLine->value.substr(0, pRow->place.nBytes - 1) : pRow->szDefault;
    if (pRow->place.nOffset != kNotHere)
        value = reinterpret_cast<const char *>(pFound->pTaken) + pRow->place.nOffset;
    if (ConfigIsSecret(pRow) || (pLine->nLine && ConfigHoldsPassword(pLine->value)))
        value = value.empty() ? "" : "***";
    TextCopy(szOut, nSize, value);
}

// ---------------------------------------------------------------- a doubt's line

// A value for one line: bytes that command a terminal are not shown, and not all of a long one.
static void AddShown(TextBuf *pText, std::string_view value)
{
    char szShown[kShownBytes + 4];
    size_t n = std::min(value.size(), size_t{kShownBytes});
    for (size_t i = 0; i < n; i++) {
        auto c = static_cast<unsigned char>(value[i]);
        szShown[i] = c < ' ' || c == 127 ? '?' : value[i];
    }
    memcpy(szShown + n, value.size() > n ? "..." : "", value.size() > n ? 4 : 1);
    TextAdd(pText, "%s", szShown);
}

// A key; of one whose value is not shown only the name, behind which a password may stand ("SuperPwd:
// one=two").
static void AddKey(TextBuf *pText, std::string_view key, int bSecret)
{
    std::string_view trimmed = ConfigTrim(key);
    auto isNameByte = [](char c) { return isalnum(static_cast<unsigned char>(c)) || c == '_' || c == '-'; };
    auto *pEnd = std::find_if_not(trimmed.begin(), trimmed.end(), isNameByte);
    if (!bSecret || pEnd == trimmed.end()) {
        AddShown(pText, key);
        return;
    }
    AddShown(pText, trimmed.substr(0, static_cast<size_t>(pEnd - trimmed.begin())));
    TextAdd(pText, "***");
}

static void AddPlace(const ConfigFound *pFound, const ConfigLine *pLine, int bSecret, TextBuf *pText)
{
    TextAdd(pText, "%s:", pFound->pText->profile.path);
    if (pLine && pLine->nLine)
        TextAdd(pText, "%u:", pLine->nLine);
    TextAdd(pText, " ");
    if (!pLine)
        return;
    if (pLine->section.data()) {
        TextAdd(pText, "[");
        AddShown(pText, pLine->section);
        TextAdd(pText, "] ");
    }
    if (pLine->eKind != ConfigLineKind::Key)
        return;
    bSecret |= ConfigHoldsPassword(pLine->value);
    AddKey(pText, pLine->key, bSecret);
    if (pLine->nLine) {
        TextAdd(pText, "=");
        AddShown(pText, bSecret && !pLine->value.empty() ? "***" : pLine->value);
    }
    TextAdd(pText, " ");
}

void ConfigSay(const ConfigFound *pFound, int bRefuses, const ConfigLine *pLine, int bSecret,
               const char *szFormat, ...)
{
    char szText[sizeof(Doubt::szText)], szPiece[kReasonSize];
    TextBuf text{szText, sizeof(szText)};
    AddPlace(pFound, pLine, bSecret, &text);
    va_list args;
    va_start(args, szFormat);
    vsnprintf(szPiece, sizeof(szPiece), szFormat, args);
    va_end(args);
    TextAdd(&text, "%s", szPiece);
    DoubtAddAt(pFound->pDoubts, bRefuses, pLine ? pLine->nLine : 0, szText);
}

// What a number stands for, where that is worth a word.
static const char *MeaningOf(const ConfigFound *pFound, const Setting *pRow)
{
    static constexpr const char *kTypes[] = {" (everybody may watch)", " (Basic)", " (Digest)"};
    uint32_t nType = pFound->pTaken->nAuthType;
    return strcmp(pRow->szKey, "AuthType") == 0 && nType < 3 ? kTypes[nType] : "";
}

void ConfigSayRow(const ConfigFound *pFound, const Setting *pRow, int nUser, const char *szFormat, ...)
{
    char szText[sizeof(Doubt::szText)], szPiece[kReasonSize], szTaken[kTakenSize], szKey[32];
    TextBuf text{szText, sizeof(szText)}, key{szKey, sizeof(szKey)};
    ConfigLine line = *ConfigLineOf(pFound, pRow, nUser);
    if (!line.nLine) {
        std::string_view name = NameOf(pRow);
        TextAdd(&key, "%.*s", static_cast<int>(name.size()), name.data());
        if (IsUserRow(pRow))
            TextAdd(&key, "%d", nUser);
        line.eKind = ConfigLineKind::Key;
        line.section = pRow->szSection;
        line.key = szKey;
    }
    AddPlace(pFound, &line, ConfigIsSecret(pRow), &text);
    va_list args;
    va_start(args, szFormat);
    vsnprintf(szPiece, sizeof(szPiece), szFormat, args);
    va_end(args);
    TextAdd(&text, "%s", szPiece);
    ConfigTaken(pFound, pRow, nUser, szTaken, sizeof(szTaken));
    TextAdd(&text, ": ");
    AddShown(&text, szTaken[0] ? szTaken : "nothing");
    TextAdd(&text, "%s is taken", MeaningOf(pFound, pRow));
    DoubtAddAt(pFound->pDoubts, ConfigRefuses(pRow), line.nLine, szText);
}

}  // namespace orx
