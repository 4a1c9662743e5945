#include "module/Extensions.h"

#include "platform/string/String.h"

namespace VEQ::Extensions {

ElevationType ConvertElevationStringToType(const std::wstring& text)
{
    if (String::CaseInsesitiveEqual(text, L"user")) {
        return ElevationType::User;
    }
    if (String::CaseInsesitiveEqual(text, L"elevated")) {
        return ElevationType::Elevated;
    }
    if (String::CaseInsesitiveEqual(text, L"both")) {
        return ElevationType::Both;
    }
    return ElevationType::None;
}

std::wstring ConvertElevationTypeToString(const ElevationType& type)
{
    switch (type) {
    case ElevationType::None:
        return L"none";
    case ElevationType::Elevated:
        return L"elevated";
    case ElevationType::User:
        return L"user";
    case ElevationType::Both:
        return L"both";
    }
    return L"";
}

AppExtensionsEnablementState ConvertAppExtensionsEnablementStringToState(std::wstring text)
{
    if (String::CaseInsesitiveEqual(text, L"enabled")) {
        return AppExtensionsEnablementState::enabled;
    }
    if (String::CaseInsesitiveEqual(text, L"manual")) {
        return AppExtensionsEnablementState::manual;
    }
    return AppExtensionsEnablementState::disabled;
}

std::wstring ConvertAppExtensionsEnablementStateToString(AppExtensionsEnablementState state)
{
    switch (state) {
    case AppExtensionsEnablementState::disabled:
        return L"disabled";
    case AppExtensionsEnablementState::manual:
        return L"manual";
    case AppExtensionsEnablementState::enabled:
        return L"enabled";
    }
    return L"";
}

ControlType ConvertControlTypeStringToType(const std::wstring& text)
{
    if (String::CaseInsesitiveEqual(text, L"AllowByDefault")) {
        return ControlType::AllowByDefault;
    }
    return ControlType::DenyByDefault;
}

std::wstring ConvertControlTypeToString(const ControlType& type)
{
    switch (type) {
    case ControlType::DenyByDefault:
        return L"DenyByDefault";
    case ControlType::AllowByDefault:
        return L"AllowByDefault";
    }
    return L"";
}

EnabledPluginType ConvertPluginEnablementStringToType(const std::wstring& text)
{
    if (String::CaseInsesitiveEqual(text, L"all")) {
        return EnabledPluginType::all;
    }
    if (String::CaseInsesitiveEqual(text, L"embedded")) {
        return EnabledPluginType::embedded;
    }
    // "none" and unknown text both mean no plugins.
    if (String::CaseInsesitiveEqual(text, L"none")) {
        return EnabledPluginType::none;
    }
    return EnabledPluginType::none;
}

std::wstring ConvertPluginEnablementTypeToString(const EnabledPluginType& type)
{
    switch (type) {
    case EnabledPluginType::all:
        return L"all";
    case EnabledPluginType::embedded:
        return L"embedded";
    case EnabledPluginType::none:
        return L"none";
    }
    return L"";
}

std::wstring ConvertEventStateToPackageStatusAsString(int32_t eventState)
{
    // 307 and 308 carry no status of their own.
    switch (eventState) {
    case 300:
        return L"installed";
    case 301:
        return L"install_failed";
    case 302:
        return L"uninstalled";
    case 303:
        return L"uninstall_failed";
    case 304:
        return L"download_failed";
    case 305:
        return L"not_applicable";
    case 306:
        return L"denied_by_update_scope";
    case 309:
        return L"cancelled";
    case 310:
        return L"pending_download";
    case 311:
        return L"downloading";
    case 312:
        return L"downloaded";
    case 313:
        return L"pending_install";
    case 314:
        return L"installing";
    case 315:
        return L"pending_uninstall";
    case 316:
        return L"denied_by_package_update_scope";
    case 317:
        return L"install_timeout";
    default:
        return L"";
    }
}

bool isElevatedElevation(ElevationType type)
{
    return type == ElevationType::Elevated || type == ElevationType::Both;
}

bool isUserElevation(ElevationType type)
{
    return type == ElevationType::User || type == ElevationType::Both;
}

}  // namespace VEQ::Extensions
