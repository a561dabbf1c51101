#include "record/codec.h"

#include <strings.h>

#include <cstring>

#include "record/rtphelp.h"

namespace orx {

static constexpr Codec g_codecs[] = {
    {
        .szName = "H264",
        .nMediaType = MEDIA_H264,
        .aliases = {{"H264"}, {"AVC"}},
        .pfnIsKey = IsKeyH264,
        .pfnDepacket = WriteH264RtpData,
        .pfnPack = Pack2Rtp264Block,
        .nForm = FORM_UNITS,
        .pNal = &g_h264Form,
        .exported = {".h264", "H.264 video", "", "h264"},
    },
    {
        .szName = "H265",
        .nMediaType = MEDIA_H265,
        .aliases = {{"H265", CODEC_WIDE_ALL}, {"HEVC", CODEC_WIDE_ALL}},
        .pfnIsKey = IsKeyH265,
        .pfnDepacket = WriteH265RtpData,
        .pfnPack = Pack2Rtp265Block,
        .nForm = FORM_UNITS,
        .pNal = &g_h265Form,
        .exported = {".h265", "H.265 video", "", "hevc"},
    },
    {
        .szName = "JPEG",
        .nMediaType = MEDIA_JPEG,
        // MJPEG is no registered name: programs with it are relayed as JPEG, but a recording takes only what
        // promises the payload of RFC 2435.
        .aliases = {{"JPEG"}, {"MJPEG", CODEC_PROGRAM}},
        .nStaticType = 26,  // a program cannot do without the line: it tells the clock rate
        .pfnIsKey = IsKeyJpeg,
        .pfnDepacket = WriteJpegRtpData,
        .pfnPack = Pack2RtpJpegBlock,
        .nForm = FORM_JPEG,
        .exported = {".mjpeg", "JPEG video", "", "mjpeg"},
    },
    {
        .szName = "PCMU",
        .nMediaType = MEDIA_G711,
        .aliases = {{"PCMU"}},
        .bKeepSpelling = 1,
        .pfnDepacket = WriteG711RtpData,
        .pfnPack = Pack2RtpG711Block,
        .nForm = FORM_G711,
        .nSampleRate = 8000,
        .exported = {".g711", "G.711 audio", "", "pcm_mulaw"},
    },
    {
        .szName = "PCMA",
        .nMediaType = MEDIA_G711,
        .aliases = {{"PCMA"}},
        .bKeepSpelling = 1,
        .pfnDepacket = WriteG711RtpData,
        .pfnPack = Pack2RtpG711Block,
        .nForm = FORM_G711,
        .nSampleRate = 8000,
        .exported = {".g711", "G.711 audio", "", "pcm_alaw"},
    },
    {
        // Some cameras call their audio so. The name does not tell the law, without which nobody could play a
        // recording: it is relayed only.
        .szName = "G711",
        .nMediaType = MEDIA_G711,
        .aliases = {{"G711", CODEC_PROGRAM, 1}},
        .bKeepSpelling = 1,
        .pfnPack = Pack2RtpG711Block,
    },
    {
        .szName = "AMR-NB",
        .nMediaType = MEDIA_AMR_NB,
        // AMR-NB is no registered name, but that of recordings: a program with it is relayed like one of a
        // codec that is not known.
        .aliases = {{"AMR"}, {"SAMR"}, {"AMR-NB", CODEC_RECORDING}},
        .pfnDepacket = WriteAmrRtpData,
        .pfnPack = Pack2RtpAmrBlock,
        .nForm = FORM_AMR,
        .nSampleRate = 8000,
        .exported = {".amr", "AMR audio", "#!AMR\n", "amr_nb"},
    },
    {
        .szName = "AMR-WB",
        .nMediaType = MEDIA_AMR_WB,
        .aliases = {{"AMR-WB"}, {"SAWB"}},
        .pfnDepacket = WriteAmrRtpData,
        .pfnPack = Pack2RtpAmrBlock,
        .nForm = FORM_AMR,
        .nSampleRate = 16000,
        .exported = {".amr", "AMR audio", "#!AMR-WB\n", "amr_wb"},
    },
    {
        .szName = "MPEG4-GENERIC",
        .nMediaType = MEDIA_AAC,
        .aliases = {{"MPEG4-GENERIC", CODEC_WIDE_ALL}},
        .bKeepSpelling = 1,
        .pfnDepacket = WriteAacRtpData,
        .pfnPack = Pack2RtpAacBlock,
        .nForm = FORM_AAC,
        .exported = {".aac", "AAC audio", "", "aac"},
    },
    // Sound that is relayed only.
    {.szName = "MP4A-LATM",
     .nMediaType = MEDIA_AUDIO_OTHER,
     .aliases = {{"MP4A-LATM", CODEC_PROGRAM}},
     .bKeepSpelling = 1},
    {.szName = "OPUS",
     .nMediaType = MEDIA_AUDIO_OTHER,
     .aliases = {{"OPUS", CODEC_PROGRAM}},
     .bKeepSpelling = 1},
    {.szName = "L16",
     .nMediaType = MEDIA_AUDIO_OTHER,
     .aliases = {{"L16", CODEC_PROGRAM}},
     .bKeepSpelling = 1},
    {.szName = "G722",
     .nMediaType = MEDIA_AUDIO_OTHER,
     .aliases = {{"G722", CODEC_PROGRAM}},
     .bKeepSpelling = 1},
    // Four rates, and the order of the bits (RFC 3551, section 4.5.4), in the name.
    {.szName = "G726",
     .nMediaType = MEDIA_AUDIO_OTHER,
     .aliases = {{"G726", CODEC_PROGRAM, 1}, {"AAL2-G726-", CODEC_PROGRAM, 1}},
     .bKeepSpelling = 1},
    // Code 0x3 is reserved: no description names it.
    {.szName = "third", .nMediaType = MEDIA_VIDEO3, .pfnIsKey = IsKeyGeneric},
    // Video that no other row knows, of which nothing is known but where its frames end.
    {.szName = "other", .nMediaType = MEDIA_VIDEO_OTHER, .pfnIsKey = IsKeyGeneric},
};

std::span<const Codec> Codecs()
{
    return g_codecs;
}

static int HasName(const Codec &codec, const char *szName, CodecUser nUser)
{
    for (const CodecAlias &alias : codec.aliases) {
        int bWide = (alias.nUsers & CODEC_WIDE) != 0;
        if (!alias.szName || !(alias.nUsers & nUser & CODEC_ALL) || (bWide && !(nUser & CODEC_WIDE)))
            continue;
        if (alias.bPrefix ? strncasecmp(szName, alias.szName, strlen(alias.szName)) == 0
                          : strcasecmp(szName, alias.szName) == 0)
            return 1;
    }
    return 0;
}

const Codec *CodecByName(uint32_t nKind, const char *szName, CodecUser nUser)
{
    for (const Codec &codec : g_codecs)
        if ((codec.nMediaType & nKind) && HasName(codec, szName, nUser))
            return &codec;
    return nullptr;
}

const Codec *CodecByStaticType(int nPayloadType)
{
    for (const Codec &codec : g_codecs)
        if (codec.nStaticType && codec.nStaticType == nPayloadType)
            return &codec;
    return nullptr;
}

const Codec *CodecUnknown(uint32_t nKind)
{
    for (const Codec &codec : g_codecs)
        if (codec.nMediaType == nKind && !codec.aliases[0].szName)
            return &codec;
    return nullptr;
}

}  // namespace orx
