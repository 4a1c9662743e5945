#pragma once

#include <string>

namespace VEQ {

// An agent of the host service, driven by the host through these three operations.
class IVEQAgent {
public:
    explicit IVEQAgent(std::wstring name) : name_(std::move(name)) {}
    virtual ~IVEQAgent() = default;

    virtual void Init(void*& context) = 0;
    virtual void UnInit() = 0;
    virtual void FullInit() = 0;

    const std::wstring& GetAgentName() const { return name_; }

private:
    std::wstring name_;
};

}  // namespace VEQ
