#pragma once

#include <string>

namespace VEQ {

// Who the connected client is, as it introduced itself. All UTF-8.
class ClientContext {
public:
    ClientContext() = default;
    ClientContext(const ClientContext&) = default;
    ClientContext& operator=(const ClientContext&) = default;
    virtual ~ClientContext() = default;

    std::string extensionId;
    std::string extensionVersion;
    std::string extensionName;
    std::string sdkVersion;
    std::string sdkLanguage;
};

}  // namespace VEQ
