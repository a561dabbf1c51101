#include "orxweb/websessions.h"

#include <sys/random.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <mutex>

namespace orx {

struct WebSession {
    WebAccount account;
    uint64_t nBegunMs = 0, nUsedMs = 0;
};

static std::mutex g_mutex;
static std::map<std::string, WebSession, std::less<>> g_sessions;  // guarded by it

std::string RandomText()
{
    unsigned char bytes[32];
    if (getrandom(bytes, sizeof(bytes), 0) != static_cast<ssize_t>(sizeof(bytes)))
        return {};
    std::string out;
    for (unsigned char byte : bytes) {
        char sz[3];
        snprintf(sz, sizeof(sz), "%02x", byte);
        out += sz;
    }
    return out;
}

static int IsOver(const WebSession &session, uint64_t nNowMs)
{
    return nNowMs - session.nUsedMs >= kSessionIdleMs || nNowMs - session.nBegunMs >= kSessionMostMs;
}

static void MakeRoom(uint64_t nNowMs)
{
    std::erase_if(g_sessions, [&](const auto &item) { return IsOver(item.second, nNowMs); });
    if (g_sessions.size() < kMostSessions)
        return;
    g_sessions.erase(std::min_element(g_sessions.begin(), g_sessions.end(), [](const auto &a, const auto &b) {
        return a.second.nUsedMs < b.second.nUsedMs;
    }));
}

std::string SessionOpen(const WebAccount &account, uint64_t nNowMs)
{
    std::string id = RandomText();
    std::lock_guard lock(g_mutex);
    if (id.empty())
        return id;
    MakeRoom(nNowMs);
    g_sessions[id] = {account, nNowMs, nNowMs};
    return id;
}

int SessionFind(std::string_view id, uint64_t nNowMs, WebAccount *pOut)
{
    std::lock_guard lock(g_mutex);
    auto it = g_sessions.find(id);
    if (it == g_sessions.end())
        return 0;
    if (IsOver(it->second, nNowMs)) {
        g_sessions.erase(it);
        return 0;
    }
    it->second.nUsedMs = nNowMs;
    *pOut = it->second.account;
    return 1;
}

void SessionClose(std::string_view id)
{
    std::lock_guard lock(g_mutex);
    auto it = g_sessions.find(id);
    if (it != g_sessions.end())
        g_sessions.erase(it);
}

size_t SessionCount()
{
    std::lock_guard lock(g_mutex);
    return g_sessions.size();
}

}  // namespace orx
