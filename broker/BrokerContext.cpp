#include "broker/BrokerContext.h"

#include "platform/string/String.h"

namespace VEQ {

std::string BrokerContext::getElevationTypeAsString(ElevationType type)
{
    switch (type) {
    case ElevationType::Elevated:
        return "Elevated";
    case ElevationType::User:
        return "User";
    case ElevationType::Both:
        return "Both";
    default:
        return "None";
    }
}

ElevationType BrokerContext::getElevationTypeAsEnum(const std::string& text)
{
    if (String::CaseInsesitiveEqual(text, std::string("User"))) {
        return ElevationType::User;
    }
    if (String::CaseInsesitiveEqual(text, std::string("Elevated"))) {
        return ElevationType::Elevated;
    }
    if (String::CaseInsesitiveEqual(text, std::string("Both"))) {
        return ElevationType::Both;
    }
    return ElevationType::None;
}

std::string BrokerContext::getExtensionTypeAsString(ExtensionType type)
{
    switch (type) {
    case ExtensionType::App:
        return "App";
    case ExtensionType::Plugin:
        return "Plugin";
    case ExtensionType::Both:
        return "Both";
    default:
        return "None";
    }
}

BrokerContext::ExtensionType BrokerContext::getExtensionTypeAsEnum(const std::string& text)
{
    if (String::CaseInsesitiveEqual(text, std::string("App"))) {
        return ExtensionType::App;
    }
    if (String::CaseInsesitiveEqual(text, std::string("Plugin"))) {
        return ExtensionType::Plugin;
    }
    if (String::CaseInsesitiveEqual(text, std::string("Both"))) {
        return ExtensionType::Both;
    }
    return ExtensionType::None;
}

}  // namespace VEQ
