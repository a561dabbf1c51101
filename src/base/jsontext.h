// JSON text (RFC 8259) built piece by piece, valid whatever bytes a peer sent: what is no UTF-8 is written as
// U+FFFD, control characters as \u00XX. The text grows; commas come by themselves. One thread at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace orx {

constexpr unsigned kMaxJsonDepth = 16;

struct JsonText {
    char *sz = nullptr;  // owned, from malloc; null until something was added
    size_t nLen = 0;     // terminator not counted
    size_t nRoom = 0;
    unsigned nDepth = 0;               // objects and lists that are open
    char closing[kMaxJsonDepth] = {};  // their last characters
    int bComma = 0;                    // something stands before what comes next
    int bFailed = 0;                   // without memory, or too deep: nothing is added any more
};

// In a list szName is null; in an object it is the member's name, a plain word.
void JsonOpen(JsonText *pJson, const char *szName);      // an object
void JsonOpenList(JsonText *pJson, const char *szName);  // a list
void JsonClose(JsonText *pJson);                         // what was opened last
void JsonString(JsonText *pJson, const char *szName, std::string_view value);
void JsonNumber(JsonText *pJson, const char *szName, int64_t nValue);
void JsonDecimal(JsonText *pJson, const char *szName, double dValue);  // two decimals; no number: null
void JsonBool(JsonText *pJson, const char *szName, int bValue);
void JsonNull(JsonText *pJson, const char *szName);

// Appends bytes as they are, for a line end behind the text.
void JsonAddBytes(JsonText *pJson, std::string_view bytes);
// Begins anew in the same memory.
void JsonReset(JsonText *pJson);
void JsonFree(JsonText *pJson);

// The bytes of the character of UTF-8 (RFC 3629) that a text begins with, or 0 where it begins with none.
size_t Utf8Length(std::string_view text);

}  // namespace orx
