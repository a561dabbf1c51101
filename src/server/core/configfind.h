// Which line of a configuration counts for which key, which known name a wrong one comes near, and how a
// doubt about a line is written. For the checks (configcheck.h). Any thread.
#pragma once

#include <cstring>

#include "server/core/configtext.h"
#include "server/core/doubts.h"
#include "server/core/settings.h"

namespace orx {

constexpr size_t kMaxConfigRows = 128;
constexpr int kConfigUsers = 1024;     // that can be listed, as sources of orxpull
constexpr size_t kConfigUserKeys = 9;  // that such a number follows
constexpr size_t kTakenSize = 128;     // room of a value as it is shown

struct ConfigFound {
    const ConfigText *pText;
    const Settings *pTaken;  // what was read of it
    DoubtList *pDoubts;
    ConfigLine lines[kMaxConfigRows];                 // of each row without a number, the one that counts
    ConfigLine (*pUsers)[kConfigUserKeys] = nullptr;  // of each number; owned; null when none is listed
};

// The row of a key that stands below a header, with *pnUser the user's number or -1; null for none.
const Setting *ConfigRowOf(std::string_view section, std::string_view key, int *pnUser);
const Setting *ConfigRow(const char *szSection, const char *szKey);  // of a name of the table; never null
inline int IsUserRow(const Setting *pRow)
{
    return strchr(pRow->szKey, '%') != nullptr;
}

// The line that counts for a row; its nLine is 0 when there is none. Of a user's row with his number.
const ConfigLine *ConfigLineOf(const ConfigFound *pFound, const Setting *pRow, int nUser);
ConfigLine *ConfigPlaceOf(ConfigFound *pFound, const Setting *pRow, int nUser);  // null without memory

// How a key that stands in a section is to be called, and where. pRow null: no known name is near.
struct ConfigNear {
    const Setting *pRow = nullptr;
    int bElsewhere = 0;  // it belongs to another section
};
ConfigNear ConfigNearest(std::string_view section, std::string_view key);
const char *ConfigNearestSection(std::string_view section);  // null: none is near
// Whether the header's section is read as the one of that name: it begins with it.
int ConfigIsSection(std::string_view section, const char *szName);

// Whether a doubt about it keeps a strict server from starting: it is about who may do what.
int ConfigRefuses(const Setting *pRow);
int ConfigRefusesSection(const char *szSection);
// Whether its values are never shown.
int ConfigIsSecret(const Setting *pRow);
// Whether a value is an address with a password, "user:password@host", which is not shown either.
int ConfigHoldsPassword(std::string_view value);

// The number that a row takes for the text of a line that counts.
int ConfigNumber(const ConfigFound *pFound, const Setting *pRow, int nUser);
// What a row takes, as it is shown, in kTakenSize bytes; the whole of it in as many as are given.
void ConfigTaken(const ConfigFound *pFound, const Setting *pRow, int nUser, char *szOut, size_t nSize);

// Adds the doubt "FILE:LINE: [SECTION] KEY=VALUE " and the text; without a line, what is known of that.
// bSecret: the value is not shown.
__attribute__((format(printf, 5, 6))) void ConfigSay(const ConfigFound *pFound, int bRefuses,
                                                     const ConfigLine *pLine, int bSecret,
                                                     const char *szFormat, ...);
// The same for a row, whose line counts, ended by ": TAKEN is taken". Without a line its name stands alone.
__attribute__((format(printf, 4, 5))) void ConfigSayRow(const ConfigFound *pFound, const Setting *pRow,
                                                        int nUser, const char *szFormat, ...);

}  // namespace orx
