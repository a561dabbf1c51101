// The request record: one RTSP or HTTP request as parsed from its header block, and its body (RFC 2326,
// section 6). Scheduler thread only.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "base/avl.h"
#include "base/faststring.h"
#include "server/core/settings.h"

namespace orx {

constexpr uint32_t kMaxHeadBytes = 4096;  // a header block is shorter than this

constexpr int kBadAnswer = -1;

struct Request {
    Standards standards = StandardsNow();  // of the session that it is read for
    int bParsed = 0;                       // a header block was parsed and waits for its body or its dispatch
    uint16_t nHeadLen = 0;                 // bytes of that block, the empty line included
    Str method = nullptr;
    Str uri = nullptr;       // percent-decoded
    Str base = nullptr;      // for standard peers: as it came, without query and '/' at its end; else null
    Str path = nullptr;      // of the base, decoded; else null
    Str protocol = nullptr;  // "RTSP", "HTTP"
    Str version = nullptr;   // "1.0"
    char szReason[64] = "";  // of a status line
    int nStatus = 0;         // of a status line, kBadAnswer of one that cannot be read; 0 for a request
    AvlTree headers;         // name (no regard to case) -> RequestHeader
    char *pBody = nullptr;   // owned, ended by a NUL
    size_t nBody = 0;
    size_t nPendingBody = 0;  // bytes of body announced and not yet attached
};

// Readies a record; RequestReset frees what it holds and makes it ready again.
void RequestInit(Request *pRequest);
void RequestReset(Request *pRequest);

// Parses a header block into a fresh record. Returns 1 when complete, 0 when the block ends before the empty
// line, -1 when malformed (a repeated header name included).
int RequestParse(Request *pRequest, const char *pBlock, size_t nLen);

// The same for a block that begins with "RTSP/": a status line and its headers. One that is malformed is
// complete, too, with nStatus kBadAnswer and no headers.
void RequestParseAnswer(Request *pRequest, const char *pBlock, size_t nLen);

// The value of a header, or null.
const char *RequestHeaderValue(const Request *pRequest, const char *szName);

// Attaches nLen bytes behind the body so far. Returns 1, or 0 when memory runs out.
int RequestAttachBody(Request *pRequest, const void *pData, size_t nLen);

inline const char *RequestMethod(const Request *pRequest)
{
    return StrText(pRequest->method);
}
inline const char *RequestUri(const Request *pRequest)
{
    return StrText(pRequest->uri);
}

// The path of a URI: what follows the first '/' behind "://", that '/' included; the whole URI when it has no
// such form. Points into the URI.
const char *UriPath(const char *szUri);
// The path that a request names a program by: with [INTEROP] StandardPlayers without query and without '/' at
// its end, which clients add as they like.
const char *RequestPath(const Request *pRequest);
// The URI itself without them, as it came; empty without StandardPlayers.
inline const char *RequestBase(const Request *pRequest)
{
    return StrText(pRequest->base);
}

// A path without the '/' that it begins with, as directories and lists of programs have it.
inline const char *PathName(const char *szPath)
{
    return *szPath == '/' ? szPath + 1 : szPath;
}

// Decodes percent escapes into szOut (nSize bytes, NUL included). Returns the length, or -1 when it is too
// long. What follows a '%' that is no escape is copied as it is.
int UriDecode(std::string_view uri, char *szOut, size_t nSize);

}  // namespace orx
