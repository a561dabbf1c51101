#include "server/methods/transport.h"

#include <strings.h>

#include "base/textbuf.h"

namespace orx {

static std::string_view Trim(std::string_view text)
{
    while (!text.empty() && TextIsSpace(text.front()))
        text.remove_prefix(1);
    while (!text.empty() && TextIsSpace(text.back()))
        text.remove_suffix(1);
    return text;
}

// Cuts what stands before a separator off the text; separators between quotation marks are none.
static std::string_view Cut(std::string_view *pText, char cSeparator)
{
    int bQuoted = 0;
    size_t n = 0;
    for (; n < pText->size(); n++) {
        char c = (*pText)[n];
        bQuoted ^= c == '"';
        if (c == cSeparator && !bQuoted)
            break;
    }
    std::string_view piece = Trim(pText->substr(0, n));
    pText->remove_prefix(n < pText->size() ? n + 1 : n);
    return piece;
}

static int IsWord(std::string_view text, std::string_view word)
{
    return text.size() == word.size() && strncasecmp(text.data(), word.data(), word.size()) == 0;
}

// A decimal number of at most nMost and nothing else. Returns 1 or 0.
static int ReadNumber(std::string_view text, int nMost, int *pValue)
{
    *pValue = 0;
    for (char c : text) {
        if (c < '0' || c > '9')
            return 0;
        *pValue = *pValue * 10 + (c - '0');
        if (*pValue > nMost)
            return 0;
    }
    return !text.empty();
}

// "first" or "first-second". *pSecond is -1 when it is not there.
static int ReadPair(std::string_view text, int nMost, int *pFirst, int *pSecond)
{
    int bSecond = text.find('-') != std::string_view::npos;
    *pSecond = -1;
    std::string_view first = Cut(&text, '-');
    return ReadNumber(first, nMost, pFirst) && (!bSecond || ReadNumber(Trim(text), nMost, pSecond));
}

// RTCP goes to the port behind that of RTP: nothing else is told apart here.
static int ReadClientPort(std::string_view text, TransportOffer *pOut)
{
    int nPort = 0;
    int nControl = 0;
    if (!ReadPair(text, 65535, &nPort, &nControl))
        return 0;
    pOut->nPort = nPort < 65535 ? nPort : 0;
    return nPort == 0 || nControl < 0 || nControl == nPort + 1;
}

static int ReadParameter(std::string_view text, TransportOffer *pOut)
{
    int nFirst = 0;
    int nSecond = 0;
    std::string_view name = Cut(&text, '=');
    if (IsWord(name, "multicast"))
        pOut->bMulticast = 1;
    if (IsWord(name, "client_port"))
        return ReadClientPort(Trim(text), pOut);
    return !IsWord(name, "interleaved") || ReadPair(Trim(text), 255, &nFirst, &nSecond);
}

// "RTP/AVP" and "RTP/AVP/UDP" are the same. Anything that has two names is a way, if not one known here.
static int ReadProfile(std::string_view text, TransportOffer *pOut)
{
    if (IsWord(text, "RTP/AVP") || IsWord(text, "RTP/AVP/UDP"))
        pOut->eCarrier = Carrier::Udp;
    else if (IsWord(text, "RTP/AVP/TCP"))
        pOut->eCarrier = Carrier::Tcp;
    size_t nSlash = text.find('/');
    return nSlash != std::string_view::npos && nSlash > 0 && nSlash + 1 < text.size();
}

int TransportNext(std::string_view *pList, TransportOffer *pOut)
{
    *pOut = TransportOffer();
    std::string_view offer;
    while (offer.empty() && !pList->empty())
        offer = Cut(pList, ',');
    if (offer.empty())
        return 0;
    int bRead = ReadProfile(Cut(&offer, ';'), pOut);
    while (!offer.empty())
        bRead &= ReadParameter(Cut(&offer, ';'), pOut);
    return bRead ? 1 : -1;
}

}  // namespace orx
