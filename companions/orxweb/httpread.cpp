#include "orxweb/httpread.h"

#include <strings.h>

#include <charconv>
#include <chrono>
#include <vector>

#include "base/base64.h"
#include "base/jsontext.h"

namespace orx {

constexpr size_t kMostPath = 1024;  // of a program, in bytes

static int HexDigit(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    c |= 0x20;
    return c >= 'a' && c <= 'f' ? c - 'a' + 10 : -1;
}

static int IsText(std::string_view text)  // UTF-8 without control characters
{
    while (!text.empty()) {
        auto c = static_cast<unsigned char>(text[0]);
        size_t n = Utf8Length(text);
        if (c < ' ' || c == 127 || n == 0)
            return 0;
        text.remove_prefix(n);
    }
    return 1;
}

int UrlDecode(std::string_view text, int bForm, std::string *pOut)
{
    pOut->clear();
    for (size_t i = 0; i < text.size(); i++) {
        if (text[i] != '%') {
            *pOut += bForm && text[i] == '+' ? ' ' : text[i];
            continue;
        }
        if (text.size() - i < 3 || HexDigit(text[i + 1]) < 0 || HexDigit(text[i + 2]) < 0)
            return 0;
        *pOut += static_cast<char>(HexDigit(text[i + 1]) << 4 | HexDigit(text[i + 2]));
        i += 2;
    }
    return IsText(*pOut);
}

// Takes what stands before the first chSeparator, and that, from a text.
static std::string_view TakePiece(std::string_view *pText, char chSeparator)
{
    size_t n = pText->find(chSeparator);
    std::string_view piece = pText->substr(0, n);
    pText->remove_prefix(n == std::string_view::npos ? pText->size() : n + 1);
    return piece;
}

static std::string_view Trim(std::string_view text)
{
    size_t n = text.find_first_not_of(" \t");
    text.remove_prefix(n == std::string_view::npos ? text.size() : n);
    return text.substr(0, text.find_last_not_of(" \t") + 1);
}

int FormValue(std::string_view form, std::string_view name, std::string *pOut)
{
    while (!form.empty()) {
        std::string_view value = TakePiece(&form, '&');
        if (TakePiece(&value, '=') == name)
            return UrlDecode(value, 1, pOut) ? 1 : -1;
    }
    return 0;
}

std::string_view CookieValue(std::string_view header, std::string_view name)
{
    while (!header.empty()) {
        std::string_view value = Trim(TakePiece(&header, ';'));
        if (TakePiece(&value, '=') == name)
            return value;
    }
    return {};
}

// A number of nothing but digits. Returns 1 or 0.
static int ReadWhole(std::string_view text, uint64_t *pOut)
{
    auto [p, error] = std::from_chars(text.data(), text.data() + text.size(), *pOut);
    return !text.empty() && error == std::errc() && p == text.data() + text.size();
}

static int StartsWithWord(std::string_view text, std::string_view word)
{
    return text.size() >= word.size() && strncasecmp(text.data(), word.data(), word.size()) == 0;
}

RangeResult RangeRead(std::string_view header, uint64_t nSize, HttpRange *pOut)
{
    if (!StartsWithWord(header, "bytes="))
        return RangeResult::Whole;
    std::string_view last = header.substr(6);
    if (last.find(',') != std::string_view::npos || last.find('-') == std::string_view::npos)
        return RangeResult::Whole;
    std::string_view first = Trim(TakePiece(&last, '-'));
    last = Trim(last);
    uint64_t nFirst = 0, nLast = UINT64_MAX;
    if ((!last.empty() && !ReadWhole(last, &nLast)) || (!first.empty() && !ReadWhole(first, &nFirst)) ||
        (first.empty() && last.empty()) || (!first.empty() && nLast < nFirst))
        return RangeResult::Whole;
    if (first.empty()) {  // the last bytes
        if (nLast == 0 || nSize == 0)
            return RangeResult::Outside;
        nFirst = nLast < nSize ? nSize - nLast : 0;
        nLast = nSize - 1;
    }
    if (nFirst >= nSize)
        return RangeResult::Outside;
    *pOut = {nFirst, nLast < nSize ? nLast : nSize - 1};
    return RangeResult::Part;
}

// The weight of a piece "de-AT;q=0.8", in thousandths; its language into *pLanguage.
static int LanguageWeight(std::string_view piece, std::string_view *pLanguage)
{
    *pLanguage = Trim(TakePiece(&piece, ';'));
    piece = Trim(piece);
    if (!StartsWithWord(piece, "q="))
        return 1000;
    piece.remove_prefix(2);
    int nWeight = 0, nScale = 1000;
    for (char c : piece.substr(0, 5)) {
        if (c == '.')
            continue;
        if (c < '0' || c > '9')
            break;
        nWeight += (c - '0') * nScale;
        nScale /= 10;
    }
    return nWeight;
}

std::string LanguageOf(std::string_view header, std::string_view languages)
{
    std::string best(languages.substr(0, 2));
    int nBest = 0;
    while (!header.empty()) {
        std::string_view language;
        int nWeight = LanguageWeight(TakePiece(&header, ','), &language);
        if (nWeight <= nBest || (language.size() > 2 && language[2] != '-'))
            continue;
        for (std::string_view left = languages; !left.empty();) {
            std::string_view one = TakePiece(&left, ' ');
            if (StartsWithWord(language, one)) {
                best = one;
                nBest = nWeight;
            }
        }
    }
    return best;
}

int BasicRead(std::string_view header, std::string *pName, std::string *pPassword)
{
    if (!StartsWithWord(header, "Basic ") || header.size() > 1024)
        return 0;
    const std::string text(Trim(header.substr(6)));
    std::string plain(text.size() + 4, '\0');
    plain.resize(Base64DecodeStrict(plain.data(), text.c_str()));
    size_t nColon = plain.find(':');
    if (nColon == std::string::npos || !IsText(plain))
        return 0;
    *pName = plain.substr(0, nColon);
    *pPassword = plain.substr(nColon + 1);
    return 1;
}

int TagListed(std::string_view header, std::string_view tag)
{
    while (!header.empty()) {
        std::string_view one = Trim(TakePiece(&header, ','));
        if (one == "*" || one == tag)
            return 1;
    }
    return 0;
}

std::string LocalTarget(std::string_view target)
{
    int bLocal = !target.empty() && target[0] == '/' && (target.size() == 1 || target[1] != '/') &&
                 target.size() < 2048;
    for (char c : target)
        bLocal &= c > ' ' && c < 127 && c != '\\' && c != '"' && c != '<' && c != '>';
    return bLocal ? std::string(target) : "/";
}

static std::string_view WithoutKnownPort(std::string_view host)
{
    for (std::string_view port : {":80", ":443"})
        if (host.ends_with(port))
            return host.substr(0, host.size() - port.size());
    return host;
}

int OriginIsHost(std::string_view origin, std::string_view host)
{
    size_t n = origin.find("://");
    if (n == std::string_view::npos || host.empty())
        return 0;
    origin.remove_prefix(n + 3);
    origin = WithoutKnownPort(TakePiece(&origin, '/'));
    host = WithoutKnownPort(host);
    return origin.size() == host.size() && StartsWithWord(origin, host);
}

// Whether it may be the path of a program: no empty or dotted parts.
static int IsProgram(const std::string &program)
{
    for (std::string_view left = program; !left.empty();) {
        std::string_view part = TakePiece(&left, '/');
        if (part.empty() || part == "." || part == "..")
            return 0;
    }
    return !program.empty() && program.size() <= kMostPath && program.back() != '/';
}

ProgramAddress ProgramAddressRead(std::string_view path, int bRecording)
{
    static constexpr struct {
        std::string_view suffix;
        AddressKind kind;
    } suffixes[] = {{".mp4", AddressKind::Mp4}, {".mjpeg", AddressKind::Mjpeg}, {".jpg", AddressKind::Jpeg}};
    ProgramAddress out;
    AddressKind kind = AddressKind::Page;
    for (const auto &row : suffixes)
        if (path.ends_with(row.suffix) && (!bRecording || row.kind == AddressKind::Mp4)) {
            path.remove_suffix(row.suffix.size());
            kind = row.kind;
            break;
        }
    if (!UrlDecode(path, 0, &out.program) || !IsProgram(out.program))
        return {};
    out.kind = kind;
    return out;
}

// Whether eight digits are a day of the calendar that recordings can have.
static int IsDay(std::string_view day)
{
    int nYear = 0, nMonth = 0, nDay = 0;
    std::from_chars(day.data(), day.data() + 4, nYear);
    std::from_chars(day.data() + 4, day.data() + 6, nMonth);
    std::from_chars(day.data() + 6, day.data() + 8, nDay);
    const std::chrono::year_month_day date{std::chrono::year(nYear),
                                           std::chrono::month(static_cast<unsigned>(nMonth)),
                                           std::chrono::day(static_cast<unsigned>(nDay))};
    return nYear >= 1970 && date.ok();
}

int DayRead(std::string_view text, std::string *pDay)
{
    pDay->clear();
    int bDashes = text.size() == 10 && text[4] == '-' && text[7] == '-';
    for (size_t i = 0; i < text.size(); i++)
        if (!bDashes || (i != 4 && i != 7))
            *pDay += text[i];
    return pDay->size() == 8 && pDay->find_first_not_of("0123456789") == std::string::npos && IsDay(*pDay);
}

}  // namespace orx
