// What the server tells, as tables for a terminal. Any thread.
#pragma once

#include <string>
#include <vector>

#include "orxctl/json.h"

namespace orx {

// Rows of cells with a heading, columns as wide as their widest cell. nWidth: columns of the terminal, at
// which lines are cut; 0: none.
std::string TableText(const std::vector<std::vector<std::string>> &rows, size_t nWidth);

// A text without what a terminal takes for a command, or shows in another order; line ends stay.
std::string TerminalText(const std::string &text);

std::string ProgramsTable(const JsonValue &status, size_t nWidth);
std::string SessionsTable(const JsonValue &status, size_t nWidth);
// The server as a whole: version, listeners, doubts, recordings, storage, relay.
std::string StatusTable(const JsonValue &status, size_t nWidth);
// Of /recordings: a list, or the programs and their days.
std::string RecordingsTable(const JsonValue &recordings, size_t nWidth);

// 1234567 as "1.2M"; 59 as "59".
std::string ShortNumber(double dValue);
// Seconds as "h:mm:ss".
std::string ShortTime(double dSeconds);

}  // namespace orx
