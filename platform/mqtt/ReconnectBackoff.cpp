#include "platform/mqtt/ReconnectBackoff.h"

#include <algorithm>

namespace VEQ {

ReconnectBackoff::ReconnectBackoff(std::chrono::milliseconds first, std::chrono::milliseconds max)
    : first_(std::max(first, std::chrono::milliseconds(1))),
      max_(std::max(max, first_)),
      current_(first_),
      random_(std::random_device{}())
{
}

std::chrono::milliseconds ReconnectBackoff::Next()
{
    const std::chrono::milliseconds wait = current_;
    current_ = std::min(current_ * 2, max_);
    std::uniform_int_distribution<long long> spread(0, wait.count() / 5);
    return wait - std::chrono::milliseconds(spread(random_));
}

void ReconnectBackoff::Reset()
{
    current_ = first_;
}

}  // namespace VEQ
