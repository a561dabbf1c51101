#include "server/methods/admit.h"

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
#include "server/methods/peer.h"

namespace orx {

constexpr uint32_t kFileBuffer = 65536;  // bytes of a session's read buffer for recordings

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
    if (!ProgramLives(pProg))
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

// Makes a program of a recording and the session's buffer for it; null when either fails, or with *pbMore 1
// takes another step.
static Program *OpenFileProgram(Session *pSession, const char *szPath, int *pbMore)
{
    Program *pProg = CreateFileProgram(pSession, szPath, pbMore);
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

Program *FindProgram(Session *pSession, const char *szPath)
{
    if (pSession->pProg && !NamesProgram(szPath, pSession->pProg))
        ProgramDetach(pSession);
    return pSession->pProg ? pSession->pProg : ProgramFindWithSubstream(szPath);
}

Verdict AttachFound(Session *pSession, Port *pPort, Program *pFound, const char *szPath)
{
    int bMore = 0;
    Program *pProg = pFound ? pFound : OpenFileProgram(pSession, szPath, &bMore);
    if (bMore)
        return Verdict::Later;
    if (!pProg) {
        ReplyStatus(pSession, pPort, STATUS_NOT_FOUND);
        return Verdict::End;
    }
    ProgramAttach(pSession, pProg);
    ProgramWake(pProg);
    return Verdict::Keep;
}

Verdict ReplyChallenge(Session *pSession, Port *pPort, int bStale)
{
    Message reply(pSession, pPort);
    ReplyBeginNumbered(&reply, STATUS_UNAUTHORIZED, pSession->nCSeq);  // the request will come again
    CredentialChallenge(pPort, CredentialScheme(), bStale, &reply.text);
    return MessageSend(&reply);
}

static Admission Challenge(const CredentialCheck *pCheck, Port *pPort, int bStale)
{
    return ReplyChallenge(pCheck->pSession, pPort, bStale) == Verdict::Keep ? CHALLENGED : ENDED;
}

// Checks the credentials of a DESCRIBE or QUICKPLAY and answers when they do not let the player in.
static Admission Admit(const CredentialCheck *pCheck, Port *pPort, CheckedUser *pUser)
{
    switch (CheckAuthorization(pCheck, g_settings.nAuthType, pUser)) {
        case CREDENTIAL_MISSING:
            return Challenge(pCheck, pPort, 0);
        case CREDENTIAL_STALE:
            return Challenge(pCheck, pPort, 1);
        case CREDENTIAL_WAITS:
            return POSTPONED;
        case CREDENTIAL_WRONG:
        case CREDENTIAL_NO_FILE:
            return ReplyShort(pCheck->pSession, pPort, STATUS_FORBIDDEN) == Verdict::Keep ? REFUSED : ENDED;
        case CREDENTIAL_RIGHT:
            break;
    }
    return ADMITTED;
}

// The same where nobody is asked for a password: one that is shown all the same has to be right, and gives
// its level. Who shows none stays who he is at this program.
static Admission AdmitUnasked(const CredentialCheck *pCheck, Port *pPort, CheckedUser *pUser)
{
    const SessionViewer *pViewer = &pCheck->pSession->viewer;
    switch (CheckAuthorization(pCheck, AUTH_BASIC, pUser)) {
        case CREDENTIAL_MISSING:
            if (pCheck->pSession->pProg) {
                TextCopy(pUser->szUser, sizeof(pUser->szUser), pViewer->szUser);
                pUser->account.nLevel = pViewer->nUserLevel;
            }
            return ADMITTED;
        case CREDENTIAL_WAITS:
            return POSTPONED;
        case CREDENTIAL_WRONG:
        case CREDENTIAL_NO_FILE:
        case CREDENTIAL_STALE:
            return Challenge(pCheck, pPort, 0);
        case CREDENTIAL_RIGHT:
            break;
    }
    return ADMITTED;
}

static Admission NotAttached(Verdict eVerdict)
{
    return eVerdict == Verdict::Later ? POSTPONED : ENDED;
}

// StrictRoles: nothing is opened, woken or told before the password is right. On the box itself a program is
// held for RECORDEX, which needs none there.
static Admission CheckAndEnter(Session *pSession, Port *pPort, const Request *pRequest)
{
    const char *szPath = RequestPath(pRequest);
    Program *pFound = FindProgram(pSession, szPath);
    if (pFound && PeerIsOwnShell(pPort))
        ProgramAttach(pSession, pFound);
    AccountPlace place = AccountsAt(pFound, szPath);
    CredentialCheck check{pSession, pPort, pRequest, &place};
    CheckedUser user;
    Admission eResult =
        g_settings.nAuthType == AUTH_NONE ? AdmitUnasked(&check, pPort, &user) : Admit(&check, pPort, &user);
    pSession->viewer.bChallenged |= eResult == CHALLENGED || eResult == REFUSED;
    if (eResult != ADMITTED)
        return eResult;
    Verdict eAttached = AttachFound(pSession, pPort, pFound, szPath);
    if (eAttached != Verdict::Keep)
        return NotAttached(eAttached);
    ViewerSet(pSession, &user);
    return ADMITTED;
}

static Admission EnterAndCheck(Session *pSession, Port *pPort, const Request *pRequest)
{
    const char *szPath = RequestPath(pRequest);
    Verdict eAttached = AttachFound(pSession, pPort, FindProgram(pSession, szPath), szPath);
    if (eAttached != Verdict::Keep)
        return NotAttached(eAttached);
    if (g_settings.nAuthType == AUTH_NONE) {
        pSession->viewer.nUserLevel = 0;
        return ADMITTED;
    }
    // the accounts are those of the program that is entered, whatever the URL would find by now
    AccountPlace place = PlaceOf(pSession->pProg);
    CredentialCheck check{pSession, pPort, pRequest, &place};
    CheckedUser user;
    Admission eResult = Admit(&check, pPort, &user);
    if (eResult == ADMITTED)
        ViewerSet(pSession, &user);
    return eResult;
}

Admission EnterProgram(Session *pSession, Port *pPort, const Request *pRequest)
{
    if (pSession->nState != STATE_NEW) {
        return RefuseState(pSession, pPort) == Verdict::Keep ? CHALLENGED : ENDED;
    }
    if (!ChooseReplyPort(pSession, pPort))
        return ENDED;
    return g_settings.bStrictRoles ? CheckAndEnter(pSession, pPort, pRequest)
                                   : EnterAndCheck(pSession, pPort, pRequest);
}

}  // namespace orx
