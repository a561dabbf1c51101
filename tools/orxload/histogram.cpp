#include "orxload/histogram.h"

#include <algorithm>
#include <bit>

namespace orx {

// Values below 32 have a bucket each; above, the highest bit selects a row and the next five the bucket in
// it.
static size_t BucketOf(uint64_t nValue)
{
    if (nValue < kHistogramSteps)
        return nValue;
    unsigned nShift = static_cast<unsigned>(std::bit_width(nValue)) - 6;
    return nShift * kHistogramSteps + (nValue >> nShift);
}

static uint64_t UpperEdge(size_t nBucket)
{
    if (nBucket < 2 * kHistogramSteps)
        return nBucket;
    unsigned nShift = static_cast<unsigned>(nBucket / kHistogramSteps) - 1;
    uint64_t nStep = nBucket % kHistogramSteps + kHistogramSteps;
    return ((nStep + 1) << nShift) - 1;
}

void HistogramAdd(Histogram *pHistogram, uint64_t nValue)
{
    pHistogram->counts[std::min(BucketOf(nValue), pHistogram->counts.size() - 1)]++;
    pHistogram->nTotal++;
    pHistogram->nMax = std::max(pHistogram->nMax, nValue);
}

void HistogramMerge(Histogram *pHistogram, const Histogram *pOther)
{
    for (size_t i = 0; i < pOther->counts.size(); i++)
        pHistogram->counts[i] += pOther->counts[i];
    pHistogram->nTotal += pOther->nTotal;
    pHistogram->nMax = std::max(pHistogram->nMax, pOther->nMax);
}

uint64_t HistogramAt(const Histogram *pHistogram, double dShare)
{
    double dWanted = dShare * static_cast<double>(pHistogram->nTotal);
    uint64_t nSeen = 0;
    for (size_t i = 0; i < pHistogram->counts.size(); i++) {
        nSeen += pHistogram->counts[i];
        if (nSeen > 0 && static_cast<double>(nSeen) >= dWanted)
            return std::min(UpperEdge(i), pHistogram->nMax);
    }
    return pHistogram->nMax;
}

}  // namespace orx
