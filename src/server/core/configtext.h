// A configuration file line by line, as the profile store sees it, with the lines that the store passes over:
// for those who tell people what became of what they wrote. Any thread.
#pragma once

#include <cstddef>
#include <string_view>

#include "base/inifile.h"

namespace orx {

// A file as a start would see it. The text stays until ConfigTextFree.
struct ConfigText {
    Profile profile;     // path and text; the text is owned, empty where there is none
    int nErrno = 0;      // why the file cannot be read
    size_t nBytes = 0;   // of the file
    size_t nHidden = 0;  // of these, behind a byte 0xFF or NUL, which ends the text
    int bTooLong = 0;    // too long to be read, unless SurvivePeerFaults says so: a start is aborted
    const char *szMissing =
        nullptr;  // why there is no text: "is missing", "is empty"; static; null: there is one
};

void ConfigTextLoad(ConfigText *pText, const char *szPath);
void ConfigTextFree(ConfigText *pText);

enum class ConfigLineKind {
    Section,  // a header; value is the line
    Open,     // a header without ']': nothing is read up to the next one
    Key,
    Stray,  // neither, and no comment
};

struct ConfigLine {
    ConfigLineKind eKind = ConfigLineKind::Stray;
    unsigned nLine = 0;        // from 1; 0: not in the file
    std::string_view section;  // of the last header; null pointer above the first one
    std::string_view key;
    std::string_view value;
};

struct ConfigWalk {
    const char *szText;  // not owned
    const char *p;       // where the next line begins
    const char *pCounted;
    unsigned nLine = 1;  // of pCounted
    std::string_view section;
    explicit ConfigWalk(const char *szGiven) : szText(szGiven), p(szGiven), pCounted(szGiven) {}
};

// Steps to the next line that is not empty and no comment. Returns 1, or 0 at the end.
int ConfigWalkNext(ConfigWalk *pWalk, ConfigLine *pLine);

// A text without the blanks in front and behind.
std::string_view ConfigTrim(std::string_view text);

}  // namespace orx
