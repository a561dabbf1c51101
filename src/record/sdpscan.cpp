#include "record/sdpscan.h"

#include <algorithm>

#include "base/console.h"
#include "base/printable.h"
#include "base/textbuf.h"
#include "base/textnumber.h"
#include "record/aac.h"
#include "record/sdpreader.h"

namespace orx {

constexpr int kScanEnd = 3;      // past this count the scan ends
constexpr size_t kWordMax = 15;  // of a word of the description more is neither looked at nor printed

// Takes the codec name and the clock of a section. Returns 1; 0 when the section has none; -1 when its line
// is malformed.
static int ReadCodecName(std::string_view section, const SdpMedia &media, SdpCodec *pOut)
{
    SdpRtpMap map;
    int nResult = SdpReadRtpMap(section, SDP_LINE, &map);
    if (nResult == 0) {
        const Codec *pCodec = CodecByStaticType(TextToInt(media.format.substr(0, kWordMax)));
        if (!pCodec) {
            print("bad SDP: no rtpmap field");
            return 0;
        }
        return TextCopy(pOut->szName, sizeof(pOut->szName), pCodec->szName);
    }
    if (nResult < 0 || map.name.empty()) {
        print("Invalid SDP!\r");
        return -1;
    }
    TextCopy(pOut->szName, sizeof(pOut->szName), map.name);
    pOut->nRate = map.nRate > 0 ? static_cast<uint32_t>(map.nRate) : 0;
    return 1;
}

// Whether a recording can take packets of this form.
static int IsRecorded(const SdpCodec &codec)
{
    return codec.pCodec &&
           (codec.pCodec->nForm != FORM_AAC || (codec.nRate > 0 && AacIsRecorded(codec.format)));
}

static void TakeCodec(uint32_t nKind, CodecUser nUser, const SdpCodec &codec, SdpCodec *pOut)
{
    *pOut = codec;
    pOut->pCodec = CodecByName(nKind, codec.szName, nUser);
    if (!IsRecorded(*pOut))
        pOut->pCodec = nullptr;
    if (pOut->pCodec)
        TextCopy(pOut->szName, sizeof(pOut->szName), pOut->pCodec->szName);
}

void SdpScanCodecs(const char *szSdp, SdpCodecs *pOut, CodecUser nUser)
{
    SdpWalk walk = SdpSections(szSdp, SDP_LINE);
    SdpSection section;
    // A section that is used counts 2, another 1: video and audio, or one of them behind one or two others.
    for (int nCount = 0; nCount <= kScanEnd && SdpNextSection(&walk, &section);) {
        SdpMedia media;
        if (!SdpReadMedia(section.own, SDP_MEDIA_LINE, &media)) {
            print("bad SDP:\r\n%s\r\n", PrintableDump(szSdp).sz);
            return;
        }
        uint32_t nKind = SdpMediaKind(media.media);
        if (nKind == 0) {
            print("ignore unknown media \"%s\"\n",
                  PrintableText(media.media.data(), std::min(media.media.size(), kWordMax)).sz);
            nCount++;
            continue;
        }
        SdpCodec codec;
        codec.format = SdpReadFormat(section.own);
        int nResult = ReadCodecName(section.own, media, &codec);
        if (nResult < 0)
            return;
        nCount += nResult ? 2 : 1;
        if (nResult && nKind == MEDIA_VIDEO_OTHER)
            TakeCodec(nKind, nUser, codec, &pOut->video);
        else if (nResult && nKind == MEDIA_AUDIO_OTHER)
            TakeCodec(nKind, nUser, codec, &pOut->audio);
    }
}

DepacketProc SdpDepacketiser(const SdpCodec *pCodec, const char *szKind)
{
    if (pCodec->pCodec)
        return pCodec->pCodec->pfnDepacket;
    if (*pCodec->szName)
        print("Unsupport %s Codec \"%s\"!\r\n", szKind, pCodec->szName);
    return nullptr;
}

}  // namespace orx
