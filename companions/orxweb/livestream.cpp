#include "orxweb/livestream.h"

#include <algorithm>
#include <memory>
#include <utility>

#include "orxweb/clipbox.h"
#include "orxweb/clipsound.h"
#include "orxweb/clipsource.h"
#include "orxweb/liveclock.h"
#include "orxzmf/aacconfig.h"
#include "orxzmf/soundclock.h"
#include "orxzmf/soundpiece.h"
#include "record/aac.h"
#include "record/depacketise.h"
#include "record/rtppacket.h"

namespace orx {

constexpr int kVideo = 0, kAudio = 1;
constexpr uint32_t kFirstPictureMs = 40;  // how long a picture is shown before another tells
constexpr int64_t kLongestPictureMs = 1000;
constexpr size_t kMostConfig = 64;
constexpr uint64_t kEndlessBytes = 1ULL << 40;  // of sound that is to come

struct LiveTrack {
    int nIndex = -1;     // in the description; -1: there is none
    std::string format;  // its format line
    SdpCodec codec;      // views of that
    DepacketProc pfnDepacket = nullptr;
    Depacketiser depacketiser;
    int64_t nTimeMs = 0;  // of the packet that is being taken
};

struct LiveStream {
    LiveStreamProcs procs;
    void *pUser = nullptr;
    LiveClock clock;
    LiveTrack tracks[kLiveTracks];
    ClipTracks boxes;
    std::string sets;  // that the head has
    int bHead = 0;     // it was told
    uint32_t nFragments = 0;
    // Pictures.
    int bReordered = 0;     // they are shown in another order than they come
    int64_t nShownMs = -1;  // the latest that was shown
    int64_t nDecodedMs = -1;
    uint32_t nPictureMs = kFirstPictureMs;
    // Sound.
    SoundForm form;
    SoundClock soundClock;
    ClipSound *pSound = nullptr;  // owned; of sound that is turned to AAC
};

// --- Fragments ---

static void TellHead(LiveStream *p)
{
    std::string video = ClipVideoName(&p->boxes.video), audio = ClipAudioName(&p->boxes.audio);
    p->bHead = 1;
    p->procs.pfnHead(p->pUser, ClipHead(&p->boxes, 0),
                     video + (video.empty() || audio.empty() ? "" : ",") + audio);
}

static void TellFragment(LiveStream *p, const ClipPart &part, const std::string &media, int bKey)
{
    p->procs.pfnFragment(p->pUser, ClipFragmentHead(++p->nFragments, &p->boxes, {part}) + media, bKey);
}

// --- Pictures ---

static std::string UnitsText(const ParamSets *pSets)
{
    std::string text(ParamSetsBytes(pSets), '\0');
    ParamSetsPut(pSets, reinterpret_cast<uint8_t *>(text.data()));
    return text;
}

static void AppendStream(std::string *pOut, const uint8_t *pUnits, size_t nBytes)
{
    ByteReader in{pUnits, nBytes};
    uint32_t nUnit = 0;
    while (const uint8_t *pUnit = NalNext(&in, &nUnit)) {
        pOut->append("\0\0\0\1", 4);
        pOut->append(reinterpret_cast<const char *>(pUnit), nUnit);
    }
}

// A key frame: tells the head when it is new, and the picture. Returns whether the head is known.
static int BeginGroup(LiveStream *p, const uint8_t *pData, uint32_t nBytes)
{
    ClipVideo *pVideo = &p->boxes.video;
    const NalForm *pForm = pVideo->pCodec->pNal;
    if (NalSummarise(pForm, pData, nBytes).nSets != 0)
        ParamSetsNote(&pVideo->sets, pForm, pData, nBytes);
    std::string sets = UnitsText(&pVideo->sets);
    if (sets != p->sets || !p->bHead) {
        if (!ClipVideoMeasure(pVideo))
            return p->bHead;
        p->sets = sets;
        TellHead(p);
    }
    std::string picture;
    AppendStream(&picture, reinterpret_cast<const uint8_t *>(sets.data()), sets.size());
    AppendStream(&picture, pData, nBytes);
    p->procs.pfnPicture(p->pUser, pVideo->pCodec, std::move(picture));
    return 1;
}

// When a picture is decoded, which rises; -1: it would have to be before one that was. Once pictures have
// come in another order than they are shown, each is decoded when the last one before it in that order is
// shown.
static int64_t DecodeTime(LiveStream *p, int64_t nShownMs)
{
    if (nShownMs <= p->nShownMs)
        p->bReordered = 1;
    int64_t nMs = p->bReordered ? std::min(nShownMs, p->nShownMs) : nShownMs;
    nMs = std::max(nMs, p->nDecodedMs + 1);
    p->nShownMs = std::max(p->nShownMs, nShownMs);
    return nMs <= nShownMs ? nMs : -1;
}

static void TakeUnits(LiveStream *p, const uint8_t *pData, uint32_t nBytes, int64_t nShownMs, int bKey)
{
    std::string media;
    if (bKey ? !BeginGroup(p, pData, nBytes) : !p->bHead)
        return;
    if (!ClipPictureAppend(p->boxes.video.pCodec, 0, pData, nBytes, &media))
        return;
    int64_t nMs = DecodeTime(p, nShownMs);
    if (nMs < 0)
        return;
    if (p->nDecodedMs >= 0)
        p->nPictureMs = static_cast<uint32_t>(std::min(nMs - p->nDecodedMs, kLongestPictureMs));
    p->nDecodedMs = nMs;
    ClipRun video;
    video.nFrom = static_cast<uint64_t>(nMs);
    video.samples.push_back(
        {p->nPictureMs, static_cast<uint32_t>(media.size()), static_cast<uint32_t>(nShownMs - nMs), bKey});
    // the head tells no delay: times are those at which pictures are shown, and stand in each fragment
    p->boxes.video.nDelayMs = static_cast<uint32_t>(p->bReordered);
    TellFragment(p, {video, {}}, media, bKey);
    p->boxes.video.nDelayMs = 0;
}

static int TakePicture(void *pContext, const uint8_t *pData, uint32_t nBytes, uint32_t nTimeMs,
                       uint32_t nType)
{
    auto *p = static_cast<LiveStream *>(pContext);
    LiveTrack *pTrack = &p->tracks[kVideo];
    // 32 bits of a time that lies near the packet's
    int64_t nMs = pTrack->nTimeMs + static_cast<int32_t>(nTimeMs - static_cast<uint32_t>(pTrack->nTimeMs));
    if (pTrack->codec.pCodec->nForm != FORM_JPEG) {
        TakeUnits(p, pData, nBytes, nMs, (nType & ZMF_KEY) != 0);
        return 1;
    }
    std::string image;
    if (ClipPictureAppend(pTrack->codec.pCodec, 0, pData, nBytes, &image))
        p->procs.pfnPicture(p->pUser, pTrack->codec.pCodec, std::move(image));
    return 1;
}

// --- Sound ---

static int SoundMay(LiveStream *p)
{
    if (!p->bHead && p->tracks[kVideo].nIndex < 0)
        TellHead(p);
    return p->bHead;
}

static int TakeCoded(void *pContext, const uint8_t *pData, size_t nBytes, int64_t nAt)
{
    auto *p = static_cast<LiveStream *>(pContext);
    if (nAt < 0 || !SoundMay(p))
        return 1;
    ClipRun audio;
    audio.nFrom = static_cast<uint64_t>(nAt);
    audio.samples.push_back({ClipSoundFrame(p->pSound), static_cast<uint32_t>(nBytes), 0, 1});
    TellFragment(p, {{}, audio}, std::string(reinterpret_cast<const char *>(pData), nBytes),
                 p->tracks[kVideo].nIndex < 0);
    return 1;
}

// A piece of sound that lies at nAt goes in as it is, or to the encoder.
static void TakePiece(LiveStream *p, const ByteReader &piece, int64_t nTicks, ClipRun *pAudio,
                      std::string *pMedia)
{
    int64_t nAt = 0, nLonger = 0;
    if (!SoundClockPiece(&p->soundClock, nTicks, &nAt, &nLonger))
        return;
    if (p->pSound) {
        ClipSoundPut(p->pSound, piece.p, piece.nLeft, nAt, nLonger);
        return;
    }
    if (pAudio->samples.empty())
        pAudio->nFrom = static_cast<uint64_t>(nAt);
    pAudio->samples.push_back(
        {static_cast<uint32_t>(nTicks + nLonger), static_cast<uint32_t>(piece.nLeft), 0, 1});
    pMedia->append(reinterpret_cast<const char *>(piece.p), piece.nLeft);
}

static int TakeSound(void *pContext, const uint8_t *pData, uint32_t nBytes, uint32_t nTimeMs, uint32_t)
{
    auto *p = static_cast<LiveStream *>(pContext);
    LiveTrack *pTrack = &p->tracks[kAudio];
    int64_t nMs = pTrack->nTimeMs + static_cast<int32_t>(nTimeMs - static_cast<uint32_t>(pTrack->nTimeMs));
    ByteReader piece{nullptr, 0};
    int64_t nTicks = 0, nAll = 0;
    if (nMs < 0 || (!p->bHead && p->tracks[kVideo].nIndex >= 0))
        return 1;  // pictures come first: the head waits for what they tell
    for (ByteReader in{pData, nBytes}; SoundNextPiece(&p->form, &in, &piece, &nTicks);)
        nAll += nTicks;
    SoundClockBlock(&p->soundClock, nMs, nAll);
    ClipRun audio;
    std::string media;
    for (ByteReader in{pData, nBytes}; SoundNextPiece(&p->form, &in, &piece, &nTicks);)
        TakePiece(p, piece, nTicks, &audio, &media);
    if (!audio.samples.empty() && SoundMay(p))
        TellFragment(p, {{}, audio}, media, p->tracks[kVideo].nIndex < 0);
    return 1;
}

// --- Tracks ---

static int ReadySound(LiveStream *p, const SdpCodec &codec)
{
    ClipAudio *pAudio = &p->boxes.audio;
    p->form = SoundFormOf(codec);
    if (!p->form.pCodec || p->form.nRate < 4000 || p->form.nRate > 192000)
        return 0;
    pAudio->nRate = static_cast<uint32_t>(p->form.nRate);
    p->soundClock.nRate = p->form.nRate;
    if (p->form.pCodec->nForm == FORM_AAC) {
        AacConfig config;
        if (!AacIsRecorded(codec.format) || !AacConfigRead(codec, &config) || config.bytes.empty() ||
            config.bytes.size() > kMostConfig)
            return 0;
        pAudio->config = config.bytes;
        pAudio->nObjectType = config.nObjectType;
        pAudio->nChannels = config.nChannels == 7 ? 8 : config.nChannels == 0 ? 2 : config.nChannels;
        return 1;
    }
    p->pSound = ClipSoundCreate(p->form.pCodec, kEndlessBytes, TakeCoded, p);
    if (p->pSound)
        pAudio->config = ClipSoundConfig(p->pSound);
    return p->pSound && !pAudio->config.empty();
}

static int ReadyPictures(LiveStream *p, const SdpCodec &codec)
{
    p->boxes.video.pCodec = codec.pCodec;
    if (codec.pCodec->pNal)
        ParamSetsFromFormat(&p->boxes.video.sets, codec.pCodec->pNal, codec.format);
    return 1;
}

static void TakeTrack(LiveStream *p, int nKind, PlayTrack *pFrom, int nIndex)
{
    LiveTrack *pTrack = &p->tracks[nKind];
    if (pTrack->nIndex >= 0 || pFrom->nClockRate <= 0)
        return;
    SdpCodec codec;
    pTrack->format = pFrom->fmtp;
    codec.pCodec = CodecByName(nKind == kVideo ? MEDIA_VIDEO_OTHER : MEDIA_AUDIO_OTHER,
                               pFrom->encoding.c_str(), CODEC_WIDE_RECORDING);
    codec.format = pTrack->format;
    codec.nRate = static_cast<uint32_t>(pFrom->nClockRate);
    if (!codec.pCodec || !codec.pCodec->pfnDepacket ||
        !(nKind == kVideo ? ReadyPictures(p, codec) : ReadySound(p, codec)))
        return;
    pTrack->nIndex = nIndex;
    pTrack->codec = codec;
    pTrack->pfnDepacket = codec.pCodec->pfnDepacket;
    Depacketiser *pOut = &pTrack->depacketiser;
    pOut->pfnSample = nKind == kVideo ? TakePicture : TakeSound;
    pOut->pContext = p;
    pOut->rules.bNeverLose = pOut->rules.bWideUnits = pOut->rules.bStandardPushers = 1;
    pOut->bWideband = CodecIsWideband(codec.pCodec);
    if (nKind == kAudio)
        pOut->nUnitTicks = AacUnitTicks(codec.format, codec.nRate);
    else if (codec.pCodec->pNal)
        ParamSetsFromFormat(&pOut->sets, codec.pCodec->pNal, codec.format);
    p->clock.tracks[nKind].nRate = pFrom->nClockRate;
    pFrom->bWanted = 1;
}

LiveStream *LiveStreamOpen(PlayDescription *pDescription, const LiveStreamProcs *pProcs, void *pUser)
{
    auto *p = new LiveStream;
    p->procs = *pProcs;
    p->pUser = pUser;
    for (size_t i = 0; i < pDescription->tracks.size(); i++) {
        PlayTrack *pTrack = &pDescription->tracks[i];
        if (pTrack->media == "video" || pTrack->media == "audio")
            TakeTrack(p, pTrack->media == "video" ? kVideo : kAudio, pTrack, static_cast<int>(i));
    }
    // beside images there is no sound: they are no movie
    if (LiveStreamIsJpeg(p) && p->tracks[kAudio].nIndex >= 0)
        pDescription->tracks[static_cast<size_t>(std::exchange(p->tracks[kAudio].nIndex, -1))].bWanted = 0;
    if (p->tracks[kVideo].nIndex >= 0 || p->tracks[kAudio].nIndex >= 0)
        return p;
    LiveStreamClose(p);
    return nullptr;
}

void LiveStreamClose(LiveStream *pStream)
{
    if (!pStream)
        return;
    for (LiveTrack &track : pStream->tracks)
        DepacketiserReset(&track.depacketiser);
    ClipVideoFree(&pStream->boxes.video);
    ClipSoundFree(pStream->pSound);
    delete pStream;
}

int LiveStreamIsJpeg(const LiveStream *pStream)
{
    const LiveTrack *pTrack = &pStream->tracks[kVideo];
    return pTrack->nIndex >= 0 && pTrack->codec.pCodec->nForm == FORM_JPEG;
}

void LiveStreamPacket(LiveStream *pStream, int nTrack, int bRtcp, const uint8_t *pData, size_t nBytes,
                      uint64_t nNowMs)
{
    int nKind = nTrack == pStream->tracks[kVideo].nIndex ? kVideo : kAudio;
    LiveTrack *pTrack = &pStream->tracks[nKind];
    RtpPacket packet;
    if (pTrack->nIndex != nTrack)
        return;
    if (bRtcp) {
        LiveClockReport(&pStream->clock, nKind, pData, nBytes);
        return;
    }
    if (!RtpPacketParse(pData, static_cast<uint32_t>(nBytes), &packet))
        return;
    pTrack->nTimeMs = LiveClockPacket(&pStream->clock, nKind, packet.nRtpTime, nNowMs);
    pTrack->pfnDepacket(&pTrack->depacketiser, pData, static_cast<uint32_t>(nBytes),
                        static_cast<uint32_t>(pTrack->nTimeMs));
}

}  // namespace orx
