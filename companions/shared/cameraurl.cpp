#include "shared/cameraurl.h"

#include <strings.h>

#include <algorithm>
#include <cstdlib>

#include "base/textnumber.h"

namespace orx {

constexpr size_t kMostUrl = 4096;

static int HexValue(char c)
{
    constexpr std::string_view kDigits = "0123456789abcdef";
    size_t n = kDigits.find(static_cast<char>(c >= 'A' && c <= 'F' ? c | 0x20 : c));
    return n == std::string_view::npos ? -1 : static_cast<int>(n);
}

// A '%' that no two digits follow is one.
static std::string Decode(std::string_view text)
{
    std::string out;
    for (size_t i = 0; i < text.size(); i++) {
        int nHigh = text[i] == '%' && i + 2 < text.size() ? HexValue(text[i + 1]) : -1;
        int nLow = nHigh >= 0 ? HexValue(text[i + 2]) : -1;
        out += nLow >= 0 ? static_cast<char>(nHigh << 4 | nLow) : text[i];
        i += nLow >= 0 ? 2 : 0;
    }
    return out;
}

// Takes "rtsp://" or "rtsps://" off. Returns 1 or 0.
static int TakeScheme(std::string_view *pText, int *pbTls)
{
    for (std::string_view scheme : {"rtsp://", "rtsps://"})
        if (pText->size() > scheme.size() && strncasecmp(pText->data(), scheme.data(), scheme.size()) == 0) {
            *pbTls = scheme.size() == 8;
            pText->remove_prefix(scheme.size());
            return 1;
        }
    return 0;
}

static int TakePort(std::string_view text, CameraUrl *pOut)
{
    if (text.empty())
        return 1;
    if (text.size() > 5 || text.find_first_not_of("0123456789") != std::string_view::npos)
        return 0;
    pOut->nPort = TextToInt(text);
    return pOut->nPort >= 1 && pOut->nPort <= 65535;
}

static int TakeHost(std::string_view text, CameraUrl *pOut)
{
    size_t nEnd = text.find(':');
    if (!text.empty() && text[0] == '[') {
        nEnd = text.find(']');
        if (nEnd == std::string_view::npos)
            return 0;
        pOut->host = Decode(text.substr(1, nEnd - 1));  // "%25eth0" is a zone (RFC 6874)
        text.remove_prefix(nEnd + 1);
        if (!text.empty() && text[0] != ':')
            return 0;
        nEnd = 0;
    } else {
        pOut->host = text.substr(0, nEnd);
    }
    std::string_view port = nEnd < text.size() ? text.substr(nEnd + 1) : std::string_view();
    return !pOut->host.empty() && pOut->host.find_first_of(" \"<>\\^`{|}@") == std::string::npos &&
           TakePort(port, pOut);
}

// The first nAuthority characters hold credentials, host and port.
static int Split(std::string_view text, size_t nAuthority, CameraUrl *pOut)
{
    std::string_view authority = text.substr(0, nAuthority);
    pOut->path = nAuthority < text.size() ? text.substr(nAuthority) : std::string_view();
    size_t nAt = authority.rfind('@');
    if (nAt != std::string_view::npos) {
        std::string_view credentials = authority.substr(0, nAt);
        size_t nColon = credentials.find(':');
        pOut->user = Decode(credentials.substr(0, nColon));
        if (nColon != std::string_view::npos)
            pOut->password = Decode(credentials.substr(nColon + 1));
        authority.remove_prefix(nAt + 1);
    }
    return TakeHost(authority, pOut);
}

// What would end a request's line or a word of it stays out; blanks are encoded.
static int MakeFit(std::string *pPath)
{
    std::string out;
    for (char c : *pPath) {
        if (static_cast<unsigned char>(c) < ' ' || c == 127)
            return 0;
        out += c == ' ' ? "%20" : std::string(1, c);
    }
    pPath->swap(out);
    return 1;
}

static size_t FindPath(std::string_view text, size_t nFrom)
{
    size_t nSlash = text.find('/', nFrom);
    size_t nQuery = text.find('?', nFrom);
    int bCredentials = text.substr(nFrom, nSlash - nFrom).find('@') != std::string_view::npos;
    return bCredentials ? nSlash : std::min(nSlash, nQuery);
}

int CameraUrlParse(std::string_view text, CameraUrl *pOut)
{
    CameraUrl url;
    if (text.size() > kMostUrl || !TakeScheme(&text, &url.bTls))
        return 0;
    CameraUrl fresh = url;
    int bGood = Split(text, FindPath(text, 0), &fresh);
    size_t nAt = text.rfind('@');
    if (!bGood && nAt != std::string_view::npos) {  // a '/' or '?' in the password
        fresh = url;
        bGood = Split(text, FindPath(text, nAt), &fresh);
    }
    for (char c : fresh.host)
        bGood = bGood && static_cast<unsigned char>(c) > ' ' && c != 127;
    if (!bGood || !MakeFit(&fresh.path))
        return 0;
    *pOut = fresh;
    return 1;
}

int CameraUrlPort(const CameraUrl *pUrl)
{
    return pUrl->nPort ? pUrl->nPort : pUrl->bTls ? 322 : 554;
}

std::string CameraUrlRoot(const CameraUrl *pUrl)
{
    std::string root = pUrl->bTls ? "rtsps://" : "rtsp://";
    int bIpv6 = pUrl->host.find(':') != std::string::npos;  // its zone means nothing to anybody else
    root += bIpv6 ? "[" + pUrl->host.substr(0, pUrl->host.find('%')) + "]" : pUrl->host;
    return pUrl->nPort ? root + ":" + std::to_string(pUrl->nPort) : root;
}

std::string CameraUrlPlain(const CameraUrl *pUrl)
{
    return CameraUrlRoot(pUrl) + pUrl->path;
}

std::string CameraUrlAtHome(const CameraUrl *pHome, std::string_view given)
{
    CameraUrl url;
    return CameraUrlParse(given, &url) ? CameraUrlRoot(pHome) + url.path : std::string();
}

}  // namespace orx
