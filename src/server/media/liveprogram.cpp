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
static Program *NewLiveProgram(const char *szPath, const char *szSdp, size_t nSdp)
{
    Program *pProg = nSdp < kMaxDescription ? ProgramNew(szPath, &g_liveOps) : nullptr;
    if (!pProg)
        return nullptr;
    pProg->bLive = 1;
    pProg->sleep.tIdleSince = ClockUptime();
    pProg->always.bWanted = RecordedAlways(szPath);
    pProg->desc.szSdp = g_settings.bStandardPushers ? SdpWithStaticMaps(szSdp) : strdup(szSdp);
    if (pProg->desc.szSdp && SdpParse(&pProg->desc, pProg->desc.szSdp, 1, 0))
        return pProg;
    ProgramDiscard(pProg);
    return nullptr;
}

Program *CreateLiveProgram(const char *szPath, const char *szSdp, size_t nSdp)
{
    Program *pProg = NewLiveProgram(szPath, szSdp, nSdp);
    Program *pWaits = pProg ? ProgramFind(szPath) : nullptr;
    if (pWaits && HoldSuits(pWaits, &pProg->desc)) {
        HoldResume(pWaits, &pProg->desc);
        ProgramDiscard(pProg);
        return pWaits;
    }
    if (pWaits && !pWaits->pPusher)
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
