// The push to Orx: one connection that announces a program, carries its packets and answers what Orx asks.
// Where Orx does not take them whole packets are left out, up to the next key frame. The loop's thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "orxpull/announcement.h"
#include "orxpull/pullsettings.h"
#include "shared/loop.h"

namespace orx {

struct PushProcs {
    void (*pfnSleep)(void *pUser, int bSleep);        // nobody watches; 0: somebody does again
    void (*pfnSay)(void *pUser, const char *szText);  // what is worth a line
    // It has ended by itself. Once, the last call; PushClose there or later. szWord: "refused", "401", ...;
    // szWhy: one line, without credentials.
    void (*pfnEnded)(void *pUser, const char *szWord, const char *szWhy);
};

struct PushLink;

// Begins. The settings stay; the announcement is copied. Packets may be given at once: they wait until Orx
// takes them. Returns null without memory (nothing is called then). Nothing is called from inside of this.
PushLink *PushOpen(Loop *pLoop, const PullSettings *pSettings, const std::string &program,
                   const Announcement *pAnnouncement, const PushProcs *pProcs, void *pUser);
// Ends it. bTeardown: Orx is told that the program is over; otherwise its players wait where it lets them.
// Ignores null. Not from inside of pfnSleep and pfnSay.
void PushClose(PushLink *pPush, int bTeardown);

// The camera's next packets are those of another session: they go on behind those before.
void PushJoin(PushLink *pPush);
// While it pauses packets are left out, and from its end on up to a key frame.
void PushPause(PushLink *pPush, int bPause);
// One packet of a track of the announcement; it leaves with the burst. Packets that Orx cannot take are left
// out.
void PushPacket(PushLink *pPush, size_t nTrack, int bRtcp, const uint8_t *pData, size_t nBytes);
void PushBurst(PushLink *pPush);

int PushIsReady(const PushLink *pPush);  // packets leave
const Announcement *PushAnnouncement(const PushLink *pPush);

}  // namespace orx
