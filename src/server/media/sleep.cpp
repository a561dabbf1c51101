#include "server/media/sleep.h"

#include "base/console.h"
#include "base/eventlog.h"
#include "runtime/clock.h"
#include "server/core/settings.h"
#include "server/media/questions.h"
#include "server/media/recordcontrol.h"
#include "server/media/replies.h"

namespace orx {

constexpr uint32_t kSleepAfter = 60;  // seconds that a program idles before its pusher is told to sleep

// Sends one of the two requests. Returns 1, or 0 when there is no connection or writing to it failed.
static int Tell(Session *pPusher, const char *szMethod)
{
    Message request(pPusher, nullptr);
    RequestBegin(&request, szMethod);
    PusherAsked(pPusher, nullptr);
    return RequestSend(&request, nullptr, 0, sizeof(request.sz)) > 0;
}

static int IsIdle(Program *pProg)
{
    if (RecordersWant(pProg)) {  // it idles from the end of that on
        if (pProg->sleep.tIdleSince)
            pProg->sleep.tIdleSince = ClockUptime();
        return 0;
    }
    return pProg->nRefs < 2 && pProg->sleep.tIdleSince && !pProg->sleep.bSleeping &&
           ClockUptime() - pProg->sleep.tIdleSince >= kSleepAfter;
}

void SleepIfIdle(Session *pPusher)
{
    Program *pProg = pPusher->pProg;
    if (!g_settings.bLowEnergy || !pProg || !PusherKnows(pProg) || !IsIdle(pProg))
        return;
    if (!Tell(pPusher, "SLEEP")) {
        SessionNoteEnd(pPusher, "it could not be told to sleep");
        SessionEnd(pPusher);
        return;
    }
    print("Prog(%s) enter sleeping state...\r\n", pProg->Uri);
    EventSay(EventLevel::Info, "pusher.sleep", {EventText("program", pProg->Uri)});
    pProg->sleep.bSleeping = 1;
    ProgramClearCache(pProg);  // nobody is shown it any more: who comes has the next pictures
}

void ProgramWake(Program *pProg)
{
    Session *pPusher = pProg->pPusher;
    if (!pProg->bLive || !pProg->sleep.bSleeping || !pProg->sleep.tIdleSince || !pPusher)
        return;
    ProgramClearCache(pProg);
    Tell(pPusher, "WAKE");
    pPusher->peer.tLastActivity = ClockUptime();  // it was told to be silent: its time to answer starts now
    pProg->sleep.bSleeping = 0;
    pProg->sleep.tIdleSince = 0;
    print("Prog(%s) end sleeping state.\r\n", pProg->Uri);
    EventSay(EventLevel::Info, "pusher.wake", {EventText("program", pProg->Uri)});
}

}  // namespace orx
