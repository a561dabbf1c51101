// DESCRIBE and QUICKPLAY: finding a program, letting a player in, and the description.
#include <strings.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "base/assertion.h"
#include "base/console.h"
#include "base/textbuf.h"
#include "runtime/clock.h"
#include "runtime/sockutil.h"
#include "server/auth.h"
#include "server/distribute.h"
#include "server/filesend.h"
#include "server/play.h"
#include "server/sdp.h"
#include "server/send.h"
#include "server/server.h"

namespace orx {

constexpr uint32_t kFileBuffer = 65536;        // bytes of a session's read buffer for recordings
constexpr int kNobodysLevel = 3;               // until a password was shown
constexpr size_t kMaxCredentials = 4096 + 32;  // a header block and what is put before it

int ChooseReplyPort(Session *pSession, Port *pPort)
{
    if (!(pPort->nFlags & PORT_TUNNEL_POST)) {
        pSession->Reply = pPort;
        return 1;
    }
    return ORX_PEER_ASSERT(pSession->Reply && pSession->Reply != pPort,
                           "session->Reply!=((void *)0) && session->Reply!=port");
}

// Says whether a path asks for the program: by its name, or by the name without its "-s1". Nobody asks for
// one whose pusher has gone.
static int NamesProgram(const char *szPath, const Program *pProg)
{
    if (pProg->bLive && !pProg->pPusher)
        return 0;
    size_t nPath = strlen(szPath);
    if (strncmp(pProg->Uri, szPath, nPath) != 0)
        return 0;
    const char *szRest = pProg->Uri + nPath;
    if (*szRest == '\0')
        return 1;
    return nPath >= 3 && strncmp(szPath + 1, "ch", 2) == 0 && !strchr(szPath, '-') &&
           strcmp(szRest, "-s1") == 0;
}

// Makes a program of a recording and the session's buffer for it; null when either fails.
static Program *OpenFileProgram(Session *pSession, const char *szPath)
{
    size_t nPath = strlen(szPath);
    if (nPath < 6 || strcasecmp(szPath + nPath - 4, ".zmf") != 0)
        return nullptr;
    Program *pProg = CreateFileProgram(szPath);
    if (!pProg)
        return nullptr;
    if (!pSession->pFileBuf)
        pSession->pFileBuf = static_cast<uint8_t *>(malloc(kFileBuffer));
    if (!pSession->pFileBuf) {
        ListFree(&g_server.programs, pProg);
        return nullptr;
    }
    pSession->out.pScratch = pSession->pFileBuf;
    pSession->out.nScratch = kFileBuffer;
    return pProg;
}

int AttachByPath(Session *pSession, Port *pPort, Request *pRequest)
{
    const char *szPath = RequestPath(pRequest);
    if (pSession->pProg && !NamesProgram(szPath, pSession->pProg))
        ProgramDetach(pSession);
    Program *pProg = pSession->pProg;
    if (!pProg)
        pProg = ProgramFindWithSubstream(szPath);
    if (!pProg)
        pProg = OpenFileProgram(pSession, szPath);
    if (!pProg) {
        ReplyStatus(pSession, pPort, "404 Not Found");
        return 0;
    }
    if (pProg != pSession->pProg) {  // what the accounts of another program allowed does not count here
        pSession->nUserLevel = kNobodysLevel;
        pSession->szUser[0] = '\0';
    }
    ProgramAttach(pSession, pProg);
    ProgramWake(pProg);
    return 1;
}

void SessionCopyTracks(Session *pSession, const Program *pProg)
{
    pSession->out.nTracks = std::min(pProg->nTrackCount, kMaxTracks);
    for (int i = 0; i < pSession->out.nTracks; i++) {
        const MediaInfo *pInfo = &pProg->mediaInfos[i];
        RtpTrack *pTrack = &pSession->out.tracks[i];
        pTrack->nMediaType = pInfo->nMediaType;
        pTrack->nPayloadType = static_cast<uint8_t>(pInfo->nPayloadType);
        pTrack->nTimeScale = pInfo->nTimeScale;
        pSession->tracks[i].nTrackId = pInfo->nTrackId;
        pSession->tracks[i].nRtpChannel = pInfo->nRtpChannel;
        pSession->tracks[i].nRtcpChannel = pInfo->nRtcpChannel;
    }
}

enum Admission {
    ADMITTED,
    CHALLENGED,  // the 401 is sent
    REFUSED,     // the 403 is sent
    UNREACHED,   // a reply could not be sent
};

static Admission Challenge(Session *pSession, Port *pPort)
{
    char line[256] = "";
    AuthChallenge(g_server.pAuth, line, sizeof(line));
    // the request will come again: its number is not used up
    int nSent =
        ReplyFormat(pSession, pPort, "RTSP/1.0 401 Unauthorized\r\n" ORX_SERVER_LINE "CSeq: %d\r\n%s\r\n",
                    pSession->nCSeq, line);
    return nSent ? CHALLENGED : UNREACHED;
}

// Checks the credentials of a DESCRIBE or QUICKPLAY and answers when they do not let the player in.
static Admission Admit(Session *pSession, Port *pPort, const Request *pRequest)
{
    if (g_server.nAuthType == AUTH_NONE) {
        pSession->nUserLevel = 0;
        return ADMITTED;
    }
    const char *szValue = RequestHeaderValue(pRequest, "Authorization");
    const char *szScheme = AuthSchemeName(g_server.nAuthType);
    if (!szValue || strncmp(szValue, szScheme, strlen(szScheme)) != 0)
        return Challenge(pSession, pPort);
    char credentials[kMaxCredentials];
    TextBuf text{credentials, sizeof(credentials)};
    int nLevel = -1;
    if (TextAdd(&text, "%s\r\nAuthorization: %s", RequestMethod(pRequest), szValue))
        nLevel = AuthValidate(g_server.pAuth, credentials, RequestUri(pRequest));
    if (nLevel < 0) {
        int nSent =
            ReplyFormat(pSession, pPort, "RTSP/1.0 403 Forbidden\r\nCSeq: %d\r\n\r\n", pSession->nCSeq++);
        return nSent ? REFUSED : UNREACHED;
    }
    pSession->nUserLevel = nLevel;
    TextCopy(pSession->szUser, sizeof(pSession->szUser), g_server.pAuth->szUser);
    return ADMITTED;
}

// Sends the description, which ends where the program's password would begin. Result of sending.
static int SendDescription(Session *pSession, Port *pPort)
{
    const char *szSdp = ProgramSdp(pSession->pProg);
    if (!szSdp)
        szSdp = "";
    const char *pSecret = strstr(szSdp, "a=ProgramAuth");
    size_t nSdp = pSecret ? static_cast<size_t>(pSecret - szSdp) : strlen(szSdp);
    char head[512];
    TextBuf text{head, sizeof(head)};
    TextAdd(&text,
            "RTSP/1.0 200 OK\r\n" ORX_SERVER_LINE
            "CSeq: %d\r\nContent-Type: application/sdp\r\nContent-Length: %d\r\n" ORX_NO_CACHE
            "Date: %s\r\n\r\n",
            pSession->nCSeq++, static_cast<int>(nSdp), SessionRefreshDate(pSession));
    return SendReply2(pSession, pPort, head, text.nLen, szSdp, nSdp, nullptr);
}

// What DESCRIBE and QUICKPLAY have in common once the player may watch. Result of sending.
static int Describe(Session *pSession, Port *pPort, const Request *pRequest)
{
    if (const char *szBandwidth = RequestHeaderValue(pRequest, "Bandwidth"))
        pSession->nBandwidth = TextToInt(szBandwidth);
    char remote[kAddrTextSize];
    SockAddrToString(&pSession->Reply->remote, remote);
    log("CreatePlayClient(Uri=%s), Remote=%s", RequestPath(pRequest), remote);
    SessionCopyTracks(pSession, pSession->pProg);
    pSession->nState = STATE_DESCRIBED;
    return SendDescription(pSession, pPort);
}

// State, reply port, program and credentials. Returns ADMITTED, or why not, with the reply sent; UNREACHED
// also for the refusals that end the session.
static Admission Enter(Session *pSession, Port *pPort, Request *pRequest)
{
    if (pSession->nState != STATE_NEW) {
        ReplyStatus(pSession, pPort, "455 Method Not Valid in This State");
        return UNREACHED;
    }
    if (!ChooseReplyPort(pSession, pPort) || !AttachByPath(pSession, pPort, pRequest))
        return UNREACHED;
    return Admit(pSession, pPort, pRequest);
}

int HandleDescribe(Session *pSession, Port *pPort, Request *pRequest)
{
    Admission admission = Enter(pSession, pPort, pRequest);
    if (admission == REFUSED)
        SessionDelayClose(pPort);
    if (admission != ADMITTED)
        return admission != UNREACHED;
    return Describe(pSession, pPort, pRequest);
}

// Sets every track up on the control connection. Returns 1, or 0 for a program with too many.
static int EnterAllTracks(Session *pSession)
{
    int nTracks = pSession->pProg->nTrackCount;
    if (!ORX_PEER_ASSERT(nTracks >= 1 && nTracks < 4, "session->nTrackCount>=1 && session->nTrackCount < 4"))
        return 0;
    pSession->nFlags |= SESSION_INTERLEAVED;
    pSession->out.bInterleaved = 1;
    for (int i = 0; i < nTracks; i++)
        SessionEnterTrack(pSession, i);
    return 1;
}

int HandleQuickPlay(Session *pSession, Port *pPort, Request *pRequest)
{
    Admission admission = Enter(pSession, pPort, pRequest);
    if (admission != ADMITTED)
        return admission == CHALLENGED;
    if (!Describe(pSession, pPort, pRequest) || !EnterAllTracks(pSession))
        return 0;
    Program *pProg = pSession->pProg;
    pSession->nPlayClock = ClockMs();
    if (pProg->bLive) {
        auto *pFirst = static_cast<DataBlock *>(ListFirst(&pProg->Pktq, 0));
        pSession->nPlayPos = pFirst ? pFirst->nTimestamp : 0;
    }
    pSession->nPlayStart = pSession->nPlayPos;
    pSession->nState = STATE_PLAYING;
    if (!ORX_PEER_ASSERT(!(pSession->nFlags & SESSION_FILE_SENDER), "!(session->nFlags & 0x10)"))
        return 0;
    if (!pProg->bLive) {
        FileSenderStart(pSession, pSession->Reply);
        return 1;
    }
    FillBufferAtFirstPlay(pSession);
    return SendDataEx(pSession, nullptr, 0);
}

}  // namespace orx
