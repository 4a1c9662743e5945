#include "plugins/PluginManifest.h"
#include "platform/string/String.h"

#include <gtest/gtest.h>

namespace VEQ {
namespace {

Json::Value Parse(const std::string& text)
{
    Json::Value value;
    Json::CharReaderBuilder builder;
    std::string errors;
    std::istringstream stream(text);
    EXPECT_TRUE(Json::parseFromStream(builder, stream, &value, &errors)) << errors;
    return value;
}

TEST(PluginManifestTest, ReadsEveryMemberOfAFullManifest)
{
    const PluginManifest manifest = PluginManifest::JsonDeSerialize(Parse(R"({
        "pluginName": "Hello", "pluginId": "Contoso.H\u00e9llo", "runtimeType": "dotnet5", "pluginVersion": "1.2.3.4",
        "updateStrategy": "auto",
        "user": {"startupType": "EVENT", "appChannels": ["b", "a", "b"], "entry32Path": "\\u32.dll",
                 "entry64Path": "\\u64.dll", "entryArm64Path": "\\uarm.dll"},
        "system": {"entry64Path": "\\s64.dll"},
        "commands": [{"command": "Get-Greeting", "allowedOriginContextType": "any", "allowedOriginType": "app",
                      "pluginContextType": "user,system"}, {"command": "Second"}]})"));
    EXPECT_EQ(manifest.getPluginName(), "Hello");
    EXPECT_EQ(manifest.getPluginId(), L"Contoso.H\u00e9llo");
    EXPECT_EQ(manifest.getRuntimeType(), RuntimeType::Dotnet5);
    EXPECT_EQ(manifest.getRuntimeTypeAsString(), L"Dotnet5");
    EXPECT_EQ(manifest.getPluginVersion(), "1.2.3.4");
    EXPECT_EQ(manifest.getUpdateStrategy(), L"auto");
    const PluginExecutionDetails user = manifest.getUser();
    EXPECT_EQ(user.getStartupType(), StartupType::Event);
    EXPECT_EQ(user.getAppChannels(), (std::list<std::wstring>{L"b", L"a", L"b"})) << "file order, duplicates kept";
    EXPECT_EQ(user.getEntryPointPath32(), "\\u32.dll");
    EXPECT_EQ(user.getEntryPointPath64(), "\\u64.dll");
    EXPECT_EQ(user.getEntryPointPathARM64(), "\\uarm.dll");
    EXPECT_EQ(manifest.getSystem().getStartupType(), StartupType::Auto);
    EXPECT_EQ(manifest.getSystem().getEntryPointPath64(), "\\s64.dll");
    ASSERT_EQ(manifest.getCommands().size(), 2u);
    const PluginCommand& first = manifest.getCommands().front();
    EXPECT_EQ(first.getCommand(), L"Get-Greeting");
    EXPECT_EQ(first.getAllowedOriginContextType(), L"any");
    EXPECT_EQ(first.getAllowedOriginType(), L"app");
    EXPECT_EQ(first.getPluginContextType(), L"user,system");
    EXPECT_EQ(manifest.getCommands().back().getCommand(), L"Second");
}

TEST(PluginManifestTest, EnumTextsFallBackToTheirFirstValue)
{
    const std::pair<std::string, RuntimeType> runtimes[] = {
        {"Dotnet5", RuntimeType::Dotnet5}, {"DOTNET5", RuntimeType::Dotnet5}, {"unmanaged", RuntimeType::Unmanaged},
        {"Dotnet6", RuntimeType::Unmanaged}, {"", RuntimeType::Unmanaged},
    };
    for (const auto& [text, value] : runtimes) {
        EXPECT_EQ(PluginManifest::getRuntimeTypeAsEnum(text), value) << text;
    }
    const std::pair<std::string, StartupType> startups[] = {
        {"Event", StartupType::Event}, {"event", StartupType::Event}, {"Auto", StartupType::Auto},
        {"Events", StartupType::Auto}, {"", StartupType::Auto},
    };
    for (const auto& [text, value] : startups) {
        EXPECT_EQ(PluginExecutionDetails::getStartupTypeAsEnum(text), value) << text;
    }
    PluginManifest manifest;
    manifest.setRuntimeType(static_cast<RuntimeType>(7));
    EXPECT_EQ(manifest.getRuntimeTypeAsString(), L"");
    PluginExecutionDetails block;
    block.setStartupType(static_cast<StartupType>(-1));
    EXPECT_EQ(block.getStartupTypeAsString(), L"");
}

TEST(PluginManifestTest, ABlockIsValidWithAnyEntryAndTheModeFollowsTheBlocks)
{
    struct Row {
        const char* manifest;
        bool user;
        bool system;
    };
    const Row rows[] = {
        {"{}", false, false},
        {R"({"user": {"entry32Path": "\\x86.dll"}})", true, false},
        {R"({"system": {"entryArm64Path": "\\a.dll", "startupType": "Event"}})", false, true},
        {R"({"user": {"entry64Path": "\\u.dll"}, "system": {"entry64Path": "\\s.dll"}})", true, true},
        {R"({"user": {"startupType": "Auto", "appChannels": ["x"]}, "system": null})", false, false},
    };
    for (const Row& row : rows) {
        bool user = !row.user;
        bool system = !row.system;
        PluginManifest::JsonDeSerialize(Parse(row.manifest)).GetPluginMode(user, system);
        EXPECT_EQ(user, row.user) << row.manifest;
        EXPECT_EQ(system, row.system) << row.manifest;
    }
}

TEST(PluginManifestTest, ACommandsContextsAreFoundInLowerCaseOnly)
{
    struct Row {
        const wchar_t* context;
        bool user;
        bool system;
    };
    const Row rows[] = {
        {L"system", false, true},  {L"System", false, false}, {L"user", true, false},   {L"USER", false, false},
        {L"usersystem", true, true}, {L"both", false, false},  {L"", false, false},     {L"my-user-context", true, false},
    };
    for (const Row& row : rows) {
        PluginCommand command;
        command.setPluginContextType(row.context);
        bool user = !row.user;
        bool system = !row.system;
        command.GetPluginMode(user, system);
        EXPECT_EQ(user, row.user) << String::UTF16ToUTF8(row.context);
        EXPECT_EQ(system, row.system) << String::UTF16ToUTF8(row.context);
    }
}

TEST(PluginManifestTest, WrongKindsBecomeTextOrEndTheManifest)
{
    const PluginManifest converted = PluginManifest::JsonDeSerialize(
        Parse(R"({"pluginName": 42, "pluginVersion": true, "commands": {"command": "x"}, "user": {"appChannels": "one"}})"));
    EXPECT_EQ(converted.getPluginName(), "42");
    EXPECT_EQ(converted.getPluginVersion(), "true");
    EXPECT_TRUE(converted.getCommands().empty()) << "commands that are an object give no command";
    EXPECT_TRUE(converted.getUser().getAppChannels().empty());

    for (const char* text : {R"({"pluginId": ["a"]})", R"({"user": "block"})", R"({"system": {"entry64Path": {}}})",
                             R"({"commands": [{"command": "a"}, 7]})", R"({"commands": ["Get-X"]})",
                             R"({"user": {"appChannels": [{}]}})"}) {
        EXPECT_THROW(PluginManifest::JsonDeSerialize(Parse(text)), Json::Exception) << text;
    }
    std::list<PluginCommand> commands;
    PluginCommand::JsonDeSerialize(Parse(R"([{"command": "a"}, null])"), commands);
    EXPECT_EQ(commands.size(), 2u) << "a null element reads as an empty command";
}

}  // namespace
}  // namespace VEQ
