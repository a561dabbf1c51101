#include "base/httphead.h"

#include <cstdint>

#include <strings.h>

namespace orx {

static constexpr std::string_view kLength = "content-length:";

static int IsGraph(std::string_view text)
{
    for (char c : text)
        if (c <= ' ' || c >= 127)
            return 0;
    return !text.empty();
}

// "GET /path?query HTTP/1.1"
static int ReadRequestLine(std::string_view line, HttpHead *pOut)
{
    size_t nFirst = line.find(' ');
    size_t nLast = line.rfind(' ');
    if (nFirst == std::string_view::npos || nLast == nFirst)
        return 0;
    std::string_view target = line.substr(nFirst + 1, nLast - nFirst - 1);
    std::string_view version = line.substr(nLast + 1);
    pOut->method = line.substr(0, nFirst);
    if (!IsGraph(pOut->method) || !IsGraph(target) || target[0] != '/' ||
        (version != "HTTP/1.1" && version != "HTTP/1.0"))
        return 0;
    size_t nQuery = target.find('?');
    pOut->path = target.substr(0, nQuery);
    pOut->query = nQuery == std::string_view::npos ? std::string_view() : target.substr(nQuery + 1);
    return 1;
}

// Returns 1, or 0 for a length that is none.
static int ReadLength(std::string_view line, size_t *pnOut)
{
    if (line.size() < kLength.size() || strncasecmp(line.data(), kLength.data(), kLength.size()) != 0)
        return 1;
    line.remove_prefix(kLength.size());
    while (!line.empty() && (line.front() == ' ' || line.front() == '\t'))
        line.remove_prefix(1);
    while (!line.empty() && (line.back() == ' ' || line.back() == '\t'))
        line.remove_suffix(1);
    *pnOut = 0;
    for (char c : line) {
        if (c < '0' || c > '9')
            return 0;
        *pnOut = *pnOut > SIZE_MAX / 20 ? SIZE_MAX / 10 : *pnOut * 10 + static_cast<size_t>(c - '0');
    }
    return !line.empty();
}

HttpHeadState HttpHeadRead(std::string_view bytes, HttpHead *pOut)
{
    *pOut = HttpHead();
    std::string_view all = bytes.substr(0, kMaxHttpHead);
    size_t nEnd = all.find("\r\n\r\n");
    if (nEnd == std::string_view::npos)
        return bytes.size() >= kMaxHttpHead ? HTTP_HEAD_TOO_LONG : HTTP_HEAD_MORE;
    pOut->nBytes = nEnd + 4;
    std::string_view head = all.substr(0, nEnd + 2);
    for (int bFirst = 1; !head.empty(); bFirst = 0) {
        size_t nLine = head.find("\r\n");
        std::string_view line = head.substr(0, nLine);
        head.remove_prefix(nLine + 2);
        if (bFirst ? !ReadRequestLine(line, pOut) : !ReadLength(line, &pOut->nBody))
            return HTTP_HEAD_BAD;
    }
    return HTTP_HEAD_WHOLE;
}

static int HexDigit(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    c = static_cast<char>(c | 0x20);
    return c >= 'a' && c <= 'f' ? c - 'a' + 10 : -1;
}

static int Decode(std::string_view value, char *szOut, size_t nSize)
{
    size_t nLen = 0;
    for (size_t i = 0; i < value.size(); i++) {
        char c = value[i] == '+' ? ' ' : value[i];
        if (value[i] == '%') {
            int nHigh = i + 2 < value.size() ? HexDigit(value[i + 1]) : -1;
            int nLow = i + 2 < value.size() ? HexDigit(value[i + 2]) : -1;
            if (nHigh < 0 || nLow < 0)
                return -1;
            c = static_cast<char>(nHigh << 4 | nLow);
            i += 2;
        }
        if (c == '\0' || nLen + 1 >= nSize)
            return -1;
        szOut[nLen++] = c;
    }
    szOut[nLen] = '\0';
    return 1;
}

int HttpQueryValue(std::string_view query, std::string_view name, char *szOut, size_t nSize)
{
    szOut[0] = '\0';
    while (!query.empty()) {
        size_t nPair = query.find('&');
        std::string_view pair = query.substr(0, nPair);
        query.remove_prefix(nPair == std::string_view::npos ? query.size() : nPair + 1);
        size_t nEqual = pair.find('=');
        if (nEqual != std::string_view::npos && pair.substr(0, nEqual) == name)
            return Decode(pair.substr(nEqual + 1), szOut, nSize);
    }
    return 0;
}

}  // namespace orx
