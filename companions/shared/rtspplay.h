// One session of a player with a camera or a server, from OPTIONS to TEARDOWN (RFC 2326), in any of the
// dialects that cameras speak: it finds the URLs of the tracks, answers challenges (Basic, Digest with MD5
// and SHA-256, RFC 7616), follows redirects, keeps the session alive by what the server lists, and goes to
// TCP where UDP brings nothing. What comes in is handed on packet by packet. The loop's thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "shared/loop.h"

namespace orx {

enum class PlayOver { Tcp, Udp, Http };

enum class PlayFault {
    None,
    Url,   // not a URL of rtsp:// or rtsps://
    Name,  // as LinkFault says, to Tls
    Refused,
    Route,
    Tls,
    Password,  // 401, with the credentials that there are, or without any
    NotFound,  // 404
    NoMedia,   // nothing came for nSilentMs, or no track is of use
    Codec,     // no track that the caller can use
    Answer,    // any other answer than 200, or none in time; szWhy has its status line
    Closed,    // the server ended it
};
const char *PlayFaultText(
    PlayFault fault);  // "name", "refused", "route", "401", "404", "no media", "codec", ...

struct PlayTrack {
    std::string media;     // "video", "audio", "application"
    std::string encoding;  // of "a=rtpmap:", or of the static payload type (RFC 3551), as "H264", "PCMU"
    std::string rtpmap;    // the value of that line, without the payload type: "H264/90000"
    std::string fmtp;      // the value of "a=fmtp:" for that payload type, without it; empty: none
    std::string control;   // as it stands; empty: none
    int nPayloadType = -1;
    int nClockRate = 0;
    int nChannels = 1;
    int bWanted = 0;  // pfnDescribed chooses; it is set up then
};

struct PlayDescription {
    std::string title;  // the "s=" line
    std::string sdp;    // all of it
    std::vector<PlayTrack> tracks;
};

struct PlaySettings {
    std::string url;  // rtsp:// or rtsps://, with or without user:password@ (percent-encoded or not)
    std::string user, password;  // where the URL has none
    PlayOver over = PlayOver::Tcp;
    std::string agent;        // "User-Agent"
    std::string pinFile;      // see LinkTarget
    int nAnswerMs = 10000;    // for each reply
    int nUdpSilentMs = 5000;  // over UDP, without a datagram so long from the start, TCP is tried
    int nSilentMs = 10000;    // without a packet so long, it has ended
};

struct PlayProcs {
    // Chooses the tracks (bWanted). Returns 1 to go on with them, 0 to end with PlayFault::Codec, -1 to leave
    // it there for the caller to stop.
    int (*pfnDescribed)(void *pUser, PlayDescription *pDescription);
    void (*pfnPlaying)(void *pUser);  // the answer to PLAY has come, or the first packet before it; once
    // One packet of RTP or RTCP of a track (an index into the description's tracks); gone afterwards. More
    // than one may come between two calls of pfnBurst.
    void (*pfnPacket)(void *pUser, int nTrack, int bRtcp, const uint8_t *pData, size_t nBytes);
    void (*pfnBurst)(void *pUser);  // may be null: what one read gave has been handed on
    // It has ended by itself. Once, the last call; the caller stops it there or later. szWhy: one line,
    // without credentials.
    void (*pfnEnded)(void *pUser, PlayFault fault, const char *szWhy);
};

struct RtspPlay;

// Begins. A session that was begun over UDP or TCP may go on over the other, and be set up anew for that:
// pfnDescribed and pfnPlaying do not come again then. Returns null without memory (nothing is called then);
// pfnEnded never comes from inside of this call.
RtspPlay *RtspPlayStart(Loop *pLoop, const PlaySettings *pSettings, const PlayProcs *pProcs, void *pUser);
// Takes leave with TEARDOWN (a program that ends runs its loop on until LinksLeaving() is 0) where a session
// stands, and is gone at once. Ignores null. May be called from any of the procedures.
void RtspPlayStop(RtspPlay *pPlay);

}  // namespace orx
