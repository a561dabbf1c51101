// RTSP authentication: Basic and Digest without qop (RFC 2617). Knows accounts only through its look-up.
// Scheduler thread only.
#pragma once

#include <cstddef>
#include <cstdint>

namespace orx {

enum AuthType : unsigned { AUTH_NONE = 0, AUTH_BASIC = 1, AUTH_DIGEST = 2, AUTH_CUSTOM = 3 };

// Finds the account of szUser for what szUrl names. Non-zero when the user may watch it: szPassword (64
// bytes) is filled, and *pLevel, when given, is set.
using GetAccountProc = int (*)(void *pContext, const char *szUrl, const char *szUser, char *szPassword,
                               int *pLevel);

enum : int { AUTH_REFUSED = -1, AUTH_STALE = -2 };

// What a client shows.
struct AuthRequest {
    const char *szText;        // "<method>\r\nAuthorization: <value>"
    const char *szUrl;         // of the request, percent-decoded
    uint32_t nClientIp = 0;    // AddrCounted32
    void *pContext = nullptr;  // for the look-up
};

struct Auth;
struct AuthOps {
    // The "WWW-Authenticate" line with its CRLF; bStale: only what the last answer was made from is too old.
    int (*pfnChallenge)(const Auth *pAuth, uint32_t nClientIp, int bStale, char *szOut, size_t nSize);
    int (*pfnValidate)(Auth *pAuth, const AuthRequest *pRequest);
    int (*pfnClientLine)(Auth *pAuth, const char *szNonce, char *szOut, size_t nSize);
};

struct Auth {
    const AuthOps *pOps = nullptr;
    GetAccountProc pfnGetAccount = nullptr;
    unsigned nHandle = 0;  // what the Digest nonce is made from: this authenticator's own, not an address
    // With FreshNonce a nonce is for one client and a minute, and "uri" that of the request.
    int bFreshNonce = 0;
    uint8_t secret[16] = {};  // what only this server can make such nonces with
    char szMethod[32] = "";
    char szUser[64] = "";  // of the last request validated
    char szRealm[32] = "";
    char szPassword[64] = "";  // that the look-up returned
    char szUri[128] = "";
};

// A new authenticator, or null for a type other than 0, 1 and 2 or without memory. Free with AuthFree.
Auth *AuthCreate(unsigned nType, const char *szRealm, GetAccountProc pfnGetAccount, int bFreshNonce = 0);
void AuthFree(Auth *pAuth);  // accepts null

// "None", "Basic", "Digest", "Custom".
const char *AuthSchemeName(unsigned nType);

// Both work for the scheme that is named, whatever type the authenticator has.
// Writes the challenge line for a client. Returns 1, or 0 when it does not fit or the scheme has none.
int AuthChallenge(const Auth *pAuth, unsigned nScheme, uint32_t nClientIp, int bStale, char *szOut,
                  size_t nSize);
// Returns the user level (0 or more), AUTH_REFUSED, or AUTH_STALE: the password is right, but the client has
// to show it again for a new challenge.
int AuthValidate(Auth *pAuth, unsigned nScheme, const AuthRequest *pRequest);
// The client's "Authorization" line for the challenge's nonce. Returns 1 or 0.
int AuthClientLine(Auth *pAuth, const char *szNonce, char *szOut, size_t nSize);

// The 16-character token of a user ("UserAuth") into szOut[17].
void AuthUserToken(const char *szUser, const char *szPassword, char *szOut);
// Whether szGiven is that user's token.
int AuthIsToken(const char *szUser, const char *szPassword, const char *szGiven);

}  // namespace orx
