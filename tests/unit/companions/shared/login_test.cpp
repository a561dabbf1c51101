#include "shared/login.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "client/rtspauth.h"
#include "shared/sha256.h"

using namespace orx;
using testing::HasSubstr;
using testing::Not;

static std::string Answer(const std::vector<std::string> &values, const LoginUser &user, const char *szUri,
                          const char *szCnonce)
{
    LoginChallenge challenge;
    return LoginReadChallenges(values, &challenge) ? LoginAnswer(&challenge, &user, "GET", szUri, 1, szCnonce) : "none";
}

// RFC 7616, section 3.9.1.
TEST(Login, AnswersAsTheRfcDoes)
{
    const std::string rest =
        "realm=\"http-auth@example.org\", qop=\"auth, auth-int\", "
        "nonce=\"7ypf/xlj9XXwfDPEoM4URrv/xwf94BcCAzFZH4GiTo0v\", "
        "opaque=\"FQhe/qaU925kfnzjCev0ciny7QMkPqMAFRtzCUYo5tdS\"";
    const std::string md5 = "Digest algorithm=MD5, " + rest, sha = "Digest " + rest + ", algorithm=SHA-256";
    const std::string forMd5 = "8ca523f5e9506fed4657c9700eebdbec";
    const std::string forSha = "753927fa0e85d155564e2e272a28d1802ca10daf4496794697cf8db5856cb6c1";
    const struct {
        std::vector<std::string> values;
        std::string response;
    } cases[] = {{{md5}, forMd5},
                 {{sha}, forSha},
                 {{md5, "Basic realm=\"x\"", sha}, forSha},
                 {{"Basic realm=\"x\", " + md5 + ", " + sha}, forSha}};
    for (const auto &c : cases) {
        std::string answer = Answer(c.values, {"Mufasa", "Circle of Life"}, "/dir/index.html",
                                    "f2/wE4q74E6zIJEtWaHKaf5wv/H5QzzpXusqGemxURZJ");
        EXPECT_THAT(answer, HasSubstr("response=\"" + c.response + "\""));
        EXPECT_THAT(answer, HasSubstr("opaque=\"FQhe/qaU925kfnzjCev0ciny7QMkPqMAFRtzCUYo5tdS\""));
        EXPECT_THAT(answer, HasSubstr("qop=auth, nc=00000001"));
    }
}

TEST(Login, WithoutQopIsThatOfOldCameras)
{
    RtspChallenge plain;
    ASSERT_TRUE(RtspParseChallenge("Digest realm=\"a b\", nonce=\"1f\"", &plain));
    std::string answer = Answer({"digest realm=\"a b\",nonce=\"1f\", stale=FALSE"}, {"u", "p"}, "rtsp://c/", "x");
    EXPECT_EQ(RtspAuthorization(&plain, "u", "p", "GET", "rtsp://c/"), answer);
}

TEST(Login, TakesTheStrongestThatItCanAnswer)
{
    static const struct {
        std::vector<std::string> values;
        LoginScheme scheme;
        int bQop, bStale;
        const char *szRealm;
    } cases[] = {
        {{"Basic realm=\"cam\""}, LoginScheme::Basic, 0, 0, "cam"},
        {{"Basic"}, LoginScheme::Basic, 0, 0, ""},
        {{"Digest realm=cam , nonce=abc,stale=true"}, LoginScheme::DigestMd5, 0, 1, "cam"},
        {{"Digest realm=\"a\\\"b,c=d\", nonce=\"n\", qop=auth"}, LoginScheme::DigestMd5, 1, 0, "a\"b,c=d"},
        {{"Digest realm=\"s\", algorithm=SHA-256-sess, nonce=\"n\""}, LoginScheme::DigestSha256, 0, 0, "s"},
        {{"Digest realm=\"x\", algorithm=SHA-512-256, nonce=\"n\"", "Basic realm=\"y\""},
         LoginScheme::Basic,
         0,
         0,
         "y"},
        {{"Digest realm=\"x\", nonce=\"n\", qop=\"auth-int\"", "Basic realm=\"y\""}, LoginScheme::Basic, 0, 0, "y"},
        {{"Negotiate YII=", "Digest realm=\"unended"}, LoginScheme::DigestMd5, 0, 0, "unended"},
        {{"Negotiate", "Bearer realm=\"x\"", "", ",,="}, LoginScheme::None, 0, 0, ""},
    };
    for (const auto &c : cases) {
        LoginChallenge challenge;
        EXPECT_EQ(c.scheme != LoginScheme::None, LoginReadChallenges(c.values, &challenge)) << c.values[0];
        EXPECT_EQ(c.scheme, challenge.scheme) << c.values[0];
        EXPECT_EQ(c.bQop, challenge.bQop) << c.values[0];
        EXPECT_EQ(c.bStale, challenge.bStale) << c.values[0];
        EXPECT_EQ(c.szRealm, challenge.realm) << c.values[0];
    }
}

TEST(Login, GivesNoLineEndsAndKeepsQuotes)
{
    EXPECT_EQ("Basic dTpww6Q6", Answer({"Basic"}, {"u", "p\xc3\xa4:"}, "x", ""));
    std::string answer = Answer({"Digest realm=\"a\\\"\", nonce=\"n\""}, {"u\r\nX: y\"", "p"}, "x", "c");
    EXPECT_THAT(answer, Not(HasSubstr("\n")));
    EXPECT_THAT(answer, HasSubstr("username=\"uX: y\\\"\", realm=\"a\\\"\""));
}

// FIPS 180-4's examples, and lengths around the end of a block.
TEST(Sha256, KnownDigests)
{
    EXPECT_EQ("e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855", Sha256Hex(""));
    EXPECT_EQ("248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1",
              Sha256Hex("abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq"));
    EXPECT_EQ("9f4390f8d30c2dd92ec9f095b65e2b9ae9b0a925a5258e241c9f1e910f734318", Sha256Hex(std::string(55, 'a')));
    EXPECT_EQ("ffe054fe7ae0cb6dc65c3af9b61d5209f439851db43d0ba5997337df154668eb", Sha256Hex(std::string(64, 'a')));
}
