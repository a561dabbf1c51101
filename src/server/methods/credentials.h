// The one place where a password or a token is checked: in headers "Authorization" (auth.h) or "UserName" and
// "UserAuth", against the accounts of a program or of the configuration file. Wrong ones are counted by
// address and connection, and answers to an address that guesses wait (AuthFailDelay). Scheduler thread only.
#pragma once

#include "base/textbuf.h"
#include "server/core/session.h"
#include "server/methods/accounts.h"

namespace orx {

enum Credential {
    CREDENTIAL_RIGHT,
    CREDENTIAL_MISSING,  // there is none, or of another scheme: no failure, to be asked for
    CREDENTIAL_WRONG,    // to be refused; counted
    CREDENTIAL_NO_FILE,  // of a token: the configuration file, where alone it would count, cannot be read
    CREDENTIAL_STALE,    // right, but the challenge was too old: to be asked for again; no failure
    // The answer is to wait. The handler sends and changes nothing more, and returns Verdict::Later; it is
    // called with the same request again when the time is over.
    CREDENTIAL_WAITS,
};

// What is checked. A handler checks one credential of a request: each check counts.
struct CredentialCheck {
    Session *pSession;
    const Port *pPort;  // that the request came on
    const Request *pRequest;
    const AccountPlace *pPlace;  // where it is to count; null: the configuration file alone
};

// Whom a right credential belongs to.
struct CheckedUser {
    char szUser[64] = "";  // cut to this
    Account account;
};

// "Authorization" of a scheme (AUTH_BASIC, AUTH_DIGEST), whatever AuthType says. *pOut is filled when it is
// right.
Credential CheckAuthorization(const CredentialCheck *pCheck, unsigned nScheme, CheckedUser *pOut);
// "UserName" and "UserAuth". The same; never stale.
Credential CheckUserToken(const CredentialCheck *pCheck, CheckedUser *pOut);
// "UserAuth" alone, which has to be the token of the super user given; without a name there is none. Never
// stale.
Credential CheckSuperToken(const CredentialCheck *pCheck, const char *szUser, const char *szPassword);

// The scheme by which a password is asked for where one is needed: that of AuthType, Basic where that is
// none.
unsigned CredentialScheme();

// The "WWW-Authenticate" line of a scheme for who sent a request on the port; bStale after CREDENTIAL_STALE.
// Returns 1, or 0 when it does not fit or the scheme has none.
int CredentialChallenge(const Port *pPort, unsigned nScheme, int bStale, TextBuf *pText);

// Makes the session that of the user: its level and name.
void ViewerSet(Session *pSession, const CheckedUser *pUser);

// Whether a connection has failed often enough to be closed behind its last answer.
int CredentialsExhausted(const Session *pSession);

}  // namespace orx
