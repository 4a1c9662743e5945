// A plugin's broker on its socket: its vocabulary per side, and what a plugin learns about itself.

#include "broker/PluginClientBroker.h"
#include "broker/PluginHandlerFactory.h"
#include "commands/GetPluginDetailsCommand.h"
#include "plugins/PluginDetails.h"
#include "platform/string/String.h"
#include "platform/transport/ClientConnection.h"
#include "tests/support/TempRoot.h"
#include "tests/support/TestBroker.h"

#include <gtest/gtest.h>

#include <filesystem>

namespace VEQ {
namespace {

using namespace std::chrono_literals;
using Tavrin::Veq::ClientBroker::ClientConnection;
using Tavrin::Veq::ClientBroker::ExtensionType;
using Tavrin::Veq::ClientBroker::Message;
using Tavrin::Veq::ClientBroker::Result;

BrokerContext PluginContext(ElevationType side, ExtensionType type = ExtensionType::Plugin)
{
    BrokerContext context = VEQ::Test::MakeBrokerContext(side);
    context.setExtensionType(type);
    return context;
}

PluginDetails Details()
{
    PluginManifest manifest("HelloPlugin", L"Contoso.Hello", RuntimeType::Unmanaged, "1.2.0.0", {},
                            PluginExecutionDetails(StartupType::Event, {L"hello"}, "", "\\bin\\HelloPlugin.dll"),
                            PluginExecutionDetails(StartupType::Auto, {}, "\\x86\\h.dll", "\\bin\\HelloPlugin.dll",
                                                   "\\arm\\HelloPlugin.dll"),
                            L"");
    return PluginDetails(PluginSourceType::Embedded, manifest);
}

std::vector<std::string> CommandsOf(std::vector<BaseCommandHandler*> handlers)
{
    std::vector<std::string> names;
    for (BaseCommandHandler* handler : handlers) {
        names.push_back(handler->GetSupportedCommandNames().front());
        delete handler;
    }
    return names;
}

class PluginClientBrokerTest : public ::testing::Test {
protected:
    void Start(ElevationType side)
    {
        std::filesystem::create_directories(root_.BelowUtf8("system/EmbeddedPlugins/Contoso.Hello/bin"));
        details_ = std::make_unique<PluginDetails>(Details());
        broker_ = std::make_unique<PluginClientBroker>(PluginContext(side),
                                                       VEQ::Test::MakeClientContext("Contoso.Hello"), *details_);
        broker_->Start();
        ASSERT_TRUE(client_.Connect(String::UTF16ToUTF8(broker_->get_soketID()), 5s)) << client_.LastError();
    }
    Result Send(const std::string& command, const std::string& payload = "")
    {
        Message message;
        message.guid = "guid-" + command;
        message.notification.command = command;
        message.notification.payload = payload;
        auto result = client_.Send(message, 10s);
        EXPECT_TRUE(result) << command;
        return result ? *result : Result();
    }
    void TearDown() override
    {
        client_.Close();
        if (broker_) {
            broker_->Suspend();
        }
    }

    VEQ::Test::TempRoot root_;
    std::unique_ptr<PluginDetails> details_;
    std::unique_ptr<PluginClientBroker> broker_;
    ClientConnection client_;
};

TEST(PluginHandlerFactoryTest, BuildsTheVocabularyOfEachSide)
{
    VEQ::Test::TempRoot root;
    Log log;
    PluginDetails details = Details();
    PluginHandlerFactory factory;
    const std::vector<std::string> elevated = {
        "Get-PluginDetails",   "Get-PluginHostContext",  "Get-VeqStatus",       "Get-DeviceConfig",
        "Invoke-HttpRequest",  "Notify-ZCP",          "Enable-MqttConnection",  "Disable-MqttConnection", "Publish-MqttMessage",
        "Verify-Signature",    "Get-DecryptedData",      "Test-Applicability",  "VerifyCustomSettingsEnabledCommand",
        "Get-VeqTags",         "Get-PackageList",        "GetEncryptedDataCommand", "CheckEtagNGetDigestNSaveIfValid",
        "GetWarrantyInfoAndUpdateTagReg",
        "RegistryAndDigestCleanup", "GetEncryptedDataCommand", "Start-PackageOperation",
    };
    // The data protection commands serve elevated plugins only.
    std::vector<std::string> user = elevated;
    std::erase_if(user, [](const std::string& name) {
        return name == "Get-DecryptedData" || name == "GetEncryptedDataCommand";
    });
    const auto client = VEQ::Test::MakeClientContext("Contoso.Hello");
    EXPECT_EQ(CommandsOf(factory.GetHandlers(PluginContext(ElevationType::Elevated), client, details, log)), elevated);
    EXPECT_EQ(CommandsOf(factory.GetHandlers(PluginContext(ElevationType::User), client, details, log)), user);
    EXPECT_TRUE(CommandsOf(factory.GetHandlers(PluginContext(ElevationType::None), client, details, log)).empty());
    // Commands for plugins only drop out for any other kind of client.
    const auto forApps = CommandsOf(factory.GetHandlers(PluginContext(ElevationType::User, ExtensionType::App), client,
                                                        details, log));
    EXPECT_EQ(std::count(forApps.begin(), forApps.end(), "Get-PluginHostContext"), 0);
    EXPECT_EQ(std::count(forApps.begin(), forApps.end(), "Notify-ZCP"), 0);
    EXPECT_EQ(std::count(forApps.begin(), forApps.end(), "Get-PluginDetails"), 1);
}

TEST_F(PluginClientBrokerTest, APluginLearnsItsNameIdAndFolder)
{
    Start(ElevationType::User);
    const Result reply = Send("Get-PluginHostContext");
    EXPECT_TRUE(reply.isSuccess);
    EXPECT_EQ(reply.message.guid, "guid-Get-PluginHostContext");
    EXPECT_EQ(reply.message.notification.command, "Receive-PluginHostContext");
    Json::Value context;
    ASSERT_TRUE(Json::Reader().parse(reply.message.notification.payload, context));
    EXPECT_EQ(context["pluginName"].asString(), "HelloPlugin");
    EXPECT_EQ(context["pluginId"].asString(), "Contoso.Hello");
    // A real folder, where the host finds the plugin's files.
    EXPECT_EQ(context["pluginEntryPath"].asString(), root_.BelowUtf8("system/EmbeddedPlugins/Contoso.Hello/bin"));
}

TEST_F(PluginClientBrokerTest, DetailsAnswerOnlyForTheExactIdOfItsOwnPlugin)
{
    Start(ElevationType::Elevated);
    const Result reply = Send("Get-PluginDetails", R"({"id": "Contoso.Hello"})");
    EXPECT_TRUE(reply.isSuccess);
    EXPECT_EQ(reply.message.notification.command, "Receive-PluginDetails");
    Json::Value details;
    ASSERT_TRUE(Json::Reader().parse(reply.message.notification.payload, details));
    EXPECT_EQ(details["pluginSource"].asString(), "Embedded");
    const Json::Value& manifest = details["pluginManifest"];
    EXPECT_EQ(manifest["pluginName"].asString(), "HelloPlugin");
    EXPECT_EQ(manifest["pluginId"].asString(), "Contoso.Hello");
    EXPECT_EQ(manifest["runtime"].asString(), "Unmanaged");
    EXPECT_EQ(manifest["user"]["startup"].asString(), "Event");
    EXPECT_EQ(manifest["user"]["entry64"].asString(), "\\bin\\HelloPlugin.dll");
    EXPECT_EQ(manifest["user"]["entryARM64"].asString(), "");
    EXPECT_EQ(manifest["system"]["entry32"].asString(), "\\x86\\h.dll");
    EXPECT_EQ(manifest["system"]["entryARM64"].asString(), "\\arm\\HelloPlugin.dll");

    for (const char* payload : {R"({"id": "contoso.hello"})", "{}", "not json", R"({"id": "Other"})"}) {
        const Result refused = Send("Get-PluginDetails", payload);
        EXPECT_FALSE(refused.isSuccess) << payload;
        EXPECT_EQ(refused.message.notification.command, "") << payload;
        EXPECT_EQ(refused.message.notification.payload, "") << payload;
        EXPECT_EQ(refused.message.statusCode, 0) << payload << ": the Result as constructed, no error code";
    }
}

TEST_F(PluginClientBrokerTest, TheDataCommandsAreUnknownOnTheUserSideOnly)
{
    for (ElevationType side : {ElevationType::User, ElevationType::Elevated}) {
        Start(side);
        for (const char* command : {"Get-DecryptedData", "GetEncryptedDataCommand"}) {
            const Result reply = Send(command, "{}");
            if (side == ElevationType::User) {
                EXPECT_FALSE(reply.isSuccess) << command;
                EXPECT_EQ(reply.message.statusCode, 17001) << command;
            } else {
                EXPECT_NE(reply.message.statusCode, 17001) << command;
            }
        }
        TearDown();
        broker_.reset();
    }
}

TEST(GetPluginDetailsCommandTest, AManifestWithoutASystemBlockStillWritesItsMembers)
{
    VEQ::Test::TempRoot root;
    const PluginDetails details(PluginSourceType::Downloaded,
                                PluginManifest("N", L"Id", RuntimeType::Dotnet5, "1", {},
                                               PluginExecutionDetails(StartupType::Auto, {}, "", "\\u.dll"),
                                               PluginExecutionDetails(), L""));
    Json::Value written;
    ASSERT_TRUE(Json::Reader().parse(GetPluginDetailsCommand::Serialize(details), written));
    EXPECT_EQ(written["pluginSource"].asString(), "Downloaded");
    EXPECT_EQ(written["pluginManifest"]["runtime"].asString(), "Dotnet5");
    for (const char* member : {"startup", "entry32", "entry64", "entryARM64"}) {
        EXPECT_TRUE(written["pluginManifest"]["system"][member].isString()) << member;
    }
    EXPECT_EQ(written["pluginManifest"]["system"]["startup"].asString(), "Auto");
}

}  // namespace
}  // namespace VEQ
