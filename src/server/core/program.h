// A media source that players watch: a live program fed by a pusher, or a recording. Programs are found by
// the path of their URI. Scheduler thread only.
#pragma once

#include <cstdint>

#include "base/linkedlist.h"
#include "base/mediatype.h"
#include "server/core/session.h"

namespace orx {

struct ZMFWriter;
struct ZMFReader;

constexpr int kMaxMediaInfos = 4;
constexpr int kMaxRecorders = 4;

struct MediaInfo {
    uint32_t nMediaType = 0;  // MEDIA_...
    uint32_t nDuration = 0;   // of a recording, ms; 0 for live
    char szEncoding[16] = "";
    int nPayloadType = 0;
    uint32_t nTimeScale = 0;  // RTP clock rate, Hz
    int nTrackId = 0;
    uint8_t nRtpChannel = 0;  // interleaved channels of the pusher
    uint8_t nRtcpChannel = 0;
    uint32_t nWidth = 0;   // video; the channel count of audio
    uint32_t nHeight = 0;  // video; the sample rate of audio
    uint32_t nSampleBits = 0;
    // The RTP time stamp extended to 64 bits, so that its wrap does not reach the cache.
    int64_t nExtTime = 0;
    uint32_t nLastRtpTime = 0;
    int bTimeKnown = 0;
    uint32_t nTimeShift = 0;  // StandardPushers: added to its ms, so that all tracks share a time line
};

struct Program;

// What programs of pushers and of recordings do in different ways; given by the module that makes them.
struct ProgramOps {
    const char *(*pfnSdp)(const Program *pProg);  // the description; may be null
    int (*pfnRefill)(Session *pSession);          // see FillBufferFromFile; null: media comes by itself
    void (*pfnStop)(Program *pProg);              // nothing more comes: closes what reads or records it
};

// Says whether a '$' frame (prefix included, at least prefix and RTP header) starts a key frame.
using KeyFrameProc = int (*)(Program *pProg, const uint8_t *pFrame, uint32_t nLen);

struct Program {
    ListNode node;  // first: the program list maps an item to itself
    const ProgramOps *pOps = nullptr;
    uint32_t nRefs = 0;        // sessions attached, the pusher's included
    uint32_t nCacheLimit = 0;  // ms of media that the cache keeps
    int bLive = 0;
    uint32_t ssrc = 0;     // of the pushed stream, learnt from the first packet
    uint32_t nSerial = 0;  // number of the next packet cached; while non-zero, ssrc is not learnt
    char szName[16] = "";  // generated; CNAME of reports
    ZMFWriter *recorders[kMaxRecorders] = {};
    int nRecorders = 0;
    ZMFReader *reader = nullptr;  // a recording's; null for live
    char *szSdp = nullptr;        // owned; null for a recording, whose reader holds it
    char *Uri = nullptr;          // owned; path, beginning with '/'
    char *szCamCfg = nullptr;     // camera configuration text, owned
    uint32_t nCamCfg = 0;         // its length
    int nTrackCount = 0;
    int nVideoTrack = -1;  // index into mediaInfos of the last section of that kind, -1 without one
    int nAudioTrack = -1;
    int nDataTrack = -1;
    MediaInfo mediaInfos[kMaxMediaInfos];
    List Pktq;                     // cached DataBlocks, owned
    void *pCacheCursor = nullptr;  // a block in Pktq, or null
    uint32_t nKeptKeys = 0;        // retained key frames before the cursor
    char *szAccounts = nullptr;    // "[USERS]" section of the camera configuration text, owned
    uint32_t tIdleSince = 0;       // uptime, seconds; 0 after a wake
    uint32_t tBorn = 0;            // uptime at creation
    uint32_t nBornMs = 0;          // ClockMs() then
    int bSleeping = 0;
    KeyFrameProc pfnIsKeyFrame = nullptr;
    int bKeySeen = 0;            // a packet of time stamp nKeyTime carried the key flag
    uint32_t nKeyTime = 0;       // RTP time stamp
    int bAfterMarker = 1;        // the last video packet ended a frame
    List players;                // attached sessions that are not the pusher, in order of creation
    Session *pPusher = nullptr;  // not owned; null once the pusher has gone, and for recordings
    Retired retired;
};

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
// found.
Program *ProgramFind(const char *szPath);
// As ProgramFind; failing that, for a path "/ch..." without '-', the same with "-s1" appended.
Program *ProgramFindWithSubstream(const char *szPath);

// Attaches a session: it holds the program and counts in nRefs; detaching lets go, and the last one ends it.
void ProgramAttach(Session *pSession, Program *pProg);
void ProgramDetach(Session *pSession);

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
