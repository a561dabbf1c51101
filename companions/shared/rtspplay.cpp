#include "shared/rtspplay.h"

#include <sys/random.h>

#include <cstdlib>
#include <new>

#include "shared/playcore.h"
#include "shared/playlife.h"
#include "shared/playlink.h"

namespace orx {

const char *PlayFaultText(PlayFault fault)
{
    static const char *const kTexts[] = {"",    "url", "name",     "refused", "route",  "tls",
                                         "401", "404", "no media", "codec",   "answer", "closed"};
    return kTexts[static_cast<size_t>(fault)];
}

static std::string RandomHex()
{
    unsigned char bytes[12] = {};
    if (getrandom(bytes, sizeof bytes, GRND_NONBLOCK) < 0)
        bytes[0] = static_cast<unsigned char>(LoopNowMs());  // the machine has just started
    std::string text;
    for (unsigned char n : bytes)
        for (int nShift : {4, 0})
            text += "0123456789abcdef"[n >> nShift & 15];
    return text;
}

RtspPlay *RtspPlayStart(Loop *pLoop, const PlaySettings *pSettings, const PlayProcs *pProcs, void *pUser)
{
    auto *pPlay = new (std::nothrow) RtspPlay;
    if (!pPlay)
        return nullptr;
    pPlay->pLoop = pLoop;
    pPlay->settings = *pSettings;
    pPlay->procs = *pProcs;
    pPlay->pUser = pUser;
    pPlay->over = pSettings->over;
    pPlay->cnonce = RandomHex();
    pPlay->nSsrc = static_cast<uint32_t>(std::strtoul(pPlay->cnonce.substr(0, 8).c_str(), nullptr, 16));
    PlayAttach(pPlay);
    PlayBusy busy(pPlay);
    if (!CameraUrlParse(pSettings->url, &pPlay->url)) {
        pPlay->startFault = PlayFault::Url;
        PlaySetDue(pPlay, &pPlay->nAnswerDueMs, 0);
        return pPlay;
    }
    pPlay->user = {pPlay->url.user, pPlay->url.password};
    if (pPlay->user.name.empty() && pPlay->user.password.empty())
        pPlay->user = {pSettings->user, pSettings->password};
    pPlay->url.user.clear();
    pPlay->url.password.clear();
    PlayConnect(pPlay);
    return pPlay;
}

void RtspPlayStop(RtspPlay *pPlay)
{
    if (!pPlay || pPlay->bStopped)
        return;
    PlayBusy busy(pPlay);
    PlayRelease(pPlay);
    pPlay->bStopped = 1;
}

}  // namespace orx
