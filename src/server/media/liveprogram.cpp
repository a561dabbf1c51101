#include "server/media/liveprogram.h"

#include <cstring>

#include "record/sdpreader.h"
#include "runtime/clock.h"
#include "server/core/sdp.h"
#include "server/core/settings.h"
#include "server/media/hold.h"
#include "server/media/keystart.h"
#include "server/media/recordcontrol.h"

namespace orx {

constexpr size_t kMaxDescription = 4000;  // characters that a description stays below

static const char *LiveSdp(const Program *pProg)
{
    return pProg->desc.szSdp;
}

static const ProgramOps g_liveOps = {LiveSdp, nullptr, RecordersClose, HoldBegin, SayFarewell};

// In no container yet.
static Program *NewLiveProgram(const char *szPath, const char *szSdp, size_t nSdp, const Standards &standards)
{
    Program *pProg = nSdp < kMaxDescription ? ProgramNew(szPath, &g_liveOps) : nullptr;
    if (!pProg)
        return nullptr;
    pProg->bLive = 1;
    pProg->standards = standards;
    pProg->sleep.tIdleSince = ClockUptime();
    pProg->always.bWanted = RecordedAlways(szPath);
    pProg->desc.szSdp = standards.bPushers ? SdpWithStaticMaps(szSdp) : strdup(szSdp);
    if (pProg->desc.szSdp && SdpParse(&pProg->desc, pProg->desc.szSdp, 1, 0, standards.bPushers))
        return pProg;
    ProgramDiscard(pProg);
    return nullptr;
}

Program *CreateLiveProgram(const char *szPath, const char *szSdp, size_t nSdp)
{
    Program *pWaits = ProgramFind(szPath);
    const Standards now = StandardsNow();
    // what goes on is read as it began
    Program *pProg = NewLiveProgram(szPath, szSdp, nSdp, pWaits ? pWaits->standards : now);
    if (pWaits && pProg && HoldSuits(pWaits, &pProg->desc)) {
        HoldResume(pWaits, &pProg->desc);
        ProgramDiscard(pProg);
        return pWaits;
    }
    if (pWaits && pWaits->standards != now) {
        if (pProg)
            ProgramDiscard(pProg);
        pProg = NewLiveProgram(szPath, szSdp, nSdp, now);
    }
    if (pWaits && pProg && !pWaits->pPusher)
        HoldEnd(pWaits);
    if (!pProg)
        return nullptr;
    if (!ProgramReady(pProg)) {
        ProgramDiscard(pProg);
        return nullptr;
    }
    KeyStartInit(pProg);
    return pProg;
}

}  // namespace orx
