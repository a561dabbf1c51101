// Waiting for what another thread or process does.
#pragma once

#include <chrono>
#include <thread>

namespace orx {

// Looks at the condition every millisecond until it holds or nMs milliseconds have passed; returns whether it
// holds. The time is generous: it is only used up when a test fails.
template <typename Condition>
bool WaitFor(Condition condition, int nMs = 60000)
{
    auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(nMs);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end)
            return condition();
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

}  // namespace orx
