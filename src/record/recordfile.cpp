#include "record/recordfile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <utility>

#include "base/assertion.h"
#include "base/bytes.h"
#include "base/console.h"
#include "base/fdguard.h"
#include "base/textbuf.h"
#include "record/confine.h"
#include "record/sdpreader.h"

namespace orx {

constexpr size_t kExtensionLen = 4;  // ".zmf"
constexpr int kSyncLevels = 4;  // directories that may be new with a file: day, program, root, and one more

// Path of the file while it is being written.
static int OpenName(const RecordFile *pFile, char *szOut, size_t nSize)
{
    TextBuf path{szOut, nSize};
    return TextAdd(&path, "%s%s", pFile->szFile, kOpenSuffix);
}

static int SetName(RecordFile *pFile, const char *szFile)
{
    char *szCopy = strdup(szFile);
    if (!szCopy)
        return 0;
    free(pFile->szFile);
    pFile->szFile = szCopy;
    return 1;
}

// A path as it is used with DirOfFile: its last part where the directory is open, else the whole.
static const char *InDir(const RecordFile *pFile, const char *szPath)
{
    const char *pSlash = pFile->fdDir >= 0 ? strrchr(szPath, '/') : nullptr;
    return pSlash ? pSlash + 1 : szPath;
}

static int DirOfFile(const RecordFile *pFile)
{
    return pFile->fdDir >= 0 ? pFile->fdDir : AT_FDCWD;
}

static void CloseDir(RecordFile *pFile)
{
    if (pFile->fdDir >= 0)
        close(std::exchange(pFile->fdDir, -1));
}

// The directory is entered once, and everything about the file happens in it, whatever its path comes to
// name later.
static int OpenBelow(RecordFile *pFile, const char *szDir, const char *szName)
{
    char szFree[kStoragePathSize];
    char szPath[kStoragePathSize];
    TextBuf path{szPath, sizeof(szPath)};
    CloseDir(pFile);
    pFile->fdDir = ConfineOpenDir(pFile->szBelow, szDir);
    if (pFile->fdDir < 0)
        return 0;
    int fd = ConfineCreate(pFile->fdDir, szName, kOpenSuffix, szFree, sizeof(szFree));
    if (fd < 0 || !FileOutTake(&pFile->out, fd))
        return 0;
    return TextAdd(&path, "%s/%s", szDir, szFree) && SetName(pFile, szPath);
}

static int NeverLoses(const RecordFile *pFile)
{
    return pFile->pRules && pFile->pRules->bNeverLose;
}

// Goes wherever the path leads.
static int OpenAnywhere(RecordFile *pFile, const char *szFile)
{
    char szFree[kStoragePathSize];
    char szOpen[kStoragePathSize];
    return TextCopy(szFree, sizeof(szFree), szFile) &&
           StorageFreePath(szFree, sizeof(szFree), NeverLoses(pFile)) && SetName(pFile, szFree) &&
           OpenName(pFile, szOpen, sizeof(szOpen)) && FileOutOpen(&pFile->out, szOpen);
}

int RecordFileOpen(RecordFile *pFile, const char *szFile)
{
    char szDir[kStoragePathSize];
    int bDir = StorageDirOf(szDir, sizeof(szDir), szFile);
    if (!pFile->szBelow ? !OpenAnywhere(pFile, szFile)
                        : !bDir || !OpenBelow(pFile, szDir, strrchr(szFile, '/') + 1))
        return 0;
    const char *pSlash = strrchr(pFile->szFile, '/');
    StorageHold(&pFile->open, szDir, pSlash ? pSlash + 1 : pFile->szFile);
    return 1;
}

int RecordFileIsOpen(const RecordFile *pFile)
{
    return pFile->out.fd >= 0;
}

int RecordFileSetSdp(RecordFile *pFile, const char *szSdp)
{
    size_t nText = strlen(szSdp);
    size_t nBlock = (nText + 8) / 8 * 8;
    nBlock += SdpHasRange(szSdp) ? 16 : 32;
    if (nBlock > kZmfTextBlockMax)
        return 0;
    auto *szCopy = static_cast<char *>(calloc(1, nBlock + 1));
    if (!szCopy)
        return 0;
    memcpy(szCopy, szSdp, nText + 1);
    SdpRemoveRange(szCopy);
    size_t nLeft = strlen(szCopy);
    memset(szCopy + nLeft, 0, nBlock - nLeft);
    free(pFile->pszSdp);
    pFile->pszSdp = szCopy;
    pFile->head.nSdpSize = static_cast<uint16_t>(nBlock);
    return 1;
}

int RecordFileSetAppData(RecordFile *pFile, uint32_t nBytes, const void *pData)
{
    uint32_t nBlock = pFile->head.nAppDataBytes;
    if (!pFile->pAppData) {
        if (nBytes > kZmfTextBlockMax || pFile->uDataBeginOffset != 0)
            return 0;
        nBlock = (nBytes + 7) / 8 * 8;
        pFile->pAppData = static_cast<uint8_t *>(calloc(1, nBlock + 1));
        if (!pFile->pAppData)
            return 0;
        pFile->head.nAppDataBytes = static_cast<uint16_t>(nBlock);
    }
    ORX_ASSERT(nBytes <= nBlock, "nAppDataBytes <= pWriter->nAppDataBytes");
    memset(pFile->pAppData, 0, nBlock);
    if (nBytes > 0)
        memcpy(pFile->pAppData, pData, nBytes);
    return 1;
}

static void FormatTime(TextBuf *pText, time_t tWhen)
{
    tm local{};
    localtime_r(&tWhen, &local);
    TextAdd(pText, "%04d%02d%02d-%02d%02d%02d", local.tm_year + 1900, local.tm_mon + 1, local.tm_mday,
            local.tm_hour, local.tm_min, local.tm_sec);
}

int RecordFileWriteHead(RecordFile *pFile)
{
    uint8_t bytes[kZmfHeadBytes + kZmfIdxBytes] = {};
    pFile->tFileStart = RecordTime();
    TextBuf start{pFile->head.szStartTime, sizeof(pFile->head.szStartTime)};
    FormatTime(&start, pFile->tFileStart);
    ZMFileHeaderEncode(&pFile->head, bytes);
    if (!FileOutWrite(&pFile->out, bytes, sizeof(bytes), pFile->pszSdp, pFile->head.nSdpSize) ||
        !FileOutWrite(&pFile->out, pFile->pAppData, pFile->head.nAppDataBytes, nullptr, 0) ||
        !FileOutFlush(&pFile->out))
        return 0;
    FileOutCommit(&pFile->out);
    pFile->uDataBeginOffset = ZMFileDataOffset(&pFile->head);
    return 1;
}

// Rewrites header and index in place; with the counters only when bFinal, so that a file that was never
// closed is known by its missing duration. Returns 1 or 0.
static int RewriteHead(RecordFile *pFile, int bFinal)
{
    uint8_t bytes[kZmfHeadBytes + kZmfIdxBytes];
    ZMFileHeader head = pFile->head;
    head.nIdxInterval = pFile->index.nInterval;
    if (bFinal) {
        head.uDuration = pFile->uDuration;
        head.uVideoSamples = pFile->uVideoSamples;
        head.uTextSamples = pFile->uTextSamples;
        head.uUserSamples = pFile->uUserSamples;
        head.uKeyFrames = pFile->uKeyFrames;
    }
    ZMFileHeaderEncode(&head, bytes);
    KeyIndexEncode(&pFile->index, bytes + kZmfHeadBytes);
    return FileOutPatch(&pFile->out, 0, bytes, sizeof(bytes));
}

// What lies in the middle of the file could not be written over. Returns 0.
static int FailInPlace(RecordFile *pFile)
{
    pFile->out.bFailed =
        pFile->out.bFailed || NeverLoses(pFile);  // the file ends here, the recording goes on
    return 0;
}

static int HalveIndex(RecordFile *pFile)
{
    print("======nCurIdxId >= DEF_IDX_COUNT======\r");
    KeyIndexHalve(&pFile->index);
    return (RewriteHead(pFile, 0) && FileOutFlush(&pFile->out)) || FailInPlace(pFile);
}

int RecordFileAddKeyFrame(RecordFile *pFile, uint32_t nTimeMs)
{
    if (KeyIndexIsFull(&pFile->index) && !HalveIndex(pFile))
        return -1;
    uint64_t nPos = FileOutPos(&pFile->out) - pFile->uDataBeginOffset;
    KeyIndexAdd(&pFile->index, pFile->uKeyFrames++, nPos, nTimeMs);
    return 1;
}

static void Count(RecordCounts *pCounts, const ZMFRecordHead *pHead)
{
    pCounts->uSampleCount++;
    pCounts->uVideoSamples += pHead->chMedia == 'v' ? 1 : 0;
    pCounts->uTextSamples += pHead->chMedia == 't' ? 1 : 0;
    pCounts->uUserSamples += pHead->chMedia == 'u' ? 1 : 0;
    pCounts->uKeyFrames += IsKeyRecord(pHead) ? 1 : 0;
    if (pHead->nTimeMs > pCounts->uDuration)
        pCounts->uDuration = pHead->nTimeMs;
}

// Says in the header that what follows is not for readers of version 100. Returns 1, or 0 on a write error.
static int MarkWide(RecordFile *pFile)
{
    uint8_t bytes[2];
    if (pFile->head.nVersion == kZmfWideVersion)
        return 1;
    pFile->head.nVersion = kZmfWideVersion;
    PutBe(bytes, sizeof(bytes), pFile->head.nVersion);
    return FileOutPatch(&pFile->out, kZmfVersionAt, bytes, sizeof(bytes)) || FailInPlace(pFile);
}

int RecordFileWriteRecord(RecordFile *pFile, const uint8_t *pData, uint32_t nBytes, uint32_t nTimeMs,
                          uint32_t nType)
{
    ZMFRecordHead head;
    head.nLength = nBytes + kZmfRecordHeadBytes;
    head.chMedia = static_cast<char>(nType >> 8);
    head.nFlags = static_cast<uint8_t>(nType);
    head.nTimeMs = nTimeMs;
    pFile->uVideoSamples += head.chMedia == 'v' ? 1 : 0;
    pFile->uTextSamples += head.chMedia == 't' ? 1 : 0;
    pFile->uUserSamples += head.chMedia == 'u' ? 1 : 0;
    uint32_t nMax = nType & SAMPLE_WIDE ? kZmfMaxWideBytes : kZmfMaxRecordBytes;
    if (!ORX_PEER_ASSERT(nBytes <= nMax - kZmfRecordHeadBytes, "nLen <= 0xfffff"))
        return -1;
    if ((nType & SAMPLE_WIDE) && !MarkWide(pFile))
        return -1;
    if (head.nLength >= kZmfBigRecordBytes)
        print("******Write big video frame=%dBytes*******\r\n", static_cast<int>(head.nLength));
    uint8_t bytes[kZmfRecordHeadBytes];
    ZMFRecordHeadEncode(&head, bytes);
    if (pFile->out.nBuffered == 0)
        pFile->reached = pFile->all;
    uint64_t nBefore = pFile->out.nWritten;
    int bWritten = FileOutWrite(&pFile->out, bytes, sizeof(bytes), pData, nBytes);
    if (pFile->out.nWritten != nBefore)  // at least the records before this one
        pFile->reached = pFile->all;
    if (!bWritten)
        return -1;
    Count(&pFile->all, &head);
    FileOutCommit(&pFile->out);
    StorageCountRecorded(head.nLength);
    pFile->uSampleCount++;
    return 1;
}

// After a failed write: ends the file with its last whole record, and has the counters and the index say so.
// Header and index are written over in place, which needs no room. Returns 1 or 0.
static int KeepWholeRecords(RecordFile *pFile)
{
    const FileOut *pOut = &pFile->out;
    RecordCounts counts = pFile->reached;
    ZMFRecordHead head;
    uint32_t nKeep = 0;
    for (; nKeep + kZmfRecordHeadBytes <= pOut->nBuffered; nKeep += head.nLength) {
        ZMFRecordHeadDecode(pOut->pBuffer + nKeep, &head);
        if (head.nLength < kZmfRecordHeadBytes || nKeep + uint64_t{head.nLength} > pOut->nReached)
            break;
        Count(&counts, &head);
    }
    if (!FileOutCut(&pFile->out, pOut->nWritten + nKeep))
        return 0;
    uint64_t nEnd = pOut->nWritten - pFile->uDataBeginOffset;
    KeyIndex *pIndex = &pFile->index;
    while (pIndex->nUsed > 0 && pIndex->entries[pIndex->nUsed - 1].nPos >= nEnd)
        pIndex->nUsed--;
    pFile->all = pFile->reached = counts;
    pFile->uDuration = counts.uDuration;
    pFile->uVideoSamples = counts.uVideoSamples;
    pFile->uTextSamples = counts.uTextSamples;
    pFile->uUserSamples = counts.uUserSamples;
    pFile->uSampleCount = counts.uSampleCount;
    pFile->uKeyFrames = counts.uKeyFrames;
    return 1;
}

// Header, index, SDP and application data as they are at the end. A write error leaves the rest undone: how
// many of the records that were counted are in the file is not known then, so it stays as one that was
// interrupted.
static void Complete(RecordFile *pFile)
{
    if (!FileOutFlush(&pFile->out) && (!NeverLoses(pFile) || !KeepWholeRecords(pFile)))
        return;
    ORX_ASSERT(pFile->index.nUsed == 0 || pFile->index.entries[0].nPos == 0,
               "index[0].pos == 0 || index[0].pos == pWriter->uDataBeginOffset");
    if (!RewriteHead(pFile, 1))
        return;
    if (pFile->uDuration > 0 && pFile->pszSdp) {
        ORX_ASSERT(!SdpHasRange(pFile->pszSdp), "p==((void *)0)");
        SdpInsertRange(pFile->pszSdp, pFile->head.nSdpSize + size_t{1}, pFile->uDuration);
    }
    uint64_t nSdpAt = kZmfHeadBytes + kZmfIdxBytes;
    if (FileOutPatch(&pFile->out, nSdpAt, pFile->pszSdp, pFile->head.nSdpSize))
        FileOutPatch(&pFile->out, nSdpAt + pFile->head.nSdpSize, pFile->pAppData, pFile->head.nAppDataBytes);
}

// Has the disk keep what a directory says, as far as nLevels above it, within one file system.
static void SyncDirs(int fdDir, int nLevels)
{
    FdGuard at{openat(fdDir, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC)};
    struct stat first {};
    struct stat here {};
    if (at.fd < 0 || fstat(at.fd, &first) != 0)
        return;
    while (at.fd >= 0 && fstat(at.fd, &here) == 0 && here.st_dev == first.st_dev && nLevels-- > 0) {
        fsync(at.fd);
        FdGuard above{openat(at.fd, "..", O_RDONLY | O_DIRECTORY | O_CLOEXEC)};
        std::swap(at.fd, above.fd);
    }
}

int RecordFileFlush(RecordFile *pFile)
{
    return FileOutFlush(&pFile->out);
}

void RecordFileSync(RecordFile *pFile)
{
    if (!RecordFileIsOpen(pFile) || pFile->nSynced == pFile->out.nWritten)
        return;
    fdatasync(pFile->out.fd);
    if (pFile->nSynced == 0)
        SyncDirs(pFile->open.fdDir, kSyncLevels);
    pFile->nSynced = pFile->out.nWritten;
}

static void TakeFinalName(RecordFile *pFile, const char *szOpen)
{
    if (!pFile->szBelow && !NeverLoses(pFile)) {
        rename(szOpen, pFile->szFile);
        return;
    }
    char szFree[kStoragePathSize];
    const char *szName = InDir(pFile, pFile->szFile);
    if (!ConfineRename(DirOfFile(pFile), InDir(pFile, szOpen), szName, szFree, sizeof(szFree)) ||
        strcmp(szFree, szName) == 0)
        return;
    char szPath[kStoragePathSize];
    TextBuf path{szPath, sizeof(szPath)};
    TextAddBytes(&path, pFile->szFile, static_cast<size_t>(szName - pFile->szFile));
    if (TextAdd(&path, "%s", szFree))
        SetName(pFile, szPath);
}

int RecordFileClose(RecordFile *pFile)
{
    char szOpen[kStoragePathSize];
    if (pFile->uDataBeginOffset != 0)
        Complete(pFile);
    int bNamed = OpenName(pFile, szOpen, sizeof(szOpen)) &&
                 FileOutIsAt(&pFile->out, DirOfFile(pFile), InDir(pFile, szOpen));
    if (NeverLoses(pFile) && FileOutFlush(&pFile->out))
        fdatasync(pFile->out.fd);
    int bWhole = FileOutClose(&pFile->out);
    if (bNamed)  // otherwise a later recording has taken the name
        TakeFinalName(pFile, szOpen);
    if (NeverLoses(pFile))
        SyncDirs(pFile->open.fdDir, pFile->nSynced == 0 ? kSyncLevels : 1);
    pFile->nSynced = 0;
    StorageRelease(&pFile->open);
    pFile->uDataBeginOffset = 0;
    return bWhole;
}

int RecordFileNextPath(const RecordFile *pFile, char *szOut, size_t nSize)
{
    const char *pSlash = pFile->szFile ? strrchr(pFile->szFile, '/') : nullptr;
    if (!pSlash)
        return 0;
    const char *pDash = strchr(pSlash, '-');
    size_t nLast = strlen(pSlash + 1);
    size_t nStem = pDash ? static_cast<size_t>(pDash - pFile->szFile) : strlen(pFile->szFile);
    if (!pDash && nLast > kExtensionLen)
        nStem -= kExtensionLen;
    TextBuf path{szOut, nSize};
    TextAddBytes(&path, pFile->szFile, nStem);
    TextAdd(&path, "-");
    FormatTime(&path, RecordTime());
    return TextAdd(&path, ".zmf");
}

int RecordFileBeginNext(RecordFile *pFile)
{
    if (pFile->pszSdp && !RecordFileSetSdp(pFile, pFile->pszSdp))
        return 0;
    pFile->uDuration = pFile->uVideoSamples = pFile->uTextSamples = pFile->uUserSamples = 0;
    pFile->uSampleCount = pFile->uKeyFrames = 0;
    pFile->all = pFile->reached = RecordCounts{};
    pFile->index = KeyIndex{};
    pFile->head.nVersion = kZmfVersion;
    pFile->head.nFileSeq++;
    return 1;
}

void RecordFileRemove(RecordFile *pFile)
{
    if (pFile->szFile)
        unlinkat(DirOfFile(pFile), InDir(pFile, pFile->szFile), 0);
}

void RecordFileFree(RecordFile *pFile)
{
    CloseDir(pFile);
    for (char **pp : {&pFile->szBelow, &pFile->szFile, &pFile->pszSdp}) {
        free(*pp);
        *pp = nullptr;
    }
    free(pFile->pAppData);
    pFile->pAppData = nullptr;
}

}  // namespace orx
