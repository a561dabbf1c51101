#include "server/methods/credentials.h"

#include <netinet/in.h>

#include <cstring>

#include "base/eventlog.h"
#include "base/textbuf.h"
#include "remote/bridgeaddr.h"
#include "runtime/sockutil.h"
#include "server/core/registry.h"
#include "server/core/settings.h"
#include "server/methods/accountfile.h"
#include "server/methods/attempts.h"
#include "server/methods/auth.h"

namespace orx {

constexpr size_t kMaxCredentials = kMaxHeadBytes + 32;  // a header block and what is put before it
constexpr int kMaxFailures = 3;                         // of one connection

// The address that failures count for: of a relayed peer its own, so that the next one in its place does not
// wait for it. 0: they do not count. The box itself, from where others may be served, is not slowed down; who
// comes through a front is never the box itself.
static uint64_t CountedIp(const Port *pPort)
{
    uint64_t nIp = AddrCounted(&pPort->remote);
    uint32_t nPeer = BridgePeer(SockGetIp(&pPort->remote));
    if (nPeer && nPeer != INADDR_LOOPBACK)
        nIp = nPeer;
    int bOwnBox = AddrIsIpv6(&pPort->remote) ? IsOwnBox(&pPort->remote) : nIp == INADDR_LOOPBACK;
    if (pPort->nFlags & PORT_FRONTED)
        bOwnBox = 0;
    return g_settings.nAuthFailDelay && !bOwnBox ? nIp : 0;
}

// Stands for a password where wrong ones are counted (FNV-1a; never 0).
static uint32_t SecretOf(const char *szPassword)
{
    uint32_t nHash = 2166136261U;
    for (const char *p = szPassword; *p; p++)
        nHash = (nHash ^ static_cast<uint8_t>(*p)) * 16777619U;
    return nHash ? nHash : 1;
}

// Notes how a check ended, and has its answer wait when the address has guessed too often. A check that is
// made again after such a wait was noted then. szPassword would have been right; null: nothing would, or what
// everybody may show, which ends no count.
static Credential Conclude(const CredentialCheck *pCheck, Credential eResult, const char *szPassword)
{
    Session *pSession = pCheck->pSession;
    uint64_t nIp = CountedIp(pCheck->pPort);
    if (!nIp)
        return eResult;
    uint32_t nSecret = szPassword ? SecretOf(szPassword) : 0;
    if (!pSession->hold.bOver) {
        if (eResult == CREDENTIAL_WRONG) {
            AttemptsNoteWrong(nIp, nSecret);
            pSession->hold.nFailures++;
        }
        pSession->hold.nDelayMs = AttemptsDelay(nIp);
        if (pSession->hold.nDelayMs)
            return CREDENTIAL_WAITS;
    }
    if (eResult == CREDENTIAL_RIGHT && nSecret)
        AttemptsForget(nIp, nSecret);
    return eResult;
}

// Never the password. A check that is made again after its wait was told then.
static void SayWrong(const CredentialCheck *pCheck, Credential eResult, const char *szUser)
{
    if (eResult != CREDENTIAL_WRONG || pCheck->pSession->hold.bOver || !EventWanted(EventLevel::Warn))
        return;
    char szRemote[kAddrTextSize];
    SockAddrToString(&pCheck->pPort->remote, szRemote);
    EventSayBounded(EventLevel::Warn, "auth.failed",
                    {EventText("peer", szRemote), EventText("user", szUser),
                     EventText("method", RequestMethod(pCheck->pRequest)),
                     EventText("path", RequestPath(pCheck->pRequest))});
}

// How the authenticator's verdict on the header is called here.
static Credential Validate(const CredentialCheck *pCheck, unsigned nScheme, const char *szValue,
                           AccountScope *pScope)
{
    char credentials[kMaxCredentials];
    TextBuf text{credentials, sizeof(credentials)};
    if (!TextAdd(&text, "%s\r\nAuthorization: %s", RequestMethod(pCheck->pRequest), szValue))
        return CREDENTIAL_WRONG;
    AuthRequest request{credentials, RequestUri(pCheck->pRequest), AddrCounted32(&pCheck->pPort->remote),
                        pScope};
    int nResult = AuthValidate(g_server.pAuth, nScheme, &request);
    if (nResult == AUTH_STALE)
        return CREDENTIAL_STALE;
    return nResult == AUTH_REFUSED ? CREDENTIAL_WRONG : CREDENTIAL_RIGHT;
}

// What is right for an account, or null; of nobody's account, too.
static const char *PasswordOf(const Account *pAccount)
{
    return pAccount && !pAccount->bAnonymous ? pAccount->szPassword : nullptr;
}

// The accounts are being brought up to date: a step, and no wait for a wrong password.
static Credential AwaitAccounts(Session *pSession)
{
    pSession->hold.bStep = 1;
    pSession->hold.nDelayMs = kAccountFileMs;
    return CREDENTIAL_WAITS;
}

Credential CheckAuthorization(const CredentialCheck *pCheck, unsigned nScheme, CheckedUser *pOut)
{
    const char *szValue = RequestHeaderValue(pCheck->pRequest, "Authorization");
    const char *szScheme = AuthSchemeName(nScheme);
    if (!szValue || strncmp(szValue, szScheme, strlen(szScheme)) != 0)
        return CREDENTIAL_MISSING;
    if (!AccountsReady(pCheck->pPlace))
        return AwaitAccounts(pCheck->pSession);
    AccountScope scope;
    scope.pPlace = pCheck->pPlace;
    g_server.pAuth->szUser[0] = '\0';
    Credential eResult = Validate(pCheck, nScheme, szValue, &scope);
    SayWrong(pCheck, eResult, g_server.pAuth->szUser);
    eResult = Conclude(pCheck, eResult, PasswordOf(scope.bFound ? &scope.found : nullptr));
    if (eResult == CREDENTIAL_RIGHT) {
        TextCopy(pOut->szUser, sizeof(pOut->szUser), g_server.pAuth->szUser);
        pOut->account = scope.found;
    }
    return eResult;
}

static Credential Compare(const CredentialCheck *pCheck, const char *szUser, const Account *pAccount,
                          const char *szGiven)
{
    int bRight = pAccount && AuthIsToken(szUser, pAccount->szPassword, szGiven);
    SayWrong(pCheck, bRight ? CREDENTIAL_RIGHT : CREDENTIAL_WRONG, szUser);
    return Conclude(pCheck, bRight ? CREDENTIAL_RIGHT : CREDENTIAL_WRONG, PasswordOf(pAccount));
}

Credential CheckUserToken(const CredentialCheck *pCheck, CheckedUser *pOut)
{
    const char *szUser = RequestHeaderValue(pCheck->pRequest, "UserName");
    const char *szGiven = RequestHeaderValue(pCheck->pRequest, "UserAuth");
    if (!szUser || !szGiven)
        return CREDENTIAL_MISSING;
    if (!AccountsReady(pCheck->pPlace))
        return AwaitAccounts(pCheck->pSession);
    int nFound = AccountsFind(pCheck->pPlace, szUser, &pOut->account);
    if (nFound < 0)
        return CREDENTIAL_NO_FILE;
    TextCopy(pOut->szUser, sizeof(pOut->szUser), szUser);
    return Compare(pCheck, szUser, nFound ? &pOut->account : nullptr, szGiven);
}

Credential CheckSuperToken(const CredentialCheck *pCheck, const char *szUser, const char *szPassword)
{
    const char *szGiven = RequestHeaderValue(pCheck->pRequest, "UserAuth");
    if (!szGiven)
        return CREDENTIAL_MISSING;
    int bRight = *szUser && AuthIsToken(szUser, szPassword, szGiven);
    SayWrong(pCheck, bRight ? CREDENTIAL_RIGHT : CREDENTIAL_WRONG, szUser);
    return Conclude(pCheck, bRight ? CREDENTIAL_RIGHT : CREDENTIAL_WRONG, *szUser ? szPassword : nullptr);
}

unsigned CredentialScheme()
{
    return g_settings.nAuthType == AUTH_NONE ? unsigned{AUTH_BASIC} : g_settings.nAuthType;
}

int CredentialChallenge(const Port *pPort, unsigned nScheme, int bStale, TextBuf *pText)
{
    char line[256];
    return AuthChallenge(g_server.pAuth, nScheme, AddrCounted32(&pPort->remote), bStale, line,
                         sizeof(line)) &&
           TextAdd(pText, "%s", line);
}

void ViewerSet(Session *pSession, const CheckedUser *pUser)
{
    pSession->viewer.nUserLevel = pUser->account.nLevel;
    TextCopy(pSession->viewer.szUser, sizeof(pSession->viewer.szUser), pUser->szUser);
}

int CredentialsExhausted(const Session *pSession)
{
    return pSession->hold.nFailures >= kMaxFailures;
}

}  // namespace orx
