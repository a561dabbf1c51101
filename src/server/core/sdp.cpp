#include "server/core/sdp.h"

#include <algorithm>
#include <bitset>

#include "base/console.h"
#include "base/printable.h"
#include "base/textbuf.h"
#include "base/textnumber.h"
#include "record/aac.h"
#include "record/codec.h"
#include "record/sdpreader.h"
#include "server/core/settings.h"

namespace orx {

constexpr uint32_t kVideoSampleBits = 10000;  // of video, which has none: a value that no sound has
constexpr int kPlainSections = 4;             // without StandardPushers
constexpr int kCarriedRate = 90000;           // Hz, of what is carried without one: nobody counts on it

// As whom a description is read.
struct Reading {
    int bStandard;  // by StandardPushers
    CodecUser nUser;
};

// Enters the kind of section i. Returns 0 for one that is not to be counted.
static int EnterKind(Description *pDesc, int i, std::string_view media, int bStandard)
{
    MediaInfo *pInfo = &pDesc->mediaInfos[i];
    pInfo->nMediaType = SdpMediaKind(media);
    // cameras send what they see in sections of other kinds, which must not keep their pictures out
    if (pInfo->nMediaType == 0 && bStandard)
        pInfo->nMediaType = MEDIA_CARRIED;
    if (pInfo->nMediaType == MEDIA_AUDIO_OTHER) {
        pInfo->nSampleBits = 16;
        pDesc->nAudioTrack = i;
    } else if (pInfo->nMediaType == MEDIA_VIDEO_OTHER) {
        pInfo->nSampleBits = kVideoSampleBits;
        pDesc->nVideoTrack = i;
    } else if (pInfo->nMediaType == MEDIA_DATA) {
        pDesc->nDataTrack = i;
    }
    return pInfo->nMediaType != 0;
}

// Enters the codec of a track whose kind is entered, by its encoding name. Returns 0 for one that is not
// known.
static int EnterCodec(MediaInfo *pInfo, CodecUser nUser)
{
    const Codec *pCodec = CodecByName(pInfo->nMediaType, pInfo->szEncoding, nUser);
    pInfo->pCodec = pCodec ? pCodec : CodecUnknown(pInfo->nMediaType);
    if (!pCodec)
        return 0;
    pInfo->nMediaType = pCodec->nMediaType;
    if (!pCodec->bKeepSpelling)
        TextCopy(pInfo->szEncoding, sizeof(pInfo->szEncoding), pCodec->szName);
    return 1;
}

static int ReadAudio(MediaInfo *pInfo, CodecUser nUser, int nChannels)
{
    if (nChannels < 1)
        return 0;
    pInfo->nWidth = static_cast<uint32_t>(nChannels);
    pInfo->nHeight = pInfo->nTimeScale;
    EnterCodec(pInfo, nUser);
    return 1;
}

static int ReadVideo(MediaInfo *pInfo, const Reading *pAs, std::string_view text)
{
    int numbers[4];
    int nWidth = 0;
    int nHeight = 0;
    SdpFrameSize nSize = SdpReadFrameSize(text, 0, &nWidth, &nHeight);
    if (nSize != SDP_SIZE_NONE && nSize != SDP_SIZE_GOOD && !pAs->bStandard)
        return 0;
    if (nSize == SDP_SIZE_NONE && SdpReadClipRect(text, numbers)) {
        nHeight = numbers[2];
        nWidth = numbers[3];
    }
    pInfo->nWidth = static_cast<uint32_t>(nWidth);
    pInfo->nHeight = static_cast<uint32_t>(nHeight);
    if (!EnterCodec(pInfo, pAs->nUser))
        print("Unsupported video format: %s!\r\n", PrintableText(pInfo->szEncoding).sz);
    return 1;
}

// Standard encoders name a track in words of their own ("stream=1", "streamid=0") and list tracks in any
// order: its number is that of the section's own control line, which SETUP will repeat.
static int ChooseTrackId(int i, const SdpSection &section, int bStandard)
{
    int nTrackId = i;
    if (!SdpReadTrackId(section.rest, &nTrackId))
        print("Not a goold SDP: no trackID field!\r\n");
    int nNumber = bStandard ? SdpReadControlNumber(section.own) : -1;
    return nNumber >= 0 ? nNumber : nTrackId;
}

// The codec and the clock of a section. Returns 1, or 0 when they are not told.
static int ReadMap(const MediaInfo *pInfo, std::string_view format, const SdpSection &section, int bStandard,
                   SdpRtpMap *pMap)
{
    if (!bStandard)
        return SdpReadRtpMap(section.rest, SDP_ANYWHERE, pMap) == 1 && pMap->nRate >= 1;
    if (SdpReadRtpMapOf(section.own, format, pMap) == 1 && pMap->nRate >= 1)
        return 1;
    if (pInfo->nMediaType == MEDIA_AUDIO_OTHER || pInfo->nMediaType == MEDIA_VIDEO_OTHER)
        return SdpReadRtpMap(section.rest, SDP_ANYWHERE, pMap) == 1 && pMap->nRate >= 1;
    *pMap = SdpRtpMap{TextToInt(format), {}, kCarriedRate};
    return 1;
}

// Reads the attributes of a section whose kind is entered. They are searched to the end of the whole text:
// encoders that give a section no lines of its own mean those of the next. Returns 0 when the description
// cannot be used.
static int ReadAttributes(MediaInfo *pInfo, const Reading *pAs, int i, std::string_view format,
                          const SdpSection &section)
{
    SdpRtpMap map;
    pInfo->nTrackId = ChooseTrackId(i, section, pAs->bStandard);
    std::string_view control = SdpReadControl(section.own);
    if (control.size() < sizeof(pInfo->szControl))
        TextCopy(pInfo->szControl, sizeof(pInfo->szControl), control);
    if (!ReadMap(pInfo, format, section, pAs->bStandard, &map))
        return 0;
    pInfo->nPayloadType = map.nPayloadType;
    TextCopy(pInfo->szEncoding, sizeof(pInfo->szEncoding), map.name);
    pInfo->nTimeScale = static_cast<uint32_t>(map.nRate);
    pInfo->nUnitTicks = AacUnitTicks(SdpReadFormat(section.own), pInfo->nTimeScale);
    if (pInfo->nMediaType == MEDIA_AUDIO_OTHER)
        return ReadAudio(pInfo, pAs->nUser, map.nChannels);
    if (pInfo->nMediaType == MEDIA_VIDEO_OTHER)
        return ReadVideo(pInfo, pAs, pAs->bStandard ? section.own : section.rest);
    return 1;
}

// That of the last video track.
static KeyFrameProc ChooseKeyTest(const Description *pDesc)
{
    return pDesc->nVideoTrack >= 0 ? pDesc->mediaInfos[pDesc->nVideoTrack].pCodec->pfnIsKey : nullptr;
}

// Whether two tracks have one payload type, which is theirs as each comes on a channel or port of its own.
static int SharesTypes(const Description *pDesc)
{
    std::bitset<128> seen;
    for (int i = 0; i < pDesc->nTrackCount; i++) {
        size_t nType = static_cast<size_t>(pDesc->mediaInfos[i].nPayloadType) & 0x7F;
        if (seen.test(nType))
            return 1;
        seen.set(nType);
    }
    return 0;
}

int SdpParse(Description *pDesc, const char *szSdp, int bLive, uint32_t nDurationMs, int bStandard)
{
    uint32_t nDuration = 0;
    if (!bLive)
        nDuration = nDurationMs ? nDurationMs : SdpRangeEndMs(szSdp);
    // a recording is known for what it holds, whether such are made or not
    int bWide = !bLive || g_settings.bWideUnits || bStandard;
    const Reading as{bStandard, !bWide ? CODEC_PROGRAM : CODEC_WIDE_PROGRAM};
    pDesc->nTrackCount = 0;
    SdpWalk walk = SdpSections(szSdp, SDP_LINE_OR_CR);
    SdpSection section;
    // what no player can set up is left out, and is no reason to refuse the rest
    int nMost = bStandard ? std::min(kMaxTracks, kMaxMediaInfos) : kPlainSections;
    while (pDesc->nTrackCount < nMost && SdpNextSection(&walk, &section)) {
        SdpMedia media;
        if (!SdpReadMedia(section.rest, SDP_MEDIA_SCAN, &media)) {
            print("bad SDP:\r\n%s\r\n", PrintableDump(szSdp).sz);
            break;
        }
        int i = pDesc->nTrackCount;
        MediaInfo *pInfo = &pDesc->mediaInfos[i];
        *pInfo = MediaInfo();
        pInfo->nRtpChannel = static_cast<uint8_t>(2 * i);
        pInfo->nRtcpChannel = static_cast<uint8_t>(2 * i + 1);
        if (!EnterKind(pDesc, i, media.media, bStandard)) {
            print("ignore unknown media \"%s\"\n", PrintableText(media.media.data(), media.media.size()).sz);
            continue;
        }
        pInfo->nDuration = nDuration;
        if (!ReadAttributes(pInfo, &as, i, media.format, section))
            return 0;
        pDesc->nTrackCount++;
    }
    pDesc->pfnIsKeyFrame = ChooseKeyTest(pDesc);
    pDesc->bSharedTypes = bLive && bStandard && SharesTypes(pDesc);
    return pDesc->nTrackCount != 0;
}

}  // namespace orx
