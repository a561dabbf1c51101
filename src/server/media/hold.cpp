#include "server/media/hold.h"

#include <strings.h>
#include <sys/socket.h>

#include <cstring>
#include <string_view>
#include <utility>

#include "base/bytes.h"
#include "base/console.h"
#include "base/eventlog.h"
#include "record/sdpreader.h"
#include "runtime/clock.h"
#include "server/core/registry.h"
#include "server/core/settings.h"
#include "server/media/keystart.h"
#include "server/media/rewrite.h"
#include "server/media/rtcp.h"
#include "server/media/send.h"

namespace orx {

// --- The end ---

// A report without blocks, which a compound begins with (RFC 3550, section 6.1), and the goodbye. Returns its
// bytes.
static size_t MakeFarewell(const SessionTrack *pTrack, uint32_t nSsrc, int bInterleaved, uint8_t *pOut,
                           size_t nRoom)
{
    size_t nPrefix = bInterleaved ? kInterleaveBytes : 0;
    size_t n = nPrefix + RtcpMakeRR(pOut + nPrefix, nSsrc, 0);
    n += RtcpMakeBYE(pOut + n, nRoom - n, nSsrc, nullptr);
    if (nPrefix) {
        PutBe(pOut, 1, '$');
        PutBe(pOut + 1, 1, pTrack->nRtcpChannel);
        PutBe(pOut + 2, 2, static_cast<uint32_t>(n - nPrefix));
    }
    return n;
}

void SayFarewell(Session *pPlayer)
{
    int bPlayed = pPlayer->nState == STATE_PLAYING || pPlayer->nState == STATE_PAUSED;
    if (!pPlayer->pProg->standards.bPushers || !bPlayed)
        return;
    uint8_t text[64];
    for (int i = 0; i < pPlayer->out.nTracks && i < pPlayer->pProg->desc.nTrackCount; i++) {
        const SessionTrack *pTrack = &pPlayer->tracks[i];
        const TrackRewrite *pRewrite = &pPlayer->pProg->desc.mediaInfos[i].rewrite;
        if (!pTrack->bSetUp)
            continue;
        uint32_t nSsrc = pRewrite->bKnown ? pRewrite->nLastSsrc : pTrack->nSsrc;  // as SETUP told it
        size_t n = MakeFarewell(pTrack, nSsrc, pPlayer->out.bInterleaved, text, sizeof(text));
        const Port *pPort = pTrack->Control;
        DataBlock *pBlock = pPlayer->out.bInterleaved ? MakeDataBlock(text, n, 0, 0, 1) : nullptr;
        if (pBlock)
            QueueAppend(&pPlayer->out.Outq, {pBlock});
        else if (pPort)
            sendto(pPort->fd, text, n, MSG_NOSIGNAL, &pPort->remote.any, AddrSize(&pPort->remote));
    }
    if (pPlayer->out.bInterleaved)
        SendDataEx(pPlayer, nullptr, 1);  // as far as the connection takes it
}

// --- The wait ---

static int32_t g_nWaits = 0;  // since the start, for numbers

static int OnHoldOver(Task *pTask, uint32_t, uint32_t, uint32_t)
{
    for (Program *p = FirstProgram(); p; p = NextProgram(p))
        if (p->hold.nNumber == pTask->nParam) {
            HoldEnd(p);
            break;
        }
    return -1;
}

int HoldBegin(Program *pProg)
{
    if (!pProg->standards.bPushers || g_settings.nHoldPlayers == 0)
        return 0;
    g_nWaits = g_nWaits == INT32_MAX ? 1 : g_nWaits + 1;
    pProg->hold.nNumber = g_nWaits;
    pProg->hold.tSince = ClockUptime();
    print("Program(%s) waits for its pusher, %u s.\r\n", pProg->Uri, g_settings.nHoldPlayers);
    EventSay(EventLevel::Warn, "program.held",
             {EventText("program", pProg->Uri), EventNumber("players", ListCount(&pProg->players)),
              EventNumber("wait_seconds", g_settings.nHoldPlayers), EventText("cause", pProg->szPusherEnd)});
    TaskSchedule(&g_server.scheduler, OnHoldOver, g_settings.nHoldPlayers * 1000, g_nWaits, nullptr);
    return 1;
}

void HoldEnd(Program *pProg)
{
    print("Program(%s) waits no longer.\r\n", pProg->Uri);
    EventSay(EventLevel::Warn, "program.given_up",
             {EventText("program", pProg->Uri), EventNumber("players", ListCount(&pProg->players)),
              EventText("cause", pProg->szPusherEnd)});
    SessionEndAllOf(pProg);
    ProgramGiveUp(pProg);
}

// The format line of the next section of sound. Returns 0 when there is none.
static int NextSound(SdpWalk *pWalk, std::string_view *pFormat)
{
    SdpSection section;
    SdpMedia media;
    while (SdpNextSection(pWalk, &section))
        if (SdpReadMedia(section.own, SDP_MEDIA_SCAN, &media) &&
            SdpMediaKind(media.media) == MEDIA_AUDIO_OTHER) {
            *pFormat = SdpReadFormat(section.own);
            return 1;
        }
    return 0;
}

// Whether decoders of sound are told the same that is not in the stream; what those of pictures are may
// change.
static int SameSound(const Description *pOld, const Description *pNew)
{
    static constexpr std::string_view told[] = {"config",           "mode",       "sizelength", "indexlength",
                                                "indexdeltalength", "octet-align"};
    SdpWalk oldWalk = SdpSections(pOld->szSdp, SDP_LINE_OR_CR);
    SdpWalk newWalk = SdpSections(pNew->szSdp, SDP_LINE_OR_CR);
    std::string_view a, b;
    while (NextSound(&oldWalk, &a) && NextSound(&newWalk, &b))
        for (std::string_view name : told)
            if (SdpFormatValue(a, name) != SdpFormatValue(b, name))
                return 0;
    return 1;
}

int HoldSuits(const Program *pProg, const Description *pNew)
{
    const Description *pOld = &pProg->desc;
    if (pProg->hold.nNumber == 0 || pOld->nTrackCount != pNew->nTrackCount || !SameSound(pOld, pNew))
        return 0;
    for (int i = 0; i < pOld->nTrackCount; i++) {
        const MediaInfo &a = pOld->mediaInfos[i];
        const MediaInfo &b = pNew->mediaInfos[i];
        int bAudio = i == pOld->nAudioTrack;
        if (a.nMediaType != b.nMediaType || strcasecmp(a.szEncoding, b.szEncoding) != 0 ||
            a.nTimeScale != b.nTimeScale || (bAudio && (a.nWidth != b.nWidth || a.nHeight != b.nHeight)))
            return 0;
    }
    return pOld->nVideoTrack == pNew->nVideoTrack && pOld->nAudioTrack == pNew->nAudioTrack &&
           pOld->nDataTrack == pNew->nDataTrack;
}

void HoldResume(Program *pProg, Description *pNew)
{
    int bSameTypes = 1;
    EventSay(EventLevel::Info, "program.resumed",
             {EventText("program", pProg->Uri), EventNumber("players", ListCount(&pProg->players)),
              EventNumber("held_seconds", ClockUptime() - pProg->hold.tSince)});
    std::swap(pProg->desc.szSdp, pNew->szSdp);
    KeyStartInit(pProg);
    for (int i = 0; i < pNew->nTrackCount; i++) {
        MediaInfo *pInfo = &pProg->desc.mediaInfos[i];
        bSameTypes &= pInfo->nPayloadType == pNew->mediaInfos[i].nPayloadType;
        RewriteContinue(&pInfo->rewrite, pNew->mediaInfos[i].nPayloadType, pInfo->nPayloadType);
        pInfo->clock.report = ReportClock();
        pInfo->bOpenPicture = 0;
        pInfo->rewrite.bReported = 0;
        pInfo->report.bPushed = pInfo->report.bExpected = 0;
        memcpy(pInfo->szControl, pNew->mediaInfos[i].szControl, sizeof(pInfo->szControl));
        pInfo->nTrackId = pNew->mediaInfos[i].nTrackId;
    }
    if (!bSameTypes)  // players are told the types that they get
        std::swap(pProg->desc.szSdp, pNew->szSdp);
    pProg->resume.bDue = 1;
    pProg->flush = PlayerFlush();  // its tasks ended with the pusher that has gone
    pProg->line.bNtpKnown = 0;
    pProg->keyWatch = KeyWatch();
    pProg->sleep.bSleeping = 0;
    pProg->sleep.tIdleSince = ClockUptime();
}

}  // namespace orx
