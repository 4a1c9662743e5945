#pragma once
// The host's security switch. When it is on, code signatures are not checked at all: for
// development machines only (host config developer.disableSecurity, logged at start).

#include <atomic>

namespace VEQ {

class XMLConfigAgent {
public:
    // The process-wide agent; the argument is kept for callers that pass one and means nothing.
    static XMLConfigAgent& GetInstance(int unused);

    XMLConfigAgent() = default;
    XMLConfigAgent(const XMLConfigAgent& other) : disableSecurity_(other.disableSecurity_.load()) {}
    XMLConfigAgent& operator=(const XMLConfigAgent& other)
    {
        disableSecurity_ = other.disableSecurity_.load();
        return *this;
    }

    // Non-zero when security is disabled.
    int GetDisableSecurity() const { return disableSecurity_.load() ? 1 : 0; }
    void SetDisableSecurity(bool disable) { disableSecurity_ = disable; }

private:
    std::atomic<bool> disableSecurity_{false};
};

}  // namespace VEQ
