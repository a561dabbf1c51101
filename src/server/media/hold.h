// Players whose pusher goes ([INTEROP] StandardPushers): they are told the end of every track (BYE, RFC 3550,
// section 6.6), or with HoldPlayers they wait some seconds for it to come back. Scheduler thread only.
#pragma once

#include "server/core/program.h"

namespace orx {

// The pusher of the program goes. Returns 1 when its players wait for another.
int HoldBegin(Program *pProg);

// Whether the program waits, and what another pusher announces suits its players: as many tracks, of the same
// kinds, codecs, clock rates and sound.
int HoldSuits(const Program *pProg, const Description *pNew);

// Goes on with what another pusher announces and HoldSuits allows. Its description takes the place of the one
// before, whose text is in *pNew then, unless players know other payload types.
void HoldResume(Program *pProg, Description *pNew);

// Nobody comes back: players are told the end, and the program ends.
void HoldEnd(Program *pProg);

// Tells a player of a live program that all its tracks end.
void SayFarewell(Session *pPlayer);

}  // namespace orx
