#include "record/sdpscan.h"

#include <algorithm>

#include "base/console.h"
#include "base/printable.h"
#include "base/textbuf.h"
#include "base/textnumber.h"
#include "record/sdpreader.h"

namespace orx {

constexpr int kScanEnd = 3;      // past this count the scan ends
constexpr size_t kWordMax = 15;  // of a word of the description more is neither looked at nor printed

// Takes the codec name of a section. Returns 1; 0 when the section has none; -1 when its line is malformed.
static int ReadCodecName(std::string_view section, const SdpMedia &media, char *szOut, size_t nSize)
{
    SdpRtpMap map;
    int nResult = SdpReadRtpMap(section, SDP_LINE, &map);
    if (nResult == 0) {
        const Codec *pCodec = CodecByStaticType(TextToInt(media.format.substr(0, kWordMax)));
        if (!pCodec) {
            print("bad SDP: no rtpmap field");
            return 0;
        }
        return TextCopy(szOut, nSize, pCodec->szName);
    }
    if (nResult < 0 || map.name.empty()) {
        print("Invalid SDP!\r");
        return -1;
    }
    TextCopy(szOut, nSize, map.name);
    return 1;
}

static void TakeCodec(uint32_t nKind, const char *szName, SdpCodec *pOut)
{
    pOut->pCodec = CodecByName(nKind, szName, CODEC_RECORDING);
    TextCopy(pOut->szName, sizeof(pOut->szName), pOut->pCodec ? pOut->pCodec->szName : szName);
}

void SdpScanCodecs(const char *szSdp, SdpCodecs *pOut)
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
        char szName[kWordMax + 1];
        int nResult = ReadCodecName(section.own, media, szName, sizeof(szName));
        if (nResult < 0)
            return;
        nCount += nResult ? 2 : 1;
        if (nResult && nKind == MEDIA_VIDEO_OTHER)
            TakeCodec(nKind, szName, &pOut->video);
        else if (nResult && nKind == MEDIA_AUDIO_OTHER)
            TakeCodec(nKind, szName, &pOut->audio);
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
