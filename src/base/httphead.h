// The head of an HTTP/1.x request (RFC 9112) as a small server on a local socket takes it: bounded, and
// nothing read beyond what came. Any thread.
#pragma once

#include <cstddef>
#include <string_view>

namespace orx {

constexpr size_t kMaxHttpHead = 4096;  // bytes, the empty line included

enum HttpHeadState {
    HTTP_HEAD_MORE,      // its end has not come
    HTTP_HEAD_WHOLE,     // *pOut is filled
    HTTP_HEAD_BAD,       // it is none: answer 400
    HTTP_HEAD_TOO_LONG,  // answer 431
};

// Views of the bytes that were read.
struct HttpHead {
    std::string_view method;
    std::string_view path;   // before '?', as it came
    std::string_view query;  // behind it; may be empty
    size_t nBody = 0;        // Content-Length; too long a number is SIZE_MAX
    size_t nBytes = 0;       // of the head
};

// Reads what has come so far.
HttpHeadState HttpHeadRead(std::string_view bytes, HttpHead *pOut);

// The value of a parameter "name=value" of a query, percent-decoded ('+' is a blank), into szOut of nSize
// bytes. Returns 1; 0 without it; -1 when it cannot be decoded, has a NUL or does not fit.
int HttpQueryValue(std::string_view query, std::string_view name, char *szOut, size_t nSize);

}  // namespace orx
