#pragma once

#include <chrono>
#include <functional>
#include <thread>

namespace VEQ::Test {

// Waits until condition holds or the deadline passes; for states that no event announces.
inline bool Eventually(const std::function<bool()>& condition,
                       std::chrono::milliseconds deadline = std::chrono::seconds(10))
{
    const auto until = std::chrono::steady_clock::now() + deadline;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= until) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

}  // namespace VEQ::Test
