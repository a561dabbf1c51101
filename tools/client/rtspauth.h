// Basic and Digest credentials (RFC 2617, without the qop directive), the client's side. Any thread.
// Written apart from the server's own, which it helps to test (see rtspclient.h).
#pragma once

#include <string>

namespace orx {

struct RtspChallenge {
    int bDigest = 0;           // 0: Basic
    std::string realm, nonce;  // the nonce of Digest only
};

// Reads the value of a "WWW-Authenticate" header. Returns 1, or 0 for a scheme that is neither.
int RtspParseChallenge(const char *szValue, RtspChallenge *pOut);

// The value of the "Authorization" header that answers a challenge for one request.
std::string RtspAuthorization(const RtspChallenge *pChallenge, const std::string &user,
                              const std::string &password, const std::string &method, const std::string &uri);

// The text of a "UserAuth" header: every second digit of the MD5 of "user:password", with "anonymous" for an
// empty user.
std::string RtspUserToken(const std::string &user, const std::string &password);

}  // namespace orx
