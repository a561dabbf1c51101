#include "record/zmfreader.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#include "base/assertion.h"
#include "base/bytes.h"
#include "base/console.h"
#include "record/confine.h"
#include "record/measured.h"
#include "record/recordwalk.h"
#include "record/sdpreader.h"

namespace orx {

constexpr uint32_t kRefillBelow = 64;    // bytes left in the buffer at which it is filled up: a head fits
constexpr uint32_t kRangeLineRoom = 32;  // behind the SDP text, for a line that is put in
constexpr uint32_t kMinBuffer = 4096;    // a smaller one would be filled up for every record

static RecordWalk WalkFrom(const ZMFReader *pReader, uint64_t nPos, uint32_t nWork)
{
    return RecordWalkFrom(pReader->fd, pReader->nFileBytes, nPos, nWork);
}

// --- Opening ---

static int ReadHead(ZMFReader *pReader)
{
    uint8_t bytes[kZmfHeadBytes] = {};
    if (ReadAt(pReader->fd, 0, bytes, kZmfFixedHeadBytes) != kZmfFixedHeadBytes ||
        !ZMFileHeaderDecode(bytes, kZmfFixedHeadBytes, &pReader->head))
        return 0;
    uint32_t nHead = pReader->head.nHeadSize < kZmfHeadBytes ? pReader->head.nHeadSize : kZmfHeadBytes;
    if (ReadAt(pReader->fd, 0, bytes, nHead) != nHead || !ZMFileHeaderDecode(bytes, nHead, &pReader->head))
        return 0;
    pReader->uDataBeginOffset = ZMFileDataOffset(&pReader->head);
    pReader->uDuration = pReader->head.uDuration;
    return 1;
}

// Takes the entries over for as long as they make sense: each behind the one before, all inside the file.
static int ReadIndex(ZMFReader *pReader)
{
    uint32_t nBytes = pReader->head.nIdxSize;
    if (nBytes == 0)
        return 1;
    if (!ORX_PEER_ASSERT((nBytes & 0x7) == 0, "(pFileHead->nIdxSize & 0x7) == 0"))
        return 0;
    uint32_t nEntries = nBytes / kZmfEntryBytes;
    auto *pBytes = static_cast<uint8_t *>(malloc(nBytes));
    pReader->pIndex = new (std::nothrow) ZMFIndexEntry[nEntries];
    int bRead = pBytes && pReader->pIndex &&
                ReadAt(pReader->fd, pReader->head.nHeadSize, pBytes, nBytes) == nBytes &&
                ORX_PEER_ASSERT(GetBe(pBytes, 4) == 0, "*p == 0");
    for (uint32_t i = 0; bRead && i < nEntries; i++) {
        uint32_t nPos = GetBe(pBytes + size_t{i} * kZmfEntryBytes, 4);
        uint32_t nTimeMs = GetBe(pBytes + size_t{i} * kZmfEntryBytes + 4, 4);
        if (i > 0 && (nPos == 0 || nPos + uint64_t{pReader->uDataBeginOffset} >= pReader->nFileBytes ||
                      nPos + pReader->uDataBeginOffset <= pReader->pIndex[i - 1].nPos ||
                      nTimeMs < pReader->pIndex[i - 1].nTimeMs))
            break;
        pReader->pIndex[i].nPos = nPos + pReader->uDataBeginOffset;
        pReader->pIndex[i].nTimeMs = nTimeMs;
        pReader->nIndex++;
    }
    free(pBytes);
    return bRead;
}

// What the writer would have put into the header had it come to its end. Returns 0 when that takes another
// step, or memory runs out.
static int MeasureInterrupted(ZMFReader *pReader, const struct stat *pInfo, uint32_t nWork, int *pbMore)
{
    const Measured *pMeasured = MeasureStep(pReader->fd, pInfo, pReader->uDataBeginOffset, nWork);
    *pbMore = !pMeasured;
    pReader->pMeasured = pMeasured ? new (std::nothrow) Measured(*pMeasured) : nullptr;
    if (!pReader->pMeasured)
        return 0;
    ZMFileHeader *pHead = &pReader->head;
    pReader->bInterrupted = 1;
    pHead->uVideoSamples = pMeasured->uVideoSamples;
    pHead->uTextSamples = pMeasured->uTextSamples;
    pHead->uUserSamples = pMeasured->uUserSamples;
    pHead->uKeyFrames = pMeasured->uKeyFrames;
    pHead->uDuration = pReader->uDuration = pMeasured->uDuration;
    return 1;
}

static int ReadSdp(ZMFReader *pReader)
{
    uint32_t nBytes = pReader->head.nSdpSize;
    uint64_t nPos = uint64_t{pReader->head.nHeadSize} + pReader->head.nIdxSize;
    size_t nRoom = size_t{nBytes} + kRangeLineRoom;
    pReader->szSdp = static_cast<char *>(calloc(1, nRoom));
    if (!pReader->szSdp || ReadAt(pReader->fd, nPos, pReader->szSdp, nBytes) != nBytes)
        return 0;
    if (pReader->uDuration > 0 && !SdpHasRange(pReader->szSdp))
        SdpInsertRange(pReader->szSdp, nRoom, pReader->uDuration);
    return 1;
}

// --- The read buffer ---

// Moves what is left to the front and reads on behind it.
static void Refill(ZMFReader *pReader)
{
    uint32_t nLeft = pReader->nHeld - pReader->nRead;
    memmove(pReader->pBuffer, pReader->pBuffer + pReader->nRead, nLeft);
    pReader->nBufferPos += pReader->nRead;
    pReader->nRead = 0;
    uint32_t nRoom = pReader->nBuffer - nLeft;
    auto nGot = static_cast<uint32_t>(
        ReadAt(pReader->fd, pReader->nBufferPos + nLeft, pReader->pBuffer + nLeft, nRoom));
    pReader->nHeld = nLeft + nGot;
    pReader->bEof = nGot < nRoom;
}

static uint64_t Position(const ZMFReader *pReader)
{
    return pReader->nBufferPos + pReader->nRead;
}

// Makes nPos the position of the next record, with a full buffer.
static void MoveTo(ZMFReader *pReader, uint64_t nPos)
{
    pReader->nBufferPos = nPos;
    pReader->nHeld = pReader->nRead = 0;
    Refill(pReader);
}

// Makes the buffer large enough for a record, which is no longer than its 22 bits of length can say. Without
// memory it stays, and the record is none.
static void GrowBuffer(ZMFReader *pReader, uint32_t nRecord)
{
    auto *p =
        nRecord > pReader->nBuffer ? static_cast<uint8_t *>(realloc(pReader->pBuffer, nRecord)) : nullptr;
    if (!p)
        return;
    pReader->pBuffer = p;
    pReader->nBuffer = nRecord;
}

// The record at the reading position when it is whole in the buffer or can be made so; null otherwise.
static const uint8_t *PeekRecord(ZMFReader *pReader, ZMFRecordHead *pHead)
{
    if (!pReader->bEof && pReader->nHeld - pReader->nRead < kRefillBelow)
        Refill(pReader);
    uint32_t nLeft = pReader->nHeld - pReader->nRead;
    if (nLeft < kZmfRecordHeadBytes)
        return nullptr;
    ZMFRecordHeadDecode(pReader->pBuffer + pReader->nRead, pHead);
    if (pHead->nLength < kZmfRecordHeadBytes)
        return nullptr;
    if (pHead->nLength >= kZmfBigRecordBytes)
        print("******Get big video frame=%dBytes*******\r\n", static_cast<int>(pHead->nLength));
    if (pHead->nLength > nLeft && !pReader->bEof) {
        GrowBuffer(pReader, pHead->nLength);
        Refill(pReader);
    }
    return pHead->nLength <= pReader->nHeld - pReader->nRead ? pReader->pBuffer + pReader->nRead : nullptr;
}

// Index, duration and description of a file whose head was read. Returns 1 or 0; see MeasureInterrupted.
static int ReadTables(ZMFReader *pReader, const struct stat *pInfo, uint32_t nWork, int *pbMore)
{
    if (!ReadIndex(pReader))
        return 0;
    if (pReader->uDuration == 0 && !MeasureInterrupted(pReader, pInfo, nWork, pbMore))
        return 0;
    return ReadSdp(pReader);
}

static int OpenFile(const char *szFile, const char *szBelow)
{
    if (szBelow)
        return ConfineOpenFile(szBelow, szFile);
    return open(szFile, O_RDONLY | O_CLOEXEC | O_NONBLOCK);  // a FIFO of that name must not hold us up
}

ZMFReader *ZMFReaderOpenStep(const char *szFile, uint32_t nBuffer, uint32_t nWork, int *pbMore,
                             const char *szBelow)
{
    *pbMore = 0;
    auto *pReader = new (std::nothrow) ZMFReader;
    if (!pReader)
        return nullptr;
    pReader->szFile = strdup(szFile);
    pReader->nBuffer = nBuffer < kMinBuffer ? kMinBuffer : nBuffer;
    pReader->pBuffer = static_cast<uint8_t *>(malloc(pReader->nBuffer));
    pReader->fd = OpenFile(szFile, szBelow);
    struct stat info {};
    int bGood = pReader->szFile && pReader->pBuffer && pReader->fd >= 0 && fstat(pReader->fd, &info) == 0 &&
                S_ISREG(info.st_mode);
    pReader->nFileBytes = static_cast<uint64_t>(info.st_size);
    if (!bGood || !ReadHead(pReader) || !ReadTables(pReader, &info, nWork, pbMore)) {
        ZMFReaderClose(pReader);
        return nullptr;
    }
    MoveTo(pReader, pReader->uDataBeginOffset);
    return pReader;
}

ZMFReader *ZMFReaderOpen(const char *szFile, uint32_t nBuffer)
{
    int bMore = 0;
    return ZMFReaderOpenStep(szFile, nBuffer, kAllWork, &bMore);
}

void ZMFReaderClose(ZMFReader *pReader)
{
    if (!pReader)
        return;
    if (pReader->fd >= 0)
        close(pReader->fd);
    free(pReader->szFile);
    free(pReader->szSdp);
    free(pReader->pBuffer);
    delete[] pReader->pIndex;
    delete[] pReader->pKeyFrames;
    delete[] pReader->way.pKeys;
    delete pReader->pMeasured;
    delete pReader;
}

const uint8_t *ZMFReaderNextSample(ZMFReader *pReader, int *pnBytes)
{
    ZMFRecordHead head;
    const uint8_t *pRecord = PeekRecord(pReader, &head);
    if (!pRecord) {
        *pnBytes = pReader->bEof && pReader->nHeld == pReader->nRead ? 0 : -1;
        return nullptr;
    }
    pReader->nRead += head.nLength;
    pReader->nRecords++;
    pReader->nCurrentMs = head.nTimeMs;
    pReader->bCurrent = 1;
    *pnBytes = static_cast<int>(head.nLength);
    return pRecord;
}

// --- Seeking ---

// Makes the key frame at nPos the next record. Returns it, or null with the position as before when it is
// none.
static const uint8_t *TakeKeyFrame(ZMFReader *pReader, uint64_t nPos, uint32_t *pnTimeMs)
{
    uint64_t nBefore = Position(pReader);
    ZMFRecordHead head;
    MoveTo(pReader, nPos);
    const uint8_t *pRecord = PeekRecord(pReader, &head);
    if (!pRecord || !ORX_PEER_ASSERT(IsKeyRecord(&head), "p[2]=='v' && (p[3] & 0x40)")) {
        MoveTo(pReader, nBefore);
        return nullptr;
    }
    *pnTimeMs = pReader->nCurrentMs = head.nTimeMs;
    pReader->bCurrent = 1;
    return pRecord;
}

// Where to begin looking for a time: the last index entry before it, or the first record; in a file that was
// measured at the last point from which the same is found.
static uint64_t SeekStart(const ZMFReader *pReader, uint32_t nTimeMs)
{
    uint32_t i = 0;
    while (i < pReader->nIndex && pReader->pIndex[i].nTimeMs < nTimeMs)
        i++;
    uint64_t nStart = i > 0 && pReader->nIndex >= 2 ? pReader->pIndex[i - 1].nPos : pReader->uDataBeginOffset;
    const Measured *pMeasured = pReader->pMeasured;
    return pMeasured ? MeasuredSeekStart(pMeasured, nTimeMs, nStart, pReader->bExactSeek) : nStart;
}

// Begins a seek, or goes on with one for the same time. Returns 0 when the index leads nowhere.
static int BeginSeek(ZMFReader *pReader, uint32_t nTimeMs)
{
    SeekState *pSeek = &pReader->seek;
    if (pSeek->bActive && pSeek->nTimeMs == nTimeMs)
        return 1;
    *pSeek = SeekState{1, nTimeMs, SeekStart(pReader, nTimeMs), 0};
    return pSeek->nNext == pReader->uDataBeginOffset ||
           ORX_PEER_ASSERT(pSeek->nNext > kZmfHeadBytes, "uStartFilePos > sizeof(ZMFileHeader)");
}

// Whether the key frame looked for lies before a record or is it. Sound may be ahead of the pictures around
// it, and what refers to a key frame has come before the next one: only a picture tells exactly.
static int EndsSeek(const ZMFReader *pReader, const ZMFRecordHead *pHead)
{
    if (pReader->bExactSeek)
        return pHead->chMedia == 'v' && pHead->nTimeMs > pReader->seek.nTimeMs;
    return pHead->nTimeMs >= pReader->seek.nTimeMs;
}

// Looks for the first record of the time or later that follows a key frame. 1 with the key frame in the
// state, 0 when there is none, -1 when it takes another step.
static int LookForTime(ZMFReader *pReader, uint32_t nWork)
{
    SeekState *pSeek = &pReader->seek;
    RecordWalk walk = WalkFrom(pReader, pSeek->nNext, nWork);
    ZMFRecordHead head;
    int nResult;
    while ((nResult = RecordWalkNext(&walk, &head)) > 0) {
        int bBehind = pReader->bExactSeek && head.nTimeMs > pSeek->nTimeMs;
        if (IsKeyRecord(&head) && !(bBehind && pSeek->nKeyPos != 0))
            pSeek->nKeyPos = walk.nPos;
        if (pSeek->nKeyPos != 0 && EndsSeek(pReader, &head))
            return 1;
    }
    pSeek->nNext = walk.nNext;
    // The duration may lie behind the last record: audio has the time of its block's first sample. In a file
    // that is whole such a time belongs to the last key frame.
    return nResult < 0 ? -1 : pSeek->nKeyPos != 0 && walk.nNext == pReader->nFileBytes;
}

const uint8_t *ZMFReaderSeekStep(ZMFReader *pReader, uint32_t nTimeMs, uint32_t nWork, uint32_t *pnReachedMs,
                                 int *pbMore)
{
    *pbMore = 0;
    if (nTimeMs >= pReader->uDuration)
        return nullptr;
    int nFound = BeginSeek(pReader, nTimeMs) ? LookForTime(pReader, nWork) : 0;
    pReader->seek.bActive = *pbMore = nFound < 0;
    const uint8_t *pRecord = nFound > 0 ? TakeKeyFrame(pReader, pReader->seek.nKeyPos, pnReachedMs) : nullptr;
    for (int i = 0; pRecord && i < pReader->nKeyFrames; i++)
        if (pReader->pKeyFrames[i].nTimeMs == *pnReachedMs)
            pReader->nKeyPos = i;
    return pRecord;
}

const uint8_t *ZMFReaderSeek(ZMFReader *pReader, uint32_t nTimeMs, uint32_t *pnReachedMs)
{
    int bMore = 0;
    return ZMFReaderSeekStep(pReader, nTimeMs, kAllWork, pnReachedMs, &bMore);
}

// --- Key-frame mode ---

namespace {
struct KeyTable {
    KeyFrame *pKeys = nullptr;
    uint32_t nKeys = 0;
    uint32_t nMax = 0;
};
}  // namespace

// Counts the key frames from a position on, and notes them where there is a table, until it has nMax.
static void CollectKeyFrames(const ZMFReader *pReader, uint64_t nPos, KeyTable *pTable)
{
    ZMFRecordHead head;
    RecordWalk walk = WalkFrom(pReader, nPos, kAllWork);
    while (pTable->nKeys < pTable->nMax && RecordWalkNext(&walk, &head) > 0) {
        if (!IsKeyRecord(&head))
            continue;
        if (pTable->pKeys)
            pTable->pKeys[pTable->nKeys] = KeyFrame{walk.nPos, head.nTimeMs};
        pTable->nKeys++;
    }
}

// Whether the index names every key frame. An interrupted file has none, whatever its header says.
static int IsIndexComplete(const ZMFReader *pReader)
{
    if (pReader->bInterrupted || pReader->nIndex == 0)
        return 0;
    uint32_t nInterval = pReader->head.nIdxInterval;
    return nInterval == 1 || (nInterval == 0 && pReader->nIndex < pReader->head.nIdxSize / 16U);
}

static int TableFromIndex(ZMFReader *pReader)
{
    pReader->pKeyFrames = new (std::nothrow) KeyFrame[pReader->nIndex];
    if (!pReader->pKeyFrames)
        return 0;
    for (uint32_t i = 0; i < pReader->nIndex; i++)
        pReader->pKeyFrames[i] = KeyFrame{pReader->pIndex[i].nPos, pReader->pIndex[i].nTimeMs};
    pReader->nKeyFrames = static_cast<int>(pReader->nIndex);
    return 1;
}

static int TableFromRecords(ZMFReader *pReader)
{
    KeyTable table;
    uint64_t nStart = pReader->nIndex > 0 ? pReader->pIndex[0].nPos : pReader->uDataBeginOffset;
    table.nMax = pReader->head.uKeyFrames ? pReader->head.uKeyFrames + 1 : pReader->uDuration / 2000 + 1;
    if (table.nMax == 0)
        return 0;
    uint32_t nMax = table.nMax;
    CollectKeyFrames(pReader, nStart, &table);  // counts only: the header may claim any number
    if (table.nKeys == 0)
        return 0;
    table.pKeys = new (std::nothrow) KeyFrame[table.nKeys];
    if (!table.pKeys)
        return 0;
    table.nMax = nMax < table.nKeys ? nMax : table.nKeys;
    table.nKeys = 0;
    CollectKeyFrames(pReader, nStart, &table);
    pReader->pKeyFrames = table.pKeys;
    pReader->nKeyFrames = static_cast<int>(table.nKeys);
    return pReader->nKeyFrames > 0;
}

int ZMFReaderSetupKeyFrameMode(ZMFReader *pReader, int nMoveKeyFrames)
{
    ORX_ASSERT(nMoveKeyFrames != 0, "nMoveKeyFrames != 0");
    if (!pReader->pKeyFrames) {
        int bMade = IsIndexComplete(pReader) ? TableFromIndex(pReader) : TableFromRecords(pReader);
        if (!bMade)
            return 0;
    }
    if (!pReader->bCurrent) {
        pReader->nKeyPos = nMoveKeyFrames < 0 ? pReader->nKeyFrames : -1;
        return 1;
    }
    for (int i = 0; i < pReader->nKeyFrames; i++) {
        if (pReader->pKeyFrames[i].nTimeMs > pReader->nCurrentMs) {
            pReader->nKeyPos = i - 1;
            break;
        }
    }
    return 1;
}

const uint8_t *ZMFReaderSeek2KeyFrame(ZMFReader *pReader, int nMoveKeyFrames, uint32_t *pnTimeMs)
{
    int nLast = pReader->nKeyFrames - 1;
    if (nLast < 0 || (nMoveKeyFrames < 0 ? pReader->nKeyPos <= 0 : pReader->nKeyPos >= nLast))
        return nullptr;
    int64_t nTo = int64_t{pReader->nKeyPos} + nMoveKeyFrames;
    nTo = nTo < 0 ? 0 : nTo > nLast ? nLast : nTo;
    const uint8_t *pRecord = TakeKeyFrame(pReader, pReader->pKeyFrames[nTo].nPos, pnTimeMs);
    if (pRecord)
        pReader->nKeyPos = static_cast<int>(nTo);
    return pRecord;
}

// --- Playing by key frames ---

void ZMFReaderBeginKeys(ZMFReader *pReader)
{
    KeyFrame *pKeys = pReader->way.pKeys;
    pReader->way = KeyWay();
    pReader->way.pKeys = pKeys;
}

// Whether a key frame comes next on the way, by its time.
static int LiesOnWay(const KeyWay *pWay, int nDirection, uint32_t nGapMs, uint32_t nTimeMs)
{
    int64_t nFrom = (int64_t{nTimeMs} - pWay->at.nTimeMs) * nDirection;
    return nFrom < 0 || nFrom >= nGapMs;
}

// Where to look for what follows the last one: behind it, or from the last place that the index names up to
// the time wanted; from the first behind that when it names all.
static uint64_t WayAhead(const ZMFReader *pReader, uint32_t nGapMs)
{
    const KeyFrame *pAt = &pReader->way.at;
    uint64_t nStart = pAt->nPos;
    int bAll = IsIndexComplete(pReader);
    for (uint32_t i = 0; i < pReader->nIndex; i++) {
        const ZMFIndexEntry *pEntry = &pReader->pIndex[i];
        int bBehind = pEntry->nTimeMs - int64_t{pAt->nTimeMs} >= nGapMs;
        if (pEntry->nPos > pAt->nPos && (bAll || !bBehind))
            nStart = pEntry->nPos;
        if (bBehind && pEntry->nPos > pAt->nPos)
            break;
    }
    return nStart;
}

// Looks for the next one forwards. 1 with the way at it, 0 at the end, -1: another step.
static int StepAhead(ZMFReader *pReader, uint32_t nGapMs, uint32_t nWork)
{
    KeyWay *pWay = &pReader->way;
    if (!pWay->bWalking)
        pWay->nNext = WayAhead(pReader, nGapMs);
    RecordWalk walk = WalkFrom(pReader, pWay->nNext, nWork);
    ZMFRecordHead head;
    int nResult;
    while ((nResult = RecordWalkNext(&walk, &head)) > 0)
        if (IsKeyRecord(&head) && walk.nPos > pWay->at.nPos && LiesOnWay(pWay, 1, nGapMs, head.nTimeMs))
            break;
    pWay->nNext = walk.nNext;
    pWay->bWalking = nResult < 0;
    if (nResult > 0)
        pWay->at = KeyFrame{walk.nPos, head.nTimeMs};
    return nResult;
}

// Notes a key frame that lies ahead backwards. When there are too many, the first half is found again later.
static void NoteKey(KeyWay *pWay, uint64_t nPos, uint32_t nTimeMs)
{
    if (pWay->nKeys == kKeysAhead) {
        pWay->nKeys /= 2;
        memmove(pWay->pKeys, pWay->pKeys + pWay->nKeys, pWay->nKeys * sizeof(KeyFrame));
        pWay->nStart = pWay->pKeys[0].nPos;
    }
    pWay->pKeys[pWay->nKeys++] = KeyFrame{nPos, nTimeMs};
}

// The last place before nEnd that the index, or the walk through an interrupted file, names.
static uint64_t WayBack(const ZMFReader *pReader, uint64_t nEnd)
{
    uint64_t nStart = pReader->uDataBeginOffset;
    for (uint32_t i = 0; i < pReader->nIndex && pReader->pIndex[i].nPos < nEnd; i++)
        nStart = pReader->pIndex[i].nPos;
    const Measured *pMeasured = pReader->pMeasured;
    for (uint32_t i = 0; pMeasured && i < pMeasured->nPoints && pMeasured->points[i].nPos < nEnd; i++)
        if (pMeasured->points[i].nPos > nStart)
            nStart = pMeasured->points[i].nPos;
    return nStart;
}

// Notes the key frames of a stretch of the file, which ends with those that are known. Results of StepAhead.
static int LookBack(ZMFReader *pReader, uint32_t nWork)
{
    KeyWay *pWay = &pReader->way;
    if (!pWay->bWalking) {
        pWay->nEnd = pWay->nStart;
        pWay->nStart = pWay->nNext = WayBack(pReader, pWay->nEnd);
        if (pWay->nEnd <= pReader->uDataBeginOffset)
            return 0;
    }
    RecordWalk walk = WalkFrom(pReader, pWay->nNext, nWork);
    ZMFRecordHead head;
    int nResult = 1;
    while (walk.nNext < pWay->nEnd && (nResult = RecordWalkNext(&walk, &head)) > 0)
        if (IsKeyRecord(&head) && walk.nPos < pWay->nEnd)
            NoteKey(pWay, walk.nPos, head.nTimeMs);
    pWay->nNext = walk.nNext;
    pWay->bWalking = nResult < 0;
    return nResult < 0 ? -1 : 1;
}

// Takes the next one from those that are known. Returns 0 when there is none among them.
static int TakeKnown(KeyWay *pWay, uint32_t nGapMs)
{
    while (pWay->nKeys > 0) {
        const KeyFrame *pKey = &pWay->pKeys[--pWay->nKeys];
        if (!LiesOnWay(pWay, -1, nGapMs, pKey->nTimeMs))
            continue;
        pWay->at = *pKey;
        return 1;
    }
    return 0;
}

// The same backwards.
static int StepBack(ZMFReader *pReader, uint32_t nGapMs, uint32_t nWork)
{
    KeyWay *pWay = &pReader->way;
    if (!pWay->pKeys && !(pWay->pKeys = new (std::nothrow) KeyFrame[kKeysAhead]))
        return 0;
    if (!pWay->bWalking && TakeKnown(pWay, nGapMs))
        return 1;
    int nResult = LookBack(pReader, nWork);
    if (nResult < 1)
        return nResult;
    return TakeKnown(pWay, nGapMs) ? 1 : -1;
}

const uint8_t *ZMFReaderNextKey(ZMFReader *pReader, int nDirection, uint32_t nGapMs, uint32_t nWork,
                                int *pnBytes, int *pbMore)
{
    KeyWay *pWay = &pReader->way;
    *pbMore = *pnBytes = 0;
    if (pWay->bBegun) {
        int nFound = (nDirection < 0 ? StepBack : StepAhead)(pReader, nGapMs, nWork);
        *pbMore = nFound < 0;
        uint32_t nTimeMs = 0;
        if (nFound < 1 || !TakeKeyFrame(pReader, pWay->at.nPos, &nTimeMs))
            return nullptr;
    }
    uint64_t nPos = Position(pReader);
    const uint8_t *pRecord = ZMFReaderNextSample(pReader, pnBytes);
    if (pRecord && !pWay->bBegun) {
        pWay->bBegun = 1;
        pWay->at = KeyFrame{nPos, pReader->nCurrentMs};
        pWay->nStart = nPos;
    }
    return pRecord;
}

// --- What the file says of itself ---

const char *ZMFReaderSdp(const ZMFReader *pReader)
{
    return pReader->szSdp;
}

uint32_t ZMFReaderDuration(const ZMFReader *pReader)
{
    return pReader->uDuration;
}

int ZMFReaderAppData(ZMFReader *pReader, void *pOut, uint32_t nSize)
{
    uint32_t nBytes = pReader->head.nAppDataBytes;
    if (nBytes > nSize)
        return -1;
    uint64_t nPos = pReader->uDataBeginOffset - nBytes;
    return ReadAt(pReader->fd, nPos, pOut, nBytes) == nBytes ? static_cast<int>(nBytes) : -1;
}

time_t ZMFReaderStartTime(const ZMFReader *pReader)
{
    char szText[sizeof(pReader->head.szStartTime) + 1] = "";
    memcpy(szText, pReader->head.szStartTime, sizeof(pReader->head.szStartTime));
    tm local{};
    if (sscanf(szText, "%04d%02d%02d-%02d%02d%02d", &local.tm_year, &local.tm_mon, &local.tm_mday,
               &local.tm_hour, &local.tm_min, &local.tm_sec) != 6)
        return 0;
    // A camera without a clock begins in 1970; a day later no time zone puts that before the epoch.
    if (local.tm_year == 1970 && local.tm_mon == 1 && local.tm_mday == 1)
        local.tm_mday = 2;
    local.tm_year -= 1900;
    local.tm_mon -= 1;
    local.tm_isdst = -1;
    return mktime(&local);
}

}  // namespace orx
