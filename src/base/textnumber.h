// Numbers that begin a text, as peers and files write them. What follows a number is not looked at, and what
// is no number reads as 0. Any thread.
#pragma once

#include <cstdint>
#include <string_view>

namespace orx {

// A decimal number with an optional sign, behind white space if there is any; what int cannot hold becomes
// the nearest that it can.
int TextToInt(std::string_view text);

// Seconds with a fraction, as in "npt=0-12.5" (RFC 2326, section 3.6), in milliseconds. sz starts with a
// digit.
uint32_t NptToMs(const char *sz);

}  // namespace orx
