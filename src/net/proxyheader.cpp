#include "net/proxyheader.h"

#include <arpa/inet.h>

#include <algorithm>
#include <charconv>
#include <cstring>
#include <string_view>

#include "base/bytes.h"
#include "base/textbuf.h"

namespace orx {

static constexpr std::string_view kTextMark = "PROXY ";
static constexpr size_t kTextMost = 107;  // with its line end
static constexpr char kBinaryMark[] = "\r\n\r\n\0\r\nQUIT\n";
static constexpr size_t kMarkBytes = sizeof(kBinaryMark) - 1;
static constexpr size_t kHeadBytes = 16;  // of a binary header: the mark, two bytes, the length of the rest

// --- Version 1 ---

// Takes the part up to the next blank, or the rest, off the text.
static std::string_view NextPart(std::string_view *pText)
{
    size_t nPart = std::min(pText->find(' '), pText->size());
    std::string_view part = pText->substr(0, nPart);
    pText->remove_prefix(std::min(nPart + 1, pText->size()));
    return part;
}

static int ReadAddress(std::string_view text, int nFamily, NetAddr *pOut)
{
    char szText[INET6_ADDRSTRLEN];
    TextBuf copy{szText, sizeof(szText)};
    if (!TextAddBytes(&copy, text.data(), text.size()) || strlen(szText) != text.size())
        return 0;
    *pOut = NetAddr();
    pOut->any.sa_family = static_cast<sa_family_t>(nFamily);
    void *pBytes = nFamily == AF_INET6 ? static_cast<void *>(&pOut->in6.sin6_addr) : &pOut->in4.sin_addr;
    return inet_pton(nFamily, szText, pBytes) == 1;
}

static int ReadPort(std::string_view text, int *pOut)
{
    const char *pEnd = text.data() + text.size();
    if (text.empty() || text.size() > 5 || (text[0] == '0' && text.size() > 1))
        return 0;
    auto result = std::from_chars(text.data(), pEnd, *pOut);
    return result.ec == std::errc() && result.ptr == pEnd && *pOut >= 0 && *pOut <= 65535;
}

// "TCP4 <peer> <here> <its port> <ours>". Returns 1 or 0.
static int ReadTextPeer(std::string_view line, NetAddr *pPeer)
{
    std::string_view family = NextPart(&line);
    int nFamily = family == "TCP4" ? AF_INET : family == "TCP6" ? AF_INET6 : 0;
    NetAddr here;
    int nPort = 0, nHerePort = 0;
    if (!nFamily || !ReadAddress(NextPart(&line), nFamily, pPeer) ||
        !ReadAddress(NextPart(&line), nFamily, &here) || !ReadPort(NextPart(&line), &nPort) ||
        !ReadPort(line, &nHerePort))
        return 0;
    AddrSetPort(pPeer, nPort);
    return 1;
}

static ProxyResult ReadText(std::string_view text, ProxyHeader *pOut)
{
    static constexpr std::string_view unknown = "UNKNOWN";
    text = text.substr(0, kTextMost);
    size_t nLine = text.find_first_of("\r\n");
    if (nLine == std::string_view::npos || (text[nLine] == '\r' && nLine + 1 == text.size()))
        return text.size() < kTextMost ? ProxyResult::More : ProxyResult::Bad;
    if (text.substr(nLine, 2) != "\r\n")
        return ProxyResult::Bad;
    std::string_view line = text.substr(kTextMark.size(), nLine - kTextMark.size());
    pOut->nBytes = nLine + 2;
    // behind that word stands what nobody is to look at
    if (line.substr(0, unknown.size()) == unknown &&
        (line.size() == unknown.size() || line[unknown.size()] == ' '))
        return ProxyResult::Done;
    pOut->bPeer = ReadTextPeer(line, &pOut->peer);
    return pOut->bPeer ? ProxyResult::Done : ProxyResult::Bad;
}

// --- Version 2 ---

// The peer's address, ours, and both ports. Returns 1 or 0.
static int ReadBinaryPeer(ByteReader *pIn, int bIpv6, NetAddr *pPeer)
{
    const size_t nAddress = bIpv6 ? 16 : 4;
    const uint8_t *pAddress = ReadBytes(pIn, nAddress);
    ReadBytes(pIn, nAddress);
    uint32_t nPort = ReadBe(pIn, 2);
    ReadBe(pIn, 2);
    if (pIn->bFailed)
        return 0;
    *pPeer = NetAddr();
    pPeer->any.sa_family = bIpv6 ? AF_INET6 : AF_INET;
    memcpy(bIpv6 ? static_cast<void *>(&pPeer->in6.sin6_addr) : &pPeer->in4.sin_addr, pAddress, nAddress);
    AddrSetPort(pPeer, static_cast<int>(nPort));
    return 1;
}

static ProxyResult ReadBinary(ByteReader in, ProxyHeader *pOut)
{
    ReadBytes(&in, kMarkBytes);
    uint32_t nCommand = ReadBe(&in, 1), nFamily = ReadBe(&in, 1), nRest = ReadBe(&in, 2);
    if (in.bFailed)
        return ProxyResult::More;
    int bOwn = nCommand == 0x20;  // of the front itself: the rest says nothing
    if (nCommand >> 4 != 2 || (nCommand & 0x0F) > 1 || kHeadBytes + nRest > kProxyHeaderMost)
        return ProxyResult::Bad;
    if (!bOwn && (nFamily >> 4 > 3 || (nFamily & 0x0F) > 1))
        return ProxyResult::Bad;
    if (nRest > in.nLeft)
        return ProxyResult::More;
    pOut->nBytes = kHeadBytes + nRest;
    if (bOwn || (nFamily != 0x11 && nFamily != 0x21))  // or of no address of the net
        return ProxyResult::Done;
    in.nLeft = nRest;
    pOut->bPeer = ReadBinaryPeer(&in, nFamily == 0x21, &pOut->peer);
    return pOut->bPeer ? ProxyResult::Done : ProxyResult::Bad;
}

// Whether the bytes begin with a mark, or are the begin of one.
static int BeginsWith(const uint8_t *pData, size_t nBytes, const char *pMark, size_t nMark)
{
    return memcmp(pData, pMark, std::min(nBytes, nMark)) == 0;
}

ProxyResult ProxyHeaderParse(const uint8_t *pData, size_t nBytes, ProxyHeader *pOut)
{
    *pOut = ProxyHeader();
    if (nBytes == 0)
        return ProxyResult::More;
    ProxyResult eResult = ProxyResult::Bad;
    if (BeginsWith(pData, nBytes, kBinaryMark, kMarkBytes))
        eResult = nBytes < kHeadBytes ? ProxyResult::More : ReadBinary({pData, nBytes}, pOut);
    else if (BeginsWith(pData, nBytes, kTextMark.data(), kTextMark.size()))
        eResult = ReadText({reinterpret_cast<const char *>(pData), nBytes}, pOut);
    if (pOut->bPeer)
        AddrUnmap(&pOut->peer);
    return eResult;
}

}  // namespace orx
