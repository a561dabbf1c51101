#include "record/zmfwriter.h"

#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <new>

#include "base/assertion.h"
#include "base/console.h"
#include "base/printable.h"
#include "base/textbuf.h"
#include "record/aac.h"
#include "record/confine.h"
#include "record/recordevents.h"
#include "record/sdpscan.h"
#include "runtime/clock.h"

namespace orx {

constexpr uint32_t kPauseGapMs = 20;  // later than the last sample, and no more than pictures are apart
// Records after the time base among which times may lie before it: sound and picture of one moment come one
// after the other.
constexpr uint32_t kEarlyRecords = 6;
constexpr int32_t kAudioGapMs = 10;  // between samples; less is rounding
constexpr char kAlarmPrefix[] = "ALARM:";
constexpr uint32_t kRollAheadMs =
    0x7FFFFFFF - 3600 * 1000;                            // of file time: a key frame is due within the hour
constexpr int64_t kLastFileMs = 0x7FFFFFFF - 60 * 1000;  // here a file ends even without one
constexpr int32_t kBackMs = 1000;       // times are mixed by less, as tracks come over different ways
constexpr int64_t kClockStepMs = 2000;  // by which wall and steady clock may part between two looks
constexpr int kRoomStepsAtOnce = 64;
constexpr int kRoomStepsPerTick = 8;
constexpr int64_t kRoomRetryMs = 10000;
constexpr int64_t kSyncEveryMs = 4500;  // each fifth tick, whatever its jitter

// Whether what cannot be recorded is left out, and all else goes on.
static int IsPatient(const ZMFWriter *pWriter)
{
    return pWriter->rules.bStandardPushers || pWriter->rules.bNeverLose;
}

static int TakeSample(void *pContext, const uint8_t *pData, uint32_t nBytes, uint32_t nTimeMs, uint32_t nType)
{
    return ZMFWriterWriteSample(static_cast<ZMFWriter *>(pContext), pData, nBytes, nTimeMs, nType);
}

static ZMFWriter *NewWriter(int nKind, const char *szLabel, const RecordRules *pRules)
{
    if (nKind < RECORD_SCHEDULED || nKind > RECORD_MANUAL)
        return nullptr;
    auto *pWriter = new (std::nothrow) ZMFWriter;
    if (!pWriter)
        return nullptr;
    if (pRules)
        pWriter->rules = *pRules;
    pWriter->file.pRules = &pWriter->rules;
    pWriter->file.head.nRecordKind = static_cast<uint16_t>(nKind);
    ZMFWriterSetLabel(pWriter, szLabel);
    pWriter->video.pfnSample = pWriter->audio.pfnSample = TakeSample;
    pWriter->video.pContext = pWriter->audio.pContext = pWriter;
    return pWriter;
}

// Keeps the writer below a directory; null: lets it go anywhere.
static int Confine(ZMFWriter *pWriter, const char *szBelow)
{
    pWriter->file.szBelow = szBelow ? strdup(szBelow) : nullptr;
    return !szBelow || pWriter->file.szBelow;
}

// Makes the directory of a path that was built from the date; without a program it would be the root's.
static int MakeDirBelow(const ZMFWriter *pWriter, const char *szPath)
{
    char szDir[kStoragePathSize];
    return pWriter->szProgram[0] && StorageDirOf(szDir, sizeof(szDir), szPath) &&
           ConfineMakeDir(pWriter->szRoot, szDir + strlen(pWriter->szRoot));
}

// Builds the path of the next file. Returns 1 or 0.
static int NextPath(const ZMFWriter *pWriter, char *szPath, size_t nSize)
{
    int nKind = pWriter->file.head.nRecordKind;
    if (!pWriter->szRoot)
        return RecordFileNextPath(&pWriter->file, szPath, nSize);
    if (!pWriter->file.szBelow)
        return StorageNextPath(szPath, nSize, pWriter->szRoot, pWriter->szProgram, nKind,
                               pWriter->rules.bNeverLose);
    return StorageNamePath(szPath, nSize, pWriter->szRoot, pWriter->szProgram, nKind) &&
           MakeDirBelow(pWriter, szPath);
}

ZMFWriter *ZMFWriterCreate(const char *szRoot, const char *szProgram, int nKind, const char *szLabel,
                           int bConfined, const RecordRules *pRules)
{
    char szPath[kStoragePathSize] = "";
    ZMFWriter *pWriter = szRoot && szProgram ? NewWriter(nKind, szLabel, pRules) : nullptr;
    if (!pWriter)
        return nullptr;
    pWriter->szRoot = strdup(szRoot);
    pWriter->szProgram = strdup(szProgram);
    if (pWriter->szRoot && pWriter->szProgram && Confine(pWriter, bConfined ? szRoot : nullptr) &&
        NextPath(pWriter, szPath, sizeof(szPath)) && RecordFileOpen(&pWriter->file, szPath))
        return pWriter;
    ZMFWriterFree(pWriter);
    return nullptr;
}

ZMFWriter *ZMFWriterCreateFile(const char *szFile, int nKind, const char *szLabel, const char *szBelow,
                               const RecordRules *pRules)
{
    ZMFWriter *pWriter = NewWriter(nKind, szLabel, pRules);
    if (pWriter && Confine(pWriter, szBelow) && RecordFileOpen(&pWriter->file, szFile))
        return pWriter;
    ZMFWriterFree(pWriter);
    return nullptr;
}

// Gives back everything but the record itself, which the caller still holds.
static void Release(ZMFWriter *pWriter)
{
    ZMFWriterStop(pWriter);
    DepacketiserReset(&pWriter->video);
    DepacketiserReset(&pWriter->audio);
    RecordFileFree(&pWriter->file);
    StorageRoomFree(&pWriter->room);
    for (char **pp : {&pWriter->szRoot, &pWriter->szProgram}) {
        free(*pp);
        *pp = nullptr;
    }
    free(pWriter->pAudio);
    pWriter->pAudio = nullptr;
}

void ZMFWriterFree(ZMFWriter *pWriter)
{
    if (!pWriter)
        return;
    if (!pWriter->file.pszSdp) {
        ZMFWriterDiscard(pWriter);
        return;
    }
    Release(pWriter);
    delete pWriter;
}

void ZMFWriterDiscard(ZMFWriter *pWriter)
{
    if (!pWriter)
        return;
    ZMFWriterStop(pWriter);
    if (pWriter->eState == WriterState::Running)  // else it is one that was finished
        RecordFileRemove(&pWriter->file);
    Release(pWriter);
    delete pWriter;
}

int ZMFWriterSetSdp(ZMFWriter *pWriter, const char *szSdp)
{
    if (!szSdp || !*szSdp)
        return 0;
    ORX_ASSERT(pWriter->file.pszSdp == nullptr, "pWriter->pszSdp==((void *)0)");
    if (!RecordFileSetSdp(&pWriter->file, szSdp))
        return 0;
    SdpCodecs codecs;
    SdpScanCodecs(szSdp, &codecs, pWriter->rules.bWideUnits ? CODEC_WIDE_RECORDING : CODEC_RECORDING);
    pWriter->pfnVideo = SdpDepacketiser(&codecs.video, "Video");
    pWriter->pfnAudio = SdpDepacketiser(&codecs.audio, "Audio");
    pWriter->video.rules = pWriter->audio.rules = pWriter->rules;
    if (codecs.video.pCodec && codecs.video.pCodec->pNal)
        ParamSetsFromFormat(&pWriter->video.sets, codecs.video.pCodec->pNal, codecs.video.format);
    pWriter->audio.bWideband = CodecIsWideband(codecs.audio.pCodec);
    pWriter->audio.nTickRate = codecs.audio.nRate;
    pWriter->audio.nUnitTicks = AacUnitTicks(codecs.audio.format, codecs.audio.nRate);
    return 1;
}

int ZMFWriterSetAppData(ZMFWriter *pWriter, uint32_t nBytes, const void *pData)
{
    return RecordFileSetAppData(&pWriter->file, nBytes, pData);
}

void ZMFWriterSetLabel(ZMFWriter *pWriter, const char *szLabel)
{
    char *szTo = pWriter->file.head.szLabel;
    size_t nLen = szLabel ? strnlen(szLabel, sizeof(pWriter->file.head.szLabel)) : 0;
    memset(szTo, 0, sizeof(pWriter->file.head.szLabel));
    if (nLen > 0)
        memcpy(szTo, szLabel, nLen);
}

int ZMFWriterSetLimits(ZMFWriter *pWriter, uint32_t nSecondsPerFile, uint32_t nTotalSeconds)
{
    pWriter->nSecondsPerFile = nSecondsPerFile;
    pWriter->nTotalSeconds = nTotalSeconds;
    return 1;
}

// Sees to it that the space is kept free for a file in szDir, in up to nSteps steps; where that is not
// enough, ZMFWriterTick goes on. Returns 1, or 0 when there is no room to be had.
static int MakeRoom(ZMFWriter *pWriter, const char *szDir, int nSteps)
{
    const RecordRules *pRules = &pWriter->rules;
    RoomResult eResult = RoomResult::More;
    if (pWriter->room.eStage == RoomStage::Idle)
        eResult = StorageRoomBegin(&pWriter->room, szDir, pWriter->szRoot != nullptr, pWriter->nSpaceInMB,
                                   pWriter->bDeleteOldest, pRules, pWriter->szRoot);
    while (eResult == RoomResult::More && (nSteps-- > 0 || !pRules->bNeverLose))
        eResult = StorageRoomStep(&pWriter->room);
    return eResult != RoomResult::None;
}

RoomResult ZMFWriterReserveStep(ZMFWriter *pWriter, uint32_t nSpaceInMB, int bDeleteOldest)
{
    ORX_ASSERT(nSpaceInMB > 0, "nSpaceInMB > 0");
    if (pWriter->room.eStage != RoomStage::Idle)
        return StorageRoomStep(&pWriter->room);
    pWriter->nSpaceInMB = nSpaceInMB;
    pWriter->bDeleteOldest = bDeleteOldest;
    char szDir[kStoragePathSize];
    if (!StorageDirOf(szDir, sizeof(szDir), pWriter->file.szFile))
        return RoomResult::There;
    return StorageRoomBegin(&pWriter->room, szDir, pWriter->szRoot != nullptr, nSpaceInMB, bDeleteOldest,
                            &pWriter->rules, pWriter->szRoot);
}

int ZMFWriterSetReserveMinSpace(ZMFWriter *pWriter, uint32_t nSpaceInMB, int bDeleteOldest)
{
    RoomResult eResult;
    do
        eResult = ZMFWriterReserveStep(pWriter, nSpaceInMB, bDeleteOldest);
    while (eResult == RoomResult::More);
    return eResult != RoomResult::None;
}

int ZMFWriterWriteHead(ZMFWriter *pWriter)
{
    int bWritten = RecordFileWriteHead(&pWriter->file);
    pWriter->nFileStartMs = RecordSteadyMs();
    if (pWriter->tRecordStart == 0) {
        pWriter->tRecordStart = pWriter->file.tFileStart;
        pWriter->nRecordStartMs = pWriter->nFileStartMs;
    }
    return bWritten;
}

// Writes the audio block that is gathered. Returns 1 or -1.
static int FlushAudio(ZMFWriter *pWriter)
{
    uint32_t nBytes = pWriter->nAudioDataBytes;
    pWriter->nAudioDataBytes = 0;
    if (nBytes == 0)
        return 1;
    return RecordFileWriteRecord(&pWriter->file, pWriter->pAudio, nBytes, pWriter->nAudioTime,
                                 pWriter->nAudioType);
}

static void SayFile(const ZMFWriter *pWriter, EventLevel eLevel, const char *szEvent, const char *szReason,
                    int nErrno)
{
    RecordSay(eLevel, szEvent, {pWriter->szProgram, pWriter->file.szFile, szReason, nErrno});
}

void ZMFWriterStop(ZMFWriter *pWriter)
{
    RecordFile *pFile = &pWriter->file;
    if (!RecordFileIsOpen(pFile))
        return;
    if (pFile->uDataBeginOffset != 0 && FlushAudio(pWriter) < 1)
        print("ZMFWriterStop(%s): the last audio is lost!\r\n", PrintableText(pFile->szFile).sz);
    if (!RecordFileClose(pFile)) {
        print("ZMFWriterStop(%s): write error!\r\n", PrintableText(pFile->szFile).sz);
        SayFile(pWriter, EventLevel::Error, "recording.failed", "its end could not be written",
                pFile->out.nErrno);
    }
    pWriter->nAudioDataBytes = 0;
}

int ZMFWriterCreateNextFile(ZMFWriter *pWriter)
{
    char szPath[kStoragePathSize] = "";
    char szDir[kStoragePathSize];
    ORX_ASSERT(!RecordFileIsOpen(&pWriter->file), "pWriter->pFile==((void *)0)");
    if (!NextPath(pWriter, szPath, sizeof(szPath)) || !StorageDirOf(szDir, sizeof(szDir), szPath))
        return -1;
    if (pWriter->nSpaceInMB > 0 && !MakeRoom(pWriter, szDir, kRoomStepsAtOnce)) {
        // The clean-up may have taken the new file's own, still empty directory with it.
        return access(szDir, F_OK) == 0 ? 0 : -1;
    }
    // A directory whose last file was deleted to make the room went with it.
    if (!pWriter->file.szBelow)
        StorageMakeDir(szDir);
    else if (pWriter->szRoot)
        MakeDirBelow(pWriter, szPath);
    if (!RecordFileOpen(&pWriter->file, szPath)) {
        if (!pWriter->rules.bNeverLose)
            Release(pWriter);
        return -1;
    }
    pWriter->bRollDue = 0;
    pWriter->nTimeStampBase = 0;
    pWriter->bRebase = 0;
    ORX_ASSERT(pWriter->video.nBytes == 0, "pWriter->nBytes==0");
    ORX_ASSERT(pWriter->nAudioDataBytes == 0, "pWriter->nAudioDataBytes==0");
    if (RecordFileBeginNext(&pWriter->file) && ZMFWriterWriteHead(pWriter)) {
        SayFile(pWriter, EventLevel::Info, "recording.roll", nullptr, 0);
        return 1;
    }
    if (pWriter->rules.bNeverLose) {  // it is tried again
        ZMFWriterStop(pWriter);
        RecordFileRemove(&pWriter->file);
        pWriter->file.head.nFileSeq--;
    }
    return -1;
}

// The seconds since *ptStart. A wall clock that was set back counts from anew, so that a file never grows
// until that time comes round again.
static uint32_t WallSecondsSince(time_t *ptStart)
{
    time_t tNow = RecordTime();
    if (tNow < *ptStart)
        *ptStart = tNow;
    return static_cast<uint32_t>(tNow - *ptStart);
}

// The seconds since a moment that both clocks tell. Where nothing is to be lost the steady one counts.
static uint32_t SecondsSince(const ZMFWriter *pWriter, time_t *ptStart, int64_t nStartMs)
{
    if (pWriter->rules.bNeverLose)
        return static_cast<uint32_t>((RecordSteadyMs() - nStartMs) / 1000);
    return WallSecondsSince(ptStart);
}

static int IsLimitOver(ZMFWriter *pWriter)
{
    return pWriter->nTotalSeconds > 0 &&
           SecondsSince(pWriter, &pWriter->tRecordStart, pWriter->nRecordStartMs) > pWriter->nTotalSeconds;
}

// A wall clock that was set begins a new file, whose name and start time are right again.
static void CompareClocks(ZMFWriter *pWriter)
{
    int64_t nNowMs = RecordSteadyMs();
    time_t tNow = RecordTime();
    int64_t nApart = (int64_t{tNow} - pWriter->tLook) * 1000 - (nNowMs - pWriter->nLookMs);
    if (pWriter->nLookMs != 0 && (nApart > kClockStepMs || nApart < -kClockStepMs))
        pWriter->bRollDue = 1;
    pWriter->nLookMs = nNowMs;
    pWriter->tLook = tNow;
}

static int IsSpaceShort(const ZMFWriter *pWriter, int32_t nMoreMB)
{
    char szDir[kStoragePathSize];
    return pWriter->nSpaceInMB > 0 && StorageDirOf(szDir, sizeof(szDir), pWriter->file.szFile) &&
           IsEnoughFreeDiskSpace(szDir, pWriter->nSpaceInMB + static_cast<uint32_t>(nMoreMB)) == 0;
}

// Ends the file that is open; one without a record is not worth its name.
static void StopFile(ZMFWriter *pWriter)
{
    int bOpen = RecordFileIsOpen(&pWriter->file);
    ZMFWriterStop(pWriter);
    if (!bOpen || pWriter->file.uSampleCount > 0)
        return;
    RecordFileRemove(&pWriter->file);
    pWriter->file.head.nFileSeq--;
}

// Says once what keeps the recording from going on.
static void PauseForRoom(ZMFWriter *pWriter)
{
    StopFile(pWriter);
    pWriter->eState = WriterState::AwaitRoom;
    pWriter->nRoomRetryMs = RecordSteadyMs() + kRoomRetryMs;
    if (pWriter->bPaused)
        return;
    pWriter->bPaused = 1;
    PrintableText file(pWriter->file.szFile);
    print("ZMFWriter(%s): no room for more, the recording pauses.\r\n", file.sz);
    log("No room for more behind %s, the recording pauses.", file.sz);
    SayFile(pWriter, EventLevel::Error, "recording.paused", "there is no room for more",
            pWriter->file.out.nErrno);
}

// Ends the file; the next key frame begins another.
static void EndFile(ZMFWriter *pWriter, const char *szWhy)
{
    print("ZMFWriter(%s): %s, the next key frame begins a new file.\r\n",
          PrintableText(pWriter->file.szFile).sz, szWhy);
    int bFailed = pWriter->file.out.bFailed;
    SayFile(pWriter, bFailed ? EventLevel::Error : EventLevel::Info, "recording.file_end", szWhy,
            bFailed ? pWriter->file.out.nErrno : 0);
    StopFile(pWriter);
    pWriter->eState = WriterState::AwaitKey;
}

// Whether a sample does not follow the block's last one. A block has the time of its first sample alone, so
// that it must not reach across what is missing.
static int IsGap(const ZMFWriter *pWriter, uint32_t nTimeMs)
{
    const RecordRules &rules = pWriter->rules;
    uint32_t nRate = pWriter->audio.nTickRate;
    int bLooked = rules.bNeverLose || rules.bWideUnits || rules.bStandardPushers;
    if (!bLooked || nRate == 0 || pWriter->nAudioDataBytes == 0)
        return 0;
    int32_t nOff = ClockDiff(
        nTimeMs, pWriter->nAudioTime + static_cast<uint32_t>(uint64_t{pWriter->nAudioTicks} * 1000 / nRate));
    return nOff > kAudioGapMs || nOff < -kAudioGapMs;
}

static int GatherAudio(ZMFWriter *pWriter, const uint8_t *pData, uint32_t nBytes, uint32_t nTimeMs,
                       uint32_t nType)
{
    if (nBytes > kAudioBlockBytes && IsPatient(pWriter))
        return 1;
    if (!ORX_PEER_ASSERT(nBytes <= kAudioBlockBytes, "nSize <= nAudioBlockBytes"))
        return -1;
    if (!pWriter->pAudio)
        pWriter->pAudio = static_cast<uint8_t *>(malloc(kAudioBlockBytes));
    if (!pWriter->pAudio)
        return -1;
    int bNewBlock = nBytes > kAudioBlockBytes - pWriter->nAudioDataBytes || IsGap(pWriter, nTimeMs);
    if (bNewBlock && FlushAudio(pWriter) < 1)
        return -1;
    if (pWriter->nAudioDataBytes == 0) {
        pWriter->nAudioTime = nTimeMs;
        pWriter->nAudioType = nType;
        pWriter->nAudioTicks = 0;
    }
    pWriter->nAudioTicks += pWriter->audio.nTicks;
    memcpy(pWriter->pAudio + pWriter->nAudioDataBytes, pData, nBytes);
    pWriter->nAudioDataBytes += nBytes;
    return 1;
}

static int IsRollOverDue(ZMFWriter *pWriter, uint32_t nRelative)
{
    int bNeverLose = pWriter->rules.bNeverLose;
    if (bNeverLose)
        CompareClocks(pWriter);
    if (bNeverLose && pWriter->file.uKeyFrames == 0)  // nothing in it yet
        return 0;
    if (bNeverLose && (pWriter->bRollDue || nRelative >= kRollAheadMs))
        return 1;
    if (pWriter->nSecondsPerFile == 0 && !bNeverLose)
        return 0;
    if (pWriter->nSecondsPerFile > 0 &&
        SecondsSince(pWriter, &pWriter->file.tFileStart, pWriter->nFileStartMs) >= pWriter->nSecondsPerFile)
        return 1;
    // where room is being made already, the file need not end once more
    return pWriter->room.eStage == RoomStage::Idle && IsSpaceShort(pWriter, 0);
}

// Closes the file and begins the next one with the key frame of nTimeMs (of the handed-in clock). Results of
// ZMFWriterCreateNextFile.
static int RollOver(ZMFWriter *pWriter, uint32_t nTimeMs)
{
    ZMFWriterStop(pWriter);
    int nResult = ZMFWriterCreateNextFile(pWriter);
    if (nResult != 1) {
        if (pWriter->rules.bNeverLose)
            PauseForRoom(pWriter);
        return nResult;
    }
    pWriter->nTimeBase = nTimeMs;
    pWriter->nBaseCount = 0;
    return 1;
}

// What has to happen before a video record. Sets *pbWrite when it is to be written. Results of
// ZMFWriterWriteSample.
static int PrepareVideo(ZMFWriter *pWriter, int bKey, uint32_t *pnRelative, int *pbWrite)
{
    if (FlushAudio(pWriter) < 1)
        return -1;
    if (bKey && IsRollOverDue(pWriter, *pnRelative)) {
        if (pWriter->nTimeStampBase > 0 &&
            !ORX_PEER_ASSERT(*pnRelative >= pWriter->nTimeStampBase, "nTimeStamp > pWriter->nTimeStampBase"))
            return -1;
        int nResult = RollOver(pWriter, *pnRelative - pWriter->nTimeStampBase + pWriter->nTimeBase);
        if (nResult != 1)
            return nResult;
        *pnRelative = 0;
    }
    if (bKey && RecordFileAddKeyFrame(&pWriter->file, *pnRelative) < 1)
        return -1;
    *pbWrite = pWriter->file.uKeyFrames > 0;  // nothing before the first key frame could be decoded
    return 1;
}

// Turns a handed-in time into one of the file. Returns 1; 0 when the sample comes before anything can be
// recorded; -1 for a time that lies before the file.
static int PlaceInTime(ZMFWriter *pWriter, uint32_t nTimeMs, char chMedia, uint32_t *pnRelative)
{
    *pnRelative = 0;
    if (pWriter->file.uSampleCount == 0 || pWriter->bRebase) {
        if (chMedia != 'v' && pWriter->file.uKeyFrames == 0)
            return 0;
        pWriter->nTimeBase = nTimeMs;
        pWriter->nBaseCount = pWriter->file.uSampleCount;
        pWriter->bRebase = 0;
    } else {
        int32_t nDiff = ClockDiff(nTimeMs, pWriter->nTimeBase);
        if (nDiff <= 0 && !IsPatient(pWriter) &&
            !ORX_PEER_ASSERT(pWriter->file.uSampleCount - pWriter->nBaseCount < kEarlyRecords,
                             "pWriter->uSampleCount < 6"))
            return -1;
        *pnRelative = nDiff > 0 ? static_cast<uint32_t>(nDiff) : 0;
    }
    *pnRelative += pWriter->nTimeStampBase;
    if (*pnRelative > pWriter->file.uDuration)
        pWriter->file.uDuration = *pnRelative;
    return 1;
}

static int WriteSample(ZMFWriter *pWriter, const uint8_t *pData, uint32_t nBytes, uint32_t nTimeMs,
                       uint32_t nType)
{
    auto chMedia = static_cast<char>(nType >> 8);
    uint32_t nRelative = 0;
    int bWrite = 1;
    if (!RecordFileIsOpen(&pWriter->file) || pWriter->file.uDataBeginOffset == 0)
        return -1;
    ORX_ASSERT(chMedia == 'v' || chMedia == 'a' || chMedia == 'u' || chMedia == 't',
               "!\"unknown media type\"");
    int nPlaced = PlaceInTime(pWriter, nTimeMs, chMedia, &nRelative);
    if (nPlaced < 1)
        return nPlaced == 0 ? 1 : -1;
    if (chMedia == 'a')
        return GatherAudio(pWriter, pData, nBytes, nRelative, nType);
    if (chMedia == 'v') {
        int nResult = PrepareVideo(pWriter, (nType & ZMF_KEY) != 0, &nRelative, &bWrite);
        if (nResult < 1 || !bWrite)
            return nResult;
    }
    if (RecordFileWriteRecord(&pWriter->file, pData, nBytes, nRelative, nType) < 1)
        return -1;
    if (!IsLimitOver(pWriter))
        return 1;
    ZMFWriterStop(pWriter);
    return 0;
}

// How far a time lies behind the begin of the file that is open; 0 while it has none.
static int64_t TimeInFile(const ZMFWriter *pWriter, uint32_t nTimeMs)
{
    if (pWriter->eState != WriterState::Running || !RecordFileIsOpen(&pWriter->file) ||
        pWriter->file.uSampleCount == 0 || pWriter->bRebase)
        return 0;
    return ClockDiff(nTimeMs, pWriter->nTimeBase);
}

// Whether a time lies further on than a file can tell.
static int IsTooLate(const ZMFWriter *pWriter, uint32_t nTimeMs)
{
    int64_t nDiff = TimeInFile(pWriter, nTimeMs);
    return nDiff > 0 && nDiff + pWriter->nTimeStampBase > kLastFileMs;
}

// Begins the next file with a key frame. Returns 1, or 0 when it has to wait.
static int GoOn(ZMFWriter *pWriter)
{
    if (ZMFWriterCreateNextFile(pWriter) != 1) {
        PauseForRoom(pWriter);
        return 0;
    }
    pWriter->eState = WriterState::Running;
    return 1;
}

// A sample where nothing is to be lost: what ends a file does not end the recording.
static int WriteAlways(ZMFWriter *pWriter, const uint8_t *pData, uint32_t nBytes, uint32_t nTimeMs,
                       uint32_t nType)
{
    auto chMedia = static_cast<char>(nType >> 8);
    int bKey = (nType & ZMF_KEY) && chMedia == 'v';
    int bEarly = TimeInFile(pWriter, nTimeMs) <= -kBackMs;  // by more than tracks are mixed
    if (bEarly && chMedia == 'a')
        return 1;  // sound that lags belongs to pictures from before the file
    int bBack = bEarly && chMedia == 'v' && pWriter->file.uSampleCount - pWriter->nBaseCount >= kEarlyRecords;
    if (bBack || IsTooLate(pWriter, nTimeMs))
        EndFile(pWriter, "times are out of order");
    for (int nTry = 0; nTry < 2; nTry++) {
        if (pWriter->eState != WriterState::Running && IsLimitOver(pWriter))
            return 0;
        if (pWriter->eState == WriterState::AwaitRoom ||
            (pWriter->eState == WriterState::AwaitKey && (!bKey || !GoOn(pWriter))))
            return 1;  // left out
        int nResult = WriteSample(pWriter, pData, nBytes, nTimeMs, nType);
        if (nResult > 0 || pWriter->eState != WriterState::Running)
            return 1;
        if (nResult == 0 || !pWriter->file.out.bFailed)
            return nResult;
        // where the first record fails already, there is no room, whatever the disk says of itself
        if (pWriter->file.uSampleCount == 0)
            PauseForRoom(pWriter);
        else
            EndFile(pWriter, "the disk takes no more");
    }
    return 1;
}

int ZMFWriterWriteSample(ZMFWriter *pWriter, const uint8_t *pData, uint32_t nBytes, uint32_t nTimeMs,
                         uint32_t nType)
{
    return (pWriter->rules.bNeverLose ? WriteAlways : WriteSample)(pWriter, pData, nBytes, nTimeMs, nType);
}

// A track that cannot be recorded. Returns 1 when it is left out, -1 when it ends the recording.
static int LeaveOutTrack(ZMFWriter *pWriter, const char *szWhat, int *pbSaid)
{
    if (!IsPatient(pWriter))
        return -1;
    if (!*pbSaid) {
        print("ZMFWriter(%s): the %s cannot be recorded and is left out.\r\n",
              PrintableText(pWriter->file.szFile).sz, szWhat);
        SayFile(pWriter, EventLevel::Warn, "recording.track_left_out", szWhat, 0);
    }
    *pbSaid = 1;
    return 1;
}

int ZMFWriterWriteRtpPacket(ZMFWriter *pWriter, const uint8_t *pPacket, uint32_t nBytes, char chMedia,
                            uint32_t nTimeMs)
{
    if (chMedia == 'v')
        return pWriter->pfnVideo ? pWriter->pfnVideo(&pWriter->video, pPacket, nBytes, nTimeMs)
                                 : LeaveOutTrack(pWriter, "video", &pWriter->bSaidVideo);
    if (chMedia == 'a')
        return pWriter->pfnAudio ? pWriter->pfnAudio(&pWriter->audio, pPacket, nBytes, nTimeMs)
                                 : LeaveOutTrack(pWriter, "audio", &pWriter->bSaidAudio);
    RtpPacket packet;
    size_t nPrefix = strlen(kAlarmPrefix);
    if (!RtpPacketParse(pPacket, nBytes, &packet) || packet.nPayload < nPrefix ||
        memcmp(packet.pPayload, kAlarmPrefix, nPrefix) != 0)
        return 1;
    return ZMFWriterWriteSample(pWriter, packet.pPayload, packet.nPayload, nTimeMs, SampleType(chMedia, 0));
}

void ZMFWriterMarkHole(ZMFWriter *pWriter)
{
    FlushAudio(pWriter);  // what fails here fails for the next record again
    DepacketiserForget(&pWriter->video);
    DepacketiserForget(&pWriter->audio);
}

void ZMFWriterMarkJump(ZMFWriter *pWriter)
{
    if (pWriter->rules.bNeverLose && pWriter->eState == WriterState::Running &&
        RecordFileIsOpen(&pWriter->file) && pWriter->file.uSampleCount > 0)
        EndFile(pWriter, "the clock of the media jumped");
}

int ZMFWriterRoomStep(ZMFWriter *pWriter)
{
    if (pWriter->room.eStage == RoomStage::Idle)
        return 0;
    RoomResult eResult = StorageRoomStep(&pWriter->room);
    if (eResult == RoomResult::None)  // or the next second would begin the same search anew
        pWriter->nRoomRetryMs = RecordSteadyMs() + kRoomRetryMs;
    return eResult == RoomResult::More;
}

// Looks at the space, and makes some in a few steps. Returns 0 when there is none to be had.
static int LookAfterRoom(ZMFWriter *pWriter, int32_t nMoreMB)
{
    char szDir[kStoragePathSize];
    if (pWriter->room.eStage == RoomStage::Idle) {
        if (!IsSpaceShort(pWriter, nMoreMB))
            return 1;
        if (RecordSteadyMs() < pWriter->nRoomRetryMs)
            return 0;
    }
    if (!StorageDirOf(szDir, sizeof(szDir), pWriter->file.szFile) ||
        MakeRoom(pWriter, szDir, kRoomStepsPerTick))
        return 1;
    pWriter->nRoomRetryMs = RecordSteadyMs() + kRoomRetryMs;
    return 0;
}

// Says that a pause is over, once something has come to the disk.
static void NoteResumed(ZMFWriter *pWriter)
{
    if (!pWriter->bPaused || pWriter->file.uSampleCount == 0)
        return;
    pWriter->bPaused = 0;
    PrintableText file(pWriter->file.szFile);
    print("ZMFWriter(%s): the recording goes on.\r\n", file.sz);
    log("The recording goes on in %s.", file.sz);
    SayFile(pWriter, EventLevel::Info, "recording.resumed", nullptr, 0);
}

// The second of a file that is open.
static void TickFile(ZMFWriter *pWriter)
{
    int64_t nNowMs = RecordSteadyMs();
    int bWritten = 1;
    if (pWriter->rules.bNeverLose && pWriter->nAudioDataBytes > 0 && pWriter->nAudioSeen > 0)
        bWritten = FlushAudio(pWriter) == 1;
    pWriter->nAudioSeen = pWriter->nAudioDataBytes;
    bWritten = RecordFileFlush(&pWriter->file) && bWritten;
    if (!pWriter->rules.bNeverLose)
        return;
    if (!bWritten) {
        EndFile(pWriter, "the disk takes no more");
        return;
    }
    NoteResumed(pWriter);
    if (nNowMs - pWriter->nSyncMs >= kSyncEveryMs) {
        RecordFileSync(&pWriter->file);
        pWriter->nSyncMs = nNowMs;
    }
    CompareClocks(pWriter);
    if (pWriter->room.eStage == RoomStage::Idle && !IsSpaceShort(pWriter, 0))
        return;
    pWriter->bRollDue = 1;
    if (LookAfterRoom(pWriter, 0))
        return;
    if (!pWriter->bDeleteOldest)
        PauseForRoom(pWriter);
    else if (IsSpaceShort(pWriter, -static_cast<int32_t>(pWriter->nSpaceInMB / 2)))
        EndFile(pWriter, "there is no room");
    // else up to the next key frame, which may find this very file the oldest, nothing is lost
}

int ZMFWriterTick(ZMFWriter *pWriter)
{
    if (RecordFileIsOpen(&pWriter->file)) {
        if (pWriter->file.uDataBeginOffset != 0)
            TickFile(pWriter);
        return 1;
    }
    if (pWriter->eState == WriterState::Running || IsLimitOver(pWriter))
        return 0;
    if (pWriter->eState == WriterState::AwaitKey)
        LookAfterRoom(pWriter, 0);  // so that the key frame need not wait for it
    // a little more than what stops a recording, so that it does not go on and off
    if (pWriter->eState == WriterState::AwaitRoom && LookAfterRoom(pWriter, 1) &&
        pWriter->room.eStage == RoomStage::Idle)
        pWriter->eState = WriterState::AwaitKey;
    return 1;
}

void ZMFWriterPause(ZMFWriter *pWriter)
{
    FlushAudio(pWriter);
    pWriter->nTimeStampBase = pWriter->file.uDuration + kPauseGapMs;
    pWriter->bRebase = 1;
}

int ZMFWriterRecordKind(const ZMFWriter *pWriter)
{
    return pWriter->file.head.nRecordKind;
}

int ZMFWriterFileName(const ZMFWriter *pWriter, char *szOut, size_t nSize)
{
    if (!RecordFileIsOpen(&pWriter->file) || !TextCopy(szOut, nSize, pWriter->file.szFile))
        return 0;
    return static_cast<int>(strlen(szOut));
}

}  // namespace orx
