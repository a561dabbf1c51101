#include "server/media/recorder.h"

#include <strings.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <new>
#include <utility>

#include "base/console.h"
#include "base/printable.h"
#include "base/textbuf.h"
#include "record/recordevents.h"
#include "record/zmfwriter.h"
#include "runtime/clock.h"
#include "server/core/settings.h"

namespace orx {

constexpr uint32_t kPacketsPerStep = 256;  // of those from before, some milliseconds

// --- The writers that are open, looked after each second. Disk thread ---

constexpr int kTickMs = 1000;

static Recorder *g_pOpen = nullptr;
static int64_t g_nTickMs = 0;  // when they had their last tick, by RecordSteadyMs

static void Forget(Recorder *pRecorder)
{
    Recorder **pp = &g_pOpen;
    while (*pp && *pp != pRecorder)
        pp = &(*pp)->pNextOpen;
    if (*pp)
        *pp = pRecorder->pNextOpen;
}

// The recording is over by itself.
static void EndWriter(Recorder *pRecorder)
{
    Forget(pRecorder);
    ZMFWriterFree(std::exchange(pRecorder->pWriter, nullptr));
    pRecorder->bOver = 1;
}

// The file that is open begins or ends.
static void SayFile(const Recorder *pRecorder, EventLevel eLevel, const char *szEvent, const char *szReason)
{
    const RecordFile *pFile = &pRecorder->pWriter->file;
    int bEnds = szReason != nullptr;
    RecordSay(eLevel, szEvent,
              {pRecorder->szUri, pFile->szFile, szReason, eLevel == EventLevel::Error ? pFile->out.nErrno : 0,
               bEnds ? static_cast<int>(pFile->uDuration / 1000) : -1});
}

static void TellEnded(const Recorder *pRecorder, int bFailed)
{
    if (bFailed)
        SayFile(pRecorder, EventLevel::Error, "recording.failed", "it cannot be written");
    else
        SayFile(pRecorder, EventLevel::Info, "recording.end", "its time is over");
    print(bFailed ? "ZMFWriterWriteSample() failed!\r\n" : "ZMFWriterWriteSample() auto stopped().\r\n");
}

// Who comes first finds the disk full first, and makes room among what is its own: that goes round.
static void Rotate()
{
    Recorder *pFirst = std::exchange(g_pOpen, g_pOpen->pNextOpen);
    Recorder **pp = &g_pOpen;
    while (*pp)
        pp = &(*pp)->pNextOpen;
    *pp = pFirst;
    pFirst->pNextOpen = nullptr;
}

// Each second a tick, and in between what takes more steps. Returns the ms to the next call, -1 for none.
static int OnTick()
{
    int64_t nNow = RecordSteadyMs();
    int bTick = nNow >= g_nTickMs + kTickMs;
    int bMore = 0;
    Recorder *pNext;
    for (Recorder *p = g_pOpen; p; p = pNext) {
        pNext = p->pNextOpen;
        if (!bTick || ZMFWriterTick(p->pWriter)) {
            bMore |= ZMFWriterRoomStep(p->pWriter);
            continue;
        }
        TellEnded(p, 0);
        EndWriter(p);
    }
    if (bTick)
        g_nTickMs = nNow;
    if (bTick && g_pOpen)
        Rotate();
    return !g_pOpen ? -1 : bMore ? 0 : static_cast<int>(g_nTickMs + kTickMs - nNow);
}

static void Remember(Recorder *pRecorder)
{
    if (!g_pOpen)
        DiskTick(OnTick, kTickMs);
    pRecorder->pNextOpen = std::exchange(g_pOpen, pRecorder);
}

// --- Opening: the job carries all that it needs of the program ---

enum class OpeningStage {
    Create,   // the file
    Room,     // for it, a step at a time
    Packets,  // of the time before
};

struct Opening {
    RecorderOpening opening;  // first
    Recorder *pRecorder = nullptr;
    RecordOrder order;
    char szNick[32] = "";
    char *szSdp = nullptr;  // owned
    uint32_t nPreRecord = 0;
    List packets;  // PacketJobs of the time before, owned
    OpeningStage eStage = OpeningStage::Create;
};

// A packet on its way to the writer. Its data follows it.
struct PacketJob {
    DiskJob job;  // first
    Recorder *pRecorder;
    uint32_t nTimeMs;
    uint32_t nBytes;
    char chMedia;
    int bSplit;  // it begins a new file
    int bHole;   // packets are missing before it
};

static Opening *OpeningOf(DiskJob *pJob)
{
    return reinterpret_cast<Opening *>(pJob);
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

// The name of a recording, as far as it is known before its file is made.
static void ChooseName(const Opening *p, char *szFile, size_t nSize)
{
    TextBuf text{szFile, nSize};
    const RecordOrder *pOrder = &p->order;
    const char *szRoot = p->pRecorder->plan.szRoot, *szName = PathName(p->pRecorder->szUri);
    int bConfined = p->pRecorder->plan.bConfined, bNeverLose = p->pRecorder->plan.rules.bNeverLose;
    if (!pOrder->bNamed && bConfined)
        StorageNamePath(szFile, nSize, szRoot, szName, pOrder->nKind);
    else if (!pOrder->bNamed)
        StorageNextPath(szFile, nSize, szRoot, szName, pOrder->nKind, bNeverLose);
    else if (bConfined && pOrder->szFile[0] && pOrder->szFile[0] != '/')
        TextAdd(&text, "%s%s", szRoot, pOrder->szFile);
    else
        TextAdd(&text, "%s", pOrder->szFile);
    if (pOrder->bNamed && !bConfined)
        StorageFreePath(szFile, nSize, bNeverLose);
}

static void MakePlan(FilePlan *pPlan, const Program *pProg)
{
    TextCopy(pPlan->szRoot, sizeof(pPlan->szRoot), g_settings.szRecordPath);
    pPlan->bConfined = g_settings.bConfineRecordings;
    pPlan->nMinutePerFile = g_settings.nMinutePerFile;
    pPlan->rules = {g_settings.bNeverLose, g_settings.bWideUnits, pProg->standards.bPushers,
                    g_settings.bAutoDelOldFile, g_settings.nReserveMegabytes};
}

static ZMFWriter *CreateWriter(const Opening *p, const char *szFile)
{
    const RecordRules *pRules = &p->pRecorder->plan.rules;
    if (p->order.bNamed)
        return IsSafeFileName(szFile) ? ZMFWriterCreateFile(szFile, p->order.nKind, nullptr, nullptr, pRules)
                                      : nullptr;
    return ZMFWriterCreate(p->pRecorder->plan.szRoot, PathName(p->pRecorder->szUri), p->order.nKind, nullptr,
                           0, pRules);
}

// The same below the directory of recordings, whatever links and ".." make of the name.
static ZMFWriter *CreateConfined(const Opening *p, const char *szFile)
{
    char szProgram[kStoragePathSize];
    const char *szRoot = p->pRecorder->plan.szRoot;
    const RecordRules *pRules = &p->pRecorder->plan.rules;
    if (p->order.bNamed)
        return IsRecordingName(szFile) ? ZMFWriterCreateFile(szFile, p->order.nKind, nullptr, szRoot, pRules)
                                       : nullptr;
    return StorageProgramPath(szProgram, sizeof(szProgram), p->pRecorder->szUri)
               ? ZMFWriterCreate(szRoot, szProgram, p->order.nKind, nullptr, 1, pRules)
               : nullptr;
}

static void TellStart(const Opening *p, const char *szFile)
{
    print("StartRecord(%s) Limited=%dseconds, PreRecord=%useconds\r\n", PrintableText(szFile).sz,
          p->order.nLimitSeconds, p->nPreRecord);
}

// Opens the first file of a recording; null, with the cause printed, when it cannot be made.
static ZMFWriter *OpenWriter(const Opening *p)
{
    char szFile[kStoragePathSize] = "";
    ZMFWriter *pWriter = nullptr;
    int bQuiet = p->order.bAgain;  // but for what succeeds
    ChooseName(p, szFile, sizeof(szFile));
    errno = 0;
    if (p->pRecorder->plan.bConfined && (pWriter = CreateConfined(p, szFile)))
        ZMFWriterFileName(pWriter, szFile, sizeof(szFile));  // the name that was free
    if (!bQuiet)
        TellStart(p, szFile);
    if (!p->pRecorder->plan.bConfined)
        pWriter = CreateWriter(p, szFile);
    int nErrno = errno;
    if (!pWriter && !bQuiet) {
        print("Create record file(%s) failed!\r\n", PrintableText(szFile).sz);
        RecordSay(EventLevel::Error, "recording.failed",
                  {p->pRecorder->szUri, szFile,
                   nErrno ? "its file cannot be made" : "its name is not allowed", nErrno});
    }
    return pWriter;
}

// A step towards the room that a recording needs. One that there is none for ends, which is printed.
static int MakeRoom(Opening *p, ZMFWriter *pWriter)
{
    RoomResult eResult = ZMFWriterReserveStep(pWriter, p->pRecorder->plan.rules.nReserveMegabytes,
                                              p->pRecorder->plan.rules.bDeleteOldest);
    if (eResult == RoomResult::There)
        p->eStage = OpeningStage::Packets;
    if (eResult == RoomResult::None && !p->order.bAgain) {
        print("NOT enough storage space to record!!!\n");
        RecordSay(EventLevel::Error, "recording.failed",
                  {p->pRecorder->szUri, pWriter->file.szFile, "there is no room"});
    }
    return eResult != RoomResult::None;
}

// Label, description, limits and header. 1 or 0.
static int BeginFile(ZMFWriter *pWriter, const Opening *p)
{
    if (p->order.bAgain) {
        char szFile[kStoragePathSize] = "";
        ZMFWriterFileName(pWriter, szFile, sizeof(szFile));
        TellStart(p, szFile);
    }
    ZMFWriterSetLabel(pWriter, p->szNick);
    return ZMFWriterSetSdp(pWriter, p->szSdp) &&
           ZMFWriterSetLimits(pWriter, p->pRecorder->plan.nMinutePerFile * 60,
                              static_cast<uint32_t>(p->order.nLimitSeconds)) &&
           ZMFWriterWriteHead(pWriter);
}

static int WritePacket(ZMFWriter *pWriter, const PacketJob *p)
{
    if (p->bHole)
        ZMFWriterMarkHole(pWriter);
    if (p->bSplit)
        ZMFWriterMarkJump(pWriter);
    return ZMFWriterWriteRtpPacket(pWriter, reinterpret_cast<const uint8_t *>(p + 1), p->nBytes, p->chMedia,
                                   p->nTimeMs);
}

// Writes some of the packets from before. 1, or 0 when one could not be written.
static int WriteFromBefore(Opening *p)
{
    for (uint32_t i = 0; i < kPacketsPerStep; i++) {
        auto *pPacket = static_cast<PacketJob *>(ListFirst(&p->packets, LIST_DETACH));
        if (!pPacket)
            break;
        int nResult = WritePacket(p->pRecorder->pWriter, pPacket);
        free(pPacket);
        if (nResult < 1)
            return 0;
    }
    return 1;
}

// A step. Returns 1, or 0 when the recording cannot be made.
static int OpenStep(Opening *p)
{
    Recorder *pRecorder = p->pRecorder;
    switch (p->eStage) {
        case OpeningStage::Create:
            pRecorder->pWriter = OpenWriter(p);
            p->eStage = OpeningStage::Room;
            return pRecorder->pWriter != nullptr;
        case OpeningStage::Room:
            return MakeRoom(p, pRecorder->pWriter) &&
                   (p->eStage == OpeningStage::Room || BeginFile(pRecorder->pWriter, p));
        case OpeningStage::Packets:
            break;
    }
    return WriteFromBefore(p);
}

static int RunOpening(DiskJob *pJob)
{
    Opening *p = OpeningOf(pJob);
    Recorder *pRecorder = p->pRecorder;
    int bOk = OpenStep(p);
    if (bOk && (p->eStage != OpeningStage::Packets || ListCount(&p->packets) > 0))
        return 0;
    p->opening.bOpen = bOk;
    if (bOk) {
        SayFile(pRecorder, EventLevel::Info, "recording.begin", nullptr);
        pRecorder->bOpened = 1;
        Remember(pRecorder);
        return 1;
    }
    ZMFWriterDiscard(std::exchange(pRecorder->pWriter, nullptr));
    pRecorder->bOver = 1;
    return 1;
}

static void FreePacket(void *, void *pItem)
{
    free(pItem);
}

static void FreeOpening(HeldJob *pHeld)
{
    Opening *p = OpeningOf(&pHeld->job);
    ListDestroy(&p->packets);
    free(p->szSdp);
    delete p;
}

static Opening *NewOpening(const Program *pProg, const RecordOrder *pOrder)
{
    auto *p = new (std::nothrow) Opening;
    if (!p)
        return nullptr;
    p->order = *pOrder;
    p->opening.held.job.pfnRun = RunOpening;
    p->opening.held.pfnFree = FreeOpening;
    p->szSdp = strdup(pProg->desc.szSdp);
    ListInit(&p->packets, nullptr);
    ListDataProc(&p->packets, FreePacket, nullptr);
    ListUsedDefMap(&p->packets, 0);
    ProgramNames(pProg, nullptr, 0, p->szNick, sizeof(p->szNick));
    if (p->szSdp)
        return p;
    FreeOpening(&p->opening.held);
    return nullptr;
}

// --- Packets ---

// Whether the packet is of a track that a recording has.
static int IsRecorded(const Program *pProg, const DataBlock *pBlock)
{
    const Description *pDesc = &pProg->desc;
    int nTrack = BlockData(pBlock)[1] / 2;
    return (pBlock->nFlags & DB_VIDEO) || !pProg->standards.bPushers || nTrack == pDesc->nAudioTrack ||
           nTrack == pDesc->nDataTrack;
}

// The letter by which a writer knows the kind of a packet.
static char MediaLetter(const Program *pProg, const DataBlock *pBlock)
{
    if (pBlock->nFlags & DB_VIDEO)
        return 'v';
    return BlockData(pBlock)[1] == 2 * pProg->desc.nAudioTrack ? 'a' : 'u';
}

static int RunPacket(DiskJob *pJob)
{
    auto *p = reinterpret_cast<PacketJob *>(pJob);
    Recorder *pRecorder = p->pRecorder;
    int nResult = pRecorder->pWriter ? WritePacket(pRecorder->pWriter, p) : 1;
    free(p);
    if (nResult > 0)
        return 1;
    TellEnded(pRecorder, nResult < 0);
    EndWriter(pRecorder);
    return 1;
}

static PacketJob *NewPacket(Recorder *pRecorder, const Program *pProg, const DataBlock *pBlock)
{
    uint32_t nBytes = pBlock->len - kInterleaveBytes;
    auto *p = static_cast<PacketJob *>(malloc(sizeof(PacketJob) + nBytes));
    if (!p)
        return nullptr;
    *p = PacketJob{{},
                   pRecorder,
                   pBlock->nTimestamp,
                   nBytes,
                   MediaLetter(pProg, pBlock),
                   (pBlock->nFlags & DB_SPLIT) != 0,
                   0};
    p->job.pfnRun = RunPacket;
    p->job.nBytes = sizeof(PacketJob) + nBytes;
    memcpy(p + 1, BlockData(pBlock) + kInterleaveBytes, nBytes);
    return p;
}

struct HoleJob {
    DiskJob job;  // first
    uint32_t nMs;
    int bLogged;
    char szUri[sizeof(Recorder::szUri)];
};

static int RunHole(DiskJob *pJob)
{
    auto *p = reinterpret_cast<HoleJob *>(pJob);
    PrintableText uri(p->szUri);
    print("The disk is too slow: %u ms of %s are not recorded.\r\n", p->nMs, uri.sz);
    if (p->bLogged)
        log("The disk is too slow: %u ms of %s are not recorded.", p->nMs, uri.sz);
    EventSay(EventLevel::Warn, "recording.hole",
             {EventText("program", p->szUri), EventNumber("lost_ms", p->nMs),
              EventText("reason", "the disk was too slow")});
    free(p);
    return 1;
}

static void TellHole(Recorder *pRecorder)
{
    auto *p = static_cast<HoleJob *>(malloc(sizeof(HoleJob)));
    if (!p)
        return;
    *p = HoleJob{{}, ClockMs() - pRecorder->nHoleMs, g_settings.bNeverLose, ""};
    TextCopy(p->szUri, sizeof(p->szUri), pRecorder->szUri);
    p->job.pfnRun = RunHole;
    DiskPostLazy(&pRecorder->lane, &p->job);
}

static void BeginHole(Recorder *pRecorder)
{
    if (!pRecorder->bHole) {
        pRecorder->nHoleMs = ClockMs();
        EventSay(EventLevel::Warn, "recording.stalled",
                 {EventText("program", pRecorder->szUri),
                  EventNumber("waiting_mb", static_cast<int64_t>(DiskBytesWaiting() >> 20)),
                  EventText("reason", "the disk takes nothing")});
    }
    pRecorder->bHole = 1;
}

// Whether a packet goes to the disk. After a hole not before half the room is free again, and from a key
// frame on.
static int MayWrite(Recorder *pRecorder, const DataBlock *pBlock)
{
    auto nMost = static_cast<size_t>(Megabytes(g_settings.nWriteQueueMegabytes));
    size_t nWaiting = DiskBytesWaiting();
    if (!pRecorder->bHole && nWaiting >= nMost)
        BeginHole(pRecorder);
    return !pRecorder->bHole || (nWaiting <= nMost / 2 && BlockStartsKey(pBlock));
}

void RecorderWrite(Recorder *pRecorder, const Program *pProg, const DataBlock *pBlock)
{
    if (!IsRecorded(pProg, pBlock))
        return;
    PacketJob *p = MayWrite(pRecorder, pBlock) ? NewPacket(pRecorder, pProg, pBlock) : nullptr;
    if (!p) {
        BeginHole(pRecorder);
        pRecorder->bSplit |= (pBlock->nFlags & DB_SPLIT) != 0;
        return;
    }
    if (pRecorder->bHole) {
        TellHole(pRecorder);
        p->bHole = 1;
        p->bSplit |= pRecorder->bSplit;
        pRecorder->bHole = pRecorder->bSplit = 0;
    }
    DiskPostLazy(&pRecorder->lane, &p->job);
}

// --- From the cache, and the end ---

// The first cached key frame that is not older than the seconds wanted; null when there is none.
static DataBlock *FindPreRecordStart(const Program *pProg, uint32_t nSeconds)
{
    auto *pNewest = reinterpret_cast<DataBlock *>(pProg->cache.Pktq.pLast);
    DataBlock *p = pNewest;
    while (p && p->node.pPrev &&
           ClockDiff(pNewest->nTimestamp, p->nTimestamp) < static_cast<int32_t>(nSeconds * 1000))
        p = PrevBlock(p);
    while (p && !BlockStartsKey(p))
        p = NextBlock(p);
    return p;
}

Recorder *RecorderNew(const Program *pProg, const RecordOrder *pOrder, uint32_t nPreRecord,
                      RecorderOpening **ppOpening)
{
    auto *pRecorder = new (std::nothrow) Recorder;
    Opening *p = pRecorder ? NewOpening(pProg, pOrder) : nullptr;
    if (!p) {
        delete pRecorder;
        return nullptr;
    }
    pRecorder->nKind = pOrder->nKind;
    pRecorder->nBornMs = ClockMs();
    MakePlan(&pRecorder->plan, pProg);
    TextCopy(pRecorder->szUri, sizeof(pRecorder->szUri), pProg->Uri);
    p->pRecorder = pRecorder;
    p->nPreRecord = nPreRecord;
    for (const DataBlock *pBlock = FindPreRecordStart(pProg, nPreRecord); pBlock;
         pBlock = NextBlock(pBlock)) {
        if (!IsRecorded(pProg, pBlock))
            continue;
        PacketJob *pPacket = NewPacket(pRecorder, pProg, pBlock);
        if (!pPacket)
            break;
        ListAppend(&p->packets, pPacket);
        p->opening.held.job.nBytes += pPacket->job.nBytes;
    }
    *ppOpening = &p->opening;
    return pRecorder;
}

int RecorderRenewMs(const Recorder *pRecorder, const Program *pProg)
{
    FilePlan now;
    MakePlan(&now, pProg);
    const FilePlan *p = &pRecorder->plan;
    if (strcmp(now.szRoot, p->szRoot) == 0 && now.bConfined == p->bConfined &&
        now.nMinutePerFile == p->nMinutePerFile && memcmp(&now.rules, &p->rules, sizeof(now.rules)) == 0)
        return -1;
    uint32_t nFileMs = p->nMinutePerFile * 60 * 1000;
    return nFileMs ? static_cast<int>(nFileMs - (ClockMs() - pRecorder->nBornMs) % nFileMs) : 0;
}

static void OnOpened(DiskJob *pJob)
{
    FreeOpening(reinterpret_cast<HeldJob *>(pJob));
}

void RecorderOpen(Recorder *pRecorder, RecorderOpening *pOpening)
{
    pOpening->held.job.pfnDone = OnOpened;
    DiskPost(&pRecorder->lane, &pOpening->held.job);
}

struct Closing {
    HeldJob held;  // first
    Recorder *pRecorder;
    int bTold;
};

static int RunClosing(DiskJob *pJob)
{
    auto *p = reinterpret_cast<Closing *>(pJob);
    Recorder *pRecorder = p->pRecorder;
    char szFile[kStoragePathSize] = "";
    if (pRecorder->pWriter)
        ZMFWriterFileName(pRecorder->pWriter, szFile, sizeof(szFile));
    if (pRecorder->pWriter)
        SayFile(pRecorder, EventLevel::Info, "recording.end",
                p->bTold ? "asked for the end" : pRecorder->szEndReason);
    Forget(pRecorder);
    ZMFWriterFree(std::exchange(pRecorder->pWriter, nullptr));
    if (p->bTold)
        print("StopRecord(%s)\r\n", PrintableText(szFile).sz);
    return 1;
}

static void FreeClosing(HeldJob *pHeld)
{
    auto *p = reinterpret_cast<Closing *>(pHeld);
    delete p->pRecorder;
    delete p;
}

HeldJob *RecorderClosing(Recorder *pRecorder, int bTold)
{
    auto *p = new (std::nothrow) Closing{{}, pRecorder, bTold};
    if (!p)
        return nullptr;
    if (pRecorder->bHole && !pRecorder->bOver)  // which goes on to the end
        TellHole(pRecorder);
    p->held.job.pfnRun = RunClosing;
    p->held.pfnFree = FreeClosing;
    return &p->held;
}

static void OnClosed(DiskJob *pJob)
{
    FreeClosing(reinterpret_cast<HeldJob *>(pJob));
}

void RecorderClose(Recorder *pRecorder)
{
    HeldJob *pHeld = RecorderClosing(pRecorder, 0);
    if (!pHeld)
        return;
    pHeld->job.pfnDone = OnClosed;
    DiskPost(&pRecorder->lane, &pHeld->job);
}

void RecorderEachOpen(void (*pfnTake)(void *pContext, const RecorderFacts *pFacts), void *pContext)
{
    for (const Recorder *p = g_pOpen; p; p = p->pNextOpen) {
        const RecordFile *pFile = &p->pWriter->file;
        if (!RecordFileIsOpen(pFile))
            continue;  // the next one begins with the next key frame
        RecorderFacts facts{p->szUri, pFile->szFile, ZMFWriterRecordKind(p->pWriter), 0,
                            pFile->uDuration / 1000};
        facts.nBytes = FileOutPos(&pFile->out);
        pfnTake(pContext, &facts);
    }
}

}  // namespace orx
