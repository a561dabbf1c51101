// RTSP authentication: Basic and Digest without qop (RFC 2617). Knows accounts only through its look-up.
// Scheduler thread only.
#pragma once

#include <cstddef>

namespace orx {

enum AuthType : unsigned { AUTH_NONE = 0, AUTH_BASIC = 1, AUTH_DIGEST = 2, AUTH_CUSTOM = 3 };

// Finds the account of szUser for what szUrl names. Non-zero when the user may watch it: szPassword (64
// bytes) is filled, and *pLevel, when given, is set.
using GetAccountProc = int (*)(void *pContext, const char *szUrl, const char *szUser, char *szPassword,
                               int *pLevel);

struct Auth;
struct AuthOps {
    int (*pfnChallenge)(Auth *pAuth, char *szOut, size_t nSize);  // the "WWW-Authenticate" line with its CRLF
    int (*pfnValidate)(Auth *pAuth, const char *szText, const char *szUrl);
    int (*pfnClientLine)(Auth *pAuth, const char *szNonce, char *szOut, size_t nSize);
};

struct Auth {
    const AuthOps *pOps = nullptr;
    GetAccountProc pfnGetAccount = nullptr;
    void *pContext = nullptr;
    unsigned nHandle = 0;  // what the Digest nonce is made from: this authenticator's own, not an address
    char szMethod[32] = "";
    char szUser[64] = "";  // of the last request validated
    char szRealm[32] = "";
    char szPassword[64] = "";  // that the look-up returned
    char szUri[128] = "";
};

// A new authenticator, or null for a type other than 0, 1 and 2 or without memory. Free with AuthFree.
Auth *AuthCreate(unsigned nType, const char *szRealm, GetAccountProc pfnGetAccount, void *pContext);
void AuthFree(Auth *pAuth);  // accepts null

// "None", "Basic", "Digest", "Custom".
const char *AuthSchemeName(unsigned nType);

// Writes the challenge line. Returns 1, or 0 when it does not fit or the type has none.
int AuthChallenge(Auth *pAuth, char *szOut, size_t nSize);
// szText is "<method>\r\nAuthorization: <value>". Returns the user level (0 or more), or -1 when refused.
int AuthValidate(Auth *pAuth, const char *szText, const char *szUrl);
// The client's "Authorization" line for the challenge's nonce. Returns 1 or 0.
int AuthClientLine(Auth *pAuth, const char *szNonce, char *szOut, size_t nSize);

// The 16-character token of a user ("UserAuth") into szOut[17].
void AuthUserToken(const char *szUser, const char *szPassword, char *szOut);
// Whether szGiven is that user's token.
int AuthIsToken(const char *szUser, const char *szPassword, const char *szGiven);

}  // namespace orx
