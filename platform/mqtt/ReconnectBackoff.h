#pragma once

#include <chrono>
#include <random>

namespace VEQ {

// The waits between connection attempts: first, then doubled after each failure up to max. Each
// wait is shortened by up to a fifth at random, so that devices that lost one broker together do
// not all come back in the same instant.
class ReconnectBackoff {
public:
    ReconnectBackoff(std::chrono::milliseconds first, std::chrono::milliseconds max);

    std::chrono::milliseconds Next();
    // After a success: the next wait is the first one again.
    void Reset();

private:
    std::chrono::milliseconds first_;
    std::chrono::milliseconds max_;
    std::chrono::milliseconds current_;
    std::minstd_rand random_;
};

}  // namespace VEQ
