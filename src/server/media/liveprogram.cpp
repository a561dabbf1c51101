#include "server/media/liveprogram.h"

#include <cstring>

#include "record/sdpreader.h"
#include "runtime/clock.h"
#include "server/core/sdp.h"
#include "server/core/settings.h"
#include "server/media/keystart.h"
#include "server/media/recordcontrol.h"

namespace orx {

constexpr size_t kMaxDescription = 4000;  // characters that a description stays below

static const char *LiveSdp(const Program *pProg)
{
    return pProg->desc.szSdp;
}

static const ProgramOps g_liveOps = {LiveSdp, nullptr, RecordersClose};

Program *CreateLiveProgram(const char *szPath, const char *szSdp, size_t nSdp)
{
    if (nSdp >= kMaxDescription)
        return nullptr;
    Program *pProg = ProgramNew(szPath, &g_liveOps);
    if (!pProg)
        return nullptr;
    pProg->bLive = 1;
    pProg->sleep.tIdleSince = ClockUptime();
    pProg->always.bWanted = RecordedAlways(szPath);
    pProg->desc.szSdp = g_settings.bStandardPushers ? SdpWithStaticMaps(szSdp) : strdup(szSdp);
    if (pProg->desc.szSdp && SdpParse(&pProg->desc, pProg->desc.szSdp, 1, 0) && ProgramReady(pProg)) {
        KeyStartInit(pProg);
        return pProg;
    }
    ProgramDiscard(pProg);
    return nullptr;
}

}  // namespace orx
