#include "record/sdpreader.h"

#include <strings.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "base/mediatype.h"
#include "base/textbuf.h"
#include "base/textnumber.h"

namespace orx {

constexpr size_t kNone = std::string_view::npos;
constexpr std::string_view kLineEnds = "\r\n";
constexpr std::string_view kDigits = "0123456789";

static int IsDigit(std::string_view text, size_t n)
{
    return n < text.size() && text[n] >= '0' && text[n] <= '9';
}

static size_t FindTag(std::string_view text, std::string_view tag, SdpPlace nPlace, size_t nFrom)
{
    for (size_t n = text.find(tag, nFrom); n != kNone; n = text.find(tag, n + 1))
        if (nPlace == SDP_ANYWHERE || n == 0 || text[n - 1] == '\n' ||
            (nPlace == SDP_LINE_OR_CR && text[n - 1] == '\r'))
            return n;
    return kNone;
}

int SdpFind(std::string_view text, std::string_view tag, SdpPlace nPlace, std::string_view *pValue)
{
    size_t n = FindTag(text, tag, nPlace, 0);
    if (n == kNone)
        return 0;
    *pValue = text.substr(n + tag.size());
    return 1;
}

std::string_view SdpLine(std::string_view text)
{
    return text.substr(0, text.find_first_of(kLineEnds));
}

// --- Sections ---

SdpWalk SdpSections(std::string_view sdp, SdpPlace nPlace)
{
    size_t n = FindTag(sdp, "m=", nPlace, 0);
    return {n == kNone ? std::string_view() : sdp.substr(n), nPlace};
}

int SdpNextSection(SdpWalk *pWalk, SdpSection *pOut)
{
    std::string_view rest = pWalk->left;
    if (rest.empty())
        return 0;
    size_t nNext = FindTag(rest, "m=", pWalk->nPlace, 1);
    *pOut = {rest.substr(0, nNext), rest};
    pWalk->left = rest.substr(std::min(nNext, rest.size()));
    return 1;
}

// Takes the next word off the front; empty when there is none.
static std::string_view TakeWord(std::string_view *pText, std::string_view blanks)
{
    size_t nStart = std::min(pText->find_first_not_of(blanks), pText->size());
    size_t nEnd = std::min(pText->find_first_of(blanks, nStart), pText->size());
    std::string_view word = pText->substr(nStart, nEnd - nStart);
    pText->remove_prefix(nEnd);
    return word;
}

// Takes a decimal number off the front; the rest of its word stays. Returns 1, or 0 without one.
static int TakeNumber(std::string_view *pText, std::string_view blanks)
{
    size_t nStart = std::min(pText->find_first_not_of(blanks), pText->size());
    int bSign = nStart < pText->size() && ((*pText)[nStart] == '-' || (*pText)[nStart] == '+');
    size_t nDigits = nStart + static_cast<size_t>(bSign);
    if (!IsDigit(*pText, nDigits))
        return 0;
    pText->remove_prefix(std::min(pText->find_first_not_of(kDigits, nDigits), pText->size()));
    return 1;
}

int SdpReadMedia(std::string_view text, SdpMediaForm nForm, SdpMedia *pOut)
{
    int bScan = nForm == SDP_MEDIA_SCAN;
    std::string_view blanks = bScan ? " \t\r\n\v\f" : " \t";
    if (!bScan)
        text = SdpLine(text);
    text.remove_prefix(strlen("m="));
    pOut->media = TakeWord(&text, blanks);
    if (bScan ? !TakeNumber(&text, blanks) : TakeWord(&text, blanks).empty())
        return 0;
    TakeWord(&text, blanks);  // the protocol
    pOut->format = TakeWord(&text, blanks);
    return !pOut->format.empty();
}

uint32_t SdpMediaKind(std::string_view media)
{
    static constexpr struct {
        std::string_view name;
        uint32_t nKind;
    } kinds[] = {{"video", MEDIA_VIDEO_OTHER},
                 {"audio", MEDIA_AUDIO_OTHER},
                 {"data", MEDIA_DATA},
                 {"text", MEDIA_TEXT}};
    for (const auto &kind : kinds)
        if (media.size() == kind.name.size() &&
            strncasecmp(media.data(), kind.name.data(), media.size()) == 0)
            return kind.nKind;
    return 0;
}

// --- Attributes ---

int SdpReadRtpMap(std::string_view text, SdpPlace nPlace, SdpRtpMap *pOut)
{
    std::string_view value;
    if (!SdpFind(text, "a=rtpmap:", nPlace, &value))
        return 0;
    size_t nLine = SdpLine(value).size();
    size_t nBlank = value.find(' ');
    size_t nSlash = nBlank < nLine ? value.find('/', nBlank) : kNone;
    if (nSlash >= nLine)
        return -1;
    pOut->nPayloadType = TextToInt(value);
    pOut->name = value.substr(nBlank + 1, nSlash - nBlank - 1);
    pOut->nRate = TextToInt(value.substr(nSlash + 1));
    size_t nChannels = value.find('/', nSlash + 1);
    pOut->nChannels = nChannels < nLine ? TextToInt(value.substr(nChannels + 1)) : 2;
    return 1;
}

// RFC 3551, tables 4 and 5.
static std::string_view StaticMap(std::string_view format)
{
    static constexpr struct {
        std::string_view format, line;
    } maps[] = {{"0", "a=rtpmap:0 PCMU/8000\r\n"},     {"3", "a=rtpmap:3 GSM/8000\r\n"},
                {"4", "a=rtpmap:4 G723/8000\r\n"},     {"5", "a=rtpmap:5 DVI4/8000\r\n"},
                {"6", "a=rtpmap:6 DVI4/16000\r\n"},    {"7", "a=rtpmap:7 LPC/8000\r\n"},
                {"8", "a=rtpmap:8 PCMA/8000\r\n"},     {"9", "a=rtpmap:9 G722/8000\r\n"},
                {"10", "a=rtpmap:10 L16/44100/2\r\n"}, {"11", "a=rtpmap:11 L16/44100\r\n"},
                {"12", "a=rtpmap:12 QCELP/8000\r\n"},  {"13", "a=rtpmap:13 CN/8000\r\n"},
                {"14", "a=rtpmap:14 MPA/90000\r\n"},   {"15", "a=rtpmap:15 G728/8000\r\n"},
                {"16", "a=rtpmap:16 DVI4/11025\r\n"},  {"17", "a=rtpmap:17 DVI4/22050\r\n"},
                {"18", "a=rtpmap:18 G729/8000\r\n"},   {"25", "a=rtpmap:25 CelB/90000\r\n"},
                {"26", "a=rtpmap:26 JPEG/90000\r\n"},  {"28", "a=rtpmap:28 nv/90000\r\n"},
                {"31", "a=rtpmap:31 H261/90000\r\n"},  {"32", "a=rtpmap:32 MPV/90000\r\n"},
                {"33", "a=rtpmap:33 MP2T/90000\r\n"},  {"34", "a=rtpmap:34 H263/90000\r\n"}};
    for (const auto &map : maps)
        if (map.format == format)
            return map.line;
    return {};
}

// Finds the line that maps one payload type, with the tag in front. Returns 1, or 0 without one.
static int FindMapOf(std::string_view section, std::string_view format, std::string_view *pLine)
{
    std::string_view tag = "a=rtpmap:";
    for (size_t n = FindTag(section, tag, SDP_LINE_OR_CR, 0); n != kNone;
         n = FindTag(section, tag, SDP_LINE_OR_CR, n + 1)) {
        std::string_view value = section.substr(n + tag.size());
        if (!value.starts_with(format) || IsDigit(value, format.size()))
            continue;
        *pLine = section.substr(n);
        return 1;
    }
    return 0;
}

int SdpReadRtpMapOf(std::string_view section, std::string_view format, SdpRtpMap *pOut)
{
    std::string_view line;
    return FindMapOf(section, format, &line) ? SdpReadRtpMap(line, SDP_ANYWHERE, pOut) : 0;
}

char *SdpWithStaticMaps(const char *szSdp)
{
    constexpr size_t kRoom = 28;  // for the longest line, and the end of the line before it
    SdpWalk walk = SdpSections(szSdp, SDP_LINE);
    SdpSection section;
    size_t nRoom = strlen(szSdp) + 1;
    while (SdpNextSection(&walk, &section))
        nRoom += kRoom;
    auto *szOut = static_cast<char *>(malloc(nRoom));
    if (!szOut)
        return nullptr;
    TextBuf out{szOut, nRoom};
    walk = SdpSections(szSdp, SDP_LINE);
    TextAddBytes(&out, szSdp, strlen(szSdp) - walk.left.size());
    while (SdpNextSection(&walk, &section)) {
        SdpMedia media;
        std::string_view value;
        std::string_view line;
        if (SdpReadMedia(section.own, SDP_MEDIA_LINE, &media) &&
            !FindMapOf(section.own, media.format, &value))
            line = StaticMap(media.format);
        // in front of the attributes: the first line is that of the first type
        size_t nAt = std::min(FindTag(section.own, "a=", SDP_LINE, 0), section.own.size());
        TextAddBytes(&out, section.own.data(), nAt);
        if (!line.empty() && !section.own.substr(0, nAt).ends_with('\n'))
            TextAdd(&out, "\r\n");
        TextAddBytes(&out, line.data(), line.size());
        TextAddBytes(&out, section.own.data() + nAt, section.own.size() - nAt);
    }
    return szOut;
}

std::string_view SdpReadFormat(std::string_view text)
{
    std::string_view value;
    if (!SdpFind(text, "a=fmtp:", SDP_LINE, &value))
        return {};
    value = SdpLine(value);
    return value.substr(std::min(value.find(' '), value.size()));
}

static std::string_view Trimmed(std::string_view text)
{
    size_t nStart = std::min(text.find_first_not_of(" \t"), text.size());
    return text.substr(nStart, text.find_last_not_of(" \t") + 1 - nStart);
}

std::string_view SdpFormatValue(std::string_view format, std::string_view name)
{
    while (!format.empty()) {
        std::string_view item = format.substr(0, format.find(';'));
        format.remove_prefix(item.size() + (item.size() < format.size()));
        item = Trimmed(item);
        size_t nEqual = item.find('=');
        if (nEqual == name.size() && strncasecmp(item.data(), name.data(), nEqual) == 0)
            return item.substr(nEqual + 1);
    }
    return {};
}

int SdpReadTrackId(std::string_view text, int *pTrackId)
{
    std::string_view value;
    if (!SdpFind(text, "a=control:trackID=", SDP_ANYWHERE, &value))
        return 0;
    *pTrackId = TextToInt(value);
    return 1;
}

std::string_view SdpReadControl(std::string_view text)
{
    std::string_view value;
    return SdpFind(text, "a=control:", SDP_LINE, &value) ? SdpLine(value) : std::string_view();
}

// Of a section of sound or pictures; of any other empty, because nobody needs to set that up.
static std::string_view ControlOfMedia(const SdpSection &section)
{
    int bMedia = section.own.starts_with("m=video ") || section.own.starts_with("m=audio ");
    return bMedia ? SdpReadControl(section.own) : std::string_view();
}

int SdpControlsClash(std::string_view sdp)
{
    constexpr size_t kMost = 8;  // sections that are looked at: more than a program has
    std::string_view controls[kMost];
    size_t nControls = 0;
    SdpWalk walk = SdpSections(sdp, SDP_LINE_OR_CR);
    SdpSection section;
    while (nControls < kMost && SdpNextSection(&walk, &section)) {
        std::string_view control = ControlOfMedia(section);
        if (control.empty())
            continue;
        for (size_t i = 0; i < nControls; i++)
            if (controls[i] == control)
                return 1;
        controls[nControls++] = control;
    }
    return 0;
}

int SdpReadControlNumber(std::string_view text)
{
    std::string_view value = SdpReadControl(text);
    size_t nEqual = value.find('=');
    return nEqual != kNone && IsDigit(value, nEqual + 1) ? TextToInt(value.substr(nEqual + 1)) : -1;
}

SdpFrameSize SdpReadFrameSize(std::string_view text, int bBlanks, int *pWidth, int *pHeight)
{
    std::string_view value;
    if (!SdpFind(text, "a=framesize:", SDP_ANYWHERE, &value))
        return SDP_SIZE_NONE;
    size_t nBlank = value.find_first_of(" \r\n");
    if (nBlank == kNone || value[nBlank] != ' ')
        return SDP_SIZE_NO_WIDTH;
    size_t nDash = value.find_first_not_of(bBlanks ? " 0123456789" : kDigits, nBlank + 1);
    if (nDash == kNone || value[nDash] != '-')
        return SDP_SIZE_NO_HEIGHT;
    *pWidth = TextToInt(value.substr(nBlank + 1));
    *pHeight = TextToInt(value.substr(nDash + 1));
    return SDP_SIZE_GOOD;
}

// The next digit of the line from n on, or where the line ends.
static size_t NextDigit(std::string_view text, size_t n)
{
    return std::min(text.find_first_of("0123456789\r\n", n), text.size());
}

int SdpReadClipRect(std::string_view text, int (&numbers)[4])
{
    std::string_view value;
    if (!SdpFind(text, "a=cliprect:", SDP_ANYWHERE, &value))
        return 0;
    size_t n = 0;
    for (int &nNumber : numbers) {
        n = NextDigit(value, n);
        nNumber = TextToInt(value.substr(n));
        n = std::min(value.find_first_not_of(kDigits, n), value.size());
    }
    return 1;
}

// --- The range ---

uint32_t SdpRangeEndMs(const char *szSdp)
{
    std::string_view value;
    if (!SdpFind(szSdp, "a=range:", SDP_ANYWHERE, &value) &&
        !SdpFind(szSdp, "a=Range:", SDP_ANYWHERE, &value))
        return 0;
    std::string_view line = SdpLine(value);
    size_t nDash = line.find('-', NextDigit(line, 0));
    if (nDash == kNone)
        return 0;
    size_t nEnd = NextDigit(line, nDash);
    return nEnd < line.size() ? NptToMs(value.data() + nEnd) : 0;
}

static int IsRangeLine(std::string_view line)
{
    return line.starts_with("a=range:") || line.starts_with("a=Range:");
}

int SdpHasRange(const char *szSdp)
{
    std::string_view value;
    return SdpFind(szSdp, "a=range:", SDP_LINE, &value) || SdpFind(szSdp, "a=Range:", SDP_LINE, &value);
}

void SdpRemoveRange(char *szSdp)
{
    char *pTo = szSdp;
    for (std::string_view left = szSdp; !left.empty();) {
        std::string_view line = left.substr(0, left.find('\n'));
        line = left.substr(0, line.size() + (line.size() < left.size()));
        left.remove_prefix(line.size());
        if (IsRangeLine(line))
            continue;
        memmove(pTo, line.data(), line.size());
        pTo += line.size();
    }
    *pTo = '\0';
}

int SdpInsertRange(char *szSdp, size_t nSize, uint32_t nDurationMs)
{
    char szLine[48];
    TextBuf line{szLine, sizeof(szLine)};
    TextAdd(&line, "a=range:npt=0-%.3f\r\n", static_cast<double>(static_cast<float>(nDurationMs) / 1000.0F));
    std::string_view text(szSdp);
    size_t nMedia = FindTag(text, "m=", SDP_LINE, 0);
    if (nMedia == kNone || text.size() + line.nLen >= nSize)
        return 0;
    memmove(szSdp + nMedia + line.nLen, szSdp + nMedia, text.size() - nMedia + 1);
    memcpy(szSdp + nMedia, szLine, line.nLen);
    return 1;
}

}  // namespace orx
