#include "server/methods/roles.h"

#include "server/core/program.h"
#include "server/core/settings.h"
#include "server/media/replies.h"
#include "server/methods/admit.h"
#include "server/methods/credentials.h"
#include "server/methods/peer.h"

namespace orx {

constexpr int kRecordLevel = 2;  // recording needs a user level below this

// Whether there is a program that somebody who was not admitted may not ask about. Where a password was asked
// for and not shown, it is not told whether the program is there.
static int IsClosed(const Session *pSession)
{
    const SessionViewer *pViewer = &pSession->viewer;
    return !pViewer->bAdmitted && !FeedsProgram(pSession) && (pSession->pProg || pViewer->bChallenged);
}

static int MayRecord(const Session *pSession, const Port *pPort)
{
    if (PeerIsOwnShell(pPort) || FeedsProgram(pSession))
        return 1;
    if (pSession->viewer.bAdmitted)
        return pSession->viewer.nUserLevel < kRecordLevel;
    return !IsClosed(pSession);
}

// Who was let in to watch without a password may show one when it is asked for. Returns 1, or 0 with
// *pVerdict of what was answered.
static int ShowsPassword(Session *pSession, Port *pPort, Verdict *pVerdict)
{
    AccountPlace place = PlaceOf(pSession->pProg);
    CredentialCheck check{pSession, pPort, &pPort->request, &place};
    CheckedUser user;
    Credential eResult = CheckAuthorization(&check, CredentialScheme(), &user);
    if (eResult == CREDENTIAL_RIGHT)
        ViewerSet(pSession, &user);
    else if (eResult == CREDENTIAL_WAITS)
        *pVerdict = Verdict::Later;
    else
        *pVerdict = ReplyChallenge(pSession, pPort, eResult == CREDENTIAL_STALE);
    return eResult == CREDENTIAL_RIGHT;
}

static int RecorderMay(Session *pSession, Port *pPort, Verdict *pVerdict)
{
    if (MayRecord(pSession, pPort))
        return 1;
    // an account would help; one that is not enough will not do the second time either
    if (!pSession->viewer.bAdmitted) {
        *pVerdict = ReplyChallenge(pSession, pPort, 0);
        return 0;
    }
    if (pSession->viewer.nUserLevel >= kNobodysLevel && !ShowsPassword(pSession, pPort, pVerdict))
        return 0;
    if (MayRecord(pSession, pPort))
        return 1;
    *pVerdict = ReplyShort(pSession, pPort, STATUS_FORBIDDEN);
    return 0;
}

int RoleMay(Role eRole, Session *pSession, Port *pPort, Verdict *pVerdict)
{
    if (!g_settings.bStrictRoles)
        return 1;
    switch (eRole) {
        case Role::Anybody:
            return 1;
        case Role::Viewer:
            if (!IsClosed(pSession))
                return 1;
            *pVerdict = ReplyChallenge(pSession, pPort, 0);
            return 0;
        case Role::Recorder:
            return RecorderMay(pSession, pPort, pVerdict);
        case Role::Neighbour:
            if (PeerMayAnnounce(pPort))
                return 1;
            *pVerdict = ReplyShort(pSession, pPort, STATUS_UNAUTHORIZED);
            return 0;
    }
    return 0;
}

}  // namespace orx
