#include "server/methods/quickplay.h"

#include "base/assertion.h"
#include "runtime/clock.h"
#include "server/core/sessionevents.h"
#include "server/core/tracks.h"
#include "server/media/distribute.h"
#include "server/media/filesend.h"
#include "server/media/rtcp.h"
#include "server/media/send.h"
#include "server/core/settings.h"
#include "server/methods/admit.h"
#include "server/methods/describe.h"
#include "server/methods/setup.h"

namespace orx {

// Sets every track up on the control connection. Returns 1, or 0 for a program with too many.
static int EnterAllTracks(Session *pSession)
{
    const Program *pProg = pSession->pProg;
    int nTracks = pProg->desc.nTrackCount;
    if (!pProg->standards.bPushers &&
        !ORX_PEER_ASSERT(nTracks >= 1 && nTracks < 4, "session->nTrackCount>=1 && session->nTrackCount < 4"))
        return 0;
    pSession->out.bInterleaved = 1;
    for (int i = 0; i < pSession->out.nTracks; i++)
        SessionEnterTrack(pSession, i);
    return 1;
}

Verdict HandleQuickPlay(Session *pSession, Port *pPort, Request *pRequest)
{
    Admission admission = EnterProgram(pSession, pPort, pRequest);
    if (admission != ADMITTED)
        return NotAdmitted(admission, Verdict::End);
    if (Describe(pSession, pPort, pRequest) == Verdict::End || !EnterAllTracks(pSession))
        return Verdict::End;
    Program *pProg = pSession->pProg;
    pSession->play.nPlayClock = ClockMs();
    if (pProg->bLive) {
        auto *pFirst = ListFirstOf<DataBlock>(&pProg->cache.Pktq);
        pSession->play.nPlayPos = pFirst ? pFirst->nTimestamp : 0;
    }
    pSession->play.nPlayStart = pSession->play.nPlayPos;
    RtcpPlayBegins(pSession);
    pSession->nState = STATE_PLAYING;
    SessionSayStart(pSession);
    if (!ORX_PEER_ASSERT(!(pSession->nFlags & SESSION_FILE_SENDER), "!(session->nFlags & 0x10)"))
        return Verdict::End;
    if (!pProg->bLive) {
        FileSenderStart(pSession);
        return Verdict::Keep;
    }
    FillBufferAtFirstPlay(pSession);
    return KeepIf(SendDataEx(pSession, nullptr, 0));
}

}  // namespace orx
