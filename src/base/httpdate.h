// The date of replies. Any thread.
#pragma once

#include <cstddef>

namespace orx {

constexpr size_t kHttpDateSize = 40;

// Writes the current date. This protocol has the month before the day and the year behind it, unlike RFC
// 1123. szOut takes kHttpDateSize bytes.
void FormatHttpDate(char *szOut);

}  // namespace orx
