#include "server/methods/roles.h"

#include "server/core/program.h"
#include "server/core/settings.h"
#include "server/media/replies.h"
#include "server/methods/admit.h"
#include "server/methods/peer.h"

namespace orx {

constexpr int kRecordLevel = 2;   // recording needs a user level below this
constexpr int kNobodysLevel = 3;  // who showed no password

// Whether there is a program that somebody who was not admitted may not ask about. Where a password was asked
// for and not shown, it is not told whether the program is there.
static int IsClosed(const Session *pSession)
{
    const SessionViewer *pViewer = &pSession->viewer;
    return !pViewer->bAdmitted && !FeedsProgram(pSession) && (pSession->pProg || pViewer->bChallenged);
}

static Verdict RefuseRecorder(Session *pSession, Port *pPort)
{
    // an account would help; one that is not enough will not do the second time either
    if (!pSession->viewer.bAdmitted || pSession->viewer.nUserLevel >= kNobodysLevel)
        return ReplyChallenge(pSession, pPort, 0);
    return ReplyShort(pSession, pPort, STATUS_FORBIDDEN);
}

static int MayRecord(const Session *pSession, const Port *pPort)
{
    if (PeerIsOwnShell(pPort) || FeedsProgram(pSession))
        return 1;
    if (pSession->viewer.bAdmitted)
        return pSession->viewer.nUserLevel < kRecordLevel;
    return !IsClosed(pSession);
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
            if (MayRecord(pSession, pPort))
                return 1;
            *pVerdict = RefuseRecorder(pSession, pPort);
            return 0;
        case Role::Neighbour:
            if (PeerMayAnnounce(pPort))
                return 1;
            *pVerdict = ReplyShort(pSession, pPort, STATUS_UNAUTHORIZED);
            return 0;
    }
    return 0;
}

}  // namespace orx
