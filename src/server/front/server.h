// Start and stop of the server, and the figures that the console shows.
#pragma once

#include <cstdint>
#include <ctime>

#include "server/core/session.h"

namespace orx {

// Reads the settings, builds the services and opens the listening socket. Main thread. Returns 1 when the
// server runs, 0 when start-up failed and everything was undone.
int ServerStart(const char *szConfigPath);

// Ends the threads, then frees everything; settings and registry are all zero afterwards. Main thread.
void ServerStop();

// Figures for the console and the state file. Main thread: gathered on the scheduler thread, because the
// lists are its own. Zero when the server does not run.
struct SessionStat {
    char szRemote[24];    // peer address
    uint32_t tStart;      // seconds since the epoch
    char szProgram[256];  // name of the program, "-" without one
    int bPusher;
    int bDatagrams;         // it pushes over UDP; the next two are set, of all tracks
    uint32_t nLate, nLost;  // packets that came too late; that were not there in time, those included
    Reception reception;    // of a player: the worst of its tracks, when it has reported
};
struct ServerStat {
    unsigned nTasks, nLives, nClients, nMonitors;
    time_t tRead;  // when the settings in force were read
    unsigned nSessions;
    SessionStat *pSessions;  // from malloc, nSessions records; null when not asked for; the caller frees it
};
int ServerGetStat(ServerStat *pStat, int bWithSessions);

}  // namespace orx
