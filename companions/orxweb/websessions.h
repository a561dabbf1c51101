// Who is logged in: sessions by cookie. Each knows name and password of its account, with which the server is
// asked at every look. Bounded: with too many, the one that was quiet longest ends. Any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace orx {

struct WebAccount {
    std::string name{}, password{};
    std::string program{};  // of one that is a camera's own: where the server knows it; empty: everywhere
};

constexpr const char *kSessionCookie = "orxweb";
constexpr size_t kMostSessions = 1024;
constexpr uint64_t kSessionIdleMs = 3600 * 1000ULL;
constexpr uint64_t kSessionMostMs = 30 * 24 * 3600 * 1000ULL;

// Random text of 256 bits in hexadecimal digits, or an empty one where the system has none.
std::string RandomText();

std::string SessionOpen(const WebAccount &account, uint64_t nNowMs);  // its id; empty: no random number
// Finds a session, which is not idle then. Returns 1, or 0 when there is none, or its time is over.
int SessionFind(std::string_view id, uint64_t nNowMs, WebAccount *pOut);
void SessionClose(std::string_view id);
size_t SessionCount();

}  // namespace orx
