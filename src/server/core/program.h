// A media source that players watch: a live program fed by a pusher, or a recording. Programs are found by
// the path of their URI. Scheduler thread only.
#pragma once

#include <cstddef>
#include <cstdint>

#include "base/datablock.h"
#include "base/linkedlist.h"
#include "base/mediatype.h"
#include "record/keyframe.h"
#include "record/paramsets.h"
#include "server/core/session.h"

namespace orx {

struct AccountTable;
struct Codec;
struct Recorder;
struct FileReader;

constexpr int kMaxMediaInfos = 8;  // sections of a description that are read: without StandardPushers four
constexpr int kMaxRecorders = 4;   // recordings of one program at a time: one of each kind, and one more

// StandardPushers: what sender reports tell of a track's clock (see mediatime.h).
struct ReportClock {
    int bKnown = 0;         // a report has come: its pair of times
    uint32_t nRtpTime = 0;  // stamp as pushed
    uint32_t nNtpMs = 0;    // wall clock of the pusher, ms, of which the lower 32 bits count
    int32_t nErrorMs = 0;   // by which the track's times are still to go ahead
    int32_t nGoneMs = 0;    // media time since the last step towards that
    int bOwn = 0;  // its reports are on a wall clock of their own: the line is nOwnOffset ahead of it
    uint32_t nOwnOffset = 0;
    int bWaits = 0;  // its wall clock was set: what that means is told by the track that anchors the line
};

// How a pusher's RTP time stamps become milliseconds (see mediatime.h).
struct MediaClock {
    int bTimeKnown = 0;         // a packet has come; the rest is set
    uint32_t nLastRtpTime = 0;  // of the last packet
    int64_t nExtTime = 0;       // the same extended to 64 bits, so that its wrap does not reach the cache
    uint32_t nTimeShift = 0;    // added to its ms, so that all tracks share a time line that does not jump
    uint32_t nMs = 0;           // what the last packet got, where jumps do not show
    uint32_t nArrivedMs = 0;    // and ClockMs then
    int bKept = 0;              // on the line of the program: as the settings said at the first packet
    ReportClock report;
};

// NeverLose and StandardPushers: where the tracks of a program are in time, and their last jump.
struct MediaLine {
    int bKnown = 0;           // a packet has come; the next two are set
    uint32_t nMs = 0;         // of the last packet, of whatever track
    uint32_t nArrivedMs = 0;  // ClockMs then
    int bJumped = 0;          // what follows is set
    unsigned nJumpTrack = 0;
    uint32_t nJumpedMs = 0;  // ClockMs at the jump
    uint32_t nJump = 0;      // what was added to the times of the track
    // StandardPushers: how far the line is ahead of the pusher's wall clock, by the reports of one track
    int bNtpKnown = 0;
    unsigned nNtpTrack = 0;
    uint32_t nNtpOffset = 0;  // ms
    // what the server's own reports tell: the wall clock, us, at a time of the line; 0: none was made
    int64_t nWallUs = 0;
    uint32_t nWallMs = 0;
};

// What is changed in the packets of a live track where they come in, once for all who get them (see
// rewrite.h). Nothing as it begins.
struct TrackRewrite {
    uint16_t nSeqShift = 0;    // added to the numbers: grows by what is put between packets
    uint32_t nStampShift = 0;  // added to the stamps, those of sender reports too
    int bSsrc = 0;             // the track keeps the SSRC below, whatever its pusher has now
    uint32_t nSsrc = 0;
    int nPayloadType = -1;  // the track keeps this payload type; -1: the pusher's
    int bChanges = 0;       // any of these differs from its first value
    // HoldPlayers: where the track is, as its players have it, so that another pusher can go on there.
    int bKnown = 0;           // a packet has come; the rest is set
    int bContinues = 0;       // the next packet is another pusher's first
    uint16_t nLastSeq = 0;    // of the last packet
    uint32_t nLastStamp = 0;  // the latest one: pictures may be sent in another order than they are shown in
    uint32_t nLastSsrc = 0;
    uint32_t nLastMs = 0;  // ClockMs at the latest stamp
    int bReported = 0;     // the pusher has told of its wall clock: the last such pair, as pushed
    uint32_t nReportedStamp = 0;
    uint64_t nReportedNtp = 0;
};

// The last sender report of a live track, as its players get it, and what the server needs to make one where
// the pusher sends none (see reports.h). The times are those of the track's last packet.
constexpr size_t kMaxReportBytes = 256;
struct TrackReport {
    uint8_t bytes[kMaxReportBytes] = {};
    uint32_t nBytes = 0;  // 0: there is none
    int bPushed = 0;      // the pusher sends reports
    int bExpected = 0;    // it has sent a packet
    uint32_t nPackets = 0;
    uint32_t nOctets = 0;
    uint32_t nSsrc = 0;
    uint32_t nRtpTime = 0;  // as players get it
    uint32_t nMs = 0;
    uint32_t nFirstMs = 0;  // ClockMs at the first one
};

// What came of a live track, for who watches the server: counts, and where they stood at the last looks (see
// statusfacts.h).
constexpr unsigned kMeterLooks = 6;
struct MeterLook {
    uint32_t nAtMs = 0;  // ClockMs; 0: none
    uint32_t nOctets = 0;
    uint32_t nPictures = 0;
};
struct TrackMeter {
    uint32_t nPictures = 0;  // RTP time stamps, one after the other
    uint32_t nKeys = 0;
    uint32_t nKeyMs = 0;  // media time of the last key frame, ms
    uint32_t nKeyDistanceMs = 0;
    unsigned nLooks = 0;  // in all
    MeterLook looks[kMeterLooks];
    uint32_t nSeenMs = 0;  // ClockMs of the last look that found more packets than the one before
    uint32_t nSeenPackets = 0;
};

struct MediaInfo {
    uint32_t nMediaType = 0;        // MEDIA_...
    const Codec *pCodec = nullptr;  // of video always; of audio null when it is not known
    uint32_t nDuration = 0;         // of a recording, ms; 0 for live
    char szEncoding[16] = "";
    int nPayloadType = 0;
    uint32_t nTimeScale = 0;  // RTP clock rate, Hz
    int nTrackId = 0;
    char szControl[128] = "";  // of the section's control line; empty without one, or when it is longer
    uint8_t nRtpChannel = 0;   // interleaved channels of the pusher
    uint8_t nRtcpChannel = 0;
    uint32_t nWidth = 0;   // video; the channel count of audio
    uint32_t nHeight = 0;  // video; the sample rate of audio
    uint32_t nSampleBits = 0;
    uint32_t nUnitTicks = 1024;  // AAC: how far a unit goes on the RTP clock
    MediaClock clock;
    TrackRewrite rewrite;
    TrackReport report;
    TrackMeter meter;
    int bOpenPicture = 0;     // LowDelay: of video, the last packet did not end its picture
    uint32_t nOpenStamp = 0;  // its RTP time stamp
};

struct Program;

// What programs of pushers and of recordings do in different ways; given by the module that makes them.
struct ProgramOps {
    const char *(*pfnSdp)(const Program *pProg) = nullptr;  // the description; may be null
    int (*pfnRefill)(Session *pSession) = nullptr;  // see FillBufferFromFile; null: media comes by itself
    void (*pfnStop)(Program *pProg) = nullptr;      // nothing more comes: closes what reads or records it
    int (*pfnKeep)(Program *pProg) = nullptr;  // its pusher goes: 1 when it waits for another; may be null
    void (*pfnFarewell)(Session *pPlayer) = nullptr;  // a player ends with its pusher; may be null
};

// What the description tells.
struct Description {
    char *szSdp = nullptr;  // owned; null for a recording, whose reader holds it
    int nTrackCount = 0;
    int nVideoTrack = -1;  // index into mediaInfos of the last section of that kind, -1 without one
    int nAudioTrack = -1;
    int nDataTrack = -1;
    int bSharedTypes = 0;  // of standard pushers: a payload type is that of two tracks
    MediaInfo mediaInfos[kMaxMediaInfos];
    KeyFrameProc pfnIsKeyFrame = nullptr;  // of the video track; null without video
};

constexpr int kMaxHeldPackets = 16;

// Of a live track of H.264 or H.265 the picture that comes in (see keystart.h).
struct KeyStart {
    const NalForm *pForm = nullptr;  // null: its packets are passed on as they come
    ParamSets sets;                  // as the description tells them or the track last had them; owned
    int bKnown = 0;                  // a packet has come; the next one is set
    uint32_t nRtpTime = 0;           // of the picture
    int bDecided = 0;                // a slice of it has come, and nothing is held
    int bAfterMarker = 0;            // the last packet had the marker
    uint8_t nKinds = 0;  // what the picture has: kinds of parameter sets (NalSetBit), a recovery point
    DataBlock *held[kMaxHeldPackets] = {};  // its packets, owned
    int nHeld = 0;
    uint32_t nHeldBytes = 0;
};

// The packets that a player starts with.
struct PacketCache {
    List Pktq;                          // DataBlocks, owned
    BlockSum held;                      // what they come to
    DataBlock *pCacheCursor = nullptr;  // a block in Pktq, or null
    DataBlock *pLastKey = nullptr;      // the start of the newest key frame, when that is kept
    uint32_t nCacheLimit = 0;           // ms of media that are kept
    uint32_t nKeptKeys = 0;             // retained key frames before the cursor
    uint32_t nWhole = 0;                // from this number on nothing was freed
    uint32_t nSerial = 0;               // number of the next packet; while non-zero, ssrc is not learnt
    uint32_t ssrc = 0;                  // of the pushed stream, learnt from the first packet
    uint32_t nRateFrom = 0;             // media ms since which nRateBytes were pushed
    uint32_t nRateBytes = 0;
    uint32_t nBytesPerMs = 0;  // that are pushed, lately at most
};

// What the pusher's camera has told of itself.
struct CameraText {
    char *szCamCfg = nullptr;           // its configuration text, owned
    uint32_t nCamCfg = 0;               // the text's length
    AccountTable *pAccounts = nullptr;  // of the "[USERS]" section of it, owned; null when it never had one
};

// Low-energy mode (see sleep.h).
struct ProgramSleep {
    uint32_t tIdleSince = 0;  // uptime in seconds since which there is no player; 0 after a wake
    int bSleeping = 0;
};

// What was asked of a pusher and not answered (see questions.h), the oldest first, with StandardPushers.
struct PusherQuestion {
    uint32_t nCSeq = 0;       // of the request to the pusher
    uint32_t nAsker = 0;      // handle of the player that asked; 0: the server itself did
    uint32_t nAskerCSeq = 0;  // of its request
    uint32_t nAskedMs = 0;    // ClockMs
};
constexpr uint32_t kMaxPusherQuestions = 64;
struct PusherQuestions {
    uint32_t nPusher = 0;  // handle of the pusher that they are for: another one knows nothing of them
    uint32_t nKnower = 0;  // handle of the pusher that has shown that it knows such requests
    uint32_t nOpen = 0;
    PusherQuestion open[kMaxPusherQuestions];
};

// The recording of a program that is recorded whenever it is there (see recordcontrol.h).
struct AlwaysRecorded {
    int bWanted = 0;
    Recorder *pRecorder = nullptr;  // null: the next key frame begins one
    int bFailed = 0;                // the last one could not be opened, which was said
    uint32_t nTriedMs = 0;          // ClockMs when the last one was over, with bTried
    int bTried = 0;
    int bRenew = 0;  // from nRenewMs (ClockMs) on the next key frame ends it and begins one anew
    uint32_t nRenewMs = 0;
};

// A flush of the players that takes several tasks.
struct PlayerFlush {
    Session *pNext = nullptr;  // where it goes on: one of players; null when none is under way
    int bTask = 0;             // the task that goes on with it is scheduled
    int bAgain = 0;            // more was queued meanwhile: from the first on once more
    int bWaits = 0;           // LowDelay: something was passed on since the last flush
    int bDue = 0;             // and is to leave: a picture or a piece of sound is whole
    int bHeld = 0;            // what waits is to leave soon, counted from nHeldClock (ClockMs)
    uint32_t nHeldClock = 0;  // of the read that found it so
    int bTimer = 0;           // the task that lets it leave is scheduled
};

// The wait for a pusher that has gone (see hold.h).
struct PusherHold {
    int32_t nNumber = 0;  // of the wait; 0: there is none
    uint32_t tSince = 0;  // uptime in seconds when it began
};

// What is added to the wall clock in a pusher's reports, so that its players see that of the first one go on
// (see resume.h).
struct ReportShift {
    uint64_t nNtpShift = 0;
    int bDue = 0;  // another pusher goes on, and it is not known yet
};

struct Program {
    ListNode node;  // first: the program list maps an item to itself
    const ProgramOps *pOps = nullptr;
    char *Uri = nullptr;   // owned; path, beginning with '/'
    char szName[16] = "";  // generated; CNAME of reports
    int bLive = 0;         // fed by a pusher, not read from a recording
    Standards standards = StandardsNow();
    int bTimesQueues = 0;               // a player has come whose queue is bounded in time
    uint32_t nRefs = 0;                 // sessions attached, the pusher's included
    uint32_t nNumber = 0;               // in order of creation; wraps
    uint32_t tBorn = 0;                 // uptime at creation
    uint32_t nBornMs = 0;               // ClockMs() then
    List players;                       // attached sessions that are not the pusher, in order of creation
    Session *pPusher = nullptr;         // not owned; null once the pusher has gone, and for recordings
    const char *szPusherEnd = nullptr;  // why the last one went, in words; static
    char szAnnouncer[64] = "";          // AnnounceAuth: the user who announced it
    FileReader *reader = nullptr;       // of a recording; null for live
    Recorder *recorders[kMaxRecorders] = {};
    int nRecorders = 0;
    AlwaysRecorded always;  // beside those
    Description desc;
    MediaLine line;
    PacketCache cache;
    PlayerFlush flush;
    KeyWatch keyWatch;  // what the key-frame test remembers of the video track
    KeyStart keyStart;  // in its place with StandardPushers, where pictures are made of units
    CameraText camera;
    ProgramSleep sleep;
    PusherQuestions asked;
    PusherHold hold;
    ReportShift resume;
    Retired retired;
};

// The programs in order of creation; null at the end.
inline Program *FirstProgram()
{
    return ListFirstOf<Program>(&g_server.programs);
}
inline Program *NextProgram(const Program *pProg)
{
    return reinterpret_cast<Program *>(pProg->node.pNext);
}

// Whether pictures leave for the players of a program as soon as they are whole.
inline int HasLowDelay(const Program *pProg)
{
    return g_settings.bLowDelay && pProg->standards.bPlayers;
}

// The players of a program, in order of creation; null at the end. A walk takes the next one before it does
// anything that may end the one it is at.
inline Session *PlayerOfNode(ListNode *pNode)
{
    return pNode ? reinterpret_cast<Session *>(pNode - 1) : nullptr;  // map mode 1
}
inline Session *FirstPlayer(const Program *pProg)
{
    return PlayerOfNode(pProg->players.pFirst);
}
inline Session *NextPlayer(const Session *pPlayer)
{
    return PlayerOfNode(pPlayer->playerNode.pNext);
}

// A new record for a path, in no container yet; null without memory. ProgramDiscard gives one back that never
// became ready.
Program *ProgramNew(const char *szPath, const ProgramOps *pOps);
void ProgramDiscard(Program *pProg);

// Enters a record whose description is parsed into the program list and, a live one, into the name map, and
// chooses its name. Returns 1, or 0 when the path is taken or memory runs out; the record is then in no
// container.
int ProgramReady(Program *pProg);

// Ends a program that no session holds. Every other one ends with the last session that lets go of it.
void ProgramEnd(Program *pProg);
// Ends all of them. When the server stops: main thread, no other one runs any more.
void ProgramEndAll();

// The registry. ProgramFind: a live program by path, without regard to case; one whose pusher is gone is not
// found, unless it waits for another.
Program *ProgramFind(const char *szPath);
// As ProgramFind; failing that, for a path "/ch..." without '-', the same with "-s1" appended.
Program *ProgramFindWithSubstream(const char *szPath);

// Attaches a session: it holds the program and counts in nRefs; detaching lets go, and the last one ends it.
// Either way it is nobody afterwards (level, name, admission, subscription, questions), unless it held the
// program already.
void ProgramAttach(Session *pSession, Program *pProg);
void ProgramDetach(Session *pSession);

// Lets the pusher go and keeps the program, its name and its players, when pfnKeep says so: returns 1 then.
// Either ProgramReturn ends that wait, with another pusher, or ProgramGiveUp, which ends the program unless
// somebody else holds it.
int ProgramKeep(Session *pPusher);
void ProgramReturn(Session *pPusher, Program *pProg);
void ProgramGiveUp(Program *pProg);

// Whether something comes of a program, or may come again.
inline int ProgramLives(const Program *pProg)
{
    return !pProg->bLive || pProg->pPusher || pProg->hold.nNumber != 0;
}

// Whether the session is the pusher of the program that it holds.
inline int FeedsProgram(const Session *pSession)
{
    return pSession->pProg && pSession->pProg->pPusher == pSession;
}

// Empties the cache and forgets its cursor and counts.
void ProgramClearCache(Program *pProg);

// Tells the owner of the program hook, if there is one, that a program came up or is about to go.
void ProgramCallHook(const Program *pProg, const char *szRemote, int bUp);

// A number that tells programs apart in printed lines.
unsigned ProgramPrintId(const Program *pProg);

// The description text: a live program's own, or the recording's. May be null.
const char *ProgramSdp(const Program *pProg);
// Copies the texts behind "a=GroupName:" and "a=NickName:"; either buffer may be null. 1 when those asked for
// were found, else 0.
int ProgramNames(const Program *pProg, char *szGroup, size_t nGroup, char *szNick, size_t nNick);
// At most 32 characters behind "a=ProgramAuth:" into szOut[33]. 1, or 0 without such a line.
int ProgramPassword(const Program *pProg, char *szOut);

// Programs that are live and have their pusher.
unsigned ProgramCountLive();

}  // namespace orx
