// The client's side of Basic (RFC 7617) and Digest (RFC 7616) as cameras ask for it: MD5 and SHA-256, with
// and without qop, with opaque and stale. Any thread; a login belongs to one.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace orx {

enum class LoginScheme { None, Basic, DigestMd5, DigestSha256 };  // from the weakest to the strongest

struct LoginChallenge {
    LoginScheme scheme = LoginScheme::None;
    std::string realm, nonce, opaque;
    std::string algorithm;  // as it stands, to be given back; empty: none
    int bSession = 0;       // "MD5-sess", "SHA-256-sess"
    int bQop = 0;           // "auth" is among the qop values
    int bStale = 0;         // the password was right, the nonce too old
};

// Reads values of "WWW-Authenticate" headers, each with one challenge or several, and takes the strongest
// that can be answered. Returns 1, or 0 when there is none.
int LoginReadChallenges(const std::vector<std::string> &values, LoginChallenge *pOut);

struct LoginUser {
    std::string name, password;
};

// The value of "Authorization" for one request. nCount: how often this nonce has been used, from 1; cnonce:
// some text of ours that nobody can foretell.
std::string LoginAnswer(const LoginChallenge *pChallenge, const LoginUser *pUser, const std::string &method,
                        const std::string &uri, uint32_t nCount, const std::string &cnonce);

}  // namespace orx
