// Counts of durations in buckets of a width that grows with the value: within 3 % of what was recorded, in
// constant memory however long a test runs. One thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace orx {

constexpr unsigned kHistogramSteps = 32;  // buckets for each power of two

struct Histogram {
    std::vector<uint64_t> counts = std::vector<uint64_t>(kHistogramSteps * 60);
    uint64_t nTotal = 0;
    uint64_t nMax = 0;  // exact
};

void HistogramAdd(Histogram *pHistogram, uint64_t nValue);
// Adds all that another one holds.
void HistogramMerge(Histogram *pHistogram, const Histogram *pOther);
// The value that the given share (0..1) of all values does not exceed, at the upper edge of its bucket; 0
// when empty.
uint64_t HistogramAt(const Histogram *pHistogram, double dShare);

}  // namespace orx
