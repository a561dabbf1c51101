#include "client/rtspmessage.h"

#include <strings.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "base/bytes.h"

namespace orx {

constexpr size_t kFrameHead = 4;
constexpr size_t kMaxBody = 64U << 20;  // more than any peer of ours sends

const char *RtspFindHeader(const RtspMessage *pMessage, const char *szName)
{
    for (const RtspHeader &header : pMessage->headers)
        if (strcasecmp(header.name.c_str(), szName) == 0)
            return header.value.c_str();
    return nullptr;
}

int RtspCountHeaders(const RtspMessage *pMessage, const char *szName)
{
    return static_cast<int>(std::count_if(
        pMessage->headers.begin(), pMessage->headers.end(),
        [szName](const RtspHeader &header) { return strcasecmp(header.name.c_str(), szName) == 0; }));
}

int64_t RtspHeaderNumber(const RtspMessage *pMessage, const char *szName, int64_t nDefault)
{
    const char *szValue = RtspFindHeader(pMessage, szName);
    char *pEnd = nullptr;
    int64_t nValue = szValue ? strtoll(szValue, &pEnd, 10) : 0;
    return szValue && pEnd != szValue ? nValue : nDefault;
}

static long ParseFrame(const char *pData, size_t nBytes, RtspMessage *pOut)
{
    if (nBytes < kFrameHead)
        return 0;
    size_t nTotal = kFrameHead + GetBe(pData + 2, 2);
    if (nBytes < nTotal)
        return 0;
    pOut->kind = RTSP_FRAME;
    pOut->nChannel = static_cast<uint8_t>(pData[1]);
    pOut->raw.assign(pData, nTotal);
    pOut->body.assign(pData + kFrameHead, nTotal - kFrameHead);
    return static_cast<long>(nTotal);
}

static int StartsWith(const std::string &text, const char *szStart)
{
    return text.compare(0, strlen(szStart), szStart) == 0;
}

static void ParseStartLine(const std::string &line, RtspMessage *pOut)
{
    size_t nBlank = line.find(' ');
    if (nBlank == std::string::npos)
        return;
    if (StartsWith(line, "RTSP/") || StartsWith(line, "HTTP/")) {
        pOut->kind = RTSP_REPLY;
        pOut->nStatus = static_cast<int>(strtol(line.c_str() + nBlank + 1, nullptr, 10));
        size_t nReason = line.find(' ', nBlank + 1);
        if (nReason != std::string::npos)
            pOut->reason = line.substr(nReason + 1);
        return;
    }
    size_t nProtocol = line.rfind(' ');
    if (line.compare(nProtocol + 1, 5, "RTSP/") != 0)
        return;
    pOut->kind = RTSP_REQUEST;
    pOut->method = line.substr(0, nBlank);
    if (nProtocol > nBlank)
        pOut->uri = line.substr(nBlank + 1, nProtocol - nBlank - 1);
}

static void ParseHeaderLine(const std::string &line, RtspMessage *pOut)
{
    size_t nColon = line.find(':');
    if (nColon == std::string::npos)
        return;
    size_t nValue = line.find_first_not_of(" \t", nColon + 1);
    pOut->headers.push_back(
        {line.substr(0, nColon), nValue == std::string::npos ? std::string() : line.substr(nValue)});
}

// Returns 1 with the length of the body, 0 when the header is there and no number.
static int BodyLength(const RtspMessage *pMessage, size_t *pnLen)
{
    const char *szLength = RtspFindHeader(pMessage, "Content-Length");
    *pnLen = 0;
    if (!szLength)
        return 1;
    char *pEnd = nullptr;
    unsigned long nLen = strtoul(szLength, &pEnd, 10);
    if (*szLength < '0' || *szLength > '9' || *pEnd || nLen > kMaxBody)
        return 0;
    *pnLen = nLen;
    return 1;
}

long RtspParse(const char *pData, size_t nBytes, RtspMessage *pOut)
{
    *pOut = RtspMessage();
    if (nBytes == 0)
        return 0;
    if (*pData == '$')
        return ParseFrame(pData, nBytes, pOut);
    const void *pEnd = memmem(pData, nBytes, "\r\n\r\n", 4);
    if (!pEnd)
        return 0;
    size_t nHead = static_cast<size_t>(static_cast<const char *>(pEnd) - pData) + 4;
    std::string head(pData, nHead - 2);
    size_t nLine = head.find("\r\n");
    ParseStartLine(head.substr(0, nLine), pOut);
    for (size_t nAt = nLine + 2; nAt < head.size(); nAt = nLine + 2) {
        nLine = head.find("\r\n", nAt);
        ParseHeaderLine(head.substr(nAt, nLine - nAt), pOut);
    }
    size_t nBody = 0;
    if (!BodyLength(pOut, &nBody))
        return -1;
    if (nBytes - nHead < nBody)
        return 0;
    pOut->raw.assign(pData, nHead + nBody);
    pOut->body.assign(pData + nHead, nBody);
    return static_cast<long>(nHead + nBody);
}

}  // namespace orx
