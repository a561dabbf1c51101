// Low-energy mode: the pusher of a program that nobody watches is told to stop sending, and to go on for the
// next player. Scheduler thread only.
#pragma once

#include "server/core/program.h"

namespace orx {

// Sends SLEEP when the mode is on and the program of this pusher has idled for a minute. Ends the session
// when that cannot be sent.
void SleepIfIdle(Session *pPusher);

// Tells a sleeping pusher to go on, for a player that has come; nothing happens unless the program
// sleeps, as it does even when the mode was turned off meanwhile.
void ProgramWake(Program *pProg);

}  // namespace orx
