#include "shared/login.h"

#include <strings.h>

#include <cstdio>
#include <string_view>

#include "base/base64.h"
#include "base/md5.h"
#include "shared/sha256.h"

namespace orx {

static int SameWord(std::string_view one, std::string_view other)
{
    return one.size() == other.size() && strncasecmp(one.data(), other.data(), one.size()) == 0;
}

static void SkipBlanks(std::string_view *pText, std::string_view blanks)
{
    pText->remove_prefix(std::min(pText->find_first_not_of(blanks), pText->size()));
}

static std::string_view TakeWord(std::string_view *pText)
{
    std::string_view word = pText->substr(0, pText->find_first_of(" \t,=\""));
    pText->remove_prefix(word.size());
    return word;
}

// The value behind '=': a quoted string without its quotes and escapes, or a word.
static std::string TakeValue(std::string_view *pText)
{
    SkipBlanks(pText, " \t");
    if (pText->empty() || pText->front() != '"') {
        std::string_view word = pText->substr(0, pText->find_first_of(" \t,"));
        pText->remove_prefix(word.size());
        return std::string(word);
    }
    std::string value;
    size_t i = 1;
    for (; i < pText->size() && (*pText)[i] != '"'; i++) {
        if ((*pText)[i] == '\\' && i + 1 < pText->size())
            i++;
        value += (*pText)[i];
    }
    pText->remove_prefix(std::min(i + 1, pText->size()));
    return value;
}

static int HasWord(std::string_view list, std::string_view wanted)
{
    while (!list.empty()) {
        SkipBlanks(&list, " \t,=\"");
        if (SameWord(TakeWord(&list), wanted))
            return 1;
    }
    return 0;
}

static int ReadAlgorithm(const std::string &value, LoginChallenge *pOut)
{
    static const struct {
        const char *szName;
        LoginScheme scheme;
        int bSession;
    } kAlgorithms[] = {
        {"MD5", LoginScheme::DigestMd5, 0},
        {"MD5-sess", LoginScheme::DigestMd5, 1},
        {"SHA-256", LoginScheme::DigestSha256, 0},
        {"SHA-256-sess", LoginScheme::DigestSha256, 1},
    };
    pOut->algorithm = value;
    for (const auto &algorithm : kAlgorithms)
        if (SameWord(value, algorithm.szName)) {
            pOut->scheme = algorithm.scheme;
            pOut->bSession = algorithm.bSession;
            return 1;
        }
    return 0;
}

static void TakeParameter(std::string_view name, const std::string &value, LoginChallenge *pOut, int *pbGood)
{
    if (SameWord(name, "realm")) {
        pOut->realm = value;
    } else if (SameWord(name, "nonce")) {
        pOut->nonce = value;
    } else if (SameWord(name, "opaque")) {
        pOut->opaque = value;
    } else if (SameWord(name, "stale")) {
        pOut->bStale = SameWord(value, "true");
    } else if (SameWord(name, "qop")) {
        pOut->bQop = HasWord(value, "auth");
        *pbGood &= pOut->bQop || value.empty();  // "auth-int" alone is beyond us, as everybody
    } else if (SameWord(name, "algorithm") && pOut->scheme != LoginScheme::Basic && !value.empty()) {
        *pbGood &= ReadAlgorithm(value, pOut);
    }
}

static void Consider(const LoginChallenge *pRead, int bGood, LoginChallenge *pBest)
{
    if (bGood && pRead->scheme > pBest->scheme)
        *pBest = *pRead;
}

// A word without '=' behind it begins the next challenge.
static void ReadValue(std::string_view text, LoginChallenge *pBest)
{
    LoginChallenge read;
    int bGood = 0;
    while (SkipBlanks(&text, " \t,=\""), !text.empty()) {
        std::string_view word = TakeWord(&text);
        SkipBlanks(&text, " \t");
        if (!text.empty() && text.front() == '=') {
            text.remove_prefix(1);
            TakeParameter(word, TakeValue(&text), &read, &bGood);
            continue;
        }
        Consider(&read, bGood, pBest);
        read = LoginChallenge();
        bGood = SameWord(word, "Basic") || SameWord(word, "Digest");
        read.scheme = SameWord(word, "Digest") ? LoginScheme::DigestMd5 : LoginScheme::Basic;
    }
    Consider(&read, bGood, pBest);
}

int LoginReadChallenges(const std::vector<std::string> &values, LoginChallenge *pOut)
{
    LoginChallenge best;
    for (const std::string &value : values)
        ReadValue(value, &best);
    if (best.scheme == LoginScheme::None)
        return 0;
    *pOut = best;
    return 1;
}

static std::string Hash(const LoginChallenge *pChallenge, const std::string &text)
{
    if (pChallenge->scheme == LoginScheme::DigestSha256)
        return Sha256Hex(text);
    Md5Context context;
    char szHex[kMd5HexSize + 3];
    Md5Init(&context);
    Md5Update(&context, text.data(), text.size());
    return Md5FinalHex(&context, szHex);
}

static std::string Quoted(const std::string &text)
{
    std::string out = "\"";
    for (char c : text) {
        if (c == '"' || c == '\\')
            out += '\\';
        if (static_cast<unsigned char>(c) >= ' ')  // no line ends: a header would end there
            out += c;
    }
    return out + "\"";
}

static std::string BasicAnswer(const LoginUser *pUser)
{
    std::string plain = pUser->name + ":" + pUser->password;
    std::string text(Base64EncodedSize(plain.size()), '\0');
    text.resize(Base64EncodeCount(text.data(), plain.data(), plain.size()) - 1);
    return "Basic " + text;
}

std::string LoginAnswer(const LoginChallenge *pChallenge, const LoginUser *pUser, const std::string &method,
                        const std::string &uri, uint32_t nCount, const std::string &cnonce)
{
    if (pChallenge->scheme == LoginScheme::Basic)
        return BasicAnswer(pUser);
    char szCount[9];
    snprintf(szCount, sizeof szCount, "%08x", nCount);
    std::string first = Hash(pChallenge, pUser->name + ":" + pChallenge->realm + ":" + pUser->password);
    if (pChallenge->bSession)
        first = Hash(pChallenge, first + ":" + pChallenge->nonce + ":" + cnonce);
    std::string middle = pChallenge->nonce;
    if (pChallenge->bQop)
        middle += std::string(":") + szCount + ":" + cnonce + ":auth";
    std::string answer = "Digest username=" + Quoted(pUser->name) + ", realm=" + Quoted(pChallenge->realm) +
                         ", nonce=" + Quoted(pChallenge->nonce) + ", uri=" + Quoted(uri) + ", response=\"" +
                         Hash(pChallenge, first + ":" + middle + ":" + Hash(pChallenge, method + ":" + uri)) +
                         "\"";
    if (!pChallenge->algorithm.empty())
        answer += ", algorithm=" + pChallenge->algorithm;
    if (!pChallenge->opaque.empty())
        answer += ", opaque=" + Quoted(pChallenge->opaque);
    if (pChallenge->bQop)
        answer += std::string(", qop=auth, nc=") + szCount;
    if (pChallenge->bQop || pChallenge->bSession)
        answer += ", cnonce=" + Quoted(cnonce);
    return answer;
}

}  // namespace orx
