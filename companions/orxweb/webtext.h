// Texts of strangers (programs, peers, accounts) as they may stand in pages, addresses and headers. Any
// thread.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace orx {

// For HTML, between tags and in quoted attributes; what is no UTF-8 is U+FFFD, a control character a blank.
std::string Html(std::string_view text);
// For a path (slashes stay) or, with bQuery, for the value of a parameter: all but what RFC 3986 leaves
// unreserved is percent-encoded.
std::string UrlEncode(std::string_view text, int bQuery);
// A path of a program in an address: as UrlEncode, with a suffix of its own that is not taken for ours.
std::string UrlProgram(std::string_view program);
// The value of Content-Disposition for a download (RFC 6266).
std::string AttachmentAs(std::string_view fileName);

// Amounts as people read them, with the decimal sign of a language.
std::string BytesText(double dBytes, const std::string &language);    // "1.4 GB"
std::string RateText(double dBits, const std::string &language);      // "1.4 Mbit/s"
std::string NumberText(double dNumber, const std::string &language);  // at most one decimal
std::string SpanText(int64_t nSeconds);                               // "1:02:03"

}  // namespace orx
