#include "base/base64.h"

#include <cstring>

#include "base/assertion.h"

namespace orx {

static const char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

// The six bits of a character, or -1 for one outside the alphabet.
static int SixBits(char c)
{
    if (c >= 'A' && c <= 'Z')
        return c - 'A';
    if (c >= 'a' && c <= 'z')
        return c - 'a' + 26;
    if (c >= '0' && c <= '9')
        return c - '0' + 52;
    if (c == '+')
        return 62;
    return c == '/' ? 63 : -1;
}

static int IsSkipped(char c)
{
    return c == ' ' || c == '\t' || c == '\r' || c == '\n' || c == '\v';
}

// One group of four as it is decoded. The bits not yet written stand at the upper end of uPending.
struct Group {
    int nPosition = 0;  // of the next character, 0..3; 4 once padding completed the group
    int nPads = 0;
    uint8_t uPending = 0;
};

// Takes one '='. Returns 0 when the group has no place for it.
static int TakePadding(Group *pGroup)
{
    if (pGroup->nPosition > 3 || pGroup->nPads == 2)
        return 0;
    pGroup->nPads++;
    pGroup->nPosition++;
    return 1;
}

// Takes six bits and appends the byte that they complete. Returns 0 behind padding.
static int TakeBits(Group *pGroup, int nBits, char **ppOut)
{
    if (pGroup->nPads > 0)
        return 0;
    int nShift = 2 * pGroup->nPosition;  // how many of the six complete the pending byte
    if (pGroup->nPosition > 0)
        *(*ppOut)++ = static_cast<char>(pGroup->uPending | nBits >> (6 - nShift));
    pGroup->uPending = static_cast<uint8_t>(nBits << (nShift + 2));
    pGroup->nPosition = (pGroup->nPosition + 1) % 4;
    return 1;
}

char *Base64Decode(const char *szText, char *szOut, size_t nLen)
{
    Group group;
    int bFits = 1;
    for (size_t i = 0; (nLen == 0 || i < nLen) && szText[i] && bFits; i++) {
        if (IsSkipped(szText[i]))
            continue;
        int nBits = SixBits(szText[i]);
        if (nBits < 0 && szText[i] != '=')
            break;
        bFits = nBits < 0 ? TakePadding(&group) : TakeBits(&group, nBits, &szOut);
    }
    if (bFits && group.nPosition > 0 && group.nPosition < 4)
        *szOut++ = static_cast<char>(group.uPending);
    *szOut = '\0';
    return ORX_PEER_ASSERT(bFits, "!\"Invalid input stream!\"") ? szOut : nullptr;
}

char *Base64Encode(const void *pData, char *szOut, size_t nLen)
{
    if (nLen == 0)
        nLen = strlen(static_cast<const char *>(pData));
    return szOut + Base64EncodeCount(szOut, pData, nLen) - 1;
}

size_t Base64EncodeCount(char *szOut, const void *pData, size_t nLen)
{
    auto *p = static_cast<const uint8_t *>(pData);
    char *pOut = szOut;
    for (; nLen > 0; p += 3) {
        size_t nBytes = nLen < 3 ? nLen : 3;
        unsigned uBits = p[0] << 16 | (nBytes > 1 ? p[1] << 8 : 0) | (nBytes > 2 ? p[2] : 0);
        *pOut++ = kAlphabet[uBits >> 18];
        *pOut++ = kAlphabet[uBits >> 12 & 63];
        *pOut++ = nBytes > 1 ? kAlphabet[uBits >> 6 & 63] : '=';
        *pOut++ = nBytes > 2 ? kAlphabet[uBits & 63] : '=';
        nLen -= nBytes;
    }
    *pOut++ = '\0';
    return size_t(pOut - szOut);
}

size_t Base64EncodedSize(size_t nLen)
{
    return (nLen + 2) / 3 * 4 + 1;
}

static size_t CountAlphabet(const char *szText)
{
    size_t nCount = 0;
    while (SixBits(szText[nCount]) >= 0)
        nCount++;
    return nCount;
}

size_t Base64DecodeStrict(char *szOut, const char *szText)
{
    size_t nCount = CountAlphabet(szText);
    Group group;
    char *pOut = szOut;
    for (size_t i = 0; i < nCount; i++)
        TakeBits(&group, SixBits(szText[i]), &pOut);
    *pOut = '\0';
    return size_t(pOut - szOut);
}

size_t Base64PaddedLength(const char *szText)
{
    size_t nCount = CountAlphabet(szText);
    return nCount + strspn(szText + nCount, "=");
}

}  // namespace orx
