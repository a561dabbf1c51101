// Base64 (RFC 4648, section 4). Outputs are ended by a NUL. Any thread.
#pragma once

#include <cstddef>
#include <cstdint>

namespace orx {

// Decodes tolerantly: skips white space, stops silently at any other foreign character, and completes an
// unfinished last group with one more byte. nLen 0: up to the NUL. szOut takes at least nLen / 4 * 3 + 4
// bytes and may be the input itself. Returns the address of the NUL behind the output, or null when more data
// or padding follows a padded group, which is a peer assertion.
char *Base64Decode(const char *szText, char *szOut, size_t nLen);

// Encodes nLen bytes (0: the input's string length). Returns the address of the NUL behind the output.
char *Base64Encode(const void *pData, char *szOut, size_t nLen);
// The same in the count form: the number of characters written, the NUL included.
size_t Base64EncodeCount(char *szOut, const void *pData, size_t nLen);
// The room that nLen bytes take encoded, the NUL included.
size_t Base64EncodedSize(size_t nLen);
// Decodes the leading characters that belong to the alphabet. Returns the number of bytes decoded.
size_t Base64DecodeStrict(char *szOut, const char *szText);
// The number of leading alphabet characters plus the "=" that follow them.
size_t Base64PaddedLength(const char *szText);

}  // namespace orx
