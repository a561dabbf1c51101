#include "server/methods/auth.h"

#include <algorithm>
#include <cctype>
#include <cstring>
#include <string>
#include <tuple>

#include <gtest/gtest.h>

#include "base/base64.h"
#include "base/md5.h"
#include "base/textbuf.h"
#include "runtime/clock.h"

namespace orx {

// An authenticator that knows one account.
struct Authenticator {
    std::string user = "Mufasa", password = "Circle Of Life";
    std::string askedUrl;
    Auth *p;
    unsigned nScheme;
    uint32_t nIp = 1;

    explicit Authenticator(unsigned nType, const char *szRealm = "Orx", int bFresh = 0)
        : p(AuthCreate(nType, szRealm, Find, bFresh)), nScheme(nType)
    {
    }
    ~Authenticator() { AuthFree(p); }
    Authenticator &operator=(Authenticator &&) = delete;

    static int Find(void *pContext, const char *szUrl, const char *szUser, char *szPassword, int *pLevel)
    {
        auto *pThis = static_cast<Authenticator *>(pContext);
        pThis->askedUrl = szUrl;
        TextCopy(szPassword, 64, pThis->password.c_str());
        *pLevel = 2;
        return szUser == pThis->user;
    }
    int Validate(const std::string &value, const std::string &method)
    {
        const std::string text = method + "\r\nAuthorization: " + value;
        AuthRequest request{text.c_str(), "rtsp://box/ch1", nIp, this};
        return AuthValidate(p, nScheme, &request);
    }
    std::string Nonce() const
    {
        char line[256];
        EXPECT_EQ(1, AuthChallenge(p, nScheme, nIp, 0, line, sizeof(line)));
        const std::string text = strstr(line, "nonce=\"") + 7;
        return text.substr(0, text.find('"'));
    }
};

static std::string Hex(const std::string &text)
{
    char hex[kMd5HexSize];
    Md5Hex(text.data(), text.size(), hex);
    return hex;
}

static std::string Basic(const std::string &pair)
{
    std::string out(Base64EncodedSize(pair.size()), '\0');
    Base64Encode(pair.data(), out.data(), pair.size());
    return "Basic " + std::string(out.c_str());
}

TEST(AuthBasic, LetsTheRightPasswordIn)
{
    const std::string open = "open sesame", longUser(63, 'u'), longPassword(63, 'p');
    const std::tuple<std::string, std::string, std::string, int> cases[] = {
        // an account, what a client sends, and its level
        {"Aladdin", open, "Basic QWxhZGRpbjpvcGVuIHNlc2FtZQ==", 2},  // RFC 2617, section 2
        {"Aladdin", open, "Basic QWxhZGRpbjpvcGVuIHNlc2FtZQ", 2},    // some leave the padding out
        {"Aladdin", "a:b:c", Basic("Aladdin:a:b:c"), 2},             // only the first colon separates
        {"Aladdin", "", Basic("Aladdin:"), 2},
        {"Aladdin", open, Basic("Aladdin:Open sesame"), -1},
        {"Aladdin", open, Basic("Aladdin:open sesam"), -1},
        {"Aladdin", open, Basic("aladdin:open sesame"), -1},
        {"Aladdin", open, Basic(std::string("Aladdin:open sesame\0x", 21)), -1},
        {"Aladdin", open, Basic("Aladdin"), -1},
        {"Aladdin", open, "basic QWxhZGRpbjpvcGVuIHNlc2FtZQ==", -1},
        // a long name is cut to its field; 144 bytes are 192 characters, one byte more is past the limit
        {longUser, longPassword, Basic(std::string(80, 'u') + ":" + longPassword), 2},
        {longUser, longPassword, Basic(std::string(81, 'u') + ":" + longPassword), -1},
    };
    for (const auto &[user, password, value, nLevel] : cases) {
        Authenticator auth(AUTH_BASIC);
        auth.user = user;
        auth.password = password;
        EXPECT_EQ(nLevel, auth.Validate(value, "DESCRIBE")) << value;
        EXPECT_TRUE(nLevel < 0 || auth.askedUrl == "rtsp://box/ch1");
    }
}

// The digests of RFC 2617, section 3.5, and the response that they give without qop, in the forms that
// clients write.
TEST(AuthDigest, TakesTheRightAnswerAndNoOther)
{
    Authenticator auth(AUTH_DIGEST, "testrealm@host.com");
    const std::string nonce = auth.Nonce();
    const std::string response = Hex("939e7578ed9e3c518a452acee763bce9:" + nonce + ":39aff3a2bab6126f332b942af96d3366");
    const std::string good = "Digest username=\"Mufasa\", realm=\"testrealm@host.com\", nonce=\"" + nonce +
                             "\", uri=\"/dir/index.html\", response=\"" + response + "\"";
    std::string bare = good, quoted = good + ",algorithm=MD5";
    std::erase_if(bare, [](char c) { return strchr("\",", c); });
    std::replace(quoted.begin(), quoted.end(), '"', '\'');
    for (const std::string &form : {good, bare, quoted})
        EXPECT_EQ(2, auth.Validate(form, "GET")) << form;
    for (const char *szMethod : {"PUT", ""})
        EXPECT_EQ(-1, auth.Validate(good, szMethod)) << szMethod;
    EXPECT_EQ(nonce, auth.Nonce()) << "one nonce for a run";
    EXPECT_NE(nonce, Authenticator(AUTH_DIGEST).Nonce());

    std::string upper = response;
    std::transform(upper.begin(), upper.end(), upper.begin(), toupper);
    const std::pair<std::string, std::string> changes[] = {
        {"Mufasa", "Simba"}, {"testrealm", "Testrealm"},  {nonce, Hex("x")}, {"/dir", "/dirs"}, {response, upper},
        {"Digest", "Basic"}, {"username=", ""},           {"realm=", ""},    {"nonce=", ""},    {"uri=", ""},
        {"response=", ""},   {response + "\"", response},
    };
    for (const auto &[from, to] : changes) {
        std::string text = good;
        EXPECT_EQ(-1, auth.Validate(text.replace(text.find(from), from.size(), to), "GET")) << text;
    }
    auth.password = "circle of life";
    EXPECT_EQ(-1, auth.Validate(good, "GET"));
}

// A fresh nonce is for one client, a minute and the request at hand.
TEST(AuthDigest, FreshNonceIsForItsClientAndAMinute)
{
    Authenticator auth(AUTH_DIGEST, "Orx", 1);
    const std::string nonce = auth.Nonce();
    auto answer = [&](const std::string &uri, const std::string &password, const std::string &with) {
        const std::string response = Hex(Hex("Mufasa:Orx:" + password) + ":" + with + ":" + Hex("DESCRIBE:" + uri));
        return "Digest username=\"Mufasa\", realm=\"Orx\", nonce=\"" + with + "\", uri=\"" + uri + "\", response=\"" +
               response + "\"";
    };
    std::string forged = nonce;
    forged[7] = forged[7] == '0' ? '1' : '0';  // the last digit of the time
    static const struct {
        int nSeconds;
        uint32_t nIp;
        const char *szUri, *szPassword;
        int nResult;
    } cases[] = {
        {0, 1, "rtsp://box/ch1", "Circle Of Life", 2},
        {0, 1, "/ch1", "Circle Of Life", 2},
        {0, 1, "rtsp://192.168.1.2:554/%63h1", "Circle Of Life", 2},
        {57, 1, "rtsp://box/ch1", "Circle Of Life", 2},
        {0, 1, "rtsp://box/ch1", "circle", AUTH_REFUSED},
        {0, 1, "rtsp://box/ch10", "Circle Of Life", AUTH_REFUSED},
        {0, 1, "rtsp://box/", "Circle Of Life", AUTH_REFUSED},
        {0, 2, "rtsp://box/ch1", "Circle Of Life", AUTH_STALE},
        {0, 2, "rtsp://box/ch1", "circle", AUTH_REFUSED},
        {62, 1, "rtsp://box/ch1", "Circle Of Life", AUTH_STALE},
        {62, 1, "rtsp://box/ch1", "circle", AUTH_REFUSED},
        {62, 2, "rtsp://box/ch1", "Circle Of Life", AUTH_STALE},
    };
    for (const auto &c : cases) {
        ClockSetOffset(1000U * c.nSeconds);
        auth.nIp = c.nIp;
        EXPECT_EQ(c.nResult, auth.Validate(answer(c.szUri, c.szPassword, nonce), "DESCRIBE")) << c.nSeconds << c.szUri;
    }
    EXPECT_NE(nonce, auth.Nonce());
    ClockSetOffset(0);
    auth.nIp = 1;
    for (const std::string &other :
         {forged, nonce.substr(1), Authenticator(AUTH_DIGEST, "Orx", 1).Nonce(), std::string(8, '0')})
        EXPECT_EQ(AUTH_STALE, auth.Validate(answer("/ch1", "Circle Of Life", other), "DESCRIBE")) << other;
    char line[256];
    EXPECT_EQ(1, AuthChallenge(auth.p, AUTH_DIGEST, 1, 1, line, sizeof(line)));
    EXPECT_NE(nullptr, strstr(line, "\", stale=true\r\n"));
}

TEST(AuthToken, TakesEverySecondDigit)
{
    char token[17];
    AuthUserToken("admin", "secret", token);
    EXPECT_STREQ("def1a4c0eb29e223", token);
    EXPECT_TRUE(AuthIsToken("admin", "secret", token));
    EXPECT_FALSE(AuthIsToken("admin", "Secret", token));
    EXPECT_FALSE(AuthIsToken("admin", "secret", "def1a4c0eb29e22"));
    AuthUserToken("", "secret", token);
    EXPECT_TRUE(AuthIsToken("anonymous", "secret", token));
}

}  // namespace orx
