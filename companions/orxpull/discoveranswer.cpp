#include "orxpull/discoveranswer.h"

#include <algorithm>
#include <cstdlib>

namespace orx {

constexpr size_t kMostText = 200;
constexpr size_t kMostAddresses = 8;
constexpr size_t kMostCameras = 4096;

// --- XML, as far as it takes ---

namespace {

// An element whose name is looked for without its prefix, and what stands in it.
struct XmlWalk {
    std::string_view left;
};

}  // namespace

static std::string_view LocalName(std::string_view tag)
{
    tag = tag.substr(0, tag.find_first_of(" \t\r\n/>"));
    size_t nColon = tag.rfind(':');
    return nColon == std::string_view::npos ? tag : tag.substr(nColon + 1);
}

// Where a tag ends: a '>' in the value of an attribute ends none.
static size_t TagEnd(std::string_view text)
{
    char cQuote = 0;
    for (size_t i = 0; i < text.size(); i++) {
        if (cQuote)
            cQuote = text[i] == cQuote ? '\0' : cQuote;
        else if (text[i] == '>')
            return i;
        else if (text[i] == '"' || text[i] == '\'')
            cQuote = text[i];
    }
    return std::string_view::npos;
}

// Steps to the next tag that opens. Comments, declarations and what closes are passed over. Returns 1 with
// its name, the walk behind it; *pbEmpty: it closes itself.
static int NextTag(XmlWalk *pWalk, std::string_view *pName, int *pbEmpty)
{
    for (;;) {
        size_t nOpen = pWalk->left.find('<');
        if (nOpen == std::string_view::npos)
            return 0;
        pWalk->left.remove_prefix(nOpen + 1);
        int bComment = pWalk->left.substr(0, 3) == "!--";
        size_t nClose = bComment ? pWalk->left.find("-->") : TagEnd(pWalk->left);
        if (nClose == std::string_view::npos)
            return 0;
        std::string_view tag = pWalk->left.substr(0, nClose);
        pWalk->left.remove_prefix(nClose + (bComment ? 3 : 1));
        if (bComment || tag.empty() || tag[0] == '/' || tag[0] == '?' || tag[0] == '!')
            continue;
        *pName = LocalName(tag);
        *pbEmpty = tag.back() == '/';
        return 1;
    }
}

// What stands between the tag that was just read and the one that closes it; elements of the same name are
// not nested here. To the end where nothing closes it.
static std::string_view Inside(const XmlWalk *pWalk, std::string_view name)
{
    std::string_view rest = pWalk->left;
    for (size_t nAt = rest.find("</"); nAt != std::string_view::npos; nAt = rest.find("</", nAt + 2))
        if (LocalName(rest.substr(nAt + 2)) == name)
            return rest.substr(0, nAt);
    return rest;
}

// The first element of that name in a text. Returns 1 with what stands in it.
static int FindElement(std::string_view xml, std::string_view name, std::string_view *pInside)
{
    XmlWalk walk{xml};
    std::string_view found;
    int bEmpty = 0;
    while (NextTag(&walk, &found, &bEmpty))
        if (found == name && !bEmpty) {
            *pInside = Inside(&walk, name);
            return 1;
        }
    return 0;
}

// --- Words ---

static std::string Printable(std::string text)
{
    text.resize(std::min(text.size(), kMostText));
    std::replace_if(
        text.begin(), text.end(), [](unsigned char c) { return c < ' ' || c == 127; }, '?');
    return text;
}

static std::string_view NextWord(std::string_view *pText)
{
    constexpr const char *kBlanks = " \t\r\n";
    size_t nFirst = std::min(pText->find_first_not_of(kBlanks), pText->size());
    pText->remove_prefix(nFirst);
    std::string_view word = pText->substr(0, pText->find_first_of(kBlanks));
    pText->remove_prefix(word.size());
    return word;
}

// The five names that XML itself has; "&#38;" and the like are left as they stand.
static std::string Unescape(std::string_view text)
{
    static const struct {
        std::string_view name;
        char c;
    } names[] = {{"&amp;", '&'}, {"&lt;", '<'}, {"&gt;", '>'}, {"&quot;", '"'}, {"&apos;", '\''}};
    std::string out;
    while (!text.empty()) {
        auto found = std::find_if(std::begin(names), std::end(names),
                                  [&](auto &name) { return text.substr(0, name.name.size()) == name.name; });
        int bNamed = found != std::end(names);
        out += bNamed ? found->c : text[0];
        text.remove_prefix(bNamed ? found->name.size() : 1);
    }
    return out;
}

static std::string PercentDecoded(std::string_view text)
{
    std::string out;
    for (size_t i = 0; i < text.size(); i++) {
        char digits[3] = {};
        int bCode = text[i] == '%' && text.size() - i > 2 &&
                    isxdigit(static_cast<unsigned char>(text[i + 1])) &&
                    isxdigit(static_cast<unsigned char>(text[i + 2]));
        if (!bCode) {
            out += text[i];
            continue;
        }
        digits[0] = text[i + 1];
        digits[1] = text[i + 2];
        out += static_cast<char>(strtol(digits, nullptr, 16));
        i += 2;
    }
    return out;
}

static std::string Word(std::string_view word)
{
    return Printable(Unescape(word));
}

// --- Devices ---

// "onvif://www.onvif.org/name/Front%20door"
static void TakeScope(std::string_view scope, DiscoveredCamera *pCamera)
{
    static const struct {
        std::string_view place;
        std::string DiscoveredCamera::*pText;
    } scopes[] = {{"onvif://www.onvif.org/name/", &DiscoveredCamera::name},
                  {"onvif://www.onvif.org/hardware/", &DiscoveredCamera::hardware}};
    for (const auto &row : scopes)
        if (scope.substr(0, row.place.size()) == row.place && (pCamera->*row.pText).empty())
            pCamera->*row.pText = Printable(PercentDecoded(Unescape(scope.substr(row.place.size()))));
}

static void ReadDevice(std::string_view match, DiscoveredCamera *pCamera)
{
    std::string_view reference, text;
    if (FindElement(match, "EndpointReference", &reference) && FindElement(reference, "Address", &text))
        pCamera->id = Word(NextWord(&text));
    if (FindElement(match, "XAddrs", &text))
        for (std::string_view word = NextWord(&text); !word.empty(); word = NextWord(&text))
            if (pCamera->addresses.size() < kMostAddresses)
                pCamera->addresses.push_back(Word(word));
    if (FindElement(match, "Scopes", &text))
        for (std::string_view word = NextWord(&text); !word.empty(); word = NextWord(&text))
            TakeScope(word, pCamera);
}

int DiscoverTake(std::string_view xml, std::vector<DiscoveredCamera> *pCameras)
{
    XmlWalk walk{xml};
    std::string_view name;
    int bEmpty = 0, nNew = 0;
    while (NextTag(&walk, &name, &bEmpty)) {
        if (name != "ProbeMatch" || bEmpty)
            continue;
        DiscoveredCamera camera;
        std::string_view inside = Inside(&walk, name);
        ReadDevice(inside, &camera);
        walk.left.remove_prefix(inside.size());
        std::string key = !camera.id.empty()         ? camera.id
                          : camera.addresses.empty() ? ""
                                                     : camera.addresses[0];
        auto isSame = [&](const DiscoveredCamera &other) { return other.id == key; };
        if (key.empty() || pCameras->size() >= kMostCameras ||
            std::any_of(pCameras->begin(), pCameras->end(), isSame))
            continue;
        camera.id = key;
        pCameras->push_back(camera);
        nNew++;
    }
    return nNew;
}

std::string DiscoverLine(const DiscoveredCamera *pCamera)
{
    std::string line;
    for (const std::string &address : pCamera->addresses)
        line += (line.empty() ? "" : " ") + address;
    if (line.empty())
        line = pCamera->id;
    for (const std::string &text : {pCamera->name, pCamera->hardware})
        if (!text.empty())
            line += "  " + text;
    return line;
}

std::string DiscoverProbe(const std::string &id)
{
    return "<?xml version=\"1.0\" encoding=\"utf-8\"?>"
           "<s:Envelope xmlns:s=\"http://www.w3.org/2003/05/soap-envelope\" "
           "xmlns:a=\"http://schemas.xmlsoap.org/ws/2004/08/addressing\" "
           "xmlns:d=\"http://schemas.xmlsoap.org/ws/2005/04/discovery\" "
           "xmlns:n=\"http://www.onvif.org/ver10/network/wsdl\"><s:Header>"
           "<a:Action s:mustUnderstand=\"1\">http://schemas.xmlsoap.org/ws/2005/04/discovery/Probe</a:Action>"
           "<a:MessageID>urn:uuid:" +
           id +
           "</a:MessageID>"
           "<a:To s:mustUnderstand=\"1\">urn:schemas-xmlsoap-org:ws:2005:04:discovery</a:To></s:Header>"
           "<s:Body><d:Probe><d:Types>n:NetworkVideoTransmitter</d:Types></d:Probe></s:Body></s:Envelope>";
}

}  // namespace orx
