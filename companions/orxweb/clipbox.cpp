#include "orxweb/clipbox.h"

#include "orxweb/clipbytes.h"

namespace orx {

constexpr uint32_t kOne = 0x00010000;   // 1.0
constexpr uint32_t kMovieRate = 1000;   // ticks a second of the movie itself
constexpr uint32_t kLanguage = 0x55C4;  // undetermined
constexpr uint32_t kKeySample = 0x02000000;
constexpr uint32_t kOtherSample = 0x01010000;

// Flags of tfhd and trun.
constexpr uint32_t kTfhdTicks = 0x8;
constexpr uint32_t kTfhdFromMoof = 0x20000;
constexpr uint32_t kTrunOffset = 0x1;
constexpr uint32_t kTrunTicks = 0x100;
constexpr uint32_t kTrunBytes = 0x200;
constexpr uint32_t kTrunFlags = 0x400;
constexpr uint32_t kTrunLater = 0x800;

static int HasVideo(const ClipTracks *pTracks)
{
    return pTracks->video.pCodec != nullptr;
}

static int HasAudio(const ClipTracks *pTracks)
{
    return !pTracks->audio.config.empty();
}

static void PutMatrix(std::string *pOut)
{
    for (uint32_t n : {kOne, 0U, 0U, 0U, kOne, 0U, 0U, 0U, 0x40000000U})
        ClipPut(pOut, 4, n);
}

static void PutMovieHead(std::string *pOut)
{
    size_t nBox = ClipFullBoxBegin(pOut, "mvhd", 0, 0);
    ClipPut(pOut, 8, 0);  // made and changed: the same bytes at all times
    ClipPut(pOut, 4, kMovieRate);
    ClipPut(pOut, 4, 0);  // of what stands in this box, which is nothing
    ClipPut(pOut, 4, kOne);
    ClipPut(pOut, 2, 0x0100);
    pOut->append(10, '\0');
    PutMatrix(pOut);
    pOut->append(24, '\0');
    ClipPut(pOut, 4, kClipAudioTrack + 1);
    ClipBoxEnd(pOut, nBox);
}

static void PutTrackHead(std::string *pOut, uint32_t nTrack, uint32_t nWidth, uint32_t nHeight)
{
    int bVideo = nTrack == kClipVideoTrack;
    size_t nBox = ClipFullBoxBegin(pOut, "tkhd", 0, 3);  // enabled, part of the presentation
    ClipPut(pOut, 8, 0);
    ClipPut(pOut, 4, nTrack);
    pOut->append(16, '\0');
    ClipPut(pOut, 4, 0);
    ClipPut(pOut, 4, bVideo ? 0 : 0x01000000);  // volume
    PutMatrix(pOut);
    ClipPut(pOut, 4, nWidth << 16);
    ClipPut(pOut, 4, nHeight << 16);
    ClipBoxEnd(pOut, nBox);
}

// Takes the delay back that decoding in another order costs.
static void PutEdit(std::string *pOut, uint32_t nDelayMs)
{
    size_t nEdit = ClipBoxBegin(pOut, "edts");
    size_t nBox = ClipFullBoxBegin(pOut, "elst", 0, 0);
    ClipPut(pOut, 4, 1);
    ClipPut(pOut, 4, 0);  // as long as there is
    ClipPut(pOut, 4, nDelayMs);
    ClipPut(pOut, 4, kOne);
    ClipBoxEnd(pOut, nBox);
    ClipBoxEnd(pOut, nEdit);
}

static void PutTables(std::string *pOut, const std::string &entry)
{
    size_t nTable = ClipBoxBegin(pOut, "stbl");
    size_t nBox = ClipFullBoxBegin(pOut, "stsd", 0, 0);
    ClipPut(pOut, 4, 1);
    *pOut += entry;
    ClipBoxEnd(pOut, nBox);
    for (const char *szType : {"stts", "stsc", "stsz", "stco"}) {
        nBox = ClipFullBoxBegin(pOut, szType, 0, 0);
        ClipPut(pOut, szType[3] == 'z' ? 8 : 4, 0);
        ClipBoxEnd(pOut, nBox);
    }
    ClipBoxEnd(pOut, nTable);
}

static void PutMediaHead(std::string *pOut, uint32_t nRate, int bVideo)
{
    size_t nBox = ClipFullBoxBegin(pOut, "mdhd", 0, 0);
    ClipPut(pOut, 8, 0);
    ClipPut(pOut, 4, nRate);
    ClipPut(pOut, 4, 0);
    ClipPut(pOut, 4, kLanguage << 16);
    ClipBoxEnd(pOut, nBox);
    nBox = ClipFullBoxBegin(pOut, "hdlr", 0, 0);
    ClipPut(pOut, 4, 0);
    *pOut += bVideo ? "vide" : "soun";
    pOut->append(13, '\0');
    ClipBoxEnd(pOut, nBox);
}

static void PutMedia(std::string *pOut, uint32_t nRate, int bVideo, const std::string &entry)
{
    size_t nMedia = ClipBoxBegin(pOut, "mdia");
    PutMediaHead(pOut, nRate, bVideo);
    size_t nInfo = ClipBoxBegin(pOut, "minf");
    size_t nBox = ClipFullBoxBegin(pOut, bVideo ? "vmhd" : "smhd", 0, bVideo ? 1 : 0);
    ClipPut(pOut, bVideo ? 8 : 4, 0);
    ClipBoxEnd(pOut, nBox);
    nBox = ClipBoxBegin(pOut, "dinf");
    size_t nReferences = ClipFullBoxBegin(pOut, "dref", 0, 0);
    ClipPut(pOut, 4, 1);
    size_t nUrl = ClipFullBoxBegin(pOut, "url ", 0, 1);  // in this file
    ClipBoxEnd(pOut, nUrl);
    ClipBoxEnd(pOut, nReferences);
    ClipBoxEnd(pOut, nBox);
    PutTables(pOut, entry);
    ClipBoxEnd(pOut, nInfo);
    ClipBoxEnd(pOut, nMedia);
}

static void PutTracks(std::string *pOut, const ClipTracks *pTracks)
{
    const ClipVideo *pVideo = &pTracks->video;
    if (HasVideo(pTracks)) {
        size_t nBox = ClipBoxBegin(pOut, "trak");
        PutTrackHead(pOut, kClipVideoTrack, pVideo->nWidth, pVideo->nHeight);
        if (pVideo->nDelayMs > 0)
            PutEdit(pOut, pVideo->nDelayMs);
        PutMedia(pOut, kClipVideoRate, 1, ClipVideoEntry(pVideo));
        ClipBoxEnd(pOut, nBox);
    }
    if (HasAudio(pTracks)) {
        size_t nBox = ClipBoxBegin(pOut, "trak");
        PutTrackHead(pOut, kClipAudioTrack, 0, 0);
        PutMedia(pOut, pTracks->audio.nRate, 0, ClipAudioEntry(&pTracks->audio));
        ClipBoxEnd(pOut, nBox);
    }
}

static void PutDefaults(std::string *pOut, uint32_t nTrack, uint32_t nFlags)
{
    size_t nBox = ClipFullBoxBegin(pOut, "trex", 0, 0);
    ClipPut(pOut, 4, nTrack);
    ClipPut(pOut, 4, 1);
    ClipPut(pOut, 8, 0);
    ClipPut(pOut, 4, nFlags);
    ClipBoxEnd(pOut, nBox);
}

std::string ClipHead(const ClipTracks *pTracks, uint64_t nDurationMs)
{
    std::string out;
    size_t nBox = ClipBoxBegin(&out, "ftyp");
    out += "iso6";
    ClipPut(&out, 4, 0);
    out += "iso6mp41";
    ClipBoxEnd(&out, nBox);
    size_t nMovie = ClipBoxBegin(&out, "moov");
    PutMovieHead(&out);
    PutTracks(&out, pTracks);
    size_t nExtends = ClipBoxBegin(&out, "mvex");
    if (nDurationMs > 0) {
        nBox = ClipFullBoxBegin(&out, "mehd", 1, 0);
        ClipPut(&out, 8, nDurationMs);
        ClipBoxEnd(&out, nBox);
    }
    if (HasVideo(pTracks))
        PutDefaults(&out, kClipVideoTrack, kOtherSample);
    if (HasAudio(pTracks))
        PutDefaults(&out, kClipAudioTrack, kKeySample);
    ClipBoxEnd(&out, nExtends);
    ClipBoxEnd(&out, nMovie);
    return out;
}

// nBehind: bytes between this box and the first fragment.
static std::string TrackIndex(uint32_t nTrack, uint32_t nRate, uint64_t ClipIndexEntry::*pFrom,
                              const std::vector<ClipIndexEntry> &entries, uint64_t nBehind)
{
    std::string out;
    size_t nEntries = entries.size() - 1;
    size_t nBox = ClipFullBoxBegin(&out, "sidx", 1, 0);
    ClipPut(&out, 4, nTrack);
    ClipPut(&out, 4, nRate);
    ClipPut(&out, 8, entries[0].*pFrom);
    ClipPut(&out, 8, nBehind);
    ClipPut(&out, 4, nEntries);
    for (size_t i = 0; i < nEntries; i++) {
        uint64_t nFrom = entries[i].*pFrom, nTo = entries[i + 1].*pFrom;
        ClipPut(&out, 4, entries[i].nBytes & 0x7FFFFFFF);
        ClipPut(&out, 4, nTo > nFrom ? nTo - nFrom : 0);
        ClipPut(&out, 4, entries[i].bKey ? 0x90000000 : 0);  // begins with a sample that stands alone
    }
    ClipBoxEnd(&out, nBox);
    return out;
}

std::string ClipIndex(const ClipTracks *pTracks, const std::vector<ClipIndexEntry> &entries)
{
    std::string audio, video;
    if (HasAudio(pTracks))
        audio = TrackIndex(kClipAudioTrack, pTracks->audio.nRate, &ClipIndexEntry::nAudioFrom, entries, 0);
    if (HasVideo(pTracks))
        video =
            TrackIndex(kClipVideoTrack, kClipVideoRate, &ClipIndexEntry::nVideoFrom, entries, audio.size());
    return video + audio;
}

static uint32_t BytesOf(const ClipRun &run)
{
    uint32_t nBytes = 0;
    for (const ClipSample &sample : run.samples)
        nBytes += sample.nBytes;
    return nBytes;
}

// Runs of one track in a fragment that is put together.
struct RunWriter {
    ClipRun ClipPart::*pRun;
    uint32_t nTrack = 0;
    uint32_t nFields = 0;         // kTrun...
    std::vector<size_t> offsets;  // where the places of their media are to be put, once they are known
};

static void PutRun(std::string *pOut, const ClipRun &run, RunWriter *pWriter)
{
    size_t nBox = ClipFullBoxBegin(pOut, "trun", 0, pWriter->nFields | kTrunOffset | kTrunBytes);
    ClipPut(pOut, 4, run.samples.size());
    pWriter->offsets.push_back(pOut->size());
    ClipPut(pOut, 4, 0);
    for (const ClipSample &sample : run.samples) {
        if (pWriter->nFields & kTrunTicks)
            ClipPut(pOut, 4, sample.nTicks);
        ClipPut(pOut, 4, sample.nBytes);
        if (pWriter->nFields & kTrunFlags)
            ClipPut(pOut, 4, sample.bKey ? kKeySample : kOtherSample);
        if (pWriter->nFields & kTrunLater)
            ClipPut(pOut, 4, sample.nLater);
    }
    ClipBoxEnd(pOut, nBox);
}

// Where a track has samples of one length alone, that is said once.
static void PutTrack(std::string *pOut, const std::vector<ClipPart> &parts, RunWriter *pWriter)
{
    const ClipRun *pFirst = nullptr;
    for (const ClipPart &part : parts)
        if (!pFirst && !(part.*pWriter->pRun).samples.empty())
            pFirst = &(part.*pWriter->pRun);
    if (!pFirst)
        return;
    uint32_t nTicks = pFirst->samples[0].nTicks;
    int bEven = !(pWriter->nFields & kTrunTicks);
    for (const ClipPart &part : parts)
        for (const ClipSample &sample : (part.*pWriter->pRun).samples)
            bEven &= sample.nTicks == nTicks;
    pWriter->nFields |= bEven ? 0 : kTrunTicks;
    size_t nTraf = ClipBoxBegin(pOut, "traf");
    size_t nBox = ClipFullBoxBegin(pOut, "tfhd", 0, kTfhdFromMoof | (bEven ? kTfhdTicks : 0));
    ClipPut(pOut, 4, pWriter->nTrack);
    if (bEven)
        ClipPut(pOut, 4, nTicks);
    ClipBoxEnd(pOut, nBox);
    nBox = ClipFullBoxBegin(pOut, "tfdt", 1, 0);
    ClipPut(pOut, 8, pFirst->nFrom);
    ClipBoxEnd(pOut, nBox);
    for (const ClipPart &part : parts)
        if (!(part.*pWriter->pRun).samples.empty())
            PutRun(pOut, part.*pWriter->pRun, pWriter);
    ClipBoxEnd(pOut, nTraf);
}

// Puts in where the media of all runs begin. Returns where they end.
static uint32_t PutPlaces(std::string *pOut, const std::vector<ClipPart> &parts, const RunWriter *pVideo,
                          const RunWriter *pAudio, uint32_t nAt)
{
    size_t nVideo = 0, nAudio = 0;
    for (const ClipPart &part : parts) {
        if (!part.audio.samples.empty())
            PutBe(pOut->data() + pAudio->offsets[nAudio++], 4, nAt);
        nAt += BytesOf(part.audio);
        if (!part.video.samples.empty())
            PutBe(pOut->data() + pVideo->offsets[nVideo++], 4, nAt);
        nAt += BytesOf(part.video);
    }
    return nAt;
}

std::string ClipFragmentHead(uint32_t nNumber, const ClipTracks *pTracks, const std::vector<ClipPart> &parts)
{
    std::string out;
    uint32_t nLater = pTracks->video.nDelayMs > 0 ? kTrunLater : 0;
    RunWriter video{&ClipPart::video, kClipVideoTrack, kTrunTicks | kTrunFlags | nLater, {}};
    RunWriter audio{&ClipPart::audio, kClipAudioTrack, 0, {}};
    size_t nBox = ClipBoxBegin(&out, "moof");
    size_t nHead = ClipFullBoxBegin(&out, "mfhd", 0, 0);
    ClipPut(&out, 4, nNumber);
    ClipBoxEnd(&out, nHead);
    PutTrack(&out, parts, &video);
    PutTrack(&out, parts, &audio);
    ClipBoxEnd(&out, nBox);
    auto nMedia = static_cast<uint32_t>(out.size()) + kClipDataHead;
    uint32_t nEnd = PutPlaces(&out, parts, &video, &audio, nMedia);
    ClipPut(&out, 4, kClipDataHead + nEnd - nMedia);
    out += "mdat";
    return out;
}

}  // namespace orx
