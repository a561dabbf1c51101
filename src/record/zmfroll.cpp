// The files of a recording: how one is begun, described, completed, and followed by the next.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#include "base/assertion.h"
#include "base/bytes.h"
#include "base/console.h"
#include "base/textbuf.h"
#include "record/sdpscan.h"
#include "record/zmfwriter.h"

namespace orx {

constexpr size_t kExtensionLen = 4;  // ".zmf"

static int TakeSample(void *pContext, const uint8_t *pData, uint32_t nBytes, uint32_t nTimeMs, uint32_t nType)
{
    return ZMFWriterWriteSample(static_cast<ZMFWriter *>(pContext), pData, nBytes, nTimeMs, nType);
}

// Path of the open file while it is being written.
static int OpenName(const ZMFWriter *pWriter, char *szOut, size_t nSize)
{
    TextBuf path{szOut, nSize};
    return TextAdd(&path, "%s%s", pWriter->szFile, kOpenSuffix);
}

// Opens szFile with its suffix as the writer's file. Returns 1 or 0.
static int OpenFile(ZMFWriter *pWriter, const char *szFile)
{
    char szOpen[kStoragePathSize];
    char szDir[kStoragePathSize];
    char *szCopy = strdup(szFile);
    if (!szCopy)
        return 0;
    free(pWriter->szFile);
    pWriter->szFile = szCopy;
    if (!OpenName(pWriter, szOpen, sizeof(szOpen)) || !FileOutOpen(&pWriter->file, szOpen))
        return 0;
    StorageDirOf(szDir, sizeof(szDir), szFile);
    StorageHold(&pWriter->open, szDir);
    return 1;
}

static ZMFWriter *NewWriter(int nKind, const char *szLabel)
{
    if (nKind < RECORD_SCHEDULED || nKind > RECORD_MANUAL)
        return nullptr;
    auto *pWriter = new (std::nothrow) ZMFWriter;
    if (!pWriter)
        return nullptr;
    pWriter->head.nRecordKind = static_cast<uint16_t>(nKind);
    ZMFWriterSetLabel(pWriter, szLabel);
    pWriter->video.pfnSample = pWriter->audio.pfnSample = TakeSample;
    pWriter->video.pContext = pWriter->audio.pContext = pWriter;
    return pWriter;
}

ZMFWriter *ZMFWriterCreate(const char *szRoot, const char *szProgram, int nKind, const char *szLabel)
{
    char szPath[kStoragePathSize] = "";
    ZMFWriter *pWriter = szRoot && szProgram ? NewWriter(nKind, szLabel) : nullptr;
    if (!pWriter)
        return nullptr;
    pWriter->szRoot = strdup(szRoot);
    pWriter->szProgram = strdup(szProgram);
    if (pWriter->szRoot && pWriter->szProgram &&
        StorageNextPath(szPath, sizeof(szPath), szRoot, szProgram, nKind) && OpenFile(pWriter, szPath))
        return pWriter;
    ZMFWriterFree(pWriter);
    return nullptr;
}

ZMFWriter *ZMFWriterCreateFile(const char *szFile, int nKind, const char *szLabel)
{
    ZMFWriter *pWriter = NewWriter(nKind, szLabel);
    if (pWriter && OpenFile(pWriter, szFile))
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
    for (char **pp : {&pWriter->szRoot, &pWriter->szProgram, &pWriter->szFile, &pWriter->pszSdp}) {
        free(*pp);
        *pp = nullptr;
    }
    free(pWriter->pAppData);
    free(pWriter->pAudio);
    pWriter->pAppData = pWriter->pAudio = nullptr;
    pWriter->nAudioDataBytes = 0;
}

void ZMFWriterDiscard(ZMFWriter *pWriter)
{
    if (!pWriter)
        return;
    ZMFWriterStop(pWriter);
    if (pWriter->szFile)
        unlink(pWriter->szFile);
    Release(pWriter);
    delete pWriter;
}

void ZMFWriterFree(ZMFWriter *pWriter)
{
    if (!pWriter)
        return;
    if (!pWriter->pszSdp) {
        ZMFWriterDiscard(pWriter);
        return;
    }
    Release(pWriter);
    delete pWriter;
}

int ZMFWriterFileName(const ZMFWriter *pWriter, char *szOut, size_t nSize)
{
    if (pWriter->file.fd < 0 || !TextCopy(szOut, nSize, pWriter->szFile))
        return 0;
    return static_cast<int>(strlen(szOut));
}

// Keeps the description with room behind it for the range line of a closed file. Returns 1 or 0.
static int StoreSdp(ZMFWriter *pWriter, const char *szSdp)
{
    size_t nText = strlen(szSdp);
    size_t nBlock = (nText + 8) / 8 * 8;
    nBlock += SdpFindRange(szSdp) ? 16 : 32;
    if (nBlock > kZmfTextBlockMax)
        return 0;
    auto *szCopy = static_cast<char *>(calloc(1, nBlock + 1));
    if (!szCopy)
        return 0;
    memcpy(szCopy, szSdp, nText + 1);
    SdpRemoveRange(szCopy);
    size_t nLeft = strlen(szCopy);
    memset(szCopy + nLeft, 0, nBlock - nLeft);
    free(pWriter->pszSdp);
    pWriter->pszSdp = szCopy;
    pWriter->head.nSdpSize = static_cast<uint16_t>(nBlock);
    return 1;
}

int ZMFWriterSetSdp(ZMFWriter *pWriter, const char *szSdp)
{
    if (!szSdp || !*szSdp)
        return 0;
    ORX_ASSERT(pWriter->pszSdp == nullptr, "pWriter->pszSdp==((void *)0)");
    if (!StoreSdp(pWriter, szSdp))
        return 0;
    SdpCodecs codecs;
    SdpScanCodecs(szSdp, &codecs);
    TextCopy(pWriter->szVideoCodec, sizeof(pWriter->szVideoCodec), codecs.szVideo);
    TextCopy(pWriter->szAudioCodec, sizeof(pWriter->szAudioCodec), codecs.szAudio);
    pWriter->pfnVideo = SdpVideoDepacketiser(codecs.szVideo);
    pWriter->pfnAudio = SdpAudioDepacketiser(codecs.szAudio);
    pWriter->audio.bWideband = strcmp(codecs.szAudio, "AMR-WB") == 0;
    return 1;
}

int ZMFWriterSetAppData(ZMFWriter *pWriter, uint32_t nBytes, const void *pData)
{
    uint32_t nBlock = pWriter->head.nAppDataBytes;
    if (!pWriter->pAppData) {
        if (nBytes > kZmfTextBlockMax || pWriter->uDataBeginOffset != 0)
            return 0;
        nBlock = (nBytes + 7) / 8 * 8;
        pWriter->pAppData = static_cast<uint8_t *>(calloc(1, nBlock + 1));
        if (!pWriter->pAppData)
            return 0;
        pWriter->head.nAppDataBytes = static_cast<uint16_t>(nBlock);
    }
    ORX_ASSERT(nBytes <= nBlock, "nAppDataBytes <= pWriter->nAppDataBytes");
    memset(pWriter->pAppData, 0, nBlock);
    if (nBytes > 0)
        memcpy(pWriter->pAppData, pData, nBytes);
    return 1;
}

static void EncodeIndex(const ZMFWriter *pWriter, uint8_t *pOut)
{
    memset(pOut, 0, kZmfIdxBytes);
    for (uint32_t i = 0; i < pWriter->nCurIdxId; i++) {
        PutBe(pOut + i * kZmfEntryBytes, 4, pWriter->index[i].nPos);
        PutBe(pOut + i * kZmfEntryBytes + 4, 4, pWriter->index[i].nTimeMs);
    }
}

int ZMFWriterRewriteHead(ZMFWriter *pWriter, int bFinal)
{
    uint8_t bytes[kZmfHeadBytes + kZmfIdxBytes];
    ZMFileHeader head = pWriter->head;
    if (bFinal) {
        head.uDuration = pWriter->uDuration;
        head.uVideoSamples = pWriter->uVideoSamples;
        head.uTextSamples = pWriter->uTextSamples;
        head.uUserSamples = pWriter->uUserSamples;
        head.uKeyFrames = pWriter->uKeyFrames;
    }
    ZMFileHeaderEncode(&head, bytes);
    EncodeIndex(pWriter, bytes + kZmfHeadBytes);
    return FileOutPatch(&pWriter->file, 0, bytes, sizeof(bytes));
}

static void FormatTime(TextBuf *pText, time_t tWhen)
{
    tm local{};
    localtime_r(&tWhen, &local);
    TextAdd(pText, "%04d%02d%02d-%02d%02d%02d", local.tm_year + 1900, local.tm_mon + 1, local.tm_mday,
            local.tm_hour, local.tm_min, local.tm_sec);
}

int ZMFWriterWriteHead(ZMFWriter *pWriter)
{
    uint8_t bytes[kZmfHeadBytes + kZmfIdxBytes] = {};
    FileOut *pFile = &pWriter->file;
    pWriter->tFileStart = RecordTime();
    if (pWriter->tRecordStart == 0)
        pWriter->tRecordStart = pWriter->tFileStart;
    TextBuf start{pWriter->head.szStartTime, sizeof(pWriter->head.szStartTime)};
    FormatTime(&start, pWriter->tFileStart);
    ZMFileHeaderEncode(&pWriter->head, bytes);
    if (!FileOutWrite(pFile, bytes, sizeof(bytes), pWriter->pszSdp, pWriter->head.nSdpSize) ||
        !FileOutWrite(pFile, pWriter->pAppData, pWriter->head.nAppDataBytes, nullptr, 0) ||
        !FileOutFlush(pFile))
        return 0;
    FileOutCommit(pFile);
    pWriter->uDataBeginOffset = ZMFileDataOffset(&pWriter->head);
    return 1;
}

// Header, index, SDP and application data as they are at the end. A write error leaves the rest undone: how
// many of the records that were counted are in the file is not known then, so it stays as one that was
// interrupted.
static void CompleteFile(ZMFWriter *pWriter)
{
    if (ZMFWriterFlushAudio(pWriter) < 1)
        print("ZMFWriterStop(%s): the last audio is lost!\r\n", pWriter->szFile);
    if (!FileOutFlush(&pWriter->file))
        return;
    ORX_ASSERT(pWriter->nCurIdxId == 0 || pWriter->index[0].nPos == 0,
               "index[0].pos == 0 || index[0].pos == pWriter->uDataBeginOffset");
    if (!ZMFWriterRewriteHead(pWriter, 1))
        return;
    if (pWriter->uDuration > 0 && pWriter->pszSdp) {
        const char *p = SdpFindRange(pWriter->pszSdp);
        ORX_ASSERT(p == nullptr, "p==((void *)0)");
        SdpInsertRange(pWriter->pszSdp, pWriter->head.nSdpSize + size_t{1}, pWriter->uDuration);
    }
    uint64_t nSdpAt = kZmfHeadBytes + kZmfIdxBytes;
    if (FileOutPatch(&pWriter->file, nSdpAt, pWriter->pszSdp, pWriter->head.nSdpSize))
        FileOutPatch(&pWriter->file, nSdpAt + pWriter->head.nSdpSize, pWriter->pAppData,
                     pWriter->head.nAppDataBytes);
}

void ZMFWriterStop(ZMFWriter *pWriter)
{
    char szOpen[kStoragePathSize];
    if (pWriter->file.fd < 0)
        return;
    if (pWriter->uDataBeginOffset != 0)
        CompleteFile(pWriter);
    int bNamed = OpenName(pWriter, szOpen, sizeof(szOpen)) && FileOutIsAt(&pWriter->file, szOpen);
    if (!FileOutClose(&pWriter->file))
        print("ZMFWriterStop(%s): write error!\r\n", pWriter->szFile);
    if (bNamed)  // otherwise a later recording has taken the name
        rename(szOpen, pWriter->szFile);
    StorageRelease(&pWriter->open);
    pWriter->uDataBeginOffset = 0;
    pWriter->nAudioDataBytes = 0;
}

// The name that follows a name given by the client: its stem with the time of now. Returns 1 or 0.
static int NextNamedPath(const ZMFWriter *pWriter, char *szOut, size_t nSize)
{
    const char *pSlash = strrchr(pWriter->szFile, '/');
    if (!pSlash)
        return 0;
    const char *pDash = strchr(pSlash, '-');
    size_t nLast = strlen(pSlash + 1);
    size_t nStem = pDash ? static_cast<size_t>(pDash - pWriter->szFile) : strlen(pWriter->szFile);
    if (!pDash && nLast > kExtensionLen)
        nStem -= kExtensionLen;
    TextBuf path{szOut, nSize};
    TextAddBytes(&path, pWriter->szFile, nStem);
    TextAdd(&path, "-");
    FormatTime(&path, RecordTime());
    return TextAdd(&path, ".zmf");
}

// Counters of a file that is begun.
static int BeginCounting(ZMFWriter *pWriter)
{
    if (pWriter->pszSdp) {
        char *szOld = pWriter->pszSdp;
        if (!StoreSdp(pWriter, szOld))
            return 0;
    }
    pWriter->uDuration = pWriter->uVideoSamples = pWriter->uTextSamples = pWriter->uUserSamples = 0;
    pWriter->uSampleCount = pWriter->uKeyFrames = pWriter->nCurIdxId = 0;
    pWriter->nTimeStampBase = 0;
    pWriter->bRebase = 0;
    pWriter->head.nIdxInterval = 1;
    ORX_ASSERT(pWriter->video.nBytes == 0, "pWriter->nBytes==0");
    ORX_ASSERT(pWriter->nAudioDataBytes == 0, "pWriter->nAudioDataBytes==0");
    pWriter->head.nFileSeq++;
    return 1;
}

int ZMFWriterCreateNextFile(ZMFWriter *pWriter)
{
    char szPath[kStoragePathSize] = "";
    char szDir[kStoragePathSize];
    ORX_ASSERT(pWriter->file.fd < 0, "pWriter->pFile==((void *)0)");
    int bDateLayout = pWriter->szRoot != nullptr;
    int bBuilt = bDateLayout ? StorageNextPath(szPath, sizeof(szPath), pWriter->szRoot, pWriter->szProgram,
                                               pWriter->head.nRecordKind)
                             : pWriter->szFile && NextNamedPath(pWriter, szPath, sizeof(szPath));
    if (!bBuilt || !StorageDirOf(szDir, sizeof(szDir), szPath))
        return -1;
    if (pWriter->nSpaceInMB > 0 &&
        !StorageMakeRoom(szDir, bDateLayout, pWriter->nSpaceInMB, pWriter->bDeleteOldest)) {
        // The clean-up may have taken the new file's own, still empty directory with it.
        return access(szDir, F_OK) == 0 ? 0 : -1;
    }
    // A directory whose last file was deleted to make the room went with it.
    StorageMakeDir(szDir);
    if (!OpenFile(pWriter, szPath)) {
        Release(pWriter);
        return -1;
    }
    return BeginCounting(pWriter) && ZMFWriterWriteHead(pWriter) ? 1 : -1;
}

}  // namespace orx
