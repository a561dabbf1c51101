#include "server/media/udppusher.h"

#include <sys/socket.h>

#include <algorithm>
#include <new>

#include "base/bytes.h"
#include "base/console.h"
#include "record/reorder.h"
#include "runtime/clock.h"
#include "runtime/sockutil.h"
#include "server/core/program.h"
#include "server/core/sessionpeer.h"
#include "server/core/settings.h"
#include "server/media/distribute.h"
#include "server/media/ingest.h"

namespace orx {

constexpr int kWatchMs = 1000;
// SO_RCVBUF: a key picture comes in one burst, and each of its packets counts as two kB and more.
constexpr int kReceiveBytes = 2 << 20;

// Where the packets of a track go.
struct Destination {
    Session *pSession;
    unsigned nTrack;
};

static int FeedFrame(void *pContext, const uint8_t *pFrame, size_t nBytes)
{
    auto *pTo = static_cast<Destination *>(pContext);
    return FeedProgram(pTo->pSession, pTo->nTrack, pFrame, static_cast<uint32_t>(nBytes), nullptr);
}

// Hands on what has waited for its time. Returns in how many ms more will have, -1 when nothing waits, -2
// when the session must end.
static int HandOnWaiting(Session *pSession)
{
    int nDueMs = -1;
    for (unsigned i = 0; i < kMaxTracks; i++) {
        Destination to{pSession, i};
        ReorderSink sink{FeedFrame, &to};
        Reorder *pReorder = pSession->tracks[i].pReorder;
        if (!pReorder)
            continue;
        if (!ReorderExpire(pReorder, ClockMs(), &sink))
            return -2;
        int nMs = ReorderDueMs(pReorder, ClockMs());
        if (nMs >= 0 && (nDueMs < 0 || nMs < nDueMs))
            nDueMs = nMs;
    }
    return nDueMs;
}

static int OnWaitOver(Task *pTask, uint32_t, uint32_t, uint32_t)
{
    Session *pSession = SessionOfTask(pTask);
    if (!pSession)
        return -1;
    int nDueMs = HandOnWaiting(pSession);
    if (nDueMs == -2) {
        SessionEnd(pSession);
        return -1;
    }
    if (pSession->pProg && pSession->nState == STATE_PLAYING)
        FlushPlayers(pSession->pProg);
    pSession->datagrams.bWaits = nDueMs >= 0;
    return nDueMs >= 0 ? std::max(nDueMs, 1) : -1;
}

// Says whether a pusher that plays has been silent for too long.
static int IsSilent(Session *pSession)
{
    const Program *pProg = pSession->pProg;
    uint32_t nNow = ClockUptime();
    if (pSession->nState != STATE_PLAYING || !pProg || pProg->sleep.bSleeping || pSession->out.bInterleaved)
        pSession->datagrams.tHeard = nNow;
    return ClockDiff(nNow, pSession->datagrams.tHeard) > static_cast<int32_t>(g_settings.nLiveTime);
}

static int OnWatch(Task *pTask, uint32_t, uint32_t, uint32_t)
{
    Session *pSession = SessionOfTask(pTask);
    if (!pSession)
        return -1;
    if (!IsSilent(pSession))
        return kWatchMs;
    char szRemote[kAddrTextSize];
    SessionRemoteText(pSession, szRemote);
    print("Nothing comes from the pusher %s over UDP. It is closed.\r\n", szRemote);
    SessionNoteEnd(pSession, kEndSilent);
    SessionEnd(pSession);
    return -1;
}

int DatagramsBegin(Session *pSession, int i)
{
    SessionTrack *pTrack = &pSession->tracks[i];
    if (!pTrack->pReorder)
        pTrack->pReorder = new (std::nothrow) Reorder;
    if (!pTrack->pReorder)
        return 0;
    // more than the system allows everybody takes a right that the server may not have
    if (!SockSetOption(pTrack->Media->fd, SOL_SOCKET, SO_RCVBUFFORCE, kReceiveBytes))
        SockSetOption(pTrack->Media->fd, SOL_SOCKET, SO_RCVBUF, kReceiveBytes);
    pSession->datagrams.tHeard = ClockUptime();
    if (!pSession->datagrams.bWatch)
        SessionSchedule(pSession, OnWatch, kWatchMs);
    pSession->datagrams.bWatch = 1;
    return 1;
}

// What is no packet (RFC 3550, section 5.1) has no number: senders open a way through a NAT with it.
static int IsPacket(const uint8_t *pPacket, size_t nPacket)
{
    return nPacket >= kRtpHeaderBytes && pPacket[0] >> 6 == 2;
}

int DatagramTake(Session *pSession, int i, int bControl, uint8_t *pFrame, size_t nPacket)
{
    const SessionTrack *pTrack = &pSession->tracks[i];
    const uint8_t *pPacket = pFrame + kInterleaveBytes;
    pSession->datagrams.tHeard = ClockUptime();
    if (bControl || !pTrack->pReorder || !IsPacket(pPacket, nPacket))
        return 1;
    PutBe(pFrame, 1, '$');
    PutBe(pFrame + 1, 1, static_cast<uint32_t>(2 * i));
    PutBe(pFrame + 2, 2, static_cast<uint32_t>(nPacket));
    Destination to{pSession, static_cast<unsigned>(i)};
    ReorderSink sink{FeedFrame, &to};
    if (!ReorderPut(pTrack->pReorder, static_cast<uint16_t>(GetBe(pPacket + 2, 2)), pFrame,
                    nPacket + kInterleaveBytes, ClockMs(), &sink))
        return 0;
    if (pTrack->pReorder->nHeld > 0 && !pSession->datagrams.bWaits) {
        pSession->datagrams.bWaits = 1;
        SessionSchedule(pSession, OnWaitOver, kReorderMs);
    }
    return 1;
}

}  // namespace orx
