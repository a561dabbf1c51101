#include "timeline.h"

namespace orx {

constexpr int64_t kLeapMs = 10000;             // forward: what comes next tells whether it was one
constexpr int64_t kBackMs = 2000;              // pictures and sound are recorded out of order by less
constexpr int64_t kLongestPauseMs = 21600000;  // longer ones do not fit into the times of containers
constexpr int64_t kStepMs = 40;                // from picture to picture where it is not known

// How far the clock has to be set back so that a time that lies apart follows the one before; 0 where it need
// not. *pbLone: only this time is wrong.
static int64_t FindBreak(int64_t nBefore, int64_t nTime, const int64_t *pnNext, int *pbLone)
{
    int64_t nStep = nTime - nBefore;
    *pbLone = 0;
    if (nStep >= -kBackMs && nStep <= kLeapMs)
        return 0;
    if (nStep > 0) {
        int bFollowed = pnNext && *pnNext >= nTime - kBackMs;
        if (nStep <= kLongestPauseMs && (bFollowed || !pnNext))
            return 0;
        *pbLone = !bFollowed;
    } else {
        *pbLone = !pnNext || *pnNext >= nBefore - kBackMs;
    }
    return nStep - kStepMs;
}

void TimelineMend(Timeline *pTimeline)
{
    std::vector<int64_t> &times = pTimeline->times;
    int64_t nBack = 0;
    int64_t nBefore = 0;
    for (size_t i = 0; i < times.size(); i++) {
        int bLone = 0;
        int64_t nTime = times[i] - nBack;
        int64_t nNext = i + 1 < times.size() ? times[i + 1] - nBack : 0;
        int64_t nBreak = FindBreak(nBefore, nTime, i + 1 < times.size() ? &nNext : nullptr, &bLone);
        if (bLone)
            nTime = nBefore;
        else if (nBreak != 0)
            nTime -= nBreak;
        nBack += bLone ? 0 : nBreak;
        pTimeline->nMended += nTime != times[i];
        times[i] = nBefore = nTime;
    }
}

}  // namespace orx
