// One player of orxload: it is set up with blocking requests and then driven by events. One thread.
#pragma once

#include <cstdint>
#include <string>

#include "client/rtspclient.h"
#include "orxload/dump.h"
#include "orxload/histogram.h"
#include "orxload/options.h"

namespace orx {

enum LoadState {
    LOAD_READY,    // set up, PLAY not sent yet
    LOAD_STARTED,  // PLAY sent
    LOAD_PLAYING,  // PLAY answered with 200
    LOAD_FAILED,   // refused, or set up in vain
    LOAD_CUT,      // was playing, and the connection ended
};

constexpr int kLoadTracks = 4;

struct LoadTrack {
    int nPayloadType = -1;
    int bVideo = 0;
    int bSeen = 0;          // nNext is known
    uint16_t nNext = 0;     // sequence number expected
    uint64_t nHeardUs = 0;  // the last packet came
    uint64_t nStampUs = 0;  // send time found in the picture that is arriving
};

struct LoadCounts {
    uint64_t nPackets = 0, nBytes = 0;  // RTP, heads included
    uint64_t nReports = 0;              // RTCP packets
    uint64_t nLost = 0;                 // sequence numbers that were jumped over
    uint64_t nLate = 0;                 // packets older than one that was seen
    uint64_t nWrong = 0;                // no RTP, or other bytes than the dump has
};

struct LoadPlayer {
    RtspTransport transport = RTSP_OVER_TCP;
    int bStalled = 0;
    RtspClient client;
    LoadState state = LOAD_READY;
    int nPlayCSeq = 0;
    uint64_t nPlayUs = 0;          // PLAY sent
    uint64_t nAnsweredUs = 0;      // PLAY answered
    uint64_t nFirstPictureUs = 0;  // from PLAY to the last packet of the first picture; 0: none yet
    int bKeyStart = 0;             // the first video packet began a key frame
    uint64_t nNextKeepAliveUs = 0, nNextReportUs = 0;
    LoadTrack tracks[kLoadTracks];
    LoadCounts counts;
    LoadCounts atStart;             // the counts when measuring began
    std::string tail;               // the start of a message whose rest is to come
    PacketDump *pDump = nullptr;    // not owned; null: nothing is compared
    Histogram *pLatency = nullptr;  // not owned
    int bMeasuring = 0;
};

// Connects and sets all tracks up. Returns 1, or 0 with state LOAD_FAILED and client.error saying why.
int LoadPlayerOpen(LoadPlayer *pPlayer, const LoadOptions *pOptions, const std::string &url);
// Sends PLAY; the answer comes as an event.
void LoadPlayerStart(LoadPlayer *pPlayer);
// Reads all that the connection holds. The end of the connection changes the state.
void LoadPlayerReadStream(LoadPlayer *pPlayer);
// Reads all datagrams that a socket of the player holds.
void LoadPlayerReadDatagrams(LoadPlayer *pPlayer, int fd, int bRtcp);
// Keep-alive requests and receiver reports that are due; a track that has gone silent changes the state.
void LoadPlayerTick(LoadPlayer *pPlayer, const LoadOptions *pOptions, uint64_t nNowUs);

}  // namespace orx
