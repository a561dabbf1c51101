#include "record/zmfwriter.h"

#include <cstdlib>
#include <cstring>

#include "base/assertion.h"
#include "base/console.h"
#include "runtime/clock.h"

namespace orx {

constexpr uint32_t kPauseGapMs = 20;
constexpr uint32_t kEarlyRecords = 6;  // records after the time base among which times may lie before it
constexpr char kAlarmPrefix[] = "ALARM:";

int ZMFWriterSetLimits(ZMFWriter *pWriter, uint32_t nSecondsPerFile, uint32_t nTotalSeconds)
{
    pWriter->nSecondsPerFile = nSecondsPerFile;
    pWriter->nTotalSeconds = nTotalSeconds;
    return 1;
}

int ZMFWriterSetReserveMinSpace(ZMFWriter *pWriter, uint32_t nSpaceInMB, int bDeleteOldest)
{
    ORX_ASSERT(nSpaceInMB > 0, "nSpaceInMB > 0");
    pWriter->nSpaceInMB = nSpaceInMB;
    pWriter->bDeleteOldest = bDeleteOldest;
    char szDir[kStoragePathSize];
    if (!StorageDirOf(szDir, sizeof(szDir), pWriter->szFile))
        return 1;
    return StorageMakeRoom(szDir, pWriter->szRoot != nullptr, nSpaceInMB, bDeleteOldest);
}

void ZMFWriterSetLabel(ZMFWriter *pWriter, const char *szLabel)
{
    char *szTo = pWriter->head.szLabel;
    size_t nLen = szLabel ? strnlen(szLabel, sizeof(pWriter->head.szLabel)) : 0;
    memset(szTo, 0, sizeof(pWriter->head.szLabel));
    if (nLen > 0)
        memcpy(szTo, szLabel, nLen);
}

int ZMFWriterRecordKind(const ZMFWriter *pWriter)
{
    return pWriter->head.nRecordKind;
}

// The seconds since *ptStart. A wall clock that was set back counts from anew, so that a file never grows
// until that time comes round again.
static uint32_t SecondsSince(time_t *ptStart)
{
    time_t tNow = RecordTime();
    if (tNow < *ptStart)
        *ptStart = tNow;
    return static_cast<uint32_t>(tNow - *ptStart);
}

static int WriteRecord(ZMFWriter *pWriter, const uint8_t *pData, uint32_t nBytes, uint32_t nTimeMs,
                       uint32_t nType)
{
    ZMFRecordHead head;
    head.nLength = nBytes + kZmfRecordHeadBytes;
    head.chMedia = static_cast<char>(nType >> 8);
    head.nFlags = static_cast<uint8_t>(nType);
    head.nTimeMs = nTimeMs;
    if (!ORX_PEER_ASSERT(nBytes <= kZmfMaxRecordBytes - kZmfRecordHeadBytes, "nLen <= 0xfffff"))
        return -1;
    if (head.nLength >= kZmfBigRecordBytes)
        print("******Write big video frame=%dBytes*******\r\n", static_cast<int>(head.nLength));
    uint8_t bytes[kZmfRecordHeadBytes];
    ZMFRecordHeadEncode(&head, bytes);
    if (!FileOutWrite(&pWriter->file, bytes, sizeof(bytes), pData, nBytes))
        return -1;
    FileOutCommit(&pWriter->file);
    pWriter->uSampleCount++;
    return 1;
}

int ZMFWriterFlushAudio(ZMFWriter *pWriter)
{
    uint32_t nBytes = pWriter->nAudioDataBytes;
    pWriter->nAudioDataBytes = 0;
    if (nBytes == 0)
        return 1;
    return WriteRecord(pWriter, pWriter->pAudio, nBytes, pWriter->nAudioTime, pWriter->nAudioType);
}

static int GatherAudio(ZMFWriter *pWriter, const uint8_t *pData, uint32_t nBytes, uint32_t nTimeMs,
                       uint32_t nType)
{
    if (!ORX_PEER_ASSERT(nBytes <= kAudioBlockBytes, "nSize <= nAudioBlockBytes"))
        return -1;
    if (!pWriter->pAudio)
        pWriter->pAudio = static_cast<uint8_t *>(malloc(kAudioBlockBytes));
    if (!pWriter->pAudio)
        return -1;
    if (nBytes > kAudioBlockBytes - pWriter->nAudioDataBytes && ZMFWriterFlushAudio(pWriter) < 1)
        return -1;
    if (pWriter->nAudioDataBytes == 0) {
        pWriter->nAudioTime = nTimeMs;
        pWriter->nAudioType = nType;
    }
    memcpy(pWriter->pAudio + pWriter->nAudioDataBytes, pData, nBytes);
    pWriter->nAudioDataBytes += nBytes;
    return 1;
}

// Keeps every second entry, so that the index reaches twice as far.
static int HalveIndex(ZMFWriter *pWriter)
{
    print("======nCurIdxId >= DEF_IDX_COUNT======\r");
    for (uint32_t i = 0; i < DEF_IDX_COUNT / 2; i++)
        pWriter->index[i] = pWriter->index[2 * i];
    pWriter->nCurIdxId = DEF_IDX_COUNT / 2;
    pWriter->head.nIdxInterval = static_cast<uint16_t>(pWriter->head.nIdxInterval * 2);
    return ZMFWriterRewriteHead(pWriter, 0) && FileOutFlush(&pWriter->file);
}

// Counts a key frame whose record comes next, with an index entry when it is its turn.
static int IndexKeyFrame(ZMFWriter *pWriter, uint32_t nTimeMs)
{
    if (pWriter->nCurIdxId >= DEF_IDX_COUNT && pWriter->head.nIdxInterval < 0x8000 && !HalveIndex(pWriter))
        return -1;
    uint64_t nPos = FileOutPos(&pWriter->file) - pWriter->uDataBeginOffset;
    int bTurn = pWriter->uKeyFrames % pWriter->head.nIdxInterval == 0 && pWriter->nCurIdxId < DEF_IDX_COUNT;
    if (bTurn && nPos <= UINT32_MAX) {  // beyond 4 GB a seek walks on from the last entry
        pWriter->index[pWriter->nCurIdxId].nPos = static_cast<uint32_t>(nPos);
        pWriter->index[pWriter->nCurIdxId].nTimeMs = nTimeMs;
        pWriter->nCurIdxId++;
    }
    pWriter->uKeyFrames++;
    return 1;
}

static int IsRollOverDue(ZMFWriter *pWriter)
{
    if (pWriter->nSecondsPerFile == 0)
        return 0;
    if (SecondsSince(&pWriter->tFileStart) >= pWriter->nSecondsPerFile)
        return 1;
    char szDir[kStoragePathSize];
    return pWriter->nSpaceInMB > 0 && StorageDirOf(szDir, sizeof(szDir), pWriter->szFile) &&
           IsEnoughFreeDiskSpace(szDir, pWriter->nSpaceInMB) == 0;
}

// Closes the file and begins the next one with the key frame of nTimeMs (of the handed-in clock). Results of
// ZMFWriterCreateNextFile.
static int RollOver(ZMFWriter *pWriter, uint32_t nTimeMs)
{
    ZMFWriterStop(pWriter);
    int nResult = ZMFWriterCreateNextFile(pWriter);
    if (nResult != 1)
        return nResult;
    pWriter->nTimeBase = nTimeMs;
    pWriter->nBaseCount = 0;
    return 1;
}

// What has to happen before a video record. Sets *pbWrite when it is to be written. Results of
// ZMFWriterWriteSample.
static int PrepareVideo(ZMFWriter *pWriter, int bKey, uint32_t *pnRelative, int *pbWrite)
{
    if (ZMFWriterFlushAudio(pWriter) < 1)
        return -1;
    if (bKey && IsRollOverDue(pWriter)) {
        if (pWriter->nTimeStampBase > 0 &&
            !ORX_PEER_ASSERT(*pnRelative >= pWriter->nTimeStampBase, "nTimeStamp > pWriter->nTimeStampBase"))
            return -1;
        int nResult = RollOver(pWriter, *pnRelative - pWriter->nTimeStampBase + pWriter->nTimeBase);
        if (nResult != 1)
            return nResult;
        *pnRelative = 0;
    }
    if (bKey && IndexKeyFrame(pWriter, *pnRelative) < 1)
        return -1;
    *pbWrite = pWriter->uKeyFrames > 0;  // nothing before the first key frame could be decoded
    pWriter->uVideoSamples += *pbWrite ? 1 : 0;
    return 1;
}

// Turns a handed-in time into one of the file. Returns 1; 0 when the sample comes before anything can be
// recorded; -1 for a time that lies before the file.
static int PlaceInTime(ZMFWriter *pWriter, uint32_t nTimeMs, char chMedia, uint32_t *pnRelative)
{
    *pnRelative = 0;
    if (pWriter->uSampleCount == 0 || pWriter->bRebase) {
        if (chMedia != 'v' && pWriter->uKeyFrames == 0)
            return 0;
        pWriter->nTimeBase = nTimeMs;
        pWriter->nBaseCount = pWriter->uSampleCount;
        pWriter->bRebase = 0;
    } else {
        int32_t nDiff = ClockDiff(nTimeMs, pWriter->nTimeBase);
        if (nDiff <= 0 && !ORX_PEER_ASSERT(pWriter->uSampleCount - pWriter->nBaseCount < kEarlyRecords,
                                           "pWriter->uSampleCount < 6"))
            return -1;
        *pnRelative = nDiff > 0 ? static_cast<uint32_t>(nDiff) : 0;
    }
    *pnRelative += pWriter->nTimeStampBase;
    if (*pnRelative > pWriter->uDuration)
        pWriter->uDuration = *pnRelative;
    return 1;
}

int ZMFWriterWriteSample(ZMFWriter *pWriter, const uint8_t *pData, uint32_t nBytes, uint32_t nTimeMs,
                         uint32_t nType)
{
    auto chMedia = static_cast<char>(nType >> 8);
    uint32_t nRelative = 0;
    int bWrite = 1;
    if (pWriter->file.fd < 0 || pWriter->uDataBeginOffset == 0)
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
    pWriter->uTextSamples += chMedia == 't' ? 1 : 0;
    pWriter->uUserSamples += chMedia == 'u' ? 1 : 0;
    if (WriteRecord(pWriter, pData, nBytes, nRelative, nType) < 1)
        return -1;
    if (pWriter->nTotalSeconds == 0 || SecondsSince(&pWriter->tRecordStart) <= pWriter->nTotalSeconds)
        return 1;
    ZMFWriterStop(pWriter);
    return 0;
}

int ZMFWriterWriteRtpPacket(ZMFWriter *pWriter, const uint8_t *pPacket, uint32_t nBytes, char chMedia,
                            uint32_t nTimeMs)
{
    if (chMedia == 'v')
        return pWriter->pfnVideo ? pWriter->pfnVideo(&pWriter->video, pPacket, nBytes, nTimeMs) : -1;
    if (chMedia == 'a')
        return pWriter->pfnAudio ? pWriter->pfnAudio(&pWriter->audio, pPacket, nBytes, nTimeMs) : -1;
    RtpPacket packet;
    size_t nPrefix = strlen(kAlarmPrefix);
    if (!RtpPacketParse(pPacket, nBytes, &packet) || packet.nPayload < nPrefix ||
        memcmp(packet.pPayload, kAlarmPrefix, nPrefix) != 0)
        return 1;
    return ZMFWriterWriteSample(pWriter, packet.pPayload, packet.nPayload, nTimeMs, SampleType(chMedia, 0));
}

void ZMFWriterPause(ZMFWriter *pWriter)
{
    ZMFWriterFlushAudio(pWriter);
    pWriter->nTimeStampBase = pWriter->uDuration + kPauseGapMs;
    pWriter->bRebase = 1;
}

}  // namespace orx
