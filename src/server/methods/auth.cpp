#include "server/methods/auth.h"

#include <sys/random.h>

#include <cerrno>
#include <cstring>
#include <new>

#include "base/assertion.h"
#include "base/base64.h"
#include "base/faststring.h"
#include "base/md5.h"
#include "base/textbuf.h"

namespace orx {

constexpr int kMaxBasicText = 192;  // characters of an encoded "user:password"

// A counted string that ends with its block.
struct StrGuard {
    Str s = nullptr;
    StrGuard() = default;
    ~StrGuard()
    {
        if (s)
            StrDestroy(&s);
    }
    StrGuard(StrGuard &&) = delete;
    StrGuard &operator=(StrGuard &&) = delete;
};

// Reads the value behind the first szKey in a text, or the one that the text starts with when szKey is null.
// A value that begins with a blank or a quote runs to the next such character, any other to the next blank or
// line end; commas do not end it. Returns its length, or -1 when the key or the closing quote is missing.
static int ReadParameter(const char *szText, const char *szKey, Str *pValue)
{
    const char *p = szText;
    if (szKey) {
        p = strstr(szText, szKey);
        if (!p)
            return -1;
        p += strlen(szKey);
    }
    size_t nLen = 0;
    if (*p == ' ' || *p == '"' || *p == '\'') {
        const char *pEnd = strchr(p + 1, *p);
        if (!pEnd)
            return -1;
        p++;
        nLen = static_cast<size_t>(pEnd - p);
    } else {
        nLen = strcspn(p, " \r\n");
    }
    StrCreate(pValue, nLen ? p : nullptr, nLen);
    return static_cast<int>(nLen);
}

// Takes as long for a wrong first character as for a wrong last one.
static int SameSecret(const char *a, const char *b)
{
    size_t nLen = strlen(a);
    if (nLen != strlen(b))
        return 0;
    unsigned nDiffer = 0;
    for (size_t i = 0; i < nLen; i++)
        nDiffer |= static_cast<unsigned>(a[i] ^ b[i]);
    return nDiffer == 0;
}

// Asks for the account of szUser. Returns its level, or -1 when there is none; the password is then in
// pAuth->szPassword.
static int FindAccount(Auth *pAuth, const char *szUrl, const char *szUser)
{
    TextCopy(pAuth->szUser, sizeof(pAuth->szUser), szUser);
    memset(pAuth->szPassword, 0, sizeof(pAuth->szPassword));
    ORX_ASSERT(pAuth->pfnGetAccount, "pAuth->pfnGetAccount");
    int nLevel = 3;
    if (!pAuth->pfnGetAccount(pAuth->pContext, szUrl, pAuth->szUser, pAuth->szPassword, &nLevel))
        return -1;
    return nLevel;
}

static int BasicNonce(Auth *pAuth, char *szOut, size_t nSize)
{
    ORX_ASSERT(*pAuth->szRealm, "pAuth->szRealm && *pAuth->szRealm");
    TextBuf text{szOut, nSize};
    return TextAdd(&text, "WWW-Authenticate: Basic realm=\"%s\"\r\n", pAuth->szRealm);
}

static int BasicValidate(Auth *pAuth, const char *szText, const char *szUrl)
{
    StrGuard value;
    int nLen = ReadParameter(szText, "Authorization: Basic ", &value.s);
    if (nLen < 1 || nLen > kMaxBasicText)
        return -1;
    char plain[kMaxBasicText / 4 * 3 + 4];
    const char *pEnd = Base64Decode(StrText(value.s), plain, static_cast<size_t>(nLen));
    if (!pEnd || plain + strlen(plain) + 1 < pEnd)  // a text without its padding gives one 0 more
        return -1;
    char *pColon = strchr(plain, ':');
    if (!pColon)
        return -1;
    *pColon = '\0';
    int nLevel = FindAccount(pAuth, szUrl, plain);
    return nLevel >= 0 && SameSecret(pColon + 1, pAuth->szPassword) ? nLevel : -1;
}

static int BasicClientLine(Auth *pAuth, const char *, char *szOut, size_t nSize)
{
    char plain[sizeof(pAuth->szUser) + sizeof(pAuth->szPassword)];
    char encoded[sizeof(plain) * 2];
    TextBuf pair{plain, sizeof(plain)};
    TextAdd(&pair, "%s:%s", pAuth->szUser, pAuth->szPassword);
    Base64Encode(plain, encoded, pair.nLen);
    TextBuf text{szOut, nSize};
    return TextAdd(&text, "Authorization: Basic %s", encoded);
}

// The server's nonce: the same for every challenge of a run, and never out of date.
static void MakeNonce(const Auth *pAuth, char *szNonce)
{
    Md5Hex(&pAuth->nHandle, sizeof(pAuth->nHandle), szNonce);
}

static int DigestNonce(Auth *pAuth, char *szOut, size_t nSize)
{
    char nonce[kMd5HexSize];
    MakeNonce(pAuth, nonce);
    TextBuf text{szOut, nSize};
    return TextAdd(&text, "WWW-Authenticate: Digest realm=\"%s\", nonce=\"%s\"\r\n", pAuth->szRealm, nonce);
}

// The hex digest of texts joined by colons; szLast may be null.
static void HashJoined(const char *szFirst, const char *szSecond, const char *szLast, char *szHex)
{
    Md5Context context;
    Md5Init(&context);
    Md5Update(&context, szFirst, strlen(szFirst));
    Md5Update(&context, ":", 1);
    Md5Update(&context, szSecond, strlen(szSecond));
    if (szLast) {
        Md5Update(&context, ":", 1);
        Md5Update(&context, szLast, strlen(szLast));
    }
    Md5FinalHex(&context, szHex);
}

struct DigestInput {
    const char *szUser, *szRealm, *szPassword, *szMethod, *szUri, *szNonce;
};

// RFC 2617, section 3.2.2.1, the form without qop.
static void DigestResponse(const DigestInput *pIn, char *szHex)
{
    char ha1[kMd5HexSize];
    char ha2[kMd5HexSize];
    HashJoined(pIn->szUser, pIn->szRealm, pIn->szPassword, ha1);
    HashJoined(pIn->szMethod, pIn->szUri, nullptr, ha2);
    HashJoined(ha1, pIn->szNonce, ha2, szHex);
}

static int DigestValidate(Auth *pAuth, const char *szText, const char *szUrl)
{
    constexpr char kScheme[] = "Authorization: Digest ";
    const char *pParams = strstr(szText, kScheme);
    if (!pParams)
        return -1;
    pParams += strlen(kScheme);
    StrGuard method;
    StrGuard realm;
    StrGuard nonce;
    StrGuard uri;
    StrGuard response;
    StrGuard user;
    if (ReadParameter(szText, nullptr, &method.s) < 1 || ReadParameter(pParams, "realm=", &realm.s) < 1 ||
        ReadParameter(pParams, "nonce=", &nonce.s) < 1 || ReadParameter(pParams, "uri=", &uri.s) < 1 ||
        ReadParameter(pParams, "response=", &response.s) < 1 ||
        ReadParameter(pParams, "username=", &user.s) < 0)
        return -1;
    char ownNonce[kMd5HexSize];
    MakeNonce(pAuth, ownNonce);
    if (strcmp(StrText(realm.s), pAuth->szRealm) != 0 || strcmp(StrText(nonce.s), ownNonce) != 0)
        return -1;
    int nLevel = FindAccount(pAuth, szUrl, StrText(user.s));
    if (nLevel < 0)
        return -1;
    DigestInput in{StrText(user.s),   StrText(realm.s), pAuth->szPassword,
                   StrText(method.s), StrText(uri.s),   ownNonce};
    char expected[kMd5HexSize];
    DigestResponse(&in, expected);
    return SameSecret(StrText(response.s), expected) ? nLevel : -1;
}

static int DigestClientLine(Auth *pAuth, const char *szNonce, char *szOut, size_t nSize)
{
    DigestInput in{pAuth->szUser, pAuth->szRealm, pAuth->szPassword, pAuth->szMethod, pAuth->szUri, szNonce};
    char response[kMd5HexSize];
    DigestResponse(&in, response);
    TextBuf text{szOut, nSize};
    return TextAdd(&text, "Authorization: Digest realm=\"%s\" username=\"%s\" uri=\"%s\" response=\"%s\"\r\n",
                   pAuth->szRealm, pAuth->szUser, pAuth->szUri, response);
}

static const AuthOps g_basicOps = {BasicNonce, BasicValidate, BasicClientLine};
static const AuthOps g_digestOps = {DigestNonce, DigestValidate, DigestClientLine};

static const struct {
    const char *szName;
    const AuthOps *pOps;
} g_schemes[] = {{"None", nullptr}, {"Basic", &g_basicOps}, {"Digest", &g_digestOps}, {"Custom", nullptr}};

// A number that no peer can guess; never 0.
static unsigned RandomHandle()
{
    unsigned nHandle = 0;
    while (nHandle == 0)
        if (getrandom(&nHandle, sizeof(nHandle), 0) != sizeof(nHandle) && errno != EINTR)
            return 0;
    return nHandle;
}

Auth *AuthCreate(unsigned nType, const char *szRealm, GetAccountProc pfnGetAccount, void *pContext)
{
    if (nType > AUTH_DIGEST)
        return nullptr;
    unsigned nHandle = RandomHandle();
    Auth *pAuth = nHandle ? new (std::nothrow) Auth : nullptr;
    if (!pAuth)
        return nullptr;
    pAuth->pOps = g_schemes[nType].pOps;
    pAuth->pfnGetAccount = pfnGetAccount;
    pAuth->pContext = pContext;
    pAuth->nHandle = nHandle;
    TextCopy(pAuth->szRealm, sizeof(pAuth->szRealm), szRealm);
    return pAuth;
}

void AuthFree(Auth *pAuth)
{
    delete pAuth;
}

const char *AuthSchemeName(unsigned nType)
{
    return nType <= AUTH_CUSTOM ? g_schemes[nType].szName : "";
}

int AuthChallenge(Auth *pAuth, char *szOut, size_t nSize)
{
    return pAuth->pOps ? pAuth->pOps->pfnChallenge(pAuth, szOut, nSize) : 0;
}

int AuthValidate(Auth *pAuth, const char *szText, const char *szUrl)
{
    return pAuth->pOps ? pAuth->pOps->pfnValidate(pAuth, szText, szUrl) : 0;
}

int AuthClientLine(Auth *pAuth, const char *szNonce, char *szOut, size_t nSize)
{
    return pAuth->pOps ? pAuth->pOps->pfnClientLine(pAuth, szNonce, szOut, nSize) : 0;
}

void AuthUserToken(const char *szUser, const char *szPassword, char *szOut)
{
    char hex[kMd5HexSize];
    HashJoined(*szUser ? szUser : "anonymous", szPassword, nullptr, hex);
    for (int i = 0; i < 16; i++)
        szOut[i] = hex[2 * i + 1];
    szOut[16] = '\0';
}

int AuthIsToken(const char *szUser, const char *szPassword, const char *szGiven)
{
    char token[17];
    AuthUserToken(szUser, szPassword, token);
    return SameSecret(token, szGiven);
}

}  // namespace orx
