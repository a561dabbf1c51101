#include "server/methods/auth.h"

#include <sys/random.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <new>

#include "base/assertion.h"
#include "base/base64.h"
#include "base/faststring.h"
#include "base/md5.h"
#include "base/textbuf.h"
#include "runtime/clock.h"
#include "server/core/accounttable.h"
#include "server/core/request.h"

namespace orx {

constexpr int kMaxBasicText = 192;      // characters of an encoded "user:password"
constexpr int32_t kNonceSeconds = 60;   // that a nonce is good for, with FreshNonce
constexpr size_t kNonceTimeDigits = 8;  // of such a nonce the first characters: when it was made
constexpr size_t kNonceSize = kNonceTimeDigits + kMd5HexSize;
constexpr size_t kMaxUriSize = 256;  // of a request, NUL included

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

// Asks for the account of szUser. Returns its level, or AUTH_REFUSED when there is none; the password is then
// in pAuth->szPassword.
static int FindAccount(Auth *pAuth, const AuthRequest *pRequest, const char *szUser)
{
    TextCopy(pAuth->szUser, sizeof(pAuth->szUser), szUser);
    memset(pAuth->szPassword, 0, sizeof(pAuth->szPassword));
    ORX_ASSERT(pAuth->pfnGetAccount, "pAuth->pfnGetAccount");
    int nLevel = kNobodysLevel;
    if (!pAuth->pfnGetAccount(pRequest->pContext, pRequest->szUrl, pAuth->szUser, pAuth->szPassword, &nLevel))
        return AUTH_REFUSED;
    return nLevel;
}

static int BasicNonce(const Auth *pAuth, uint32_t /*nClientIp*/, int /*bStale*/, char *szOut, size_t nSize)
{
    ORX_ASSERT(*pAuth->szRealm, "pAuth->szRealm && *pAuth->szRealm");
    TextBuf text{szOut, nSize};
    return TextAdd(&text, "WWW-Authenticate: Basic realm=\"%s\"\r\n", pAuth->szRealm);
}

static int BasicValidate(Auth *pAuth, const AuthRequest *pRequest)
{
    StrGuard value;
    int nLen = ReadParameter(pRequest->szText, "Authorization: Basic ", &value.s);
    if (nLen < 1 || nLen > kMaxBasicText)
        return AUTH_REFUSED;
    char plain[kMaxBasicText / 4 * 3 + 4];
    const char *pEnd = Base64Decode(StrText(value.s), plain, static_cast<size_t>(nLen));
    if (!pEnd || plain + strlen(plain) + 1 < pEnd)  // a text without its padding gives one 0 more
        return AUTH_REFUSED;
    char *pColon = strchr(plain, ':');
    if (!pColon)
        return AUTH_REFUSED;
    *pColon = '\0';
    int nLevel = FindAccount(pAuth, pRequest, plain);
    return nLevel >= 0 && SameSecret(pColon + 1, pAuth->szPassword) ? nLevel : AUTH_REFUSED;
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

// The nonce that a client was given at a time (ClockUptime): nobody else can make it, and it is good for no
// other address. The inner digest is hashed again, so that nothing can be appended to what it was made from.
static void MakeFreshNonce(const Auth *pAuth, uint32_t nClientIp, uint32_t tMade, char *szNonce)
{
    uint32_t facts[] = {tMade, nClientIp};
    uint8_t inner[16];
    Md5Context context;
    Md5Init(&context);
    Md5Update(&context, pAuth->secret, sizeof(pAuth->secret));
    Md5Update(&context, facts, sizeof(facts));
    Md5Final(&context, inner);
    Md5Init(&context);
    Md5Update(&context, pAuth->secret, sizeof(pAuth->secret));
    Md5Update(&context, inner, sizeof(inner));
    TextBuf text{szNonce, kNonceSize};
    TextAdd(&text, "%08x", tMade);
    Md5FinalHex(&context, szNonce + kNonceTimeDigits);
}

// The nonce of a challenge; without FreshNonce the same for every one of a run, and never out of date.
static void MakeNonce(const Auth *pAuth, uint32_t nClientIp, char *szNonce)
{
    if (pAuth->bFreshNonce)
        MakeFreshNonce(pAuth, nClientIp, ClockUptime(), szNonce);
    else
        Md5Hex(&pAuth->nHandle, sizeof(pAuth->nHandle), szNonce);
}

// Whether an answer to the nonce is looked at. *pbOld tells that it has to be given again to a new one: with
// FreshNonce this one was made too long ago, for another client, or before the server's last start.
static int IsNonce(const Auth *pAuth, uint32_t nClientIp, const char *szNonce, int *pbOld)
{
    char own[kNonceSize];
    *pbOld = 0;
    if (!pAuth->bFreshNonce) {
        MakeNonce(pAuth, nClientIp, own);
        return SameSecret(szNonce, own);
    }
    char digits[kNonceTimeDigits + 1];
    TextCopy(digits, sizeof(digits), szNonce);
    auto tMade = static_cast<uint32_t>(strtoul(digits, nullptr, 16));
    MakeFreshNonce(pAuth, nClientIp, tMade, own);
    *pbOld = !SameSecret(szNonce, own) || ClockDiff(ClockUptime(), tMade) > kNonceSeconds;
    return 1;
}

// Whether the "uri" of an answer is that of the request. Clients name it in full or by its path alone.
static int IsUriOf(const Auth *pAuth, const char *szUri, const char *szUrl)
{
    if (!pAuth->bFreshNonce)
        return 1;
    char uri[kMaxUriSize];
    if (UriDecode(szUri, uri, sizeof(uri)) < 0)
        return 0;
    return strcmp(uri, szUrl) == 0 || strcmp(UriPath(uri), UriPath(szUrl)) == 0;
}

static int DigestNonce(const Auth *pAuth, uint32_t nClientIp, int bStale, char *szOut, size_t nSize)
{
    char nonce[kNonceSize];
    MakeNonce(pAuth, nClientIp, nonce);
    TextBuf text{szOut, nSize};
    return TextAdd(&text, "WWW-Authenticate: Digest realm=\"%s\", nonce=\"%s\"%s\r\n", pAuth->szRealm, nonce,
                   bStale ? ", stale=true" : "");
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

static int DigestValidate(Auth *pAuth, const AuthRequest *pRequest)
{
    constexpr char kScheme[] = "Authorization: Digest ";
    const char *pParams = strstr(pRequest->szText, kScheme);
    if (!pParams)
        return AUTH_REFUSED;
    pParams += strlen(kScheme);
    StrGuard method;
    StrGuard realm;
    StrGuard nonce;
    StrGuard uri;
    StrGuard response;
    StrGuard user;
    if (ReadParameter(pRequest->szText, nullptr, &method.s) < 1 ||
        ReadParameter(pParams, "realm=", &realm.s) < 1 || ReadParameter(pParams, "nonce=", &nonce.s) < 1 ||
        ReadParameter(pParams, "uri=", &uri.s) < 1 || ReadParameter(pParams, "response=", &response.s) < 1 ||
        ReadParameter(pParams, "username=", &user.s) < 0)
        return AUTH_REFUSED;
    int bOld = 0;
    if (strcmp(StrText(realm.s), pAuth->szRealm) != 0 ||
        !IsNonce(pAuth, pRequest->nClientIp, StrText(nonce.s), &bOld) ||
        !IsUriOf(pAuth, StrText(uri.s), pRequest->szUrl))
        return AUTH_REFUSED;
    int nLevel = FindAccount(pAuth, pRequest, StrText(user.s));
    if (nLevel < 0)
        return AUTH_REFUSED;
    DigestInput in{StrText(user.s),   StrText(realm.s), pAuth->szPassword,
                   StrText(method.s), StrText(uri.s),   StrText(nonce.s)};
    char expected[kMd5HexSize];
    DigestResponse(&in, expected);
    if (!SameSecret(StrText(response.s), expected))
        return AUTH_REFUSED;
    return bOld ? AUTH_STALE : nLevel;
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

// Bytes that no peer can guess.
static int FillRandom(void *pOut, size_t nBytes)
{
    for (;;) {
        ssize_t n = getrandom(pOut, nBytes, 0);
        if (n < 0 && errno == EINTR)
            continue;
        return n == static_cast<ssize_t>(nBytes);
    }
}

Auth *AuthCreate(unsigned nType, const char *szRealm, GetAccountProc pfnGetAccount, int bFreshNonce)
{
    if (nType > AUTH_DIGEST)
        return nullptr;
    auto *pAuth = new (std::nothrow) Auth;
    if (!pAuth)
        return nullptr;
    if (!FillRandom(&pAuth->nHandle, sizeof(pAuth->nHandle)) ||
        !FillRandom(pAuth->secret, sizeof(pAuth->secret))) {
        delete pAuth;
        return nullptr;
    }
    pAuth->pOps = g_schemes[nType].pOps;
    pAuth->pfnGetAccount = pfnGetAccount;
    pAuth->bFreshNonce = bFreshNonce;
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

static const AuthOps *OpsOf(unsigned nScheme)
{
    return nScheme < std::size(g_schemes) ? g_schemes[nScheme].pOps : nullptr;
}

int AuthChallenge(const Auth *pAuth, unsigned nScheme, uint32_t nClientIp, int bStale, char *szOut,
                  size_t nSize)
{
    const AuthOps *pOps = OpsOf(nScheme);
    return pOps ? pOps->pfnChallenge(pAuth, nClientIp, bStale, szOut, nSize) : 0;
}

int AuthValidate(Auth *pAuth, unsigned nScheme, const AuthRequest *pRequest)
{
    const AuthOps *pOps = OpsOf(nScheme);
    return pOps ? pOps->pfnValidate(pAuth, pRequest) : AUTH_REFUSED;
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
