#include <algorithm>
#include <random>

#include <gtest/gtest.h>

#include "orxload/histogram.h"

namespace orx {
namespace {

TEST(Histogram, StaysCloseToTheSortedValues)
{
    std::minstd_rand random(7);
    for (uint64_t nRange : {uint64_t{10}, uint64_t{64}, uint64_t{100000}, uint64_t{1} << 40}) {
        Histogram histogram;
        std::vector<uint64_t> values;
        for (int i = 0; i < 5000; i++) {
            values.push_back((uint64_t{random()} << 20 | random()) % nRange);
            HistogramAdd(&histogram, values.back());
        }
        std::sort(values.begin(), values.end());
        for (double dShare : {0.0, 0.5, 0.99, 1.0}) {
            uint64_t nExact = values[static_cast<size_t>(std::max(1.0, dShare * 5000)) - 1];
            EXPECT_GE(HistogramAt(&histogram, dShare), nExact) << nRange << " " << dShare;
            EXPECT_LE(HistogramAt(&histogram, dShare), nExact + nExact / 31 + 1) << nRange << " " << dShare;
        }
    }
}

}  // namespace
}  // namespace orx
