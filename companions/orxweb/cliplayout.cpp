#include "orxweb/cliplayout.h"

#include <algorithm>
#include <utility>
#include <vector>

#include "orxweb/clipframes.h"
#include "orxweb/clipsurvey.h"

namespace orx {

constexpr int64_t kLeastKeyMs = 900;  // key frames that follow sooner share a fragment
// Of a piece. Players that find sound and pictures less than a second apart read on without jumping.
constexpr int64_t kMostPictureMs = 1000;
constexpr int64_t kMostSoundMs = 2000;          // without a picture
constexpr uint64_t kMostPieceBytes = 4U << 20;  // of the recording, until the next item
// Of a fragment without another key frame: its head is made in memory.
constexpr int64_t kMostFragmentMs = 120000;
constexpr uint64_t kMostFragmentBytes = 1U << 30;
constexpr int64_t kIndexParts = 60000;  // of a long recording fewer fragments are in the index
constexpr uint32_t kMostEntryBytes = 0x7FFFFFFF;
constexpr int64_t kForever = 1LL << 40;
constexpr uint32_t kLastPictureMs = 40;  // shown so long where there is but one

namespace {

struct Maker {
    const ClipLayoutJob *pJob = nullptr;
    ClipSurvey survey;
    ClipLayout layout;
    ClipFileOut out;
    ClipFrames frames;
    ClipFrame frame;  // the next one
    int bFrame = 0;   // there is one

    ClipPiece piece;      // that is put together; its nPos is 0 before its first item
    ClipPart part;        // its media
    int64_t nFromMs = 0;  // its first item
    uint32_t nUnits = 0;  // of it so far, those that are left out as well

    std::vector<ClipPart> parts;  // of the fragment, those that have ended
    uint64_t nBytes = 0;          // of its media
    uint32_t nFragments = 0;      // so far
    int64_t nFragmentMs = 0;      // its first item
    int bPictures = 0;            // it has some
    int bKey = 0;                 // the first of them is a key frame

    uint64_t nPos = 0;    // of the item
    size_t nPicture = 0;  // pictures so far

    std::vector<ClipIndexEntry> entries;
    int64_t nEntryMs = 0;    // where the last one begins
    uint64_t nAudioEnd = 0;  // ticks
};

}  // namespace

static int HasVideo(const Maker *p)
{
    return p->survey.tracks.video.pCodec != nullptr;
}

// --- Fragments ---

// The last frame of sound in the fragment, or null.
static ClipSample *LastFrame(Maker *p)
{
    if (!p->part.audio.samples.empty())
        return &p->part.audio.samples.back();
    for (size_t i = p->parts.size(); i-- > 0;)
        if (!p->parts[i].audio.samples.empty())
            return &p->parts[i].audio.samples.back();
    return nullptr;
}

// Within a fragment each frame follows the one before without a gap.
static void AddFrame(Maker *p)
{
    const ClipFrame &frame = p->frame;
    std::vector<ClipSample> &samples = p->part.audio.samples;
    ClipSample *pLast = LastFrame(p);
    auto nAt = static_cast<uint64_t>(frame.nAt);
    if (pLast)
        pLast->nTicks += static_cast<uint32_t>(nAt - p->nAudioEnd);
    if (samples.empty()) {
        p->part.audio.nFrom = nAt;
        p->piece.nSoundAt = frame.nSource;
        p->piece.nSkip = frame.nSkip;
    } else {
        for (uint32_t i = 0; i < frame.nDropped; i++)
            p->layout.drops.push_back({static_cast<uint32_t>(p->layout.pieces.size()), p->nUnits++});
    }
    samples.push_back({frame.nTicks, frame.nBytes, 0, 1});
    p->nAudioEnd = nAt + frame.nTicks;
    p->nUnits++;
    p->piece.nUnits += p->frames.bUnits ? 1 : 0;
    p->piece.nSound += p->frames.bUnits ? 0 : frame.nBytes;
}

// The frames that end before a time: the next piece begins with the one that is heard then. Players that
// seek its first picture look for sound that is not later.
static void TakeFrames(Maker *p, int64_t nUntilMs)
{
    nUntilMs -= p->survey.tracks.video.nDelayMs;
    while (p->bFrame && (p->frame.nAt + p->frame.nTicks) * 1000 <= nUntilMs * p->survey.tracks.audio.nRate) {
        AddFrame(p);
        p->bFrame = ClipFramesNext(&p->frames, &p->frame);
    }
}

// Times in the index rise, whatever the fragment holds, and sound is never later than its pictures.
static ClipIndexEntry NewEntry(const Maker *p)
{
    ClipIndexEntry entry;
    entry.nVideoFrom = static_cast<uint64_t>(p->nFragmentMs);
    entry.nAudioFrom = UINT64_MAX;
    for (size_t i = p->parts.size(); i-- > 0;) {
        const ClipPart &part = p->parts[i];
        entry.nVideoFrom = part.video.samples.empty() ? entry.nVideoFrom : part.video.nFrom;
        entry.nAudioFrom = part.audio.samples.empty() ? entry.nAudioFrom : part.audio.nFrom;
    }
    if (HasVideo(p))
        entry.nAudioFrom = std::min(entry.nAudioFrom, entry.nVideoFrom * p->survey.tracks.audio.nRate / 1000);
    entry.bKey = p->bKey || !HasVideo(p);
    if (!p->entries.empty()) {
        entry.nVideoFrom = std::max(entry.nVideoFrom, p->entries.back().nVideoFrom);
        entry.nAudioFrom = std::max(entry.nAudioFrom, p->entries.back().nAudioFrom);
    }
    return entry;
}

static void AddToIndex(Maker *p, uint64_t nBytes)
{
    int64_t nLeastMs = p->survey.timeline.times.back() / kIndexParts;
    int bFits = !p->entries.empty() && p->entries.back().nBytes + nBytes <= kMostEntryBytes;
    int bBegins = (p->bKey || !HasVideo(p)) && p->nFragmentMs - p->nEntryMs >= nLeastMs;
    if (p->entries.empty() || ((bBegins || !bFits) && p->entries.size() < kClipMostIndexed)) {
        p->entries.push_back(NewEntry(p));
        p->nEntryMs = p->nFragmentMs;
    }
    p->entries.back().nBytes += nBytes;
}

// Ends the piece, before an item at nUntilMs. One without samples stays open.
static int EndPiece(Maker *p, int64_t nUntilMs)
{
    TakeFrames(p, nUntilMs);
    if (p->part.video.samples.empty() && p->part.audio.samples.empty())
        return 1;
    for (const ClipRun *pRun : {&p->part.video, &p->part.audio})
        for (const ClipSample &sample : pRun->samples)
            p->piece.nBytes += sample.nBytes;
    p->nBytes += p->piece.nBytes;
    if (!p->parts.empty() && !ClipFilePutHead(&p->out, "", &p->piece))
        return 0;
    p->layout.pieces.push_back(p->piece);
    p->parts.push_back(std::move(p->part));
    p->piece = ClipPiece();
    p->part = ClipPart();
    p->nUnits = 0;
    return 1;
}

// Ends the fragment with the pieces that have ended. Its head goes to the first of them.
static int EndFragment(Maker *p)
{
    if (p->parts.empty())
        return 1;
    ClipPiece *pFirst = &p->layout.pieces[p->layout.pieces.size() - p->parts.size()];
    std::string head = ClipFragmentHead(++p->nFragments, &p->survey.tracks, p->parts);
    if (!ClipFilePutHead(&p->out, head, pFirst))
        return 0;
    pFirst->nBytes += head.size();
    AddToIndex(p, p->nBytes + head.size());
    p->parts.clear();
    p->nBytes = 0;
    p->bPictures = p->bKey = 0;
    return 1;
}

static void BeginPiece(Maker *p, size_t i)
{
    if (p->piece.nPos == 0)
        p->piece.nPos = p->nPos;
    p->nFromMs = p->survey.timeline.times[i];
    if (p->parts.empty())
        p->nFragmentMs = p->nFromMs;
}

// A key frame before which there is no picture belongs to the fragment.
static int EndsFragment(const Maker *p, size_t i)
{
    int64_t nLong = p->survey.timeline.times[i] - p->nFragmentMs;
    if (nLong >= kMostFragmentMs || p->nBytes >= kMostFragmentBytes)
        return 1;
    if (p->survey.kinds[i] != CLIP_KEY)
        return 0;
    return p->bPictures ? nLong >= kLeastKeyMs || !p->bKey : nLong >= kMostSoundMs;
}

static int EndsPiece(const Maker *p, size_t i)
{
    int64_t nLong = p->survey.timeline.times[i] - p->nFromMs;
    int bSound = p->survey.kinds[i] == CLIP_SOUND || p->part.video.samples.empty();
    return p->piece.nPos == 0 || p->nPos - p->piece.nPos >= kMostPieceBytes ||
           nLong >= (bSound ? kMostSoundMs : kMostPictureMs);
}

static void AddPicture(Maker *p, size_t i)
{
    const std::vector<uint32_t> &decoded = p->survey.decoded;
    size_t n = p->nPicture++, nLast = decoded.size() - 1;
    if (p->part.video.samples.empty())
        p->part.video.nFrom = decoded[n];
    if (!p->bPictures)
        p->bKey = p->survey.kinds[i] == CLIP_KEY;
    p->bPictures = 1;
    ClipSample sample;
    // the last picture is shown for as long as the one before
    size_t nStep = n < nLast ? n : n - 1;
    sample.nTicks = nLast > 0 ? decoded[nStep + 1] - decoded[nStep] : kLastPictureMs;
    sample.nBytes = p->survey.sizes[i];
    sample.nLater = p->survey.shown[n] + p->survey.tracks.video.nDelayMs - decoded[n];
    sample.bKey = p->survey.kinds[i] == CLIP_KEY;
    p->part.video.samples.push_back(sample);
}

// Without pictures nothing but the time tells where to cut: a block may be of many seconds.
static int MakeSoundFragments(Maker *p)
{
    while (p->bFrame && !*p->pJob->pbStop) {
        p->nFragmentMs = p->frame.nAt * 1000 / p->survey.tracks.audio.nRate;
        if (!EndPiece(p, p->nFragmentMs + kMostSoundMs) || !EndFragment(p))
            return 0;
    }
    return !*p->pJob->pbStop;
}

static int MakeFragments(Maker *p)
{
    const ClipSurvey *pSurvey = &p->survey;
    p->nPos = pSurvey->description.nDataPos;
    for (size_t i = 0; i < pSurvey->kinds.size(); i++) {
        p->nPos += pSurvey->spans[i];
        if (*p->pJob->pbStop)
            return 0;
        if (pSurvey->kinds[i] == CLIP_LEFT_OUT)
            continue;
        int bFragment = EndsFragment(p, i);
        if (bFragment || EndsPiece(p, i)) {
            if (!EndPiece(p, pSurvey->timeline.times[i]) || (bFragment && !EndFragment(p)))
                return 0;
            BeginPiece(p, i);
        }
        if (pSurvey->kinds[i] != CLIP_SOUND)
            AddPicture(p, i);
    }
    return EndPiece(p, kForever) && EndFragment(p);
}

// --- The whole ---

// The head of the .mp4 comes last: it has the index in it.
static void EndLayout(Maker *p)
{
    ClipLayout *pLayout = &p->layout;
    const ClipTracks *pTracks = &p->survey.tracks;
    const std::vector<uint32_t> &decoded = p->survey.decoded;
    uint64_t nVideoEnd = 0, nLast = decoded.size();
    if (HasVideo(p))
        nVideoEnd = decoded.back() + (nLast > 1 ? decoded[nLast - 1] - decoded[nLast - 2] : kLastPictureMs);
    uint64_t nAudioMs = pTracks->audio.nRate > 0 ? p->nAudioEnd * 1000 / pTracks->audio.nRate : 0;
    p->entries.push_back({0, nVideoEnd, p->nAudioEnd, 0});
    pLayout->head = ClipHead(pTracks, std::max(nVideoEnd, nAudioMs)) + ClipIndex(pTracks, p->entries);
    uint64_t nAt = pLayout->head.size();
    for (ClipPiece &piece : pLayout->pieces) {
        piece.nAt = nAt;
        nAt += piece.nBytes;
    }
    std::string video = ClipVideoName(&pTracks->video), audio = ClipAudioName(&pTracks->audio);
    pLayout->codecs = video + (video.empty() || audio.empty() ? "" : ",") + audio;
    pLayout->video = HasVideo(p) ? pTracks->video.pCodec->szName : "";
    pLayout->bSetsInside = static_cast<uint8_t>(pTracks->video.bSetsInside);
    pLayout->nEnd = p->survey.nEnd;
    pLayout->tag = p->pJob->tag;
    pLayout->origin = p->pJob->origin;
}

static ClipMade Make(Maker *p)
{
    const ClipLayoutJob *pJob = p->pJob;
    if (!ClipSurveyRead(&p->survey, pJob->fd, pJob->origin.nBytes, pJob->pbStop))
        return ClipMade::Nothing;
    if (!ClipFileBegin(&p->out, pJob->path))
        return ClipMade::Unwritten;
    if (!ClipFramesBegin(&p->frames, &p->survey, pJob->fd, pJob->origin.nBytes, &p->out, pJob->pbStop,
                         pJob->pfnMeanwhile))
        return ClipMade::Unwritten;
    p->bFrame = ClipFramesNext(&p->frames, &p->frame);
    if (!(HasVideo(p) ? MakeFragments(p) : MakeSoundFragments(p)))
        return ClipMade::Unwritten;
    if (p->layout.pieces.empty())
        return ClipMade::Nothing;
    EndLayout(p);
    return ClipFileEnd(&p->out, &p->layout) ? ClipMade::Done : ClipMade::Unwritten;
}

ClipMade ClipLayoutMake(const ClipLayoutJob *pJob)
{
    Maker maker;
    maker.pJob = pJob;
    ClipMade eMade = Make(&maker);
    ClipFileDrop(&maker.out);
    ClipSurveyFree(&maker.survey);
    return eMade;
}

}  // namespace orx
