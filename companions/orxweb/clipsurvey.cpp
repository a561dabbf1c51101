#include "orxweb/clipsurvey.h"

#include <algorithm>
#include <cstring>
#include <string_view>

#include "orxzmf/aacconfig.h"
#include "orxzmf/jpegimage.h"

namespace orx {

constexpr uint32_t kReadAhead = 1U << 20;
constexpr size_t kMostConfig = 64;  // bytes of a configuration of AAC
constexpr int64_t kMostTimeMs = 1LL << 31;

namespace {

struct Reading {
    ClipSurvey *pSurvey = nullptr;
    uint64_t nLastPos = 0;  // of the record of the item before
    int bNoted = 0;         // a picture's parameter sets were taken
    int bChanged = 0;       // later ones differ
    int bBare = 0;          // a picture holds nothing else
    int bPictures = 0;
    int bSound = 0;
    std::string image;
};

}  // namespace

const uint8_t *ClipNextUnit(ByteReader *pBlock, uint32_t *pnBytes)
{
    const uint8_t *pUnit = NalNext(pBlock, pnBytes);
    return pUnit && *pnBytes <= kClipMostUnit ? pUnit : nullptr;
}

// --- Pictures ---

static int IsKnownSet(const ParamSets *pSets, NalKind nKind, std::string_view unit)
{
    const auto &kind = pSets->kinds[nKind - NAL_IS_VIDEO_SET];
    ByteReader in{kind.pUnits, kind.nBytes};
    uint32_t nKnown = 0;
    while (const uint8_t *pKnown = NalNext(&in, &nKnown))
        if (std::string_view(reinterpret_cast<const char *>(pKnown), nKnown) == unit)
            return 1;
    return 0;
}

namespace {
struct UnitSums {
    uint32_t nAll = 0;   // bytes in an .mp4
    uint32_t nSets = 0;  // of them, parameter sets
    int bStrange = 0;    // there is a set that is not known
};
}  // namespace

// Returns 1, or 0 when the units do not fill the picture.
static int SumUnits(const ClipVideo *pVideo, const ClipRecord &record, UnitSums *pOut)
{
    const NalForm *pForm = pVideo->pCodec->pNal;
    ByteReader in{record.pData, record.nBytes};
    uint32_t nUnit = 0;
    *pOut = UnitSums();
    while (const uint8_t *pUnit = NalNext(&in, &nUnit)) {
        pOut->nAll += nUnit + 4;
        NalKind nKind = pForm->pfnKind(NalType(pForm, *pUnit));
        if (!IsNalSet(nKind))
            continue;
        pOut->nSets += nUnit + 4;
        pOut->bStrange |= !IsKnownSet(&pVideo->sets, nKind, {reinterpret_cast<const char *>(pUnit), nUnit});
    }
    return pOut->nAll > 0 && in.nLeft == 0;
}

// The first picture with parameter sets tells them, whatever the description says.
static uint32_t MeasureUnits(Reading *pReading, const ClipRecord &record)
{
    ClipSurvey *pSurvey = pReading->pSurvey;
    ClipVideo *pVideo = &pSurvey->tracks.video;
    UnitSums sums;
    if (!SumUnits(pVideo, record, &sums))
        return 0;
    if (sums.nSets == 0)
        return sums.nAll;
    if (!pReading->bNoted && sums.bStrange) {
        ParamSetsNote(&pVideo->sets, pVideo->pCodec->pNal, record.pData, record.nBytes);
        SumUnits(pVideo, record, &sums);
    }
    pReading->bNoted = 1;
    pReading->bChanged |= sums.bStrange;
    pReading->bBare |= sums.nSets == sums.nAll;
    pSurvey->sets.push_back({static_cast<uint32_t>(pSurvey->kinds.size()), sums.nSets});
    return sums.nAll;
}

static uint32_t MeasureImage(Reading *pReading, const ClipRecord &record)
{
    ClipVideo *pVideo = &pReading->pSurvey->tracks.video;
    pReading->image.clear();
    if (!ClipPictureAppend(pVideo->pCodec, 0, record.pData, record.nBytes, &pReading->image))
        return 0;
    if (pVideo->nWidth == 0)
        JpegImageSize(pReading->image, &pVideo->nWidth, &pVideo->nHeight);
    return static_cast<uint32_t>(pReading->image.size());
}

static ClipItemKind MeasurePicture(Reading *pReading, const ClipRecord &record, uint32_t *pnSize)
{
    const Codec *pCodec = pReading->pSurvey->tracks.video.pCodec;
    if (!pCodec)
        return CLIP_LEFT_OUT;
    *pnSize = pCodec->nForm == FORM_JPEG ? MeasureImage(pReading, record) : MeasureUnits(pReading, record);
    if (*pnSize == 0)
        return CLIP_LEFT_OUT;
    pReading->bPictures = 1;
    return record.head.nFlags & ZMF_KEY ? CLIP_KEY : CLIP_PICTURE;
}

// --- Sound ---

static ClipItemKind MeasureSound(Reading *pReading, const ClipRecord &record, uint32_t *pnSize)
{
    ClipSurvey *pSurvey = pReading->pSurvey;
    if (!pSurvey->sound.pCodec || record.nBytes == 0)
        return CLIP_LEFT_OUT;
    *pnSize = record.nBytes;
    if (pSurvey->sound.pCodec->nForm == FORM_AAC) {
        ByteReader in{record.pData, record.nBytes};
        uint32_t nUnit = 0;
        for (*pnSize = 0; ClipNextUnit(&in, &nUnit); ++*pnSize)
            pSurvey->units.push_back(static_cast<uint16_t>(nUnit));
    }
    if (*pnSize == 0)
        return CLIP_LEFT_OUT;
    pReading->bSound = 1;
    return CLIP_SOUND;
}

// AAC goes in as it is; of other sound the encoder tells more later.
static void TakeSound(ClipSurvey *pSurvey)
{
    const SdpCodec &audio = pSurvey->description.codecs.audio;
    ClipAudio *pAudio = &pSurvey->tracks.audio;
    SoundForm sound = SoundFormOf(audio);
    if (!sound.pCodec || sound.nRate < 4000 || sound.nRate > 192000)
        return;
    pAudio->nRate = static_cast<uint32_t>(sound.nRate);
    if (sound.pCodec->nForm == FORM_AAC) {
        AacConfig config;
        if (!AacConfigRead(audio, &config) || config.bytes.empty() || config.bytes.size() > kMostConfig)
            return;
        pAudio->config = config.bytes;
        pAudio->nObjectType = config.nObjectType;
        pAudio->nChannels = config.nChannels == 7 ? 8 : config.nChannels == 0 ? 2 : config.nChannels;
    }
    pSurvey->sound = sound;
}

// --- All of it ---

static int AddItem(Reading *pReading, const ClipRecord &record)
{
    ClipSurvey *pSurvey = pReading->pSurvey;
    uint64_t nSpan = record.nPos - pReading->nLastPos;
    if (pSurvey->kinds.size() >= kClipMostItems || nSpan > UINT32_MAX)
        return 0;
    uint32_t nSize = 0;
    ClipItemKind nKind = record.head.chMedia == 'v' ? MeasurePicture(pReading, record, &nSize)
                                                    : MeasureSound(pReading, record, &nSize);
    pReading->nLastPos = record.nPos;
    pSurvey->timeline.times.push_back(record.head.nTimeMs);
    pSurvey->kinds.push_back(nKind);
    pSurvey->sizes.push_back(nSize);
    pSurvey->spans.push_back(static_cast<uint32_t>(nSpan));
    pSurvey->nEnd = record.nPos + record.head.nLength;
    return 1;
}

static int ReadItems(Reading *pReading, int fd, uint64_t nFileBytes, const std::atomic<int> *pbStop)
{
    pReading->nLastPos = pReading->pSurvey->description.nDataPos;
    ClipSource source = ClipSourceFrom(fd, pReading->nLastPos, nFileBytes, kReadAhead);
    ClipRecord record;
    while (ClipSourceNext(&source, &record)) {
        if (*pbStop)
            return 0;
        if ((record.head.chMedia == 'v' || record.head.chMedia == 'a') && !AddItem(pReading, record))
            return 0;
    }
    return 1;
}

// A track of which nothing came, or whose pictures nobody could decode, is none.
static int KeepTracks(Reading *pReading)
{
    ClipSurvey *pSurvey = pReading->pSurvey;
    ClipVideo *pVideo = &pSurvey->tracks.video;
    pVideo->bSetsInside = pReading->bChanged || pReading->bBare;
    int bUnits = pVideo->pCodec && pVideo->pCodec->nForm == FORM_UNITS;
    if (bUnits)
        ClipVideoMeasure(pVideo);
    if (!pReading->bPictures || pVideo->nWidth == 0 || pVideo->nHeight == 0) {
        pVideo->pCodec = nullptr;
        for (ClipItemKind &nKind : pSurvey->kinds)
            nKind = nKind == CLIP_SOUND ? CLIP_SOUND : CLIP_LEFT_OUT;
    }
    if (!pReading->bSound) {
        pSurvey->sound = SoundForm();
        pSurvey->tracks.audio.config.clear();
    }
    if (!pVideo->bSetsInside)
        for (const ClipSetBytes &sets : pSurvey->sets)
            pSurvey->sizes[sets.nItem] -= sets.nBytes;
    return pVideo->pCodec || pSurvey->sound.pCodec;
}

// Times from the first item that is kept on.
static void MendTimes(ClipSurvey *pSurvey)
{
    std::vector<int64_t> &times = pSurvey->timeline.times;
    TimelineMend(&pSurvey->timeline);
    int64_t nBase = INT64_MAX;
    for (size_t i = 0; i < times.size(); i++)
        if (pSurvey->kinds[i] != CLIP_LEFT_OUT)
            nBase = std::min(nBase, times[i]);
    for (int64_t &nTime : times)
        nTime = std::clamp<int64_t>(nTime - nBase, 0, kMostTimeMs);
}

// Pictures that are not recorded in the order in which they are shown are decoded at the sorted times; the
// track comes so much later that none of them is late.
static void OrderPictures(ClipSurvey *pSurvey)
{
    std::vector<uint32_t> &shown = pSurvey->shown;
    for (size_t i = 0; i < pSurvey->kinds.size(); i++)
        if (pSurvey->kinds[i] == CLIP_PICTURE || pSurvey->kinds[i] == CLIP_KEY)
            shown.push_back(static_cast<uint32_t>(pSurvey->timeline.times[i]));
    pSurvey->decoded = shown;
    std::vector<uint32_t> &decoded = pSurvey->decoded;
    int bReordered = !std::is_sorted(shown.begin(), shown.end());
    if (bReordered)
        std::sort(decoded.begin(), decoded.end());
    for (size_t i = 1; i < decoded.size(); i++)
        decoded[i] = std::max(decoded[i], decoded[i - 1] + 1);  // two pictures of one time
    uint32_t nDelay = 0;
    for (size_t i = 0; bReordered && i < decoded.size(); i++)
        nDelay = std::max(nDelay, decoded[i] > shown[i] ? decoded[i] - shown[i] : 0);
    pSurvey->tracks.video.nDelayMs = nDelay;
    if (!bReordered)
        shown = decoded;
}

int ClipSurveyRead(ClipSurvey *pSurvey, int fd, uint64_t nFileBytes, const std::atomic<int> *pbStop)
{
    Reading reading;
    reading.pSurvey = pSurvey;
    if (!ClipDescriptionRead(fd, &pSurvey->description))
        return 0;
    const SdpCodec &video = pSurvey->description.codecs.video;
    const Codec *pCodec = video.pCodec;
    if (pCodec && (pCodec->nForm == FORM_UNITS || pCodec->nForm == FORM_JPEG))
        pSurvey->tracks.video.pCodec = pCodec;
    if (pCodec && pCodec->nForm == FORM_UNITS)
        ParamSetsFromFormat(&pSurvey->tracks.video.sets, pCodec->pNal, video.format);
    TakeSound(pSurvey);
    if (!ReadItems(&reading, fd, nFileBytes, pbStop) || !KeepTracks(&reading))
        return 0;
    MendTimes(pSurvey);
    OrderPictures(pSurvey);
    return 1;
}

void ClipSurveyFree(ClipSurvey *pSurvey)
{
    ClipVideoFree(&pSurvey->tracks.video);
}

}  // namespace orx
