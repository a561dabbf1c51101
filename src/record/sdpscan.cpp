#include "record/sdpscan.h"

#include <strings.h>

#include <cstdlib>
#include <cstring>

#include "base/console.h"
#include "base/textbuf.h"
#include "record/zmfile.h"

namespace orx {

constexpr int kScanEnd = 3;       // past this count the scan ends
constexpr int kJpegPayload = 26;  // the one static payload type that needs no name (RFC 3551)

namespace {

enum MediaKind { MEDIUM_UNKNOWN, MEDIUM_VIDEO, MEDIUM_AUDIO, MEDIUM_OTHER };

struct MediaLine {
    char szMedia[16] = "";
    char szPort[16] = "";
    char szTransport[32] = "";
    char szPayload[16] = "";
};

struct CodecAlias {
    const char *szName;  // in the description, compared without regard to case
    const char *szNormal;
};
const CodecAlias g_audioAliases[] = {{"AMR", "AMR-NB"},    {"SAMR", "AMR-NB"}, {"AMR-NB", "AMR-NB"},
                                     {"AMR-WB", "AMR-WB"}, {"SAWB", "AMR-WB"}, {"PCMU", "PCMU"},
                                     {"PCMA", "PCMA"}};
const CodecAlias g_videoAliases[] = {{"H264", "H264"}, {"AVC", "H264"}, {"JPEG", "JPEG"}};

}  // namespace

// Copies the next word of a line and steps over it. Returns 1, or 0 at the end of the line.
static int TakeWord(const char **pp, char *szOut, size_t nSize)
{
    const char *p = *pp + strspn(*pp, " \t");
    size_t nLen = strcspn(p, " \t\r\n");
    TextBuf word{szOut, nSize};
    TextAddBytes(&word, p, nLen < nSize ? nLen : nSize - 1);
    *pp = p + nLen;
    return nLen > 0;
}

static int ReadMediaLine(const char *pLine, MediaLine *pOut)
{
    const char *p = pLine + 2;  // behind "m="
    return TakeWord(&p, pOut->szMedia, sizeof(pOut->szMedia)) &&
           TakeWord(&p, pOut->szPort, sizeof(pOut->szPort)) &&
           TakeWord(&p, pOut->szTransport, sizeof(pOut->szTransport)) &&
           TakeWord(&p, pOut->szPayload, sizeof(pOut->szPayload));
}

static MediaKind KindOf(const char *szMedia)
{
    if (strcasecmp(szMedia, "video") == 0)
        return MEDIUM_VIDEO;
    if (strcasecmp(szMedia, "audio") == 0)
        return MEDIUM_AUDIO;
    return strcasecmp(szMedia, "data") == 0 || strcasecmp(szMedia, "text") == 0 ? MEDIUM_OTHER
                                                                                : MEDIUM_UNKNOWN;
}

// The codec name of the section that begins at pSection and ends at pEnd (null: with the text). Returns 1; 0
// when the section has none; -1 when its line is malformed.
static int ReadCodecName(const char *pSection, const char *pEnd, const MediaLine *pMedia, char *szOut,
                         size_t nSize)
{
    const char *pMap = SdpFindLine(pSection, "a=rtpmap:");
    if (!pMap || (pEnd && pMap > pEnd)) {
        if (atoi(pMedia->szPayload) != kJpegPayload) {
            print("bad SDP: no rtpmap field");
            return 0;
        }
        return TextCopy(szOut, nSize, "JPEG");
    }
    size_t nBlank = strcspn(pMap, " \r\n");
    const char *pName = pMap + nBlank + 1;
    size_t nName = pMap[nBlank] == ' ' ? strcspn(pName, "/\r\n") : 0;
    if (nName == 0 || pName[nName] != '/') {
        print("Invalid SDP!\r");
        return -1;
    }
    TextBuf name{szOut, nSize};
    return TextAddBytes(&name, pName, nName < nSize ? nName : nSize - 1);
}

template <size_t N>
static void TakeCodec(const char *szName, const CodecAlias (&aliases)[N], char *szOut, size_t nSize)
{
    TextCopy(szOut, nSize, szName);
    for (const CodecAlias &alias : aliases)
        if (strcasecmp(alias.szName, szName) == 0)
            TextCopy(szOut, nSize, alias.szNormal);
}

void SdpScanCodecs(const char *szSdp, SdpCodecs *pOut)
{
    const char *pNext = SdpFindLine(szSdp, "m=");
    // A section that is used counts 2, another 1: video and audio, or one of them behind one or two others.
    for (int nCount = 0; pNext && nCount <= kScanEnd;) {
        const char *pSection = pNext;
        MediaLine media;
        if (!ReadMediaLine(pSection, &media)) {
            print("bad SDP:\r\n%s\r\n", szSdp);
            return;
        }
        const char *pBreak = strstr(pSection, "\nm=");
        pNext = pBreak ? pBreak + 1 : nullptr;
        MediaKind nKind = KindOf(media.szMedia);
        if (nKind == MEDIUM_UNKNOWN) {
            print("ignore unknown media \"%s\"\n", media.szMedia);
            nCount++;
            continue;
        }
        char szName[16] = "";
        int nResult = ReadCodecName(pSection, pNext, &media, szName, sizeof(szName));
        if (nResult < 0)
            return;
        nCount += nResult ? 2 : 1;
        if (nResult && nKind == MEDIUM_VIDEO)
            TakeCodec(szName, g_videoAliases, pOut->szVideo, sizeof(pOut->szVideo));
        else if (nResult && nKind == MEDIUM_AUDIO)
            TakeCodec(szName, g_audioAliases, pOut->szAudio, sizeof(pOut->szAudio));
    }
}

DepacketProc SdpVideoDepacketiser(const char *szCodec)
{
    if (strcmp(szCodec, "H264") == 0)
        return WriteH264RtpData;
    if (strcmp(szCodec, "JPEG") == 0)
        return WriteJpegRtpData;
    if (*szCodec)
        print("Unsupport Video Codec \"%s\"!\r\n", szCodec);
    return nullptr;
}

DepacketProc SdpAudioDepacketiser(const char *szCodec)
{
    if (strcmp(szCodec, "AMR-NB") == 0 || strcmp(szCodec, "AMR-WB") == 0)
        return WriteAmrRtpData;
    if (strcmp(szCodec, "PCMU") == 0 || strcmp(szCodec, "PCMA") == 0)
        return WriteG711RtpData;
    if (*szCodec)
        print("Unsupport Audio Codec \"%s\"!\r\n", szCodec);
    return nullptr;
}

}  // namespace orx
