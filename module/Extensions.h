#pragma once
// The words in which policy, manifests and package events speak about extensions, and their
// values. Text to value ignores case and fails closed: unknown text means no side, disabled,
// deny by default, no plugins. Value to text gives the exact spelling, empty for unknown values.

#include "module/ElevationType.h"

#include <cstdint>
#include <string>

namespace VEQ::Extensions {

enum class AppExtensionsEnablementState : int32_t {
    disabled = 0,
    manual = 1,
    enabled = 2,
};

enum class ControlType : int32_t {
    DenyByDefault = 0,
    AllowByDefault = 1,
};

// The most permissive value is 0, unlike AppExtensionsEnablementState.
enum class EnabledPluginType : int32_t {
    all = 0,
    embedded = 1,
    none = 2,
};

ElevationType ConvertElevationStringToType(const std::wstring& text);
std::wstring ConvertElevationTypeToString(const ElevationType& type);

AppExtensionsEnablementState ConvertAppExtensionsEnablementStringToState(std::wstring text);
std::wstring ConvertAppExtensionsEnablementStateToString(AppExtensionsEnablementState state);

ControlType ConvertControlTypeStringToType(const std::wstring& text);
std::wstring ConvertControlTypeToString(const ControlType& type);

EnabledPluginType ConvertPluginEnablementStringToType(const std::wstring& text);
std::wstring ConvertPluginEnablementTypeToString(const EnabledPluginType& type);

// The status text of a package event's state (topic 30); empty for states that have none.
std::wstring ConvertEventStateToPackageStatusAsString(int32_t eventState);

// Whether a side includes the elevated one, or the user one; Both includes both.
bool isElevatedElevation(ElevationType type);
bool isUserElevation(ElevationType type);

}  // namespace VEQ::Extensions
