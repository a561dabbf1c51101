#include "survey.h"

#include <cinttypes>
#include <cstdarg>
#include <cstdio>

#include "base/bytes.h"
#include "record/depacketise.h"
#include "record/jpegparts.h"
#include "record/nalunit.h"

namespace orx {

constexpr size_t kMaxFaults = 20;  // enough to see what happened

namespace {

// What is compared while the samples pass.
struct Check {
    Recording *pRecording;
    Survey *pSurvey;
    uint32_t nNextEntry = 0;  // of the index
    uint32_t nLastVideoMs = 0;
};

}  // namespace

__attribute__((format(printf, 2, 3))) static void Fault(Survey *pSurvey, const char *szFormat, ...)
{
    if (pSurvey->faults.size() >= kMaxFaults)
        return;
    char szText[200];
    va_list args;
    va_start(args, szFormat);
    vsnprintf(szText, sizeof(szText), szFormat, args);  // NOLINT(clang-analyzer-valist.Uninitialized)
    va_end(args);
    pSurvey->faults.push_back(szText);
}

static int AreUnitsWhole(const Sample &sample)
{
    ByteReader in{sample.pData, sample.nBytes};
    uint32_t nUnit = 0;
    while (NalNext(&in, &nUnit)) {
    }
    return sample.nBytes > 0 && in.nLeft == 0;
}

// A key frame holds what a decoder begins with, and what begins with parameter sets is one.
static int IsFlagRight(const Codec *pCodec, const Sample &sample)
{
    NalSummary found = NalSummarise(pCodec->pNal, sample.pData, sample.nBytes);
    return IsKeyFrame(sample.head) ? found.bKey : !found.bSetFirst;
}

static int IsJpegWhole(const Sample &sample)
{
    if (sample.nBytes >= 2 && GetBe(sample.pData, 2) == 0xFFD8)
        return 1;
    JpegFragments in{sample.pData, sample.nBytes};
    JpegFragment fragment;
    while (in.nLeft > 0)
        if (!JpegNextFragment(&in, &fragment))
            return 0;
    return sample.nBytes > 0;
}

static int IsAmrWhole(const Sample &sample, int bWideband)
{
    ByteReader in{sample.pData, sample.nBytes};
    while (in.nLeft > 0) {
        uint32_t nFrame = AmrFrameBytes(bWideband, in.p[0] >> 3);
        if (nFrame == 0 || !ReadBytes(&in, nFrame))
            return 0;
    }
    return 1;
}

static void CheckVideo(Check *pCheck, const Sample &sample)
{
    Survey *pSurvey = pCheck->pSurvey;
    SampleForm nForm = FormOf(pCheck->pRecording->codecs.video);
    if (pSurvey->nVideo == 1 && !IsKeyFrame(sample.head))
        Fault(pSurvey, "the first picture is no key frame");
    if (pSurvey->nVideo > 1 && sample.head.nTimeMs < pCheck->nLastVideoMs && nForm == FORM_JPEG)
        Fault(pSurvey, "picture at byte %" PRIu64 ": time runs back from %u to %u ms", sample.nPos,
              pCheck->nLastVideoMs, sample.head.nTimeMs);
    pCheck->nLastVideoMs = sample.head.nTimeMs;
    int bWhole = nForm == FORM_UNITS ? AreUnitsWhole(sample) : nForm == FORM_JPEG ? IsJpegWhole(sample) : 1;
    if (!bWhole)
        Fault(pSurvey, "picture at byte %" PRIu64 " (%u ms): its parts do not fill it", sample.nPos,
              sample.head.nTimeMs);
    else if (nForm == FORM_UNITS && !IsFlagRight(pCheck->pRecording->codecs.video.pCodec, sample))
        Fault(pSurvey, "picture at byte %" PRIu64 " (%u ms): wrong key-frame flag", sample.nPos,
              sample.head.nTimeMs);
}

static void CheckAudio(Check *pCheck, const Sample &sample)
{
    const SdpCodec &audio = pCheck->pRecording->codecs.audio;
    if (FormOf(audio) == FORM_AMR && !IsAmrWhole(sample, CodecIsWideband(audio.pCodec)))
        Fault(pCheck->pSurvey, "audio at byte %" PRIu64 " (%u ms): broken AMR frames", sample.nPos,
              sample.head.nTimeMs);
    if (FormOf(audio) == FORM_AAC && !AreUnitsWhole(sample))
        Fault(pCheck->pSurvey, "audio at byte %" PRIu64 " (%u ms): its units do not fill it", sample.nPos,
              sample.head.nTimeMs);
}

// Every entry names a key frame and its time, in the order of the file.
static void CheckIndex(Check *pCheck, const Sample &sample)
{
    const ZMFReader *pReader = pCheck->pRecording->pReader;
    while (pCheck->nNextEntry < pReader->nIndex) {
        const ZMFIndexEntry &entry = pReader->pIndex[pCheck->nNextEntry];
        if (entry.nPos > sample.nPos)
            return;
        if (entry.nPos != sample.nPos || !IsKeyFrame(sample.head) || entry.nTimeMs != sample.head.nTimeMs)
            Fault(pCheck->pSurvey, "index entry %u names no key frame at %u ms", pCheck->nNextEntry,
                  entry.nTimeMs);
        pCheck->nNextEntry++;
    }
}

static void CountSample(Check *pCheck, const Sample &sample)
{
    Survey *pSurvey = pCheck->pSurvey;
    if (sample.head.nTimeMs > pSurvey->nLastTimeMs)
        pSurvey->nLastTimeMs = sample.head.nTimeMs;
    switch (sample.head.chMedia) {
        case 'v':
            pSurvey->nVideo++;
            pSurvey->nKeys += IsKeyFrame(sample.head) ? 1 : 0;
            pSurvey->nVideoBytes += sample.nBytes;
            if (sample.nBytes > pSurvey->nLargest)
                pSurvey->nLargest = sample.nBytes;
            CheckVideo(pCheck, sample);
            break;
        case 'a':
            pSurvey->nAudio++;
            pSurvey->nAudioBytes += sample.nBytes;
            CheckAudio(pCheck, sample);
            break;
        case 't':
            pSurvey->nText++;
            break;
        case 'u':
            pSurvey->nUser++;
            break;
        default:
            pSurvey->nOther++;
            Fault(pSurvey, "record at byte %" PRIu64 ": unknown kind 0x%02x", sample.nPos,
                  static_cast<unsigned>(static_cast<uint8_t>(sample.head.chMedia)));
    }
}

static void CompareCount(Survey *pSurvey, const char *szWhat, uint32_t nHeader, uint32_t nCounted)
{
    if (nHeader != nCounted)
        Fault(pSurvey, "the header says %u %s, there are %u", nHeader, szWhat, nCounted);
}

static void CheckHeader(Check *pCheck)
{
    const ZMFReader *pReader = pCheck->pRecording->pReader;
    const ZMFileHeader *pHead = &pReader->head;
    Survey *pSurvey = pCheck->pSurvey;
    if (pHead->nVersion != kZmfVersion && pHead->nVersion != kZmfWideVersion)
        pSurvey->notes.push_back("version " + std::to_string(pHead->nVersion) + " is not known");
    if (pHead->nIdxSize > 0 && pCheck->nNextEntry < pReader->nIndex && pSurvey->nVideo > 0)
        Fault(pSurvey, "index entry %u points behind the last record", pCheck->nNextEntry);
    if (pReader->bInterrupted) {
        // without a duration a file that was closed is known by nothing, but lacks nothing either
        pSurvey->bInterrupted = pReader->uDuration > 0 || pSurvey->nTail > 0;
        if (pSurvey->bInterrupted)
            pSurvey->notes.push_back("it was never closed; duration and counts are those found");
        if (pSurvey->nTail > 0)
            pSurvey->notes.push_back(std::to_string(pSurvey->nTail) +
                                     " bytes of an unfinished record at the end");
        return;
    }
    if (pSurvey->nTail > 0)
        Fault(pSurvey, "%" PRIu64 " bytes at the end are no whole record", pSurvey->nTail);
    CompareCount(pSurvey, "pictures", pHead->uVideoSamples, pSurvey->nVideo);
    CompareCount(pSurvey, "key frames", pHead->uKeyFrames, pSurvey->nKeys);
    CompareCount(pSurvey, "texts", pHead->uTextSamples, pSurvey->nText);
    CompareCount(pSurvey, "messages", pHead->uUserSamples, pSurvey->nUser);
    if (pHead->uDuration < pSurvey->nLastTimeMs)
        Fault(pSurvey, "the header says %u ms, the last sample is at %u ms", pHead->uDuration,
              pSurvey->nLastTimeMs);
}

Verdict SurveyVerdict(const Survey &survey)
{
    if (!survey.faults.empty())
        return VERDICT_DAMAGED;
    if (survey.nVideo == 0)
        return VERDICT_EMPTY;
    return survey.bInterrupted ? VERDICT_INTERRUPTED : VERDICT_SOUND;
}

const char *VerdictName(Verdict nVerdict)
{
    switch (nVerdict) {
        case VERDICT_SOUND:
            return "sound";
        case VERDICT_INTERRUPTED:
            return "interrupted";
        case VERDICT_EMPTY:
            return "without a picture";
        case VERDICT_DAMAGED:
            return "damaged";
        case VERDICT_UNREADABLE:
            break;
    }
    return "cannot be read";
}

void SurveyRecording(Recording *pRecording, Survey *pOut)
{
    Check check{pRecording, pOut};
    Sample sample;
    while (RecordingNext(pRecording, &sample, "reading")) {
        CountSample(&check, sample);
        CheckIndex(&check, sample);
    }
    uint64_t nFile = pRecording->pReader->nFileBytes;
    pOut->nTail = nFile > pRecording->nPos ? nFile - pRecording->nPos : 0;
    if (nFile < pRecording->nPos)
        Fault(pOut, "the file ends before its first record");
    CheckHeader(&check);
}

}  // namespace orx
