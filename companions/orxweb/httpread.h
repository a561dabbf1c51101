// What visitors write in their requests, taken apart: targets, queries and forms, cookies, ranges, languages,
// names and passwords. Everything is bounded by the text that is given. Any thread.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace orx {

// Percent-decodes a path, or with bForm a value of a form, where '+' is a blank. Returns 1, or 0 for a broken
// escape, a control character and what is no UTF-8.
int UrlDecode(std::string_view text, int bForm, std::string *pOut);

// The value of a parameter of a query or a form. Returns 1; 0 without it; -1 when it cannot be decoded.
int FormValue(std::string_view form, std::string_view name, std::string *pOut);

// The value of a cookie in a Cookie header (RFC 6265); empty: none. Of several with the name the first.
std::string_view CookieValue(std::string_view header, std::string_view name);

// One range of bytes of a resource of nSize bytes.
struct HttpRange {
    uint64_t nFirst = 0, nLast = 0;  // both included
};
enum class RangeResult {
    Whole,    // no range, several, or none that is understood: the whole is sent (RFC 9110, 14.2)
    Part,     // *pOut
    Outside,  // 416
};
RangeResult RangeRead(std::string_view header, uint64_t nSize, HttpRange *pOut);

// The first of the languages that an Accept-Language header (RFC 9110, 12.5.4) prefers; languages are two
// letters each, separated by blanks. Without a header, or one of them in it, the first.
std::string LanguageOf(std::string_view header, std::string_view languages);

// Name and password of "Authorization: Basic" (RFC 7617). Returns 1, or 0 when it is something else.
int BasicRead(std::string_view header, std::string *pName, std::string *pPassword);

// Whether a list of entity tags (If-None-Match, If-Range) names this one, which stands in its quotes.
int TagListed(std::string_view header, std::string_view tag);

// A path of this site that one may be sent to: "/" in place of anything that leads elsewhere.
std::string LocalTarget(std::string_view target);

// Whether an Origin or a Referer names the host that a Host header does.
int OriginIsHost(std::string_view origin, std::string_view host);

// What an address of a program means.
enum class AddressKind { None, Page, Mp4, Mjpeg, Jpeg };
struct ProgramAddress {
    AddressKind kind = AddressKind::None;
    std::string
        program;  // without a slash at its begin; of a recording's Mp4 all that stands before its ".mp4"
};
// Reads what follows "/live/" or "/recordings/" (with bRecording) in a path that is not yet decoded. A '.' of
// a name that is written as %2E is never that of a suffix.
ProgramAddress ProgramAddressRead(std::string_view path, int bRecording);

// A day, "20261122" or "2026-11-22": the first in eight digits. Returns 1 or 0.
int DayRead(std::string_view text, std::string *pDay);

}  // namespace orx
