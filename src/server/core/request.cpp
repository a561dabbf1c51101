#include "server/core/request.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>

#include "base/textbuf.h"
#include "base/textnumber.h"
#include "server/core/settings.h"

namespace orx {

static constexpr size_t kMaxUri = 255;  // decoded

struct RequestHeader {
    Str name = nullptr;
    Str value = nullptr;
};

// Standard clients send headers that nothing here asks for.
static int TakesStandard(const Request *pRequest)
{
    return pRequest->standards.bPushers || pRequest->standards.bPlayers;
}

// A run of bytes inside the block that is parsed.
struct Span {
    const char *p;
    const char *pEnd;
    size_t Size() const { return static_cast<size_t>(pEnd - p); }
};

static int FreeHeader(AvlNode *pNode)
{
    auto *pHeader = static_cast<RequestHeader *>(pNode->value);
    StrDestroy(&pHeader->name);
    StrDestroy(&pHeader->value);
    delete pHeader;
    return 0;
}

void RequestInit(Request *pRequest)
{
    *pRequest = Request();
    AvlInit(&pRequest->headers, FreeHeader);
    pRequest->headers.pfnCompare = AvlCompareTextNoCase;
}

static void FreeText(Str *pText)
{
    if (*pText)
        StrDestroy(pText);
}

void RequestReset(Request *pRequest)
{
    FreeText(&pRequest->method);
    FreeText(&pRequest->uri);
    FreeText(&pRequest->base);
    FreeText(&pRequest->path);
    FreeText(&pRequest->protocol);
    FreeText(&pRequest->version);
    AvlDestroy(&pRequest->headers);
    free(pRequest->pBody);
    RequestInit(pRequest);
}

// The token at the start of *pLine, stepped over together with the white space behind it.
static Span TakeToken(Span *pLine)
{
    Span token{pLine->p, pLine->p};
    while (token.pEnd < pLine->pEnd && !TextIsSpace(*token.pEnd))
        token.pEnd++;
    pLine->p = token.pEnd;
    while (pLine->p < pLine->pEnd && TextIsSpace(*pLine->p))
        pLine->p++;
    return token;
}

static int SetText(Str *pText, Span span)
{
    if (span.Size() == 0)
        return 0;
    StrCreate(pText, span.p, span.Size());
    return 1;
}

static int HexValue(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    c = static_cast<char>(c | 0x20);
    return c >= 'a' && c <= 'f' ? c - 'a' + 10 : -1;
}

int UriDecode(std::string_view uri, char *szOut, size_t nSize)
{
    Span span{uri.data(), uri.data() + uri.size()};
    size_t nLen = 0;
    while (span.p < span.pEnd) {
        char c = *span.p++;
        if (c == '%' && span.Size() >= 2 && HexValue(span.p[0]) >= 0 && HexValue(span.p[1]) >= 0) {
            c = static_cast<char>(HexValue(span.p[0]) << 4 | HexValue(span.p[1]));
            span.p += 2;
        }
        if (nLen == nSize - 1)
            return -1;
        szOut[nLen++] = c;
    }
    szOut[nLen] = '\0';
    return static_cast<int>(nLen);
}

// Whether a URI decodes to a control byte. No name of a program holds one: names are printed, logged, and
// become those of files.
static int HoldsControl(const char *szUri, int nLen)
{
    for (int i = 0; i < nLen; i++)
        if (static_cast<unsigned char>(szUri[i]) < ' ' || szUri[i] == 127)
            return 1;
    return 0;
}

// Stores the URI with its percent escapes decoded. 0 when it is empty, too long, or not to be printed.
static int SetUri(Str *pUri, Span span)
{
    char szUri[kMaxUri + 1];
    int nLen = UriDecode({span.p, span.Size()}, szUri, sizeof(szUri));
    if (g_settings.bSurvivePeerFaults && HoldsControl(szUri, nLen))
        return 0;
    return nLen > 0 && SetText(pUri, {szUri, szUri + nLen});
}

// The query is looked for before the URI is decoded: a name may hold a '?' that was escaped.
static void SetBase(Request *pRequest, Span uri)
{
    if (auto *pQuery = static_cast<const char *>(memchr(uri.p, '?', uri.Size())))
        uri.pEnd = pQuery;
    while (uri.Size() > 1 && uri.pEnd[-1] == '/')
        uri.pEnd--;
    char szUri[kMaxUri + 1];
    int nLen = UriDecode({uri.p, uri.Size()}, szUri, sizeof(szUri));
    if (nLen <= 0 || !SetText(&pRequest->base, uri))
        return;
    const char *pPath = UriPath(szUri);
    SetText(&pRequest->path, {pPath, szUri + nLen});
}

// METHOD URI PROTOCOL/VERSION. The '/' is looked for behind the URI only, so that a status line is no
// request.
static int ParseStartLine(Request *pRequest, Span line)
{
    if (line.Size() == 0 || TextIsSpace(*line.p))
        return 0;
    if (!SetText(&pRequest->method, TakeToken(&line)))
        return 0;
    Span uri = TakeToken(&line);
    if (!SetUri(&pRequest->uri, uri))
        return 0;
    if (pRequest->standards.bPlayers)
        SetBase(pRequest, uri);
    auto *pSlash = static_cast<const char *>(memchr(line.p, '/', line.Size()));
    if (!pSlash || !SetText(&pRequest->protocol, {line.p, pSlash}))
        return 0;
    Span version{pSlash + 1, line.pEnd};
    return SetText(&pRequest->version, TakeToken(&version));
}

// Whether a name may come again: "User-Agent", which nothing here reads, because some players' extensions add
// a second one; of standard clients whatever does not tell where the message ends. The first one counts.
static int MayRepeat(const Request *pRequest, const char *szName)
{
    return strcasecmp(szName, "User-Agent") == 0 ||
           (TakesStandard(pRequest) && strcasecmp(szName, "Content-Length") != 0);
}

// Enters a header. A name that came before makes the request malformed, unless it may be repeated.
static int AddHeader(Request *pRequest, Span name, Span value)
{
    auto *pHeader = new (std::nothrow) RequestHeader;
    if (!pHeader)
        return 0;
    SetText(&pHeader->name, name);
    SetText(&pHeader->value, value);
    AvlKey key = AvlTextKey(StrText(pHeader->name));
    int bRepeated = AvlFind(&pRequest->headers, key) != nullptr;
    int bMayRepeat = bRepeated && MayRepeat(pRequest, StrText(pHeader->name));
    if (!bRepeated && AvlInsert(&pRequest->headers, key, pHeader))
        return 1;
    StrDestroy(&pHeader->name);
    StrDestroy(&pHeader->value);
    delete pHeader;
    return bMayRepeat;
}

static const char *FindLineEnd(Span text)
{
    return static_cast<const char *>(memmem(text.p, text.Size(), "\r\n", 2));
}

// One header line that ends at pEnd, of a block whose rest is given. 1 entered, 0 incomplete, -1 malformed.
static int ParseHeaderLine(Request *pRequest, Span rest, const char *pEnd)
{
    auto *pColon = static_cast<const char *>(memchr(rest.p, ':', rest.Size()));
    if (!pColon)
        return 0;
    if (pColon > pEnd)
        return -1;
    Span name{rest.p, pColon};
    Span value{pColon + 1, pEnd};
    while (value.p < value.pEnd && TextIsSpace(*value.p))
        value.p++;
    if (name.Size() > 0 && value.Size() == 0 && TakesStandard(pRequest))
        return 1;  // as if it were not there
    if (name.Size() == 0 || value.Size() == 0)
        return -1;
    return AddHeader(pRequest, name, value) ? 1 : -1;
}

// The header lines behind a first line that ends at pEnd. Results of RequestParse.
static int ParseHeaders(Request *pRequest, const char *pBlock, Span rest, const char *pEnd)
{
    for (rest.p = pEnd + 2; (pEnd = FindLineEnd(rest)) != nullptr; rest.p = pEnd + 2) {
        if (pEnd == rest.p) {
            pRequest->nHeadLen = static_cast<uint16_t>(pEnd + 2 - pBlock);
            pRequest->bParsed = 1;
            return 1;
        }
        int nResult = ParseHeaderLine(pRequest, rest, pEnd);
        if (nResult != 1)
            return nResult;
    }
    return 0;
}

int RequestParse(Request *pRequest, const char *pBlock, size_t nLen)
{
    Span rest{pBlock, pBlock + nLen};
    const char *pEnd = FindLineEnd(rest);
    if (!pEnd)
        return 0;
    if (!ParseStartLine(pRequest, {rest.p, pEnd}))
        return -1;
    return ParseHeaders(pRequest, pBlock, rest, pEnd);
}

// RTSP/1.0 STATUS REASON (RFC 2326, section 7.1). 0 when there is no status.
static int ParseStatusLine(Request *pRequest, Span line)
{
    TakeToken(&line);
    Span status = TakeToken(&line);
    if (status.Size() != 3 || *status.p < '1' || *status.p > '9')
        return 0;
    pRequest->nStatus = TextToInt({status.p, status.Size()});
    TextCopy(pRequest->szReason, sizeof(pRequest->szReason),
             {line.p, std::min(line.Size(), std::string_view(line.p, line.Size()).find_first_of("\r\n"))});
    return pRequest->nStatus >= 100;
}

void RequestParseAnswer(Request *pRequest, const char *pBlock, size_t nLen)
{
    Span rest{pBlock, pBlock + nLen};
    const char *pEnd = FindLineEnd(rest);
    if (pEnd && ParseStatusLine(pRequest, {rest.p, pEnd}) && ParseHeaders(pRequest, pBlock, rest, pEnd) == 1)
        return;
    RequestReset(pRequest);
    pRequest->nStatus = kBadAnswer;
    pRequest->bParsed = 1;
}

const char *RequestHeaderValue(const Request *pRequest, const char *szName)
{
    auto *pHeader = static_cast<RequestHeader *>(AvlValue(&pRequest->headers, AvlTextKey(szName)));
    return pHeader ? StrText(pHeader->value) : nullptr;
}

int RequestAttachBody(Request *pRequest, const void *pData, size_t nLen)
{
    auto *pBody = static_cast<char *>(realloc(pRequest->pBody, pRequest->nBody + nLen + 1));
    if (!pBody)
        return 0;
    pRequest->pBody = pBody;
    if (nLen > 0)
        memcpy(pBody + pRequest->nBody, pData, nLen);
    pRequest->nBody += nLen;
    pBody[pRequest->nBody] = '\0';
    return 1;
}

const char *UriPath(const char *szUri)
{
    const char *pScheme = strstr(szUri, "://");
    const char *pPath = pScheme ? strchr(pScheme + 3, '/') : nullptr;
    return pPath ? pPath : szUri;
}

const char *RequestPath(const Request *pRequest)
{
    return pRequest->path ? StrText(pRequest->path) : UriPath(RequestUri(pRequest));
}

}  // namespace orx
