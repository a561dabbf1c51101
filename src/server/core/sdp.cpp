#include "server/core/sdp.h"

#include <strings.h>

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "base/console.h"
#include "base/textbuf.h"
#include "server/core/settings.h"

namespace orx {

constexpr std::string_view kBlanks = " \t\r\n\v\f";  // what separates the words of a line
constexpr uint32_t kVideoSampleBits = 10000;

int TextToInt(const char *sz)
{
    long n = strtol(sz, nullptr, 10);
    return static_cast<int>(std::clamp<long>(n, INT_MIN, INT_MAX));
}

uint32_t NptToMs(const char *sz)
{
    constexpr float kLongest = 2000000;  // 23 days; more milliseconds than that leave 31 bits
    float fSeconds = std::clamp(strtof(sz, nullptr), 0.0F, kLongest);
    auto nSeconds = static_cast<uint32_t>(fSeconds);
    return nSeconds * 1000 + static_cast<uint32_t>(fSeconds * 1000) % 1000;
}

static int IsDigit(char c)
{
    return c >= '0' && c <= '9';
}

static int EndsLine(char c)
{
    return c == '\0' || c == '\r' || c == '\n';
}

// The next digit of the line, or where the line ends.
static const char *NextDigit(const char *p)
{
    while (!EndsLine(*p) && !IsDigit(*p))
        p++;
    return p;
}

static const char *SkipDigits(const char *p)
{
    while (IsDigit(*p))
        p++;
    return p;
}

// The first c, or where the line ends.
static const char *FindInLine(const char *p, char c)
{
    while (!EndsLine(*p) && *p != c)
        p++;
    return p;
}

// The end of the recording that "a=range:npt=0-12.5" tells, ms; 0 when it tells none.
static uint32_t RangeDuration(const char *szSdp)
{
    const char *p = strstr(szSdp, "a=range:");
    if (!p)
        p = strstr(szSdp, "a=Range:");
    if (!p)
        return 0;
    p = NextDigit(FindInLine(NextDigit(p), '-'));
    return IsDigit(*p) ? NptToMs(p) : 0;
}

// The next "m=" that begins a line, from p on; null when there is none. szSdp: the whole text.
static const char *FindSection(const char *szSdp, const char *p)
{
    for (p = strstr(p, "m="); p; p = strstr(p + 2, "m="))
        if (p == szSdp || p[-1] == '\r' || p[-1] == '\n')
            return p;
    return nullptr;
}

// Takes the next word off the front; empty when there is none.
static std::string_view TakeWord(std::string_view *pText)
{
    size_t nStart = std::min(pText->find_first_not_of(kBlanks), pText->size());
    size_t nEnd = std::min(pText->find_first_of(kBlanks, nStart), pText->size());
    std::string_view word = pText->substr(nStart, nEnd - nStart);
    pText->remove_prefix(nEnd);
    return word;
}

// Takes a decimal number off the front; the rest of its word stays ("0/2" leaves "/2"). Returns 1 or 0.
static int TakeNumber(std::string_view *pText)
{
    size_t n = std::min(pText->find_first_not_of(kBlanks), pText->size());
    if (n < pText->size() && ((*pText)[n] == '-' || (*pText)[n] == '+'))
        n++;
    size_t nEnd = std::min(pText->find_first_not_of("0123456789", n), pText->size());
    if (nEnd == n)
        return 0;
    pText->remove_prefix(nEnd);
    return 1;
}

// Reads "<media> <port> <protocol> <formats>" behind "m=". Returns 1 when every field is there, else 0.
static int ReadMediaLine(const char *p, std::string_view *pMedia)
{
    std::string_view text(p);
    *pMedia = TakeWord(&text);
    return !pMedia->empty() && TakeNumber(&text) && !TakeWord(&text).empty() && !TakeWord(&text).empty();
}

static int SameName(std::string_view name, const char *szOther)
{
    return name.size() == strlen(szOther) && strncasecmp(name.data(), szOther, name.size()) == 0;
}

// Enters the kind of section i. Returns 0 for one that is not to be counted.
static int EnterKind(Program *pProg, int i, std::string_view media)
{
    MediaInfo *pInfo = &pProg->mediaInfos[i];
    if (SameName(media, "audio")) {
        pInfo->nMediaType = MEDIA_AUDIO_OTHER;
        pInfo->nSampleBits = 16;
        pProg->nAudioTrack = i;
    } else if (SameName(media, "video")) {
        pInfo->nMediaType = MEDIA_VIDEO_OTHER;
        pInfo->nSampleBits = kVideoSampleBits;
        pProg->nVideoTrack = i;
    } else if (SameName(media, "data")) {
        pInfo->nMediaType = MEDIA_DATA;
        pProg->nDataTrack = i;
    } else if (SameName(media, "text")) {
        pInfo->nMediaType = MEDIA_TEXT;
    } else {
        return 0;
    }
    return 1;
}

// Reads "a=rtpmap:<type> <name>/<rate>" from p on. Returns where the rate stands, or null when it is
// missing or malformed.
static const char *ReadRtpMap(MediaInfo *pInfo, const char *p)
{
    constexpr char kTag[] = "a=rtpmap:";
    p = strstr(p, kTag);
    if (!p)
        return nullptr;
    pInfo->nPayloadType = TextToInt(p + strlen(kTag));
    const char *pName = FindInLine(p, ' ');
    if (*pName != ' ')
        return nullptr;
    pName++;
    const char *pEnd = FindInLine(pName, '/');
    if (*pEnd != '/')
        return nullptr;
    size_t nName = std::min(static_cast<size_t>(pEnd - pName), sizeof(pInfo->szEncoding) - 1);
    memcpy(pInfo->szEncoding, pName, nName);
    pInfo->szEncoding[nName] = '\0';
    int nRate = TextToInt(pEnd + 1);
    pInfo->nTimeScale = static_cast<uint32_t>(std::max(nRate, 0));
    return pInfo->nTimeScale ? pEnd + 1 : nullptr;
}

struct CodecName {
    const char *szName;    // compared without regard to case
    uint32_t nMediaType;   // MEDIA_...
    const char *szStored;  // the name kept, null: as it came
};

// Enters the codec of the track's encoding name. Returns 0 when the table does not have it.
static int EnterCodec(MediaInfo *pInfo, const CodecName *pNames, size_t nNames)
{
    for (const CodecName *p = pNames; p < pNames + nNames; p++) {
        if (strcasecmp(pInfo->szEncoding, p->szName) != 0)
            continue;
        pInfo->nMediaType = p->nMediaType;
        if (p->szStored)
            TextCopy(pInfo->szEncoding, sizeof(pInfo->szEncoding), p->szStored);
        return 1;
    }
    return 0;
}

// pRate: the clock rate of the "a=rtpmap:" line, behind which the channel count may stand.
static int ReadAudio(MediaInfo *pInfo, const char *pRate)
{
    static const CodecName names[] = {
        {"AMR", MEDIA_AMR_NB, "AMR-NB"},    {"SAMR", MEDIA_AMR_NB, "AMR-NB"},
        {"AMR-WB", MEDIA_AMR_WB, "AMR-WB"}, {"SAWB", MEDIA_AMR_WB, "AMR-WB"},
        {"PCMU", MEDIA_G711, nullptr},      {"PCMA", MEDIA_G711, nullptr},
    };
    pInfo->nWidth = 2;
    pInfo->nHeight = pInfo->nTimeScale;
    const char *pChannels = FindInLine(pRate, '/');
    if (*pChannels == '/') {
        int nChannels = TextToInt(pChannels + 1);
        if (nChannels < 1)
            return 0;
        pInfo->nWidth = static_cast<uint32_t>(nChannels);
    }
    if (!EnterCodec(pInfo, names, std::size(names)) && strncasecmp(pInfo->szEncoding, "G711", 4) == 0)
        pInfo->nMediaType = MEDIA_G711;
    return 1;
}

// "a=framesize:<type> <width>-<height>". Returns 0 when it is malformed.
static int ReadFrameSize(MediaInfo *pInfo, const char *p)
{
    p = FindInLine(p, ' ');
    if (*p != ' ')
        return 0;
    p++;
    pInfo->nWidth = static_cast<uint32_t>(TextToInt(p));
    p = SkipDigits(p);
    if (*p != '-')
        return 0;
    pInfo->nHeight = static_cast<uint32_t>(TextToInt(p + 1));
    return 1;
}

// "a=cliprect:<top>,<left>,<height>,<width>".
static void ReadClipRect(MediaInfo *pInfo, const char *p)
{
    uint32_t numbers[4] = {};
    for (uint32_t &nNumber : numbers) {
        p = NextDigit(p);
        nNumber = static_cast<uint32_t>(TextToInt(p));
        p = SkipDigits(p);
    }
    pInfo->nHeight = numbers[2];
    pInfo->nWidth = numbers[3];
}

// pSection: the section's "m=".
static int ReadVideo(MediaInfo *pInfo, const char *pSection)
{
    static const CodecName names[] = {
        {"H264", MEDIA_H264, "H264"},
        {"AVC", MEDIA_H264, "H264"},
        {"JPEG", MEDIA_JPEG, "JPEG"},
        {"MJPEG", MEDIA_JPEG, "JPEG"},
    };
    if (const char *pSize = strstr(pSection, "a=framesize:")) {
        if (!ReadFrameSize(pInfo, pSize))
            return 0;
    } else if (const char *pRect = strstr(pSection, "a=cliprect:")) {
        ReadClipRect(pInfo, pRect);
    }
    if (!EnterCodec(pInfo, names, std::size(names)))
        print("Unsupported video format: %s!\r\n", pInfo->szEncoding);
    return 1;
}

// Standard encoders name a track in words of their own ("stream=1", "streamid=0") and list tracks in any
// order. Returns the number in the section's control line, which SETUP will repeat, or -1 without one.
static int ReadControlNumber(const char *pSection)
{
    constexpr char kControl[] = "\na=control:";
    const char *p = strstr(pSection, kControl);
    const char *pNext = FindSection(pSection, pSection + 2);
    if (!p || (pNext && p > pNext))
        return -1;
    p = FindInLine(p + strlen(kControl), '=');
    return *p == '=' && IsDigit(p[1]) ? TextToInt(p + 1) : -1;
}

// Reads the attributes of a section whose kind is entered. They are searched to the end of the whole text:
// encoders that give a section no lines of its own mean those of the next. Returns 0 when the description
// cannot be used.
static int ReadAttributes(MediaInfo *pInfo, int i, const char *pSection)
{
    constexpr char kControl[] = "a=control:trackID=";
    pInfo->nTrackId = i;
    if (const char *p = strstr(pSection, kControl))
        pInfo->nTrackId = TextToInt(p + strlen(kControl));
    else
        print("Not a goold SDP: no trackID field!\r\n");
    int nNumber = g_settings.bStandardPushers ? ReadControlNumber(pSection) : -1;
    if (nNumber >= 0)
        pInfo->nTrackId = nNumber;
    const char *pRate = ReadRtpMap(pInfo, pSection);
    if (!pRate)
        return 0;
    if (pInfo->nMediaType == MEDIA_AUDIO_OTHER)
        return ReadAudio(pInfo, pRate);
    if (pInfo->nMediaType == MEDIA_VIDEO_OTHER)
        return ReadVideo(pInfo, pSection);
    return 1;
}

int SdpParse(Program *pProg, const char *szSdp, int bLive, uint32_t nDurationMs)
{
    uint32_t nDuration = 0;
    if (!bLive)
        nDuration = nDurationMs ? nDurationMs : RangeDuration(szSdp);
    pProg->nTrackCount = 0;
    const char *p = FindSection(szSdp, szSdp);
    for (; p && pProg->nTrackCount < kMaxMediaInfos; p = FindSection(szSdp, p + 2)) {
        std::string_view media;
        if (!ReadMediaLine(p + 2, &media)) {
            print("bad SDP:\r\n%s\r\n", szSdp);
            break;
        }
        int i = pProg->nTrackCount;
        MediaInfo *pInfo = &pProg->mediaInfos[i];
        *pInfo = MediaInfo();
        pInfo->nRtpChannel = static_cast<uint8_t>(2 * i);
        pInfo->nRtcpChannel = static_cast<uint8_t>(2 * i + 1);
        if (!EnterKind(pProg, i, media)) {
            print("ignore unknown media \"%.*s\"\n", static_cast<int>(media.size()), media.data());
            continue;
        }
        pInfo->nDuration = nDuration;
        if (!ReadAttributes(pInfo, i, p))
            return 0;
        pProg->nTrackCount++;
    }
    return pProg->nTrackCount != 0;
}

}  // namespace orx
