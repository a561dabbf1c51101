#include "server/media/recordcontrol.h"

#include <cstring>

#include "base/assertion.h"
#include "base/console.h"
#include "base/printable.h"
#include "base/textbuf.h"
#include "base/textnumber.h"
#include "record/zmfwriter.h"
#include "runtime/clock.h"
#include "server/core/settings.h"
#include "server/media/send.h"

namespace orx {

// The letter by which a writer knows the kind of a packet.
static char MediaLetter(const Program *pProg, const DataBlock *pBlock)
{
    if (pBlock->nFlags & DB_VIDEO)
        return 'v';
    return BlockData(pBlock)[1] == 2 * pProg->desc.nAudioTrack ? 'a' : 'u';
}

static int WritePacket(ZMFWriter *pWriter, const Program *pProg, const DataBlock *pBlock)
{
    return ZMFWriterWriteRtpPacket(pWriter, BlockData(pBlock) + kInterleaveBytes,
                                   pBlock->len - kInterleaveBytes, MediaLetter(pProg, pBlock),
                                   pBlock->nTimestamp);
}

// Closes a writer and moves the last one into its place.
static void DropRecorder(Program *pProg, int i)
{
    ZMFWriterFree(pProg->recorders[i]);
    pProg->recorders[i] = pProg->recorders[--pProg->nRecorders];
    pProg->recorders[pProg->nRecorders] = nullptr;
}

void RecordersWrite(Program *pProg, const DataBlock *pBlock)
{
    for (int i = pProg->nRecorders - 1; i >= 0; i--) {
        int nResult = WritePacket(pProg->recorders[i], pProg, pBlock);
        if (nResult > 0)
            continue;
        print(nResult < 0 ? "ZMFWriterWriteSample() failed!\r\n"
                          : "ZMFWriterWriteSample() auto stopped().\r\n");
        DropRecorder(pProg, i);
    }
}

void RecordersClose(Program *pProg)
{
    while (pProg->nRecorders > 0)
        DropRecorder(pProg, pProg->nRecorders - 1);
}

// Ends the first manual recording; others end only by their limits.
void StopRecord(Program *pProg)
{
    for (int i = 0; i < pProg->nRecorders; i++) {
        if (ZMFWriterRecordKind(pProg->recorders[i]) != RECORD_MANUAL)
            continue;
        char szFile[kStoragePathSize] = "";
        ZMFWriterFileName(pProg->recorders[i], szFile, sizeof(szFile));
        DropRecorder(pProg, i);
        print("StopRecord(%s)\r\n", PrintableText(szFile).sz);
        return;
    }
}

// The cached seconds ahead of an alarm, as far back as the program goes. Uptime counts begun seconds; the age
// of a young program is told by the clock of milliseconds.
static uint32_t PreRecordSeconds(const Program *pProg, int nKind)
{
    if (nKind != RECORD_ALARM)
        return 0;
    uint32_t nAge = ClockUptime() - pProg->tBorn;
    if (nAge <= g_settings.nPreRecordLen)
        nAge = (ClockMs() - pProg->nBornMs) / 1000;
    return nAge < g_settings.nPreRecordLen ? nAge : g_settings.nPreRecordLen;
}

static int IsRecordingName(const char *szFile)
{
    size_t nLen = strlen(szFile);
    return nLen > 4 && strcasecmp(szFile + nLen - 4, ".zmf") == 0;
}

// A peer may choose where its recording goes, but only a recording's name, so that it overwrites nothing
// else.
static int IsSafeFileName(const char *szFile)
{
    return IsRecordingName(szFile) && !strstr(szFile, "../");
}

static const char *ProgramDirectory(const Program *pProg)
{
    return pProg->Uri[0] == '/' ? pProg->Uri + 1 : pProg->Uri;
}

// The name of a recording, as far as it is known before its file is made.
static void ChooseName(const Program *pProg, const RecordOrder *pOrder, char *szFile, size_t nSize)
{
    TextBuf text{szFile, nSize};
    if (!pOrder->bNamed && !g_settings.bConfineRecordings)
        StorageNextPath(szFile, nSize, g_settings.szRecordPath, ProgramDirectory(pProg), pOrder->nKind);
    else if (!pOrder->bNamed)
        StorageNamePath(szFile, nSize, g_settings.szRecordPath, ProgramDirectory(pProg), pOrder->nKind);
    else if (g_settings.bConfineRecordings && pOrder->szFile[0] && pOrder->szFile[0] != '/')
        TextAdd(&text, "%s%s", g_settings.szRecordPath, pOrder->szFile);
    else
        TextAdd(&text, "%s", pOrder->szFile);
}

static ZMFWriter *CreateWriter(const Program *pProg, const RecordOrder *pOrder, const char *szFile)
{
    if (pOrder->bNamed)
        return IsSafeFileName(szFile) ? ZMFWriterCreateFile(szFile, pOrder->nKind, nullptr) : nullptr;
    return ZMFWriterCreate(g_settings.szRecordPath, ProgramDirectory(pProg), pOrder->nKind, nullptr);
}

// The same below the directory of recordings, whatever links and ".." make of the name.
static ZMFWriter *CreateConfined(const Program *pProg, const RecordOrder *pOrder, const char *szFile)
{
    char szProgram[kStoragePathSize];
    if (pOrder->bNamed)
        return IsRecordingName(szFile)
                   ? ZMFWriterCreateFile(szFile, pOrder->nKind, nullptr, g_settings.szRecordPath)
                   : nullptr;
    return StorageProgramPath(szProgram, sizeof(szProgram), pProg->Uri)
               ? ZMFWriterCreate(g_settings.szRecordPath, szProgram, pOrder->nKind, nullptr, 1)
               : nullptr;
}

// Opens the first file of a recording; null, with the cause printed, when it cannot be made.
static ZMFWriter *OpenWriter(const Program *pProg, const RecordOrder *pOrder, uint32_t nPreRecord)
{
    char szFile[kStoragePathSize] = "";
    ZMFWriter *pWriter = nullptr;
    ChooseName(pProg, pOrder, szFile, sizeof(szFile));
    if (g_settings.bConfineRecordings && (pWriter = CreateConfined(pProg, pOrder, szFile)))
        ZMFWriterFileName(pWriter, szFile, sizeof(szFile));  // the name that was free
    print("StartRecord(%s) Limited=%dseconds, PreRecord=%useconds\r\n", PrintableText(szFile).sz,
          pOrder->nLimitSeconds, nPreRecord);
    if (!g_settings.bConfineRecordings)
        pWriter = CreateWriter(pProg, pOrder, szFile);
    if (!pWriter) {
        print("Create record file(%s) failed!\r\n", PrintableText(szFile).sz);
        return nullptr;
    }
    if (ZMFWriterSetReserveMinSpace(pWriter, kReserveMegabytes, g_settings.bAutoDelOldFile))
        return pWriter;
    print("NOT enough storage space to record!!!\n");
    ZMFWriterDiscard(pWriter);
    return nullptr;
}

static RecordRules RulesFromSettings()
{
    RecordRules rules;
    rules.bNeverLose = g_settings.bNeverLose;
    rules.bWideUnits = g_settings.bWideUnits;
    rules.bStandardPushers = g_settings.bStandardPushers;
    return rules;
}

// Label, description, limits and header. 1 or 0.
static int BeginFile(ZMFWriter *pWriter, const Program *pProg, const RecordOrder *pOrder)
{
    char szNick[32];
    ProgramNames(pProg, nullptr, 0, szNick, sizeof(szNick));
    pWriter->rules = RulesFromSettings();
    ZMFWriterSetLabel(pWriter, szNick);
    return ZMFWriterSetSdp(pWriter, pProg->desc.szSdp) &&
           ZMFWriterSetLimits(pWriter, g_settings.nMinutePerFile * 60,
                              static_cast<uint32_t>(pOrder->nLimitSeconds)) &&
           ZMFWriterWriteHead(pWriter);
}

// The first cached key frame that is not older than the seconds wanted; null when there is none.
static DataBlock *FindPreRecordStart(const Program *pProg, uint32_t nSeconds)
{
    auto *pNewest = reinterpret_cast<DataBlock *>(pProg->cache.Pktq.pLast);
    DataBlock *p = pNewest;
    while (p && p->node.pPrev &&
           ClockDiff(pNewest->nTimestamp, p->nTimestamp) < static_cast<int32_t>(nSeconds * 1000))
        p = PrevBlock(p);
    while (p && (p->nFlags & (DB_VIDEO | DB_KEY)) != (DB_VIDEO | DB_KEY))
        p = NextBlock(p);
    return p;
}

// Writes what the cache holds of the time before. 1, or 0 when a packet could not be written.
static int PreRecord(ZMFWriter *pWriter, const Program *pProg, uint32_t nSeconds)
{
    for (const DataBlock *p = FindPreRecordStart(pProg, nSeconds); p; p = NextBlock(p))
        if (WritePacket(pWriter, pProg, p) < 1)
            return 0;
    return 1;
}

RecordStart StartRecord(Program *pProg, const RecordOrder *pOrder)
{
    if (!ORX_PEER_ASSERT(pProg->bLive && pProg->desc.szSdp, "pProg->bLive && pProg->szSdp"))
        return RecordStart::Fault;
    if (pProg->nRecorders == kMaxRecorders)
        return RecordStart::Runs;
    uint32_t nPreRecord = PreRecordSeconds(pProg, pOrder->nKind);
    ZMFWriter *pWriter = OpenWriter(pProg, pOrder, nPreRecord);
    if (!pWriter)
        return RecordStart::NoSpace;
    if (!BeginFile(pWriter, pProg, pOrder) || !PreRecord(pWriter, pProg, nPreRecord)) {
        ZMFWriterDiscard(pWriter);
        return RecordStart::NoSpace;
    }
    pProg->recorders[pProg->nRecorders++] = pWriter;
    return RecordStart::Runs;
}

}  // namespace orx
