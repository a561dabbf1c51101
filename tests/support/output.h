// What code under test prints, and how it takes the faults of peers.
#pragma once

#include <string>

#include <gtest/gtest.h>

#include "base/assertion.h"

namespace orx {

// While it lives, what a peer's bytes break is refused and not fatal.
struct SurviveFaults {
    SurviveFaults() { AssertSurvivePeerFaults(1); }
    ~SurviveFaults() { AssertSurvivePeerFaults(0); }
};

template <typename Operation>
std::string Printed(Operation operation)
{
    testing::internal::CaptureStdout();
    operation();
    return testing::internal::GetCapturedStdout();
}

// What an operation reports of faults of a peer, which it survives.
template <typename Operation>
std::string PeerFaults(Operation operation)
{
    SurviveFaults survive;
    testing::internal::CaptureStderr();
    operation();
    return testing::internal::GetCapturedStderr();
}

}  // namespace orx
