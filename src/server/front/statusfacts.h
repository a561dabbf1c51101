// What the scheduler thread knows of programs and sessions, gathered for another thread in steps of a few
// records each: some may come and go between two of them.
#pragma once

#include <cstdint>

#include "record/storage.h"
#include "runtime/sockutil.h"
#include "server/core/doubts.h"
#include "server/core/program.h"
#include "server/core/registry.h"
#include "server/core/session.h"

namespace orx {

struct TrackFacts {
    const char *szKind;  // "video", "audio", "data"
    char szCodec[16];
    uint32_t nWidth, nHeight;  // of video; 0: not known
    uint32_t nPackets;
    double dBitRate, dFrameRate;  // per second; below 0: not known
    int64_t nKeyDistanceMs;       // -1: not known
    int64_t nLastPacketMs;        // since one was seen; -1: none was
};

struct ProgramFacts {
    char szUri[256];
    int bLive;
    const char *szState;  // "live", "waiting" for another pusher, "sleeping", "recording"
    char szPusher[kAddrTextSize];
    uint32_t nPusher;  // its session; 0: none
    char szUser[64];   // who announced it
    unsigned nPlayers;
    unsigned nRecordings;
    uint32_t nSeconds;
    int nTracks;
    TrackFacts tracks[kMaxMediaInfos];
};

struct SessionFacts {
    uint32_t nHandle;
    const char *szRole;  // "player", "pusher", "subscriber", "tunnel", "none"
    const char *szState;
    const char *szTransport;
    char szRemote[kAddrTextSize];
    char szUser[64];
    char szProgram[256];
    uint64_t nBytesSent, nBytesReceived;
    int64_t nQueueBytes;
    int64_t nSeconds;
    int bDatagrams;  // it pushes over UDP; the next two are set
    uint32_t nLate, nLost;
    Reception reception;  // the worst of its tracks
};

constexpr unsigned kFactsInChunk = 16;
template <class Record>
struct FactsChunk {
    FactsChunk *pNext = nullptr;  // owned
    unsigned nRecords = 0;
    Record records[kFactsInChunk];
};

struct ServerFacts {
    FactsChunk<ProgramFacts> *pPrograms = nullptr;  // owned, as the next
    FactsChunk<SessionFacts> *pSessions = nullptr;
    char szRecordPath[kStoragePathSize] = "";  // a reading may replace the server's own
    int bRecord = 0;                           // RecordEnable
    ServerCounts counted;
    unsigned nSessions = 0, nPlayers = 0, nPushers = 0, nLives = 0;
    int64_t nQueuedBytes = 0, nCachedBytes = 0;
    int64_t tRead = 0;  // when the configuration was read; 0: not known
    DoubtList doubts;   // a copy, owned
    ServerListener listeners[kMaxListeners] = {};
    unsigned nListeners = 0;
    int bFailed = 0;  // memory ran out: some are missing
};

// Starts the looks by which rates are known, one a second, for as long as the scheduler lives.
void StatusMeterStart();

// Gathers all, on another thread than the scheduler's, which runs. The caller frees what it gets.
void ServerFactsGather(ServerFacts *pOut);
void ServerFactsFree(ServerFacts *pFacts);

// The path of the recordings alone, into szOut of kStoragePathSize bytes. Threads as above.
void ServerRecordPath(char *szOut);

// Has work done on the scheduler thread, and waits for it. Not on that thread.
void StatusRunThere(void (*pfnWork)(void *pContext), void *pContext);

}  // namespace orx
