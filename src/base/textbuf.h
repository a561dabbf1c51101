// Text built piece by piece in a fixed buffer: never past the end, never half a piece. Any thread.
#pragma once

#include <cstddef>
#include <string_view>

namespace orx {

struct TextBuf {
    char *sz;         // the buffer, not owned, always terminated once something was added
    size_t nSize;     // its size, at least 1
    size_t nLen = 0;  // characters held, terminator not counted
    int bFull = 0;    // 1 once a piece did not fit; nothing is added any more
};

// Appends one formatted piece. Returns 1, or 0 when it does not fit: the piece is then left out whole and the
// caller refuses the text.
__attribute__((format(printf, 2, 3))) int TextAdd(TextBuf *pText, const char *szFormat, ...);

// Appends nLen bytes as they are. Results as TextAdd.
int TextAddBytes(TextBuf *pText, const void *pData, size_t nLen);

// Copies szFrom (null counts as empty) into a buffer of nSize (>0) bytes, cut to what fits, always
// terminated. Returns 1 when all of it fitted, else 0.
int TextCopy(char *szTo, size_t nSize, const char *szFrom);
int TextCopy(char *szTo, size_t nSize, std::string_view from);

// What separates the words of a request and may stand between base64 characters.
inline int TextIsSpace(char c)
{
    return c == ' ' || c == '\t' || c == '\r' || c == '\n' || c == '\v';
}

}  // namespace orx
