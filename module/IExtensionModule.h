#pragma once

namespace VEQ {

// The module as the host sees it, beside its agent operations.
class IExtensionModule {
public:
    virtual ~IExtensionModule() = default;
};

}  // namespace VEQ
