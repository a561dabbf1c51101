#include "server/methods/admit.h"

#include <strings.h>

#include <cstdlib>
#include <cstring>

#include "base/assertion.h"
#include "base/textbuf.h"
#include "server/core/registry.h"
#include "server/core/settings.h"
#include "server/media/fileprogram.h"
#include "server/media/replies.h"
#include "server/media/sleep.h"
#include "server/methods/auth.h"
#include "server/methods/credentials.h"

namespace orx {

constexpr uint32_t kFileBuffer = 65536;  // bytes of a session's read buffer for recordings
constexpr int kNobodysLevel = 3;         // until a password was shown

int ChooseReplyPort(Session *pSession, Port *pPort)
{
    if (!(pPort->nFlags & PORT_TUNNEL_POST)) {
        pSession->peer.Reply = pPort;
        return 1;
    }
    return ORX_PEER_ASSERT(pSession->peer.Reply && pSession->peer.Reply != pPort,
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
    if (!pSession->out.pScratch)
        pSession->out.pScratch = static_cast<uint8_t *>(malloc(kFileBuffer));
    if (!pSession->out.pScratch) {
        ProgramEnd(pProg);
        return nullptr;
    }
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
        ReplyStatus(pSession, pPort, STATUS_NOT_FOUND);
        return 0;
    }
    if (pProg != pSession->pProg) {  // what the accounts of another program allowed does not count here
        pSession->viewer.nUserLevel = kNobodysLevel;
        pSession->viewer.szUser[0] = '\0';
    }
    ProgramAttach(pSession, pProg);
    ProgramWake(pProg);
    return 1;
}

static Admission Challenge(Session *pSession, Port *pPort, int bStale)
{
    Message reply(pSession, pPort);
    ReplyBeginNumbered(&reply, STATUS_UNAUTHORIZED, pSession->nCSeq);  // the request will come again
    CredentialChallenge(pPort, g_settings.nAuthType, bStale, &reply.text);
    return MessageSend(&reply) == Verdict::Keep ? CHALLENGED : ENDED;
}

// Checks the credentials of a DESCRIBE or QUICKPLAY and answers when they do not let the player in.
static Admission Admit(Session *pSession, Port *pPort, const Request *pRequest)
{
    if (g_settings.nAuthType == AUTH_NONE) {
        pSession->viewer.nUserLevel = 0;
        return ADMITTED;
    }
    // the accounts are those of the program that is entered, whatever the URL would find by now
    CredentialCheck check{pSession, pPort, pRequest, pSession->pProg};
    CheckedUser user;
    switch (CheckAuthorization(&check, g_settings.nAuthType, &user)) {
        case CREDENTIAL_MISSING:
            return Challenge(pSession, pPort, 0);
        case CREDENTIAL_STALE:
            return Challenge(pSession, pPort, 1);
        case CREDENTIAL_WAITS:
            return POSTPONED;
        case CREDENTIAL_WRONG:
        case CREDENTIAL_NO_FILE:
            return ReplyShort(pSession, pPort, STATUS_FORBIDDEN) == Verdict::Keep ? REFUSED : ENDED;
        case CREDENTIAL_RIGHT:
            break;
    }
    ViewerSet(pSession, &user);
    return ADMITTED;
}

Admission EnterProgram(Session *pSession, Port *pPort, Request *pRequest)
{
    if (pSession->nState != STATE_NEW) {
        ReplyStatus(pSession, pPort, STATUS_WRONG_STATE);
        return ENDED;
    }
    if (!ChooseReplyPort(pSession, pPort) || !AttachByPath(pSession, pPort, pRequest))
        return ENDED;
    return Admit(pSession, pPort, pRequest);
}

}  // namespace orx
