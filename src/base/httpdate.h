// The date of replies. Any thread.
#pragma once

#include <cstddef>

namespace orx {

constexpr size_t kHttpDateSize = 40;

// How a date is written.
enum class DateForm {
    MonthFirst,  // of this protocol: "Sun, Nov 2 2026 08:00:00 GMT"
    Rfc1123,     // "Sun, 02 Nov 2026 08:00:00 GMT"
};

// Writes the current date. szOut takes kHttpDateSize bytes.
void FormatHttpDate(char *szOut, DateForm eForm);

}  // namespace orx
