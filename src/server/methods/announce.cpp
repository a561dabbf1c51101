#include "server/methods/announce.h"

#include <cstring>

#include "base/console.h"
#include "base/textbuf.h"
#include "runtime/sockutil.h"
#include "server/core/settings.h"
#include "server/core/tracks.h"
#include "server/media/liveprogram.h"
#include "record/sdpreader.h"
#include "server/core/sessionevents.h"
#include "server/core/sessionpeer.h"
#include "server/media/questions.h"
#include "server/media/replies.h"
#include "server/media/sleep.h"
#include "server/methods/admit.h"
#include "server/methods/auth.h"
#include "server/methods/credentials.h"
#include "server/methods/peer.h"

namespace orx {

constexpr int kSleepingPeriodMs = 60000;  // between two looks at a sleeping program
constexpr int kPusherLevel = 2;           // AnnounceAuth: announcing needs a user level below this

// Not by AuthType: whoever pushes is asked by every scheme there is.
static Verdict AskForPassword(Session *pSession, Port *pPort, int bStale)
{
    Message reply(pSession, pPort);
    ReplyBeginNumbered(&reply, STATUS_UNAUTHORIZED, pSession->nCSeq);  // the request will come again
    for (unsigned nScheme : {AUTH_DIGEST, AUTH_BASIC})                 // many take the first that they know
        CredentialChallenge(pPort, nScheme, bStale, &reply.text);
    return MessageSend(&reply);
}

// AnnounceAuth: whether an account of the configuration that may announce was shown. Returns 1, or 0 with the
// refusal sent and its verdict in *pVerdict.
static int ShowsAccount(Session *pSession, Port *pPort, const Request *pRequest, CheckedUser *pUser,
                        Verdict *pVerdict)
{
    CredentialCheck check{pSession, pPort, pRequest, nullptr};
    Credential eResult = CheckAuthorization(&check, AUTH_DIGEST, pUser);
    if (eResult == CREDENTIAL_MISSING)
        eResult = CheckAuthorization(&check, AUTH_BASIC, pUser);
    switch (eResult) {
        case CREDENTIAL_RIGHT:
            break;
        case CREDENTIAL_WAITS:
            *pVerdict = Verdict::Later;
            return 0;
        case CREDENTIAL_MISSING:
        case CREDENTIAL_WRONG:
        case CREDENTIAL_NO_FILE:
        case CREDENTIAL_STALE:
            *pVerdict = AskForPassword(pSession, pPort, eResult == CREDENTIAL_STALE);
            return 0;
    }
    if (pUser->account.nLevel < kPusherLevel)
        return 1;
    ReplyShort(pSession, pPort, STATUS_FORBIDDEN);
    *pVerdict = Verdict::End;
    return 0;
}

// Whether who announces may take the place of a program's pusher: from the same address, or as the same user.
// One that has gone and is waited for may have another address now.
static int IsSamePusher(const Port *pPort, const Program *pOld, const CheckedUser *pUser)
{
    if (g_settings.bAnnounceAuth && pOld->szAnnouncer[0])  // else nobody was asked who it is then
        return strcmp(pOld->szAnnouncer, pUser->szUser) == 0;
    if (!pOld->pPusher)
        return 1;
    return AddrSameHost(&pPort->remote, &SessionPeerPort(pOld->pPusher)->remote);
}

// Makes room under a path that is taken. Returns 1 when it is free now; else 0, and the refusal is sent.
static int ReplaceOldPusher(Session *pSession, Port *pPort, const char *szPath, const CheckedUser *pUser)
{
    Program *pOld = ProgramFind(szPath);
    if (!pOld)
        return 1;
    Session *pPusher = pOld->pPusher;
    int bSame = IsSamePusher(pPort, pOld, pUser);
    if (!pPusher && bSame)  // it waits for this one
        return 1;
    if (bSame) {
        print("The same pusher Announce again, %s.\r\n",
              pOld->standards.bPushers && g_settings.nHoldPlayers > 0 ? "its players wait"
                                                                      : "Destroy the old program");
        SockAddrToString(&pPort->remote, pPusher->ending.szBy);
        SessionNoteEnd(pPusher, "another pusher took its place");
        SessionEnd(pPusher);
        return 1;
    }
    // part of the protocol but for standard peers: the number is that of the pusher that stays
    Message reply(pSession, pPort);
    ReplyBeginNumbered(&reply, STATUS_DUPLICATE,
                       pSession->standards.bPlayers || !pPusher ? pSession->nCSeq++ : pPusher->nCSeq++);
    MessageNoCache(&reply);
    MessageSend(&reply);
    return 0;
}

// Looks after a pusher's connection, one task for each; ends with it.
static int OnLiveWatchdog(Task *pTask, uint32_t, uint32_t, uint32_t)
{
    Session *pSession = SessionOfTask(pTask);
    if (!pSession)
        return -1;
    const Port *pPort = pSession->peer.Cmd;
    if (!pPort)  // its POST half has gone, and nothing more comes
        return -1;
    if (PortReadNow(pPort) < 0) {
        print("Live Program Client(socket=0x%x) is broken!\r\n", static_cast<unsigned>(pPort->fd));
        return -1;
    }
    pSession = SessionOfTask(pTask);  // what was read may have ended it, or given the connection to another
    if (pSession)
        SleepIfIdle(pSession);
    if (!pSession || pSession->bEnded)
        return -1;
    const Program *pProg = pSession->pProg;
    return pProg && pProg->sleep.bSleeping ? kSleepingPeriodMs
                                           : static_cast<int>(g_settings.nLiveTime * 1000);
}

// "Supported: orx.sleep", among other words.
static int KnowsOurRequests(const Request *pRequest)
{
    static constexpr std::string_view kWord = "orx.sleep";
    const char *p = RequestHeaderValue(pRequest, "Supported");
    while (p && *p) {
        size_t n = strcspn(p, ", \t");
        if (n == kWord.size() && strncasecmp(p, kWord.data(), n) == 0)
            return 1;
        p += n + strspn(p + n, ", \t");
    }
    return 0;
}

// The session becomes the pusher of a new program.
static Verdict StartPusher(Session *pSession, Port *pPort, Program *pProg, const Request *pRequest)
{
    char remote[kAddrTextSize];
    SockAddrToString(&pPort->remote, remote);
    int bReturns = pProg->hold.nNumber != 0;
    const char *szWhat = bReturns ? "ResumeLiveProgram" : "CreateLiveProgram";
    pProg->pPusher = pSession;
    if (bReturns)
        ProgramReturn(pSession, pProg);
    else
        ProgramAttach(pSession, pProg);
    print("%s(Uri=%s), pointer=0x%x, Remote=%s.\r\n", szWhat, pProg->Uri, ProgramPrintId(pProg), remote);
    log("%s(Uri=%s), pointer=0x%x, Remote=%s", szWhat, pProg->Uri, ProgramPrintId(pProg), remote);
    pSession->nFlags |= SESSION_PUSHER;
    if (KnowsOurRequests(pRequest))
        PusherShows(pSession);
    SessionSayStart(pSession);
    SessionSchedule(pSession, OnLiveWatchdog, g_settings.nLiveTime * 1000);
    pSession->nState = STATE_DESCRIBED;
    SessionCopyTracks(pSession, pProg);
    Verdict eVerdict = ReplyDated(pSession, pPort, STATUS_OK);
    if (eVerdict == Verdict::Keep && !bReturns)
        ProgramCallHook(pProg, remote, 1);
    return eVerdict;
}

static int HasDescription(const Request *pRequest)
{
    const char *szType = RequestHeaderValue(pRequest, "Content-Type");
    return szType && strcmp(szType, "application/sdp") == 0 && pRequest->pBody && pRequest->nBody > 0;
}

Verdict HandleAnnounce(Session *pSession, Port *pPort, Request *pRequest)
{
    if (pSession->nState != STATE_NEW) {
        return RefuseState(pSession, pPort);
    }
    if (!ChooseReplyPort(pSession, pPort))
        return Verdict::End;
    if (!PeerMayAnnounce(pPort)) {
        ReplyShort(pSession, pPort, STATUS_FORBIDDEN);
        return Verdict::End;
    }
    CheckedUser user;
    Verdict eRefusal = Verdict::End;
    if (g_settings.bAnnounceAuth && !ShowsAccount(pSession, pPort, pRequest, &user, &eRefusal))
        return eRefusal;
    if (!HasDescription(pRequest))
        return Refuse(pSession, pPort, STATUS_NO_SDP);
    if (pSession->standards.bPushers && SdpControlsClash(pRequest->pBody))
        return Refuse(pSession, pPort, STATUS_SAME_CONTROL);
    // a challenged DESCRIBE may have left a program here, whose players are about to end with it
    ProgramDetach(pSession);
    const char *szPath = RequestPath(pRequest);
    if (!ReplaceOldPusher(pSession, pPort, szPath, &user))
        return Verdict::End;
    Program *pProg = CreateLiveProgram(szPath, pRequest->pBody, pRequest->nBody);
    if (!pProg)
        return Refuse(pSession, pPort, STATUS_FAILED);
    TextCopy(pProg->szAnnouncer, sizeof(pProg->szAnnouncer), user.szUser);
    return StartPusher(pSession, pPort, pProg, pRequest);
}

}  // namespace orx
