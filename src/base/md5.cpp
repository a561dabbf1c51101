#include "base/md5.h"

#include <cstdlib>
#include <cstring>

namespace orx {

constexpr size_t kHexAllocSize = 36;  // 32 digits and a NUL, up to a whole word

// Of RFC 1321: the integer parts of 2^32 times abs(sin(i + 1)), and the rotations of the four rounds.
static const uint32_t kSines[64] = {
    0xd76aa478, 0xe8c7b756, 0x242070db, 0xc1bdceee, 0xf57c0faf, 0x4787c62a, 0xa8304613, 0xfd469501,
    0x698098d8, 0x8b44f7af, 0xffff5bb1, 0x895cd7be, 0x6b901122, 0xfd987193, 0xa679438e, 0x49b40821,
    0xf61e2562, 0xc040b340, 0x265e5a51, 0xe9b6c7aa, 0xd62f105d, 0x02441453, 0xd8a1e681, 0xe7d3fbc8,
    0x21e1cde6, 0xc33707d6, 0xf4d50d87, 0x455a14ed, 0xa9e3e905, 0xfcefa3f8, 0x676f02d9, 0x8d2a4c8a,
    0xfffa3942, 0x8771f681, 0x6d9d6122, 0xfde5380c, 0xa4beea44, 0x4bdecfa9, 0xf6bb4b60, 0xbebfbc70,
    0x289b7ec6, 0xeaa127fa, 0xd4ef3085, 0x04881d05, 0xd9d4d039, 0xe6db99e5, 0x1fa27cf8, 0xc4ac5665,
    0xf4292244, 0x432aff97, 0xab9423a7, 0xfc93a039, 0x655b59c3, 0x8f0ccc92, 0xffeff47d, 0x85845dd1,
    0x6fa87e4f, 0xfe2ce6e0, 0xa3014314, 0x4e0811a1, 0xf7537e82, 0xbd3af235, 0x2ad7d2bb, 0xeb86d391,
};
static const int kRotations[4][4] = {{7, 12, 17, 22}, {5, 9, 14, 20}, {4, 11, 16, 23}, {6, 10, 15, 21}};

static uint32_t RotateLeft(uint32_t u, int n)
{
    return u << n | u >> (32 - n);
}

// The words of this digest run from the lowest byte to the highest.
static uint32_t GetLe32(const uint8_t *p)
{
    return p[0] | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24;
}

static void PutLe32(uint8_t *p, uint32_t u)
{
    for (int i = 0; i < 4; i++)
        p[i] = static_cast<uint8_t>(u >> 8 * i);
}

// The mixing function and the word index of step i of 64.
static uint32_t Mix(int i, uint32_t b, uint32_t c, uint32_t d, int *pWord)
{
    switch (i / 16) {
        case 0:
            *pWord = i;
            return (b & c) | (~b & d);
        case 1:
            *pWord = (5 * i + 1) % 16;
            return (b & d) | (c & ~d);
        case 2:
            *pWord = (3 * i + 5) % 16;
            return b ^ c ^ d;
        default:
            *pWord = 7 * i % 16;
            return c ^ (b | ~d);
    }
}

static void AddBlock(uint32_t state[4], const uint8_t block[64])
{
    uint32_t a = state[0], b = state[1], c = state[2], d = state[3];
    for (int i = 0; i < 64; i++) {
        int nWord = 0;
        uint32_t uMixed = Mix(i, b, c, d, &nWord);
        uint32_t uSum = a + uMixed + kSines[i] + GetLe32(block + size_t(nWord) * 4);
        a = d;
        d = c;
        c = b;
        b += RotateLeft(uSum, kRotations[i / 16][i % 4]);
    }
    state[0] += a;
    state[1] += b;
    state[2] += c;
    state[3] += d;
}

void Md5Init(Md5Context *pContext)
{
    *pContext = Md5Context{{0x67452301, 0xefcdab89, 0x98badcfe, 0x10325476}, 0, {}};
}

void Md5Update(Md5Context *pContext, const void *pData, size_t nLen)
{
    auto *p = static_cast<const uint8_t *>(pData);
    size_t nHeld = pContext->nBits / 8 % 64;
    pContext->nBits += uint64_t(nLen) * 8;
    while (nLen > 0) {
        size_t nTake = nLen < 64 - nHeld ? nLen : 64 - nHeld;
        memcpy(pContext->buffer + nHeld, p, nTake);
        p += nTake;
        nLen -= nTake;
        nHeld = (nHeld + nTake) % 64;
        if (nHeld == 0)
            AddBlock(pContext->state, pContext->buffer);
    }
}

void Md5Final(Md5Context *pContext, uint8_t digest[16])
{
    static const uint8_t kPadding[64] = {0x80};
    uint8_t length[8];
    PutLe32(length, static_cast<uint32_t>(pContext->nBits));
    PutLe32(length + 4, static_cast<uint32_t>(pContext->nBits >> 32));
    size_t nHeld = pContext->nBits / 8 % 64;
    Md5Update(pContext, kPadding, (nHeld < 56 ? 56 : 120) - nHeld);
    Md5Update(pContext, length, sizeof(length));
    for (size_t i = 0; i < 4; i++)
        PutLe32(digest + 4 * i, pContext->state[i]);
}

char *Md5FinalHex(Md5Context *pContext, char *szOut)
{
    static const char kDigits[] = "0123456789abcdef";
    if (!szOut)
        szOut = static_cast<char *>(malloc(kHexAllocSize));
    if (!szOut)
        return nullptr;
    uint8_t digest[16];
    Md5Final(pContext, digest);
    for (size_t i = 0; i < sizeof(digest); i++) {
        szOut[2 * i] = kDigits[digest[i] >> 4];
        szOut[2 * i + 1] = kDigits[digest[i] & 15];
    }
    szOut[kMd5HexSize - 1] = '\0';
    return szOut;
}

// nLen bytes, or the text's own length for 0.
static void AddData(Md5Context *pContext, const void *pData, size_t nLen)
{
    Md5Init(pContext);
    Md5Update(pContext, pData, nLen > 0 ? nLen : strlen(static_cast<const char *>(pData)));
}

int Md5Hex(const void *pData, size_t nLen, char *szOut)
{
    Md5Context context;
    AddData(&context, pData, nLen);
    Md5FinalHex(&context, szOut);
    return int(kMd5HexSize) - 1;
}

char *Md5HexAlloc(const void *pData, size_t nLen)
{
    Md5Context context;
    AddData(&context, pData, nLen);
    return Md5FinalHex(&context, nullptr);
}

}  // namespace orx
