#include "orxpull/announcement.h"

#include <strings.h>

#include <algorithm>

#include "base/bytes.h"
#include "record/paramsets.h"
#include "record/picturesize.h"

namespace orx {

constexpr size_t kMostFormat = 2500;  // of a description Orx takes 4000 characters
constexpr int kMostType = 127;

static uint32_t KindOf(const PlayTrack *pTrack)
{
    if (strcasecmp(pTrack->media.c_str(), "video") == 0)
        return MEDIA_VIDEO_OTHER;
    if (strcasecmp(pTrack->media.c_str(), "audio") == 0)
        return MEDIA_AUDIO_OTHER;
    return 0;
}

const Codec *TrackCodec(const PlayTrack *pTrack)
{
    uint32_t nKind = KindOf(pTrack);
    return nKind ? CodecByName(nKind, pTrack->encoding.c_str(), CODEC_WIDE_PROGRAM) : nullptr;
}

static int HasOthers(const std::string &text)
{
    return std::any_of(text.begin(), text.end(), [](unsigned char c) { return c < ' ' || c == 127; });
}

static int IsUsable(const PlayTrack *pTrack, const AnnounceRules *pRules)
{
    int bRate = pTrack->nClockRate > 0 && (pRules->bAnyRate || pTrack->nClockRate % 1000 == 0);
    return TrackCodec(pTrack) && bRate && pTrack->nPayloadType >= 0 && pTrack->nPayloadType <= kMostType &&
           pTrack->fmtp.size() <= kMostFormat && !HasOthers(pTrack->fmtp);
}

int ChooseTracks(PlayDescription *pDescription, const AnnounceRules *pRules)
{
    int bVideo = 0, bAudio = !pRules->bAudio;
    int nChosen = 0;
    for (PlayTrack &track : pDescription->tracks) {
        int &bTaken = KindOf(&track) == MEDIA_VIDEO_OTHER ? bVideo : bAudio;
        track.bWanted = !bTaken && IsUsable(&track, pRules);
        bTaken |= track.bWanted;
        nChosen += track.bWanted;
    }
    return nChosen;
}

int FormatPictureSize(const PlayTrack *pTrack, uint32_t *pnWidth, uint32_t *pnHeight)
{
    const Codec *pCodec = TrackCodec(pTrack);
    if (!pCodec || !pCodec->pNal)
        return 0;
    ParamSets sets;
    ParamSetsFromFormat(&sets, pCodec->pNal, pTrack->fmtp);
    const auto &sequence = sets.kinds[NAL_IS_SEQUENCE_SET - NAL_IS_VIDEO_SET];
    ByteReader in{sequence.pUnits, sequence.nBytes};
    uint32_t nUnit = 0;
    const uint8_t *pUnit = NalNext(&in, &nUnit);
    int bGood = pUnit && PictureSizeOfSequence(pCodec->pNal, pUnit, nUnit, pnWidth, pnHeight);
    ParamSetsFree(&sets);
    return bGood;
}

// The lines of one track, which has the number nTrack in Orx.
static std::string Section(const PlayTrack *pTrack, size_t nTrack)
{
    int bVideo = KindOf(pTrack) == MEDIA_VIDEO_OTHER;
    uint32_t nWidth = 0, nHeight = 0;
    std::string type = std::to_string(pTrack->nPayloadType);
    std::string text = std::string(bVideo ? "m=video" : "m=audio") + " 0 RTP/AVP " + type + "\r\n";
    text += "a=rtpmap:" + type + " " + pTrack->encoding + "/" + std::to_string(pTrack->nClockRate);
    if (!bVideo)  // Orx takes a missing number of channels for 2
        text += "/" + std::to_string(std::max(pTrack->nChannels, 1));
    text += "\r\n";
    if (!pTrack->fmtp.empty())
        text += "a=fmtp:" + type + " " + pTrack->fmtp + "\r\n";
    if (FormatPictureSize(pTrack, &nWidth, &nHeight))
        text += "a=framesize:" + type + " " + std::to_string(nWidth) + "-" + std::to_string(nHeight) + "\r\n";
    return text + "a=control:trackID=" + std::to_string(nTrack) + "\r\n";
}

Announcement MakeAnnouncement(const PlayDescription *pDescription, const std::string &program)
{
    Announcement out;
    std::string name = program.substr(program.rfind('/') + 1);
    out.sdp = "v=0\r\no=- 1 1 IN IP4 127.0.0.1\r\ns=" + name + "\r\na=NickName:" + name + "\r\nt=0 0\r\n";
    for (size_t i = 0; i < pDescription->tracks.size(); i++) {
        const PlayTrack *pTrack = &pDescription->tracks[i];
        if (!pTrack->bWanted)
            continue;
        out.sdp += Section(pTrack, out.tracks.size());
        const Codec *pVideo = KindOf(pTrack) == MEDIA_VIDEO_OTHER ? TrackCodec(pTrack) : nullptr;
        out.tracks.push_back({static_cast<int>(i), pTrack->nClockRate, pVideo});
    }
    return out;
}

}  // namespace orx
