#include "server/methods/attempts.h"

#include <algorithm>

#include "runtime/clock.h"
#include "server/core/settings.h"

namespace orx {

constexpr int kMaxAddresses = 256;
constexpr int kMaxTimes = 16;             // of one address; by then the longest delay is reached
constexpr int kFreeAttempts = 2;          // within kWindowMs, without any delay
constexpr int32_t kWindowMs = 60000;      // that a wrong one counts for
constexpr uint32_t kLongestDelay = 8000;  // ms

struct WrongOne {
    uint32_t nTime;  // ClockMs
    uint32_t nSecret;
};

struct Attempts {
    uint64_t nIp = 0;
    int nTimes = 0;                  // 0: a free place
    WrongOne times[kMaxTimes] = {};  // the oldest first
};

static Attempts g_attempts[kMaxAddresses];  // scheduler thread only

static Attempts *Find(uint64_t nIp)
{
    for (Attempts &entry : g_attempts)
        if (entry.nTimes && entry.nIp == nIp)
            return &entry;
    return nullptr;
}

static uint32_t LastTime(const Attempts *pEntry)
{
    return pEntry->times[pEntry->nTimes - 1].nTime;
}

// A place for a further address: a free one, else that of who has been quiet for longest.
static Attempts *TakePlace(uint64_t nIp)
{
    Attempts *pPlace = &g_attempts[0];
    for (Attempts &entry : g_attempts) {
        if (!entry.nTimes) {
            pPlace = &entry;
            break;
        }
        if (ClockDiff(LastTime(&entry), LastTime(pPlace)) < 0)
            pPlace = &entry;
    }
    *pPlace = Attempts();
    pPlace->nIp = nIp;
    return pPlace;
}

void AttemptsNoteWrong(uint64_t nIp, uint32_t nSecret)
{
    Attempts *pEntry = Find(nIp);
    if (!pEntry)
        pEntry = TakePlace(nIp);
    if (pEntry->nTimes == kMaxTimes)
        std::copy(pEntry->times + 1, pEntry->times + pEntry->nTimes--, pEntry->times);
    pEntry->times[pEntry->nTimes++] = {ClockMs(), nSecret};
}

void AttemptsForget(uint64_t nIp, uint32_t nSecret)
{
    Attempts *pEntry = Find(nIp);
    if (!pEntry)
        return;
    auto bForgotten = [nSecret](const WrongOne &one) { return one.nSecret == 0 || one.nSecret == nSecret; };
    WrongOne *pEnd = std::remove_if(pEntry->times, pEntry->times + pEntry->nTimes, bForgotten);
    pEntry->nTimes = static_cast<int>(pEnd - pEntry->times);
}

uint32_t AttemptsDelay(uint64_t nIp)
{
    const Attempts *pEntry = Find(nIp);
    if (!pEntry)
        return 0;
    uint32_t nNow = ClockMs();
    auto bRecent = [nNow](const WrongOne &one) { return ClockDiff(nNow, one.nTime) < kWindowMs; };
    auto nRecent = std::count_if(pEntry->times, pEntry->times + pEntry->nTimes, bRecent);
    if (nRecent <= kFreeAttempts)
        return 0;
    return std::min(g_settings.nAuthFailDelay << (nRecent - kFreeAttempts - 1), kLongestDelay);
}

void AttemptsReset()
{
    std::fill(std::begin(g_attempts), std::end(g_attempts), Attempts());
}

}  // namespace orx
