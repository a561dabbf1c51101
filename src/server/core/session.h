// One RTSP connection: a player, a pusher, a subscriber, or the half of an HTTP tunnel.
// Scheduler thread only.
#pragma once

#include <algorithm>
#include <cstdint>

#include "base/linkedlist.h"
#include "record/playline.h"
#include "record/rtpout.h"
#include "runtime/sockutil.h"
#include "server/core/accounttable.h"
#include "server/core/port.h"
#include "server/core/registry.h"
#include "server/core/settings.h"

namespace orx {

struct Codec;
struct Program;
struct Reorder;

// What the handler of a request says about its session once it has replied.
enum class Verdict {
    End,
    Keep,
    Later,  // nothing was sent: the handler is called again with the same request (see SessionHold)
};

inline Verdict KeepIf(int bKeep)
{
    return bKeep ? Verdict::Keep : Verdict::End;
}

enum : uint32_t {
    SESSION_PUSHER = 0x1,          // feeds a live program
    SESSION_TUNNEL_GET = 0x8,      // GET half of a tunnel that waits for its POST half
    SESSION_FILE_SENDER = 0x10,    // the file sender task runs
    SESSION_CLOSING = 0x20,        // the delayed close is scheduled
    SESSION_TUNNEL_POST = 0x40,    // POST half of a tunnel that waits for its GET half
    SESSION_DELAYED_SEND = 0x100,  // a delayed-send timer is armed
    SESSION_CATCHES_UP = 0x200,    // the timer of a start over UDP runs
    SESSION_RTCP = 0x400,          // RTCP reports enabled
    SESSION_SUBSCRIBER = 0x800,    // event subscriber
};

enum SessionState : uint32_t {
    STATE_NEW = 0,        // DESCRIBE, QUICKPLAY, ANNOUNCE, SUBSCRIBE may come
    STATE_DESCRIBED = 1,  // the first SETUP may come
    STATE_SETUP = 2,      // more SETUP, or PLAY
    STATE_PAUSED = 3,     // PLAY again
    STATE_PLAYING = 4,
    STATE_TORNDOWN = 5,
    STATE_FINISHED = 6,  // a recording was played to its end
};

// What a player's receiver reports tell of a track (RFC 3550, section 6.4.1).
struct Reception {
    int bKnown = 0;  // one has come
    int nLoss = 0;   // percent since the one before
    int nJitterMs = 0;
    int bRoundTrip = 0;  // the next one is known
    int nRoundTripMs = 0;
};

// A track of the program, as it travels to or from this peer.
struct SessionTrack : RtpTrack {
    const Codec *pCodec = nullptr;  // see MediaInfo
    int nTrackId = 0;               // by which SETUP names it
    uint8_t nRtpChannel = 0;        // interleaved channels
    uint8_t nRtcpChannel = 0;
    Port *Media = nullptr;        // UDP port of RTP, null when interleaved; owned by the port map
    Port *Control = nullptr;      // UDP port of RTCP
    Reorder *pReorder = nullptr;  // of a pusher over UDP: what came out of order; owned
    // What sender reports tell (RFC 3550, section 6.4.1).
    uint32_t nFirstSentRtpTime = 0;  // RTP time stamp of the first packet written
    uint32_t nClockBase = 0;         // RTP clock at that moment
    int bReported = 0;               // the report on that packet was made
    uint32_t nPackets = 0;           // packets and payload octets written
    uint32_t nOctets = 0;
    // The last two passed on or made (see reports.h): the middle of their NTP time, and ClockMs then.
    uint32_t nToldNtp[2] = {};
    uint32_t nToldMs[2] = {};
    Reception reception;
};

// The connections to the peer, and what was heard of it.
struct SessionPeer {
    Port *Cmd = nullptr;          // connection that requests arrive on; ports are owned by the port map
    Port *Reply = nullptr;        // connection that replies and media go out on, may equal Cmd
    char *szCookie = nullptr;     // x-sessioncookie of a waiting half, owned
    uint32_t tStart = 0;          // wall clock at creation, seconds
    uint32_t tLastActivity = 0;   // uptime in seconds at the last receive
    uint32_t tLastRequest = 0;    // the same at the last request that was whole, or at creation
    uint32_t nReceived = 0;       // bytes since creation; 0: nothing ever came
    uint64_t nBytesReceived = 0;  // the same, which never wraps
};

// What came and is not worked off.
struct SessionInput {
    Chunk *pChunk = nullptr;  // that is received into, and that packets stay in; owned
    uint8_t *pBuf = nullptr;  // where in it what is held begins
    uint32_t nTotal = 0;      // more than so much less one byte is no message
    int bStream = 0;          // media comes: as much is read at once as the chunk has room for
    uint32_t nChunkMs = 0;    // ClockMs when the chunk was begun
    uint32_t nLen = 0;        // bytes held; the byte behind them is 0
    uint32_t nNext = 0;       // while a request is handled: offset in pBuf behind it
    uint32_t nReqSeq = 0;     // highest CSeq accepted
};

// How the queue (RtpOut::Outq) flows.
struct SessionFlow {
    uint64_t nBytesSent = 0;     // that sockets took, replies included
    uint32_t nReads = 0;         // TCP reads of a playing pusher, for the flow of its players
    uint32_t nBlockedSends = 0;  // sends in a row that would have blocked
    int fdBlocked = -1;          // the socket that the delayed send is for
    uint32_t nStartBlocks = 0;   // media queued at once by a start; 0 when the queue has drained since
    int64_t nStartHeld = 0;      // memory that those of a start take which still wait
    uint32_t nCatchUpMs = 0;     // media ms of it that may have left over UDP
    uint32_t nCatchUpClock = 0;  // ClockMs when that was last raised
    uint32_t tLastReport = 0;    // uptime in seconds of the last report cycle
    int bReportTick = 0;         // of a pusher: the task that makes reports for its players is scheduled
    int32_t nRoom = 0;           // bytes that may leave over UDP; below 0 by what a datagram took too much
    uint32_t nRoomClock = 0;     // ClockMs when it last grew
    int bBlocked = 0;            // the socket took nothing since nBlockedClock
    uint32_t nBlockedClock = 0;  // ClockMs of the first such send
    uint32_t nTriedClock = 0;    // ClockMs of the last such send
    int bOver = 0;               // more bytes wait than may, and it was tried
    int bSkips = 0;              // of a live program nothing is queued up to the next key frame
    uint32_t nLeft = 0;          // blocks that the last flush of a crowded queue left
    uint32_t nDropped = 0;       // groups that were dropped and not told yet
    int bTold = 0;               // something was, at nToldClock (ClockMs)
    uint32_t nToldClock = 0;
    uint32_t nCrowdedClock = 0;  // ClockMs when it was last said that it is crowded; 0: never
};

struct DataBlock;
struct HeldJob;

// What a pusher sends over UDP (see udppusher.h).
struct SessionDatagrams {
    uint32_t tHeard = 0;  // uptime in seconds when the last one came
    int bWatch = 0;       // the task that ends it when none comes runs
    int bWaits = 0;       // the task that hands on what waits for those before it is scheduled
    int bEnds = 0;        // the pusher has asked for the end, and the last ones are waited for
};

// A start from the cache that takes several tasks. Until it is through, what is pushed reaches the player by
// it.
struct SessionStart {
    DataBlock *pNext = nullptr;  // block of the program's cache to go on with; null: no start is under way
    uint32_t nSerial = 0;        // its number, by which it is known whether it is still there
    int bTask = 0;               // the task that goes on is scheduled
};

// Where playing has got to.
struct SessionPlay {
    uint32_t nSetupCount = 0;  // SETUP requests that succeeded
    uint32_t nPlayPos = 0;     // play position, ms: follows the media packets that were sent
    uint32_t nPlayStart = 0;   // position at which the current play began, ms
    uint32_t nPlayClock = 0;   // ClockMs at that moment
    int64_t nPlayWallUs = 0;   // the wall clock then, us, by which reports on a recording tell its times
    uint32_t nSpeed = 1000;    // of delivery, in thousandths of real time
    PlayLine line;             // of a recording, for standard players: all positions above are on it
    int nTold = 0;             // what was said of its faults
    int bFinishes = 0;         // of a recording: a jump or pause is under way, no picture begins
    int bFinalReport = 0;      // a recording has ended, and the player is still to be told
    uint32_t nEndClock = 0;    // ClockMs at that end
};

// Who watches, by the accounts of the program that the session holds: goes with it.
struct SessionViewer {
    int nUserLevel = kNobodysLevel;
    char szUser[64] = "";
    int bAdmitted = 0;    // a DESCRIBE, QUICKPLAY or SUBSCRIBE of the program was answered 200
    int bChallenged = 0;  // StrictRoles: a password was asked for, of a program that may be there or not
};

// What this session has asked its program's pusher and was not answered: when, the oldest first (see
// questions.h). Ends with the program held.
constexpr uint32_t kMaxQuestions = 80;
struct SessionQuestions {
    uint32_t nOpen = 0;
    uint32_t asked[kMaxQuestions] = {};  // ClockMs
};

// An answer that waits, because its address has shown too many wrong passwords, or because finding it takes
// several steps. Until then the session reads nothing more, so that what the peer sends on is handled in its
// order.
struct SessionHold {
    const Port *pPort = nullptr;  // that the held request came on; null: none is held
    uint32_t nCSeq = 0;           // the number of its reply
    uint32_t nDelayMs = 0;        // that it is to wait
    int bStep = 0;                // it waits for the next step only
    int bOver = 0;                // it has waited for a wrong password, and its handler runs again
    int nFailures = 0;            // wrong passwords and tokens of this connection
    uint32_t nScan = 0;           // the scan of wireless networks that answers the held request
    HeldJob *pJob = nullptr;      // what is asked of the disk for it; owned once it is done
};

// Beside Session::szEndReason, what is known of the end (see sessionevents.h).
struct SessionEnding {
    int nErrno = 0;       // of the connection; 0: none
    int nLastStatus = 0;  // of the last reply to the request at hand
    int nStatus = 0;      // by which it was refused; 0: it was not
    int bMalformed = 0;
    const char *szCause = nullptr;  // of a player: why its pusher ended; static
    char szBy[kAddrTextSize] = "";  // of a pusher: who took its place
};

// What was said of the session in the log of events, as its program and its ports may go before its end.
struct SessionTold {
    int bStarted = 0;       // that it plays or pushes
    int bEnded = 0;         // that it has ended
    uint32_t tMade = 0;     // uptime in seconds at creation
    uint32_t tStarted = 0;  // when it began to play or to push
    uint32_t nDroppedGroups = 0;
    char szUri[256] = "";
    char szUser[64] = "";
    char szRemote[kAddrTextSize] = "";
};

// Reasons that several places give, or that are looked at.
inline constexpr char kEndAsked[] = "asked for the end";
inline constexpr char kEndClosed[] = "the peer closed the connection";
inline constexpr char kEndBroken[] = "the connection broke";
inline constexpr char kEndSilent[] = "the peer was silent for too long";
inline constexpr char kEndServer[] = "the server stops";

struct Session {
    ListNode node;         // first: the session list maps an item to itself
    ListNode playerNode;   // second: the same for the program's list of players, in map mode 1
    uint32_t nHandle = 0;  // "Session" and "ClientSsId" on the wire: never 0, unique while the program lives
    uint32_t nFlags = 0;   // SESSION_...
    uint32_t nState = STATE_NEW;
    uint32_t nCSeq = 1;        // number of the next reply, or of the next request to this peer
    Program *pProg = nullptr;  // counted in its nRefs
    Standards standards = StandardsNow();
    SessionPeer peer;
    SessionInput input;
    RtpOut out;  // queue, transport form, and the tracks as the packetisers see them; its scratch is owned
    SessionTrack tracks[kMaxTracks];
    SessionFlow flow;
    SessionStart start;
    SessionPlay play;
    SessionViewer viewer;
    SessionQuestions questions;
    SessionHold hold;
    SessionDatagrams datagrams;
    // why it ends, in words for the log of events; static. The first one counts
    const char *szEndReason = nullptr;
    SessionEnding ending;
    SessionTold told;
    int bEnded = 0;  // by SessionEnd: in no list, without ports and program
    Retired retired;

    Session();
};

// The sessions in order of creation; null at the end.
inline Session *FirstSession()
{
    return ListFirstOf<Session>(&g_server.sessions);
}
inline Session *NextSession(const Session *pSession)
{
    return reinterpret_cast<Session *>(pSession->node.pNext);
}

// Memory that the media in the queue takes. Not of a pusher, for whom questions wait.
inline int64_t SessionMediaWaiting(const Session *pSession)
{
    return pSession->out.Outq.sum.nBytes - pSession->out.Outq.sum.nOtherBytes;
}

// How many bytes may be received behind those that are held.
inline uint32_t InputRoom(const SessionInput *pInput)
{
    auto nAt = static_cast<uint32_t>(pInput->pBuf - ChunkBytes(pInput->pChunk));
    uint32_t nRoom = pInput->pChunk->nSize - nAt - pInput->nLen - 1;
    if (pInput->bStream || pInput->nLen >= pInput->nTotal)
        return nRoom;
    return std::min(nRoom, pInput->nTotal - 1 - pInput->nLen);
}

// The first nTaken of them are worked off: makes room for more. Packets stay where they are. InputReserve:
// makes room for nRoom bytes, or as many as may be held. Returns 1, or 0 without memory: the session is to be
// ended.
int InputTake(SessionInput *pInput, uint32_t nTaken);
int InputReserve(SessionInput *pInput, uint32_t nRoom);

// Takes over an accepted or handed-over connection: a session on pPort, in the list and in the session map.
// Null when memory runs out; the port is then left to the caller.
Session *CreateSession(Port *pPort);

Session *FindSession(int fd);
Session *FindSessionByHandle(uint32_t nHandle);

// The one way to arm a timer for a session. Its task names the session, never a connection or an address:
// half of a tunnel may be gone when the timer is armed, or when it runs. SessionOfTask: the session, or null
// once it has ended.
void SessionSchedule(const Session *pSession, TaskProc pfnRun, uint32_t nDelayMs);
Session *SessionOfTask(const Task *pTask);

// Ends a session: of a pusher first every player of its program, unless they wait for another (ProgramKeep);
// then its ports are closed, and it is out of every list and map. There is no other way for a session to end.
// The handler of a request does not call this for its own session but returns Verdict::End; all others do,
// and whoever goes on behind them looks at bEnded. The record stays readable until the scheduler's callback
// is over (see retire.h), with its ports and its program null. Does nothing when it has ended already.
void SessionEnd(Session *pSession);

// Notes why the session ends or is about to, in words for the log of events ("asked for the end"); static
// text. What was noted first counts. Then call SessionEnd, or return Verdict::End.
inline void SessionNoteEnd(Session *pSession, const char *szWhy)
{
    if (!pSession->szEndReason)
        pSession->szEndReason = szWhy;
}

// Ends every player of a pusher's program; does nothing for any other session.
void SessionEndPlayers(Session *pSession);
// Ends every player of a program, which the caller holds.
void SessionEndAllOf(Program *pProg);

// Ends every session, in order of creation. When the server stops: main thread, no other one runs any more.
void SessionEndAll();

// Gives the UDP ports of a track back, and what came on them and waits.
void SessionCloseTrackPorts(SessionTrack *pTrack);

// Ends the session's use of a port, and the session with its last one. Returns 1 when that ended it, else 0.
int SessionClosePort(Session *pSession, Port *pPort);
// The same; the reason counts only when that ends it. nErrno: of the connection, 0 when nothing failed.
int SessionClosePortFor(Session *pSession, Port *pPort, const char *szWhy, int nErrno);
// The same for the connection that replies and media go out on.
int SessionCloseReplyPort(Session *pSession);

// Nobody waits any more for what was asked of the disk (hold.pJob): it goes when it is done.
void SessionForgetJob(Session *pSession);

// The request at hand takes another step: its handler runs once more behind what else is due.
inline Verdict SessionNextStep(Session *pSession, uint32_t nDelayMs = 1)
{
    pSession->hold.bStep = 1;
    pSession->hold.nDelayMs = nDelayMs;
    return Verdict::Later;
}

// The handle as "%p" prints it in "Session".
inline void *SessionPrintHandle(const Session *pSession)
{
    return reinterpret_cast<void *>(static_cast<uintptr_t>(pSession->nHandle));
}

// Whether the session plays a recording as standard players take it ([INTEROP] StandardPlayers): all tracks
// on one time line, exact places, nothing lost in a pause, and an end that is told.
int PlaysStandard(const Session *pSession);

// Whether the peer is taken as standard clients and encoders are: a pusher by [INTEROP] StandardPushers, all
// others by StandardPlayers.
int IsStandardPeer(const Session *pSession);

// The time stamp of time 0, on every clock. Not 0 for standard players: some take an rtptime of 0 in RTP-Info
// for none, and count from whatever they read first, after a jump from what is left from before it.
inline uint32_t PlayStampBase(const Session *pSession)
{
    return PlaysStandard(pSession) ? 1 : 0;
}

// Schedules the delayed close, once: the session ends in 2000 ms, with both connections of a tunnel.
void SessionDelayClose(Session *pSession);
// Schedules the idle check of a connection, unless one is under way: when it has sent nothing by then, in
// 5000 ms, it is closed.
void SessionScheduleIdleCheck(Port *pPort);

}  // namespace orx
