#include "server/front/statusfacts.h"

#include <pthread.h>

#include <algorithm>
#include <new>

#include "base/textbuf.h"
#include "record/codec.h"
#include "record/picturesize.h"
#include "record/reorder.h"
#include "record/rtppacket.h"
#include "record/sdpreader.h"
#include "runtime/clock.h"
#include "runtime/mutexguard.h"
#include "server/core/sessionevents.h"
#include "server/core/sessionpeer.h"
#include "server/core/settings.h"
#include "server/front/reload.h"

namespace orx {

constexpr int kLookEveryMs = 1000;
constexpr uint32_t kStepPauseMs = 1;  // between two steps, in which others run

// --- Looks at the counts ---

static void Look(MediaInfo *pInfo, uint32_t nNow)
{
    TrackMeter *pMeter = &pInfo->meter;
    pMeter->looks[pMeter->nLooks++ % kMeterLooks] = {nNow, pInfo->report.nOctets, pMeter->nPictures};
    if (pInfo->report.nPackets != pMeter->nSeenPackets)
        pMeter->nSeenMs = nNow;
    pMeter->nSeenPackets = pInfo->report.nPackets;
}

static int OnLook(Task *, uint32_t, uint32_t, uint32_t)
{
    uint32_t nNow = ClockMs();
    for (Program *p = FirstProgram(); p; p = NextProgram(p))
        for (int i = 0; p->bLive && i < p->desc.nTrackCount; i++)
            Look(&p->desc.mediaInfos[i], nNow);
    return kLookEveryMs;
}

void StatusMeterStart()
{
    TaskSchedule(&g_server.scheduler, OnLook, kLookEveryMs, 0, nullptr);
}

// --- One program ---

static const char *KindOf(const Program *pProg, int nTrack)
{
    if (nTrack == pProg->desc.nVideoTrack)
        return "video";
    return nTrack == pProg->desc.nAudioTrack ? "audio" : "data";
}

static int SizeOfSets(const ParamSets *pSets, const NalForm *pForm, TrackFacts *pOut)
{
    const auto &kind = pSets->kinds[NAL_IS_SEQUENCE_SET - NAL_IS_VIDEO_SET];
    ByteReader reader{kind.pUnits, kind.nBytes};
    uint32_t nUnit = 0;
    const uint8_t *pUnit = kind.nBytes > 0 ? NalNext(&reader, &nUnit) : nullptr;
    return pUnit && PictureSizeOfSequence(pForm, pUnit, nUnit, &pOut->nWidth, &pOut->nHeight);
}

// As the description tells it.
static int SizeOfFormat(const Program *pProg, const NalForm *pForm, TrackFacts *pOut)
{
    SdpWalk walk = SdpSections(pProg->desc.szSdp, SDP_LINE_OR_CR);
    SdpSection section;
    while (SdpNextSection(&walk, &section)) {
        if (!section.own.starts_with("m=video"))
            continue;
        ParamSets sets;
        ParamSetsFromFormat(&sets, pForm, SdpReadFormat(section.own));
        int bFound = SizeOfSets(&sets, pForm, pOut);
        ParamSetsFree(&sets);
        return bFound;
    }
    return 0;
}

// As the last key frame that is kept begins.
static int SizeOfKeyFrame(const Program *pProg, const Codec *pCodec, TrackFacts *pOut)
{
    const DataBlock *pBlock = pProg->cache.pLastKey;
    RtpPacket packet;
    if (!pBlock || pBlock->len <= kInterleaveBytes ||
        !RtpPacketParse(BlockData(pBlock) + kInterleaveBytes, pBlock->len - kInterleaveBytes, &packet) ||
        packet.nPayload == 0)
        return 0;
    if (pCodec->nForm == FORM_JPEG)
        return PictureSizeOfJpeg(packet.pPayload, packet.nPayload, &pOut->nWidth, &pOut->nHeight);
    return pCodec->pNal &&
           pCodec->pNal->pfnKind(NalType(pCodec->pNal, packet.pPayload[0])) == NAL_IS_SEQUENCE_SET &&
           PictureSizeOfSequence(pCodec->pNal, packet.pPayload, packet.nPayload, &pOut->nWidth,
                                 &pOut->nHeight);
}

static void FindSize(const Program *pProg, const MediaInfo *pInfo, TrackFacts *pOut)
{
    const Codec *pCodec = pInfo->pCodec;
    if (!pProg->bLive || !pCodec)
        return;
    if (pCodec->pNal && pProg->keyStart.pForm && SizeOfSets(&pProg->keyStart.sets, pCodec->pNal, pOut))
        return;
    if (SizeOfKeyFrame(pProg, pCodec, pOut) ||
        (pCodec->pNal && pProg->desc.szSdp && SizeOfFormat(pProg, pCodec->pNal, pOut)))
        return;
    pOut->nWidth = pInfo->nWidth;
    pOut->nHeight = pInfo->nHeight;
}

// Rates over the last looks, once there are two.
static void FindRates(const TrackMeter *pMeter, TrackFacts *pOut)
{
    if (pMeter->nLooks < 2)
        return;
    unsigned nOldest = pMeter->nLooks > kMeterLooks ? pMeter->nLooks - kMeterLooks : 0;
    const MeterLook *pLast = &pMeter->looks[(pMeter->nLooks - 1) % kMeterLooks];
    const MeterLook *pFirst = &pMeter->looks[nOldest % kMeterLooks];
    uint32_t nMs = pLast->nAtMs - pFirst->nAtMs;
    if (nMs == 0)
        return;
    pOut->dBitRate = (pLast->nOctets - pFirst->nOctets) * 8000.0 / nMs;
    pOut->dFrameRate = (pLast->nPictures - pFirst->nPictures) * 1000.0 / nMs;
}

static void DescribeTrack(const Program *pProg, int nTrack, TrackFacts *pOut)
{
    const MediaInfo *pInfo = &pProg->desc.mediaInfos[nTrack];
    const TrackMeter *pMeter = &pInfo->meter;
    *pOut = {};
    pOut->szKind = KindOf(pProg, nTrack);
    TextCopy(pOut->szCodec, sizeof(pOut->szCodec), pInfo->szEncoding);
    pOut->nPackets = pInfo->report.nPackets;
    pOut->dBitRate = pOut->dFrameRate = -1;
    FindRates(pMeter, pOut);
    pOut->nKeyDistanceMs = pMeter->nKeyDistanceMs ? int64_t{pMeter->nKeyDistanceMs} : -1;
    pOut->nLastPacketMs = pMeter->nSeenPackets ? int64_t{ClockMs() - pMeter->nSeenMs} : -1;
    if (pInfo->report.nPackets != pMeter->nSeenPackets)
        pOut->nLastPacketMs = 0;  // one has come since the last look
    if (nTrack == pProg->desc.nVideoTrack)
        FindSize(pProg, pInfo, pOut);
    else
        pOut->dFrameRate = pOut->nKeyDistanceMs = -1;
}

static void DescribeProgram(const Program *pProg, ProgramFacts *pOut)
{
    TextCopy(pOut->szUri, sizeof(pOut->szUri), pProg->Uri);
    pOut->bLive = pProg->bLive;
    pOut->szState = !pProg->bLive            ? "recording"
                    : !pProg->pPusher        ? "waiting"
                    : pProg->sleep.bSleeping ? "sleeping"
                                             : "live";
    pOut->szPusher[0] = '\0';
    pOut->nPusher = 0;
    if (pProg->pPusher) {
        SessionRemoteText(pProg->pPusher, pOut->szPusher);
        pOut->nPusher = pProg->pPusher->nHandle;
    }
    TextCopy(pOut->szUser, sizeof(pOut->szUser), pProg->szAnnouncer);
    pOut->nPlayers = ListCount(&pProg->players);
    pOut->nRecordings = static_cast<unsigned>(pProg->nRecorders) + (pProg->always.pRecorder != nullptr);
    pOut->nSeconds = ClockUptime() - pProg->tBorn;
    pOut->nTracks = std::min(pProg->desc.nTrackCount, kMaxMediaInfos);
    for (int i = 0; i < pOut->nTracks; i++)
        DescribeTrack(pProg, i, &pOut->tracks[i]);
}

// --- One session ---

static const char *RoleOf(const Session *p)
{
    if (p->nFlags & SESSION_PUSHER)
        return "pusher";
    if (p->nFlags & SESSION_SUBSCRIBER)
        return "subscriber";
    if (p->nFlags & (SESSION_TUNNEL_GET | SESSION_TUNNEL_POST))
        return "tunnel";
    return p->pProg ? "player" : "none";
}

static const char *StateOf(const Session *p)
{
    static const char *const names[] = {"new",     "described", "setup",   "paused",
                                        "playing", "torn_down", "finished"};
    return p->nState < std::size(names) ? names[p->nState] : "new";
}

static void DescribeSession(const Session *p, SessionFacts *pOut)
{
    *pOut = {};
    pOut->nHandle = p->nHandle;
    pOut->szRole = RoleOf(p);
    pOut->szState = StateOf(p);
    pOut->szTransport = SessionTransport(p);
    SessionRemoteText(p, pOut->szRemote);
    TextCopy(pOut->szUser, sizeof(pOut->szUser), p->viewer.szUser);
    if (p->pProg)
        TextCopy(pOut->szProgram, sizeof(pOut->szProgram), p->pProg->Uri);
    pOut->nBytesSent = p->flow.nBytesSent;
    pOut->nBytesReceived = p->peer.nBytesReceived;
    pOut->nQueueBytes = p->out.Outq.sum.nBytes;
    pOut->nSeconds = ClockUptime() - p->told.tMade;  // the wall clock may be set meanwhile
    for (const SessionTrack &track : p->tracks) {
        Reception *pWorst = &pOut->reception;
        pWorst->bKnown |= track.reception.bKnown;
        pWorst->bRoundTrip |= track.reception.bRoundTrip;
        pWorst->nLoss = std::max(pWorst->nLoss, track.reception.nLoss);
        pWorst->nJitterMs = std::max(pWorst->nJitterMs, track.reception.nJitterMs);
        pWorst->nRoundTripMs = std::max(pWorst->nRoundTripMs, track.reception.nRoundTripMs);
        if (!track.pReorder)
            continue;
        pOut->bDatagrams = 1;
        pOut->nLate += track.pReorder->nLate;
        pOut->nLost += track.pReorder->nLost;
    }
}

// --- All of them, in steps ---

template <class Record>
struct Filling {
    FactsChunk<Record> **ppEnd;
    FactsChunk<Record> *pChunk = nullptr;
};

struct Gathering {
    ServerFacts *pOut;
    Filling<ProgramFacts> programs;
    Filling<SessionFacts> sessions;
    int bAny = 0;  // of the list at hand a record was taken, the last one with this number
    uint32_t nLast = 0;
    int bSessions = 0;  // the list of sessions is at hand
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    pthread_cond_t answered = PTHREAD_COND_INITIALIZER;
    int bDone = 0;
};

// A chunk for the records of this step; null without memory.
template <class Record>
static FactsChunk<Record> *NextChunk(Filling<Record> *pFilling, ServerFacts *pOut)
{
    auto *pChunk = new (std::nothrow) FactsChunk<Record>;
    if (!pChunk) {
        pOut->bFailed = 1;
        return nullptr;
    }
    *pFilling->ppEnd = pChunk;
    pFilling->ppEnd = &pChunk->pNext;
    return pChunk;
}

// Both lists are in order of creation, with numbers that wrap.
static int IsBehind(const Gathering *p, uint32_t nNumber)
{
    return !p->bAny || ClockDiff(nNumber, p->nLast) > 0;
}

// Returns 1 when there are more.
static int TakePrograms(Gathering *p)
{
    const Program *pProg = FirstProgram();
    while (pProg && !IsBehind(p, pProg->nNumber))
        pProg = NextProgram(pProg);
    FactsChunk<ProgramFacts> *pChunk = pProg ? NextChunk(&p->programs, p->pOut) : nullptr;
    if (!pChunk)
        return 0;
    for (; pProg && pChunk->nRecords < kFactsInChunk; pProg = NextProgram(pProg)) {
        DescribeProgram(pProg, &pChunk->records[pChunk->nRecords++]);
        p->bAny = 1;
        p->nLast = pProg->nNumber;
        p->pOut->nLives += pProg->bLive && pProg->pPusher;
    }
    return pProg != nullptr;
}

static int TakeSessions(Gathering *p)
{
    const Session *pSession = p->bAny ? FindSessionByHandle(p->nLast) : nullptr;
    if (!pSession)
        pSession = FirstSession();
    while (pSession && !IsBehind(p, pSession->nHandle))
        pSession = NextSession(pSession);
    FactsChunk<SessionFacts> *pChunk = pSession ? NextChunk(&p->sessions, p->pOut) : nullptr;
    if (!pChunk)
        return 0;
    for (; pSession && pChunk->nRecords < kFactsInChunk; pSession = NextSession(pSession)) {
        DescribeSession(pSession, &pChunk->records[pChunk->nRecords++]);
        p->bAny = 1;
        p->nLast = pSession->nHandle;
        p->pOut->nSessions++;
        p->pOut->nPushers += (pSession->nFlags & SESSION_PUSHER) != 0;
        p->pOut->nPlayers += !(pSession->nFlags & SESSION_PUSHER) && pSession->pProg;
    }
    return pSession != nullptr;
}

static void CopyRecordPath(void *pOut)
{
    TextCopy(static_cast<char *>(pOut), kStoragePathSize, g_settings.szRecordPath);
}

static void TakeRest(ServerFacts *pOut)
{
    CopyRecordPath(pOut->szRecordPath);
    pOut->bRecord = g_settings.bRecord;
    pOut->counted = g_server.counted;
    pOut->nQueuedBytes = g_server.nQueuedBytes;
    pOut->nCachedBytes = g_server.nCachedBytes;
    pOut->tRead = ReloadTime();
    pOut->nListeners = g_server.nListeners;
    std::copy_n(g_server.listeners, kMaxListeners, pOut->listeners);
    for (size_t i = 0; i < g_doubts.nDoubts; i++)
        DoubtAdd(&pOut->doubts, g_doubts.pDoubts[i].bRefuses, g_doubts.pDoubts[i].szText);
}

static int OnGather(Task *pTask, uint32_t, uint32_t, uint32_t)
{
    auto *p = static_cast<Gathering *>(TaskArgument(pTask));
    if (p->bSessions ? TakeSessions(p) : TakePrograms(p))
        return kStepPauseMs;
    if (!p->bSessions) {
        p->bSessions = 1;
        p->bAny = 0;
        return kStepPauseMs;
    }
    TakeRest(p->pOut);
    MutexGuard lock(&p->mutex);
    p->bDone = 1;
    pthread_cond_signal(&p->answered);
    return -1;
}

void ServerFactsGather(ServerFacts *pOut)
{
    *pOut = ServerFacts();
    Gathering all{pOut, {&pOut->pPrograms}, {&pOut->pSessions}};
    TaskSchedule(&g_server.scheduler, OnGather, 0, 0, &all);
    {
        MutexGuard lock(&all.mutex);
        while (!all.bDone)
            pthread_cond_wait(&all.answered, &all.mutex);
    }
    pthread_mutex_destroy(&all.mutex);
    pthread_cond_destroy(&all.answered);
}

template <class Record>
static void FreeChunks(FactsChunk<Record> *pChunk)
{
    while (pChunk) {
        FactsChunk<Record> *pNext = pChunk->pNext;
        delete pChunk;
        pChunk = pNext;
    }
}

void ServerFactsFree(ServerFacts *pFacts)
{
    FreeChunks(pFacts->pPrograms);
    FreeChunks(pFacts->pSessions);
    DoubtsFree(&pFacts->doubts);
    *pFacts = ServerFacts();
}

// --- Work there ---

struct WorkThere {
    void (*pfnWork)(void *pContext);
    void *pContext;
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    pthread_cond_t answered = PTHREAD_COND_INITIALIZER;
    int bDone = 0;
};

static int OnWork(Task *pTask, uint32_t, uint32_t, uint32_t)
{
    auto *p = static_cast<WorkThere *>(TaskArgument(pTask));
    p->pfnWork(p->pContext);
    MutexGuard lock(&p->mutex);
    p->bDone = 1;
    pthread_cond_signal(&p->answered);
    return -1;
}

void StatusRunThere(void (*pfnWork)(void *pContext), void *pContext)
{
    WorkThere work{pfnWork, pContext};
    TaskSchedule(&g_server.scheduler, OnWork, 0, 0, &work);
    {
        MutexGuard lock(&work.mutex);
        while (!work.bDone)
            pthread_cond_wait(&work.answered, &work.mutex);
    }
    pthread_mutex_destroy(&work.mutex);
    pthread_cond_destroy(&work.answered);
}

void ServerRecordPath(char *szOut)
{
    StatusRunThere(CopyRecordPath, szOut);
}

}  // namespace orx
