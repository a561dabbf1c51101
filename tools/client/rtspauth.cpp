#include "client/rtspauth.h"

#include <strings.h>

#include "base/base64.h"
#include "base/md5.h"

namespace orx {

static std::string HexDigest(const std::string &text)
{
    // through a context: for the one-call form a length of 0 would mean the string length
    Md5Context context;
    char szHex[36];
    Md5Init(&context);
    Md5Update(&context, text.data(), text.size());
    return Md5FinalHex(&context, szHex);
}

static std::string Base64(const std::string &text)
{
    std::string out(Base64EncodedSize(text.size()), '\0');
    if (text.empty())
        return std::string();
    out.resize(Base64EncodeCount(out.data(), text.data(), text.size()) - 1);
    return out;
}

static std::string Parameter(const std::string &value, const char *szName)
{
    size_t nAt = value.find(std::string(szName) + "=\"");
    if (nAt == std::string::npos)
        return std::string();
    nAt = value.find('"', nAt) + 1;
    return value.substr(nAt, value.find('"', nAt) - nAt);
}

int RtspParseChallenge(const char *szValue, RtspChallenge *pOut)
{
    if (strncasecmp(szValue, "Basic ", 6) != 0 && strncasecmp(szValue, "Digest ", 7) != 0)
        return 0;
    pOut->bDigest = (*szValue | 0x20) == 'd';
    pOut->realm = Parameter(szValue, "realm");
    pOut->nonce = Parameter(szValue, "nonce");
    return 1;
}

std::string RtspAuthorization(const RtspChallenge *pChallenge, const std::string &user,
                              const std::string &password, const std::string &method, const std::string &uri)
{
    if (!pChallenge->bDigest)
        return "Basic " + Base64(user + ":" + password);
    std::string ha1 = HexDigest(user + ":" + pChallenge->realm + ":" + password);
    std::string ha2 = HexDigest(method + ":" + uri);
    std::string response = HexDigest(ha1 + ":" + pChallenge->nonce + ":" + ha2);
    return "Digest username=\"" + user + "\", realm=\"" + pChallenge->realm + "\", nonce=\"" +
           pChallenge->nonce + "\", uri=\"" + uri + "\", response=\"" + response + "\"";
}

std::string RtspUserToken(const std::string &user, const std::string &password)
{
    std::string hex = HexDigest((user.empty() ? "anonymous" : user) + ":" + password);
    std::string token;
    for (size_t i = 1; i < hex.size(); i += 2)
        token += hex[i];
    return token;
}

}  // namespace orx
