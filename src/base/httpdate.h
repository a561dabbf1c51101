// The date of replies. Any thread.
#pragma once

#include <cstddef>

namespace orx {

constexpr size_t kHttpDateSize = 40;

// Writes the current date: weekday, month before day, the year behind it, as the clients of this protocol
// read it (RFC 1123 has the day first). szOut takes kHttpDateSize bytes.
void FormatHttpDate(char *szOut);

}  // namespace orx
