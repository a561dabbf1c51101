// What the parts of a player's session share (see rtspplay.h): its record and its times. The loop's thread.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "client/rtspmessage.h"
#include "shared/cameraurl.h"
#include "shared/link.h"
#include "shared/login.h"
#include "shared/loop.h"
#include "shared/rtspplay.h"
#include "shared/rtpsource.h"
#include "shared/rtspwire.h"
#include "shared/udppair.h"

namespace orx {

enum class PlayStep {
    Connect,  // the link is coming to stand
    Tunnel,   // the answer to the tunnel's GET
    Options,  // asked, as the next
    Describe,
    Setup,  // track by track
    Left,   // pfnDescribed wants no more of it
    Play,
    Playing,
    Ended,  // the caller knows, or has stopped it
};

struct PlayRequest {
    int nCSeq = 0;  // of the last time it was sent
    std::string method, uri;
    std::string headers;  // further lines, each ended by CR LF
    int nTries = 0;       // how often a challenge to it has been answered
    void (*pfnReply)(RtspPlay *pPlay, const RtspMessage *pReply) = nullptr;
};

// The UDP ports of a track.
struct PlayUdp {
    RtspPlay *pPlay = nullptr;  // not owned
    size_t nMedia = 0;          // whose they are
    UdpPair pair;               // owned
    LoopWatch watchRtp, watchRtcp;
    NetAddr peerRtp, peerRtcp;  // the server's; port 0: not told
};

// A track that was chosen.
struct PlayMedia {
    int nTrack = 0;      // its index in the description
    std::string url;     // of its SETUP
    int nClockRate = 0;  // Hz; 0: not known
    int nRtpChannel = -1, nRtcpChannel = -1;
    std::unique_ptr<PlayUdp> udp;  // where it comes that way
    RtpSource source;
};

// How a session is kept alive; each is tried where the one before was refused.
enum class PlayAlive { GetParameter, Options, SetParameter, None };

struct RtspPlay {
    Loop *pLoop = nullptr;
    PlaySettings settings;
    PlayProcs procs{};
    void *pUser = nullptr;
    PlayStep step = PlayStep::Connect;
    PlayOver over = PlayOver::Tcp;  // at this time; settings has what was wished
    int nBusy = 0;                  // its events that are being served; it is freed behind the last
    int bStopped = 0;

    CameraUrl url;  // after redirects, without credentials
    LoginUser user;
    int bKnowsHost = 1;  // the host is the one that the caller named
    int nRedirects = 0;
    int bNoOptions = 0;  // they made the server hang up
    int bAgain = 0;      // the server may hang up and be asked once more: it has just refused something
    int nSwitches = 0;   // of the transport

    const LinkProcs *pLinkProcs = nullptr;  // of pLink
    Link *pLink = nullptr;                  // owned
    Link *pPost = nullptr;                  // owned; of a tunnel
    size_t nPosted = 0;                     // bytes of it
    int nConnection = 0;  // counts them: what a link brought is not taken for the next one's
    RtspWire wire;

    LoginChallenge challenge;  // scheme None: nothing was asked for so far
    uint32_t nNonceUses = 0;
    std::string cnonce;  // random; a tunnel's cookie and the name in reports as well

    LoginChallenge tunnelChallenge;  // that of HTTP
    uint32_t nTunnelUses = 0;
    int nTunnelTries = 0;
    uint32_t nSsrc = 0;  // ours, in reports

    int nCSeq = 0;
    int nTriesBefore = 0;              // of a request whose challenge made the server hang up
    std::vector<PlayRequest> waiting;  // for replies, the oldest first
    std::string session;
    std::string aggregate;  // the URL of all tracks together
    std::vector<PlayMedia> media;
    size_t nSetUp = 0;   // tracks that are
    int bDescribed = 0;  // the caller has chosen
    int bToldPlaying = 0;
    uint64_t nBurstMs = 0;  // when the last one came
    int bBurst = 0;         // packets were handed on, and pfnBurst was not called yet
    PlayAlive alive = PlayAlive::Options;
    int nTimeoutS = 60;

    LoopTimer timer;  // for the first of these, in ms of the loop's clock; 0: none
    uint64_t nAnswerDueMs = 0, nAliveDueMs = 0, nSilentDueMs = 0;
    uint64_t nSwitchDueMs = 0;  // UDP is given up
    uint64_t nReportDueMs = 0;
    uint64_t nLastMediaMs = 0;
    PlayFault startFault = PlayFault::None;  // what RtspPlayStart could not tell by itself
};

// Held while an event is being served: the record outlives a stop from inside of it.
struct PlayBusy {
    RtspPlay *pPlay;
    explicit PlayBusy(RtspPlay *p) : pPlay(p) { p->nBusy++; }
    PlayBusy(PlayBusy &&) = delete;
    PlayBusy &operator=(PlayBusy &&) = delete;
    ~PlayBusy()
    {
        if (--pPlay->nBusy == 0 && pPlay->bStopped)
            delete pPlay;
    }
};

// Sets one of the record's times, nMs from now.
void PlaySetDue(RtspPlay *pPlay, uint64_t *pnDueMs, int nMs);
// Has the timer ring at the first of them.
void PlayArm(RtspPlay *pPlay);
// Where its links go.
void PlayFillTarget(const RtspPlay *pPlay, LinkTarget *pOut);

inline int PlayIsOver(const RtspPlay *pPlay)
{
    return pPlay->bStopped || pPlay->step == PlayStep::Ended;
}

}  // namespace orx
