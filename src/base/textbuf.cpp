#include "base/textbuf.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>

namespace orx {

// Leaves out what did not fit and remembers it.
static int Refuse(TextBuf *pText)
{
    pText->sz[pText->nLen] = '\0';
    pText->bFull = 1;
    return 0;
}

int TextAdd(TextBuf *pText, const char *szFormat, ...)
{
    size_t nRoom = pText->nSize - pText->nLen;
    va_list args;
    va_start(args, szFormat);
    int n = pText->bFull ? -1 : vsnprintf(pText->sz + pText->nLen, nRoom, szFormat, args);
    va_end(args);
    if (n < 0 || size_t(n) >= nRoom)
        return Refuse(pText);
    pText->nLen += size_t(n);
    return 1;
}

int TextAddBytes(TextBuf *pText, const void *pData, size_t nLen)
{
    if (pText->bFull || nLen >= pText->nSize - pText->nLen)
        return Refuse(pText);
    if (nLen > 0)
        memcpy(pText->sz + pText->nLen, pData, nLen);
    pText->nLen += nLen;
    pText->sz[pText->nLen] = '\0';
    return 1;
}

int TextCopy(char *szTo, size_t nSize, const char *szFrom)
{
    return TextCopy(szTo, nSize, std::string_view(szFrom ? szFrom : ""));
}

int TextCopy(char *szTo, size_t nSize, std::string_view from)
{
    TextBuf text{szTo, nSize};
    size_t nFits = from.size() < nSize ? from.size() : nSize - 1;
    TextAddBytes(&text, from.data(), nFits);
    return nFits == from.size();
}

}  // namespace orx
