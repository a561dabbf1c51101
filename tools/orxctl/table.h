// What the server says, as tables for a terminal: a row per object of a list, a column per member. Figures
// get the unit that people read; no text from outside reaches the terminal with its control characters.
#pragma once

#include <jansson.h>

#include <string>
#include <vector>

namespace orx {

enum class CellForm {
    Text,
    Count,
    Bytes,    // "12.3 MB"
    BitRate,  // per second: "4.1 Mbit/s"
    Rate,     // "25.0"
    Percent,  // "1.5%"
    Seconds,  // "12s", "3m05s", "2h10m", "4d03h"
    Millis,   // "40 ms"
    Size,     // of a picture: the members "width" and "height"
};

struct Column {
    const char *szTitle;
    const char *szMember;
    CellForm eForm;
};

// The columns' cells of each object, one line each, under a line of titles; figures stand right. With nWidth
// each line is cut to so many columns, the last text first; 0: nothing is cut.
std::string TableText(const json_t *pList, const std::vector<Column> &columns, size_t nWidth);

// One member as its form shows it; "-" where there is none.
std::string CellText(const json_t *pObject, const Column &column);

// A text for the terminal: what is no printable character becomes '?'.
std::string Harmless(const char *szText);

// Columns that a text takes, as each character takes one.
size_t TextColumns(const std::string &text);
// Its first nColumns.
std::string TextCut(const std::string &text, size_t nColumns);

}  // namespace orx
