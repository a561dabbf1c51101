#include "orxweb/webtext.h"

#include <cmath>
#include <cstdio>
#include <cstring>

#include "base/jsontext.h"

namespace orx {

static const char *HtmlOf(char c)
{
    switch (c) {
        case '&':
            return "&amp;";
        case '<':
            return "&lt;";
        case '>':
            return "&gt;";
        case '"':
            return "&quot;";
        case '\'':
            return "&#39;";
        default:
            return nullptr;
    }
}

std::string Html(std::string_view text)
{
    std::string out;
    out.reserve(text.size());
    while (!text.empty()) {
        size_t n = Utf8Length(text);
        auto c = static_cast<unsigned char>(text[0]);
        if (n == 0)
            out += "\xEF\xBF\xBD";
        else if (const char *sz = HtmlOf(text[0]))
            out += sz;
        else if (c < ' ' || c == 127)
            out += c == '\n' ? '\n' : ' ';
        else
            out += text.substr(0, n);
        text.remove_prefix(n ? n : 1);
    }
    return out;
}

std::string UrlEncode(std::string_view text, int bQuery)
{
    std::string out;
    for (char c : text) {
        int bPlain = (c >= '0' && c <= '9') || ((c | 0x20) >= 'a' && (c | 0x20) <= 'z' && c > 0) ||
                     (c && strchr("-._~", c)) || (c == '/' && !bQuery);
        char szHex[4];
        snprintf(szHex, sizeof(szHex), "%%%02X", static_cast<unsigned char>(c));
        out += bPlain ? std::string(1, c) : szHex;
    }
    return out;
}

std::string UrlProgram(std::string_view program)
{
    std::string out = UrlEncode(program, 0);
    for (std::string_view suffix : {".mp4", ".mjpeg", ".jpg"})
        if (out.ends_with(suffix))
            out.replace(out.size() - suffix.size(), 1, "%2E");
    return out;
}

std::string AttachmentAs(std::string_view fileName)
{
    std::string plain;
    for (char c : fileName) {
        int bSafe = c > ' ' && c < 127 && !strchr("\"\\/:*?<>|;%,=&'", c);
        if (bSafe || plain.empty() || plain.back() != '_')
            plain += bSafe ? c : '_';
    }
    while (plain.starts_with('.'))
        plain.erase(0, 1);
    std::string whole(fileName);
    for (char &c : whole)
        c = c == '/' || c == '\\' ? '_' : c;
    return "attachment; filename=\"" + plain + "\"; filename*=UTF-8''" + UrlEncode(whole, 1);
}

std::string NumberText(double dNumber, const std::string &language)
{
    char sz[40];
    snprintf(sz, sizeof(sz),
             dNumber < 100 && std::fabs(dNumber - std::round(dNumber)) > 0.05 ? "%.1f" : "%.0f", dNumber);
    if (char *pPoint = strchr(sz, '.'); pPoint && language == "de")
        *pPoint = ',';
    return sz;
}

static std::string Scaled(double dAmount, const char *const *pUnits, size_t nUnits,
                          const std::string &language)
{
    size_t i = 0;
    for (; dAmount >= 1000 && i + 1 < nUnits; i++)
        dAmount /= 1000;
    return NumberText(dAmount, language) + "\xC2\xA0" + pUnits[i];
}

std::string BytesText(double dBytes, const std::string &language)
{
    static const char *const units[] = {"B", "kB", "MB", "GB", "TB"};
    return Scaled(dBytes, units, 5, language);
}

std::string RateText(double dBits, const std::string &language)
{
    static const char *const units[] = {"bit/s", "kbit/s", "Mbit/s", "Gbit/s"};
    return Scaled(dBits, units, 4, language);
}

std::string SpanText(int64_t nSeconds)
{
    char sz[48];
    long long nHours = nSeconds / 3600, nMinutes = nSeconds / 60 % 60, nRest = nSeconds % 60;
    if (nHours)
        snprintf(sz, sizeof(sz), "%lld:%02lld:%02lld", nHours, nMinutes, nRest);
    else
        snprintf(sz, sizeof(sz), "%lld:%02lld", nMinutes, nRest);
    return sz;
}

}  // namespace orx
