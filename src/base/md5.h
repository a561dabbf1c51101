// MD5 digests (RFC 1321) and their lower-case hexadecimal form, as HTTP digest authentication uses them (RFC
// 2617). Any thread.
#pragma once

#include <cstddef>
#include <cstdint>

namespace orx {

struct Md5Context {
    uint32_t state[4];
    uint64_t nBits;      // length of what was added so far
    uint8_t buffer[64];  // the block not yet complete
};

void Md5Init(Md5Context *pContext);
void Md5Update(Md5Context *pContext, const void *pData, size_t nLen);
void Md5Final(Md5Context *pContext, uint8_t digest[16]);

constexpr size_t kMd5HexSize = 33;  // 32 digits and a NUL

// The hex form of the digest of nLen bytes (0: the string length) in szOut (33 bytes). Returns 32.
int Md5Hex(const void *pData, size_t nLen, char *szOut);
// The same in a new 36-byte buffer that the caller frees, or null.
char *Md5HexAlloc(const void *pData, size_t nLen);
// Ends a context: the hex form in szOut, or in a new 36-byte buffer when szOut is null.
char *Md5FinalHex(Md5Context *pContext, char *szOut);

}  // namespace orx
