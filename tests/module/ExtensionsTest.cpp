#include "module/Extensions.h"
#include "platform/string/String.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>

namespace VEQ::Extensions {
namespace {

std::string Narrow(const std::wstring& text)
{
    return String::UTF16ToUTF8(text);
}

template <typename Enum>
Enum Unknown(int32_t value)
{
    return static_cast<Enum>(value);
}

TEST(Extensions, ElevationTextIgnoresCaseAndFailsToNone)
{
    const std::pair<const wchar_t*, ElevationType> rows[] = {
        {L"user", ElevationType::User},         {L"USER", ElevationType::User},
        {L"elevated", ElevationType::Elevated}, {L"ELEVATED", ElevationType::Elevated},
        {L"both", ElevationType::Both},         {L"Both", ElevationType::Both},
        {L"none", ElevationType::None},         {L"", ElevationType::None},
        {L"users", ElevationType::None},        {L" user", ElevationType::None},
        {L"Elevated,User", ElevationType::None},
    };
    for (const auto& [text, expected] : rows) {
        EXPECT_EQ(ConvertElevationStringToType(text), expected) << "text '" << Narrow(text) << "'";
    }
}

TEST(Extensions, AppEnablementTextIgnoresCaseAndFailsToDisabled)
{
    const std::pair<const wchar_t*, AppExtensionsEnablementState> rows[] = {
        {L"enabled", AppExtensionsEnablementState::enabled}, {L"Enabled", AppExtensionsEnablementState::enabled},
        {L"manual", AppExtensionsEnablementState::manual},   {L"MANUAL", AppExtensionsEnablementState::manual},
        {L"disabled", AppExtensionsEnablementState::disabled}, {L"", AppExtensionsEnablementState::disabled},
        {L"enable", AppExtensionsEnablementState::disabled}, {L"on", AppExtensionsEnablementState::disabled},
    };
    for (const auto& [text, expected] : rows) {
        EXPECT_EQ(ConvertAppExtensionsEnablementStringToState(text), expected) << "text '" << Narrow(text) << "'";
    }
}

TEST(Extensions, ControlTypeTextIgnoresCaseAndFailsToDenyByDefault)
{
    const std::pair<const wchar_t*, ControlType> rows[] = {
        {L"AllowByDefault", ControlType::AllowByDefault}, {L"allowbydefault", ControlType::AllowByDefault},
        {L"DenyByDefault", ControlType::DenyByDefault},   {L"", ControlType::DenyByDefault},
        {L"Allow", ControlType::DenyByDefault},           {L"AllowByDefault ", ControlType::DenyByDefault},
    };
    for (const auto& [text, expected] : rows) {
        EXPECT_EQ(ConvertControlTypeStringToType(text), expected) << "text '" << Narrow(text) << "'";
    }
}

TEST(Extensions, PluginEnablementTextIgnoresCaseAndFailsToNone)
{
    const std::pair<const wchar_t*, EnabledPluginType> rows[] = {
        {L"all", EnabledPluginType::all},           {L"ALL", EnabledPluginType::all},
        {L"embedded", EnabledPluginType::embedded}, {L"Embedded", EnabledPluginType::embedded},
        {L"none", EnabledPluginType::none},         {L"None", EnabledPluginType::none},
        {L"", EnabledPluginType::none},             {L"everything", EnabledPluginType::none},
    };
    for (const auto& [text, expected] : rows) {
        EXPECT_EQ(ConvertPluginEnablementStringToType(text), expected) << "text '" << Narrow(text) << "'";
    }
}

TEST(Extensions, ValuesConvertToTheirExactTextsAndUnknownValuesToNothing)
{
    struct Row {
        std::wstring actual;
        const wchar_t* expected;
        const char* what;
    };
    const Row rows[] = {
        {ConvertElevationTypeToString(ElevationType::None), L"none", "elevation 0"},
        {ConvertElevationTypeToString(ElevationType::Elevated), L"elevated", "elevation 1"},
        {ConvertElevationTypeToString(ElevationType::User), L"user", "elevation 2"},
        {ConvertElevationTypeToString(ElevationType::Both), L"both", "elevation 3"},
        {ConvertElevationTypeToString(Unknown<ElevationType>(7)), L"", "elevation 7"},
        {ConvertElevationTypeToString(Unknown<ElevationType>(-1)), L"", "elevation -1"},
        {ConvertAppExtensionsEnablementStateToString(AppExtensionsEnablementState::disabled), L"disabled", "app 0"},
        {ConvertAppExtensionsEnablementStateToString(AppExtensionsEnablementState::manual), L"manual", "app 1"},
        {ConvertAppExtensionsEnablementStateToString(AppExtensionsEnablementState::enabled), L"enabled", "app 2"},
        {ConvertAppExtensionsEnablementStateToString(Unknown<AppExtensionsEnablementState>(3)), L"", "app 3"},
        {ConvertControlTypeToString(ControlType::DenyByDefault), L"DenyByDefault", "control 0"},
        {ConvertControlTypeToString(ControlType::AllowByDefault), L"AllowByDefault", "control 1"},
        {ConvertControlTypeToString(Unknown<ControlType>(2)), L"", "control 2"},
        {ConvertPluginEnablementTypeToString(EnabledPluginType::all), L"all", "plugins 0"},
        {ConvertPluginEnablementTypeToString(EnabledPluginType::embedded), L"embedded", "plugins 1"},
        {ConvertPluginEnablementTypeToString(EnabledPluginType::none), L"none", "plugins 2"},
        {ConvertPluginEnablementTypeToString(Unknown<EnabledPluginType>(3)), L"", "plugins 3"},
    };
    for (const Row& row : rows) {
        EXPECT_EQ(row.actual, row.expected) << row.what;
    }
}

TEST(Extensions, PackageEventStatesHaveTheirStatusTextsAndGapsHaveNone)
{
    const std::pair<int32_t, const wchar_t*> rows[] = {
        {300, L"installed"},
        {301, L"install_failed"},
        {302, L"uninstalled"},
        {303, L"uninstall_failed"},
        {304, L"download_failed"},
        {305, L"not_applicable"},
        {306, L"denied_by_update_scope"},
        {307, L""},
        {308, L""},
        {309, L"cancelled"},
        {310, L"pending_download"},
        {311, L"downloading"},
        {312, L"downloaded"},
        {313, L"pending_install"},
        {314, L"installing"},
        {315, L"pending_uninstall"},
        {316, L"denied_by_package_update_scope"},
        {317, L"install_timeout"},
        {318, L""},
        {299, L""},
        {0, L""},
        {-300, L""},
    };
    for (const auto& [state, expected] : rows) {
        EXPECT_EQ(ConvertEventStateToPackageStatusAsString(state), expected) << "state " << state;
    }
}

TEST(Extensions, SidePredicatesCountBothForEachSideAndNothingElse)
{
    struct Row {
        ElevationType type;
        bool elevated;
        bool user;
    };
    const Row rows[] = {
        {ElevationType::None, false, false},     {ElevationType::Elevated, true, false},
        {ElevationType::User, false, true},      {ElevationType::Both, true, true},
        {Unknown<ElevationType>(4), false, false}, {Unknown<ElevationType>(7), false, false},
    };
    for (const Row& row : rows) {
        EXPECT_EQ(isElevatedElevation(row.type), row.elevated) << "elevated of " << static_cast<int>(row.type);
        EXPECT_EQ(isUserElevation(row.type), row.user) << "user of " << static_cast<int>(row.type);
    }
}

}  // namespace
}  // namespace VEQ::Extensions
