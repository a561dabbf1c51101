#include "shared/rtspwire.h"

#include <algorithm>
#include <cstring>
#include <string_view>

#include "base/bytes.h"

namespace orx {

constexpr size_t kFrameHead = 4;
constexpr std::string_view kReplyLine = "\nRTSP/1.0 ";
constexpr size_t kMostText = kMostRtspHead + kMostRtspBody;

struct WireUser {
    RtspWire *pWire;
    const RtspWireProcs *pProcs;
    void *pUser;
    int bStopped = 0;
};

static int BeginsText(char c)
{
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
}

static long TakeFrame(WireUser *pUser, std::string_view bytes)
{
    if (bytes.size() < kFrameHead)
        return 0;
    size_t nFrame = GetBe(bytes.data() + 2, 2);
    if (bytes.size() - kFrameHead < nFrame)
        return 0;
    const auto *p = reinterpret_cast<const uint8_t *>(bytes.data());
    pUser->bStopped = !pUser->pProcs->pfnFrame(pUser->pUser, p[1], p + kFrameHead, nFrame);
    return static_cast<long>(kFrameHead + nFrame);
}

// Where a head ends, the empty line included: lines end with CR LF, some cameras' with LF. 0: not there yet.
static size_t FindHeadEnd(std::string_view bytes)
{
    for (size_t n = bytes.find('\n'); n != std::string_view::npos; n = bytes.find('\n', n + 1)) {
        std::string_view behind = bytes.substr(n + 1, 2);
        if (!behind.empty() && behind[0] == '\n')
            return n + 2;
        if (behind == "\r\n")
            return n + 3;
    }
    return 0;
}

// The head with CR LF behind every line.
static std::string TidyHead(std::string_view head, int bKeepLength)
{
    std::string out;
    while (!head.empty()) {
        size_t nEnd = std::min(head.find('\n'), head.size());
        std::string_view line = head.substr(0, nEnd);
        head.remove_prefix(std::min(nEnd + 1, head.size()));
        if (!line.empty() && line.back() == '\r')
            line.remove_suffix(1);
        line = line.substr(0, line.find_last_not_of(" \t") + 1);
        if (line.empty())
            break;
        if (bKeepLength || strncasecmp(std::string(line).c_str(), "Content-Length", 14) != 0)
            out.append(line).append("\r\n");
    }
    return out + "\r\n";
}

static long TakeText(WireUser *pUser, std::string_view bytes)
{
    size_t nHead = FindHeadEnd(bytes.substr(0, kMostRtspHead));
    if (nHead == 0)
        return bytes.size() < kMostRtspHead ? 0 : -1;
    size_t nBehind = bytes.substr(0, nHead).find(kReplyLine);
    if (nBehind != std::string_view::npos)  // what a body had more than its length said comes before a reply
        return static_cast<long>(nBehind + 1);
    std::string text = TidyHead(bytes.substr(0, nHead), !pUser->pWire->bHttpHead);
    size_t nTidy = text.size();
    RtspMessage message;
    long nUsed = RtspParse(text.data(), text.size(), &message);
    int64_t nBody = RtspHeaderNumber(&message, "Content-Length", 0);
    if (nUsed < 0 || nBody < 0 || static_cast<uint64_t>(nBody) > kMostRtspBody)
        return -1;
    if (bytes.size() - nHead < static_cast<size_t>(nBody))
        return 0;
    text.append(bytes.substr(nHead, static_cast<size_t>(nBody)));
    nUsed = RtspParse(text.data(), text.size(), &message);
    if (nUsed <= 0)
        return -1;
    pUser->pWire->bHttpHead = 0;
    pUser->bStopped = !pUser->pProcs->pfnText(pUser->pUser, &message);
    return static_cast<long>(static_cast<size_t>(nUsed) - nTidy + nHead);
}

// Takes one frame or text off the front. Returns the bytes that it covers, 0 when it has not come whole, -1
// for nonsense.
static long TakeOne(WireUser *pUser, std::string_view bytes)
{
    if (bytes.empty())
        return 0;
    if (bytes[0] == '$')
        return TakeFrame(pUser, bytes);
    if (BeginsText(bytes[0]))
        return TakeText(pUser, bytes);
    // what some cameras leave between messages: line ends, or the tail of a frame with a wrong length
    size_t n = 1;
    while (n < bytes.size() && bytes[n] != '$' && !BeginsText(bytes[n]))
        n++;
    return static_cast<long>(n);
}

// How many of the bytes that came are to join what was left, to make one whole.
static size_t Missing(const std::string &rest, size_t nBytes)
{
    size_t nWanted = kMostText;
    if (rest[0] == '$')
        nWanted = rest.size() < kFrameHead ? kFrameHead : kFrameHead + GetBe(rest.data() + 2, 2);
    return std::min(nBytes, nWanted > rest.size() ? nWanted - rest.size() : 0);
}

// Completes what was left before. Returns the bytes taken of those that came, or -1.
static long TakeRest(WireUser *pUser, std::string_view bytes)
{
    std::string whole;
    whole.swap(pUser->pWire->rest);  // for the wire may go while it is handed on
    size_t nOld = whole.size();
    size_t nAdded = Missing(whole, bytes.size());
    whole.append(bytes.substr(0, nAdded));
    long nUsed = TakeOne(pUser, whole);
    if (nUsed < 0 || pUser->bStopped)
        return nUsed;
    if (nUsed == 0 && nAdded == 0)
        return -1;                                         // longer than any text may be
    if (nUsed > 0 && static_cast<size_t>(nUsed) < nOld) {  // only what stood before a reply
        pUser->pWire->rest.assign(whole, static_cast<size_t>(nUsed), nOld - static_cast<size_t>(nUsed));
        return 0;
    }
    if (nUsed > 0)
        return nUsed - static_cast<long>(nOld);
    pUser->pWire->rest.swap(whole);
    return static_cast<long>(nAdded);
}

int RtspWireFeed(RtspWire *pWire, const uint8_t *pData, size_t nBytes, const RtspWireProcs *pProcs,
                 void *pUser)
{
    WireUser user{pWire, pProcs, pUser};
    std::string_view bytes(reinterpret_cast<const char *>(pData), nBytes);
    while (!bytes.empty()) {
        int bRest = !pWire->rest.empty();
        long nUsed = bRest ? TakeRest(&user, bytes) : TakeOne(&user, bytes);
        if (user.bStopped)
            return 0;
        if (nUsed < 0)
            return -1;
        if (nUsed == 0 && !bRest) {
            pWire->rest.assign(bytes);
            return 1;
        }
        bytes.remove_prefix(static_cast<size_t>(nUsed));
    }
    return 1;
}

}  // namespace orx
