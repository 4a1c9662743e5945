#pragma once

#include "module/ElevationType.h"
#include "module/ExtensionType.h"

#include <cstdint>
#include <string>

namespace VEQ {

enum class ConnectionMethod : int32_t {
    None = 0,
    LocalSocket = 1,
};

// What kind of broker a request came through.
class BrokerContext {
public:
    using ExtensionType = Tavrin::Veq::ClientBroker::ExtensionType;

    BrokerContext() = default;
    BrokerContext(const BrokerContext&) = default;
    BrokerContext& operator=(const BrokerContext&) = default;
    virtual ~BrokerContext() = default;

    ElevationType getElevationType() const { return elevationType; }
    void setElevationType(const ElevationType& value) { elevationType = value; }
    ExtensionType getExtensionType() const { return extensionType; }
    void setExtensionType(const ExtensionType& value) { extensionType = value; }
    ConnectionMethod getIpcMethod() const { return connectionMethod; }
    void setConnectionMethod(const ConnectionMethod& value) { connectionMethod = value; }

    // The capitalised texts clients see ("Elevated", "App"); unknown values give "None" or 0.
    static std::string getElevationTypeAsString(ElevationType type);
    static ElevationType getElevationTypeAsEnum(const std::string& text);
    static std::string getExtensionTypeAsString(ExtensionType type);
    static ExtensionType getExtensionTypeAsEnum(const std::string& text);

private:
    ConnectionMethod connectionMethod = ConnectionMethod::None;
    ElevationType elevationType = ElevationType::None;
    ExtensionType extensionType = ExtensionType::None;
};

}  // namespace VEQ
