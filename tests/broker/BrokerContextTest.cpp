#include "broker/BaseCommandHandler.h"
#include "broker/BrokerContext.h"
#include "broker/HandleTargetedRequestHelper.h"

#include <gtest/gtest.h>

namespace VEQ {
namespace {

using Tavrin::Veq::ClientBroker::ExtensionType;

TEST(BrokerContext, TextConversionsUseCapitalisedNamesAndFailToNone)
{
    EXPECT_EQ(BrokerContext::getElevationTypeAsString(ElevationType::Elevated), "Elevated");
    EXPECT_EQ(BrokerContext::getElevationTypeAsString(ElevationType::User), "User");
    EXPECT_EQ(BrokerContext::getElevationTypeAsString(ElevationType::Both), "Both");
    EXPECT_EQ(BrokerContext::getElevationTypeAsString(ElevationType::None), "None");
    EXPECT_EQ(BrokerContext::getElevationTypeAsString(static_cast<ElevationType>(7)), "None");
    EXPECT_EQ(BrokerContext::getExtensionTypeAsString(ExtensionType::Plugin), "Plugin");
    EXPECT_EQ(BrokerContext::getExtensionTypeAsString(static_cast<ExtensionType>(9)), "None");

    const std::pair<const char*, ElevationType> elevations[] = {
        {"elevated", ElevationType::Elevated}, {"USER", ElevationType::User}, {"Both", ElevationType::Both},
        {"", ElevationType::None},             {"users", ElevationType::None}};
    for (const auto& [text, expected] : elevations) {
        EXPECT_EQ(BrokerContext::getElevationTypeAsEnum(text), expected) << text;
    }
    const std::pair<const char*, ExtensionType> types[] = {
        {"app", ExtensionType::App}, {"PLUGIN", ExtensionType::Plugin}, {"both", ExtensionType::Both},
        {"", ExtensionType::None},   {"apps", ExtensionType::None}};
    for (const auto& [text, expected] : types) {
        EXPECT_EQ(BrokerContext::getExtensionTypeAsEnum(text), expected) << text;
    }
}

TEST(BrokerContext, ADefaultContextIsAllZeroAndCopiesCarryEveryField)
{
    BrokerContext context;
    EXPECT_EQ(context.getElevationType(), ElevationType::None);
    EXPECT_EQ(context.getExtensionType(), ExtensionType::None);
    EXPECT_EQ(context.getIpcMethod(), ConnectionMethod::None);

    context.setElevationType(ElevationType::User);
    context.setExtensionType(ExtensionType::Plugin);
    context.setConnectionMethod(ConnectionMethod::LocalSocket);
    BrokerContext copy = context;
    EXPECT_EQ(copy.getElevationType(), ElevationType::User);
    EXPECT_EQ(copy.getExtensionType(), ExtensionType::Plugin);
    EXPECT_EQ(copy.getIpcMethod(), ConnectionMethod::LocalSocket);
}

class FixedHandler : public BaseCommandHandler {
public:
    FixedHandler(ElevationType context, ExtensionType type) : context_(context), type_(type) {}
    Result GetResponse(const ClientRequest&, bool&) override { return {}; }
    const std::vector<std::string>& GetSupportedCommandNames() override { return names_; }
    ElevationType GetSupportedContext() override { return context_; }
    ExtensionType GetSupportedExtensionType() override { return type_; }

private:
    ElevationType context_;
    ExtensionType type_;
    std::vector<std::string> names_{"Fixed"};
};

class BaseOnlyHandler : public BaseCommandHandler {
public:
    Result GetResponse(const ClientRequest&, bool&) override { return {}; }
    const std::vector<std::string>& GetSupportedCommandNames() override { return names_; }

private:
    std::vector<std::string> names_{"Base"};
};

TEST(BaseCommandHandler, ApplicabilityFollowsSideAndKind)
{
    using E = ElevationType;
    using X = ExtensionType;
    struct Row {
        E supported;
        X supportedType;
        E broker;
        X brokerType;
        bool applicable;
    };
    const Row rows[] = {
        {E::Both, X::Both, E::Elevated, X::App, true},   {E::Both, X::Both, E::User, X::Plugin, true},
        {E::Both, X::Both, E::None, X::App, false},      {E::Both, X::Both, E::User, X::None, false},
        {E::Elevated, X::App, E::Elevated, X::App, true}, {E::Elevated, X::App, E::User, X::App, false},
        {E::Elevated, X::App, E::Both, X::App, false},   {E::User, X::Plugin, E::User, X::App, false},
        {E::Both, X::Plugin, E::User, X::Plugin, true},  {E::Both, X::App, E::Elevated, X::Both, false},
    };
    for (size_t i = 0; i < std::size(rows); ++i) {
        const Row& row = rows[i];
        FixedHandler handler(row.supported, row.supportedType);
        BrokerContext context;
        context.setElevationType(row.broker);
        context.setExtensionType(row.brokerType);
        EXPECT_EQ(handler.IsApplicable(context), row.applicable) << "row " << i;
    }
}

TEST(BaseCommandHandler, TheBaseContractIsElevatedAppsOnlyAndStopIsSticky)
{
    BaseOnlyHandler handler;
    EXPECT_EQ(handler.GetSupportedContext(), ElevationType::Elevated);
    EXPECT_EQ(handler.GetSupportedExtensionType(), ExtensionType::App);
    EXPECT_FALSE(handler.IsStopped());
    handler.StopHandler();
    handler.StopHandler();
    EXPECT_TRUE(handler.IsStopped());
}

TEST(HandleTargetedRequestHelper, FailureTextsNameTheTargetAndTheCase)
{
    Tavrin::Veq::ClientBroker::Message message;
    message.guid = "g";
    message.notification = {"Do-It", "{}", "plug-1", "Plug One"};
    struct Row {
        bool found;
        bool running;
        int32_t code;
        const char* text;
    };
    const Row rows[] = {
        {false, false, 17002,
         "The target with targetId:plug-1 targetName:Plug One was not found in the list of installed plugins or "
         "running apps"},
        {true, true, 17004,
         "The command requested:Do-It is not supported by plugin with targetId : plug-1 targetName:Plug One, and no "
         "app with this ID was found to handle the command"},
        {true, false, 17003,
         "The target with targetId:plug-1 targetName:Plug One was found as a plugin but is not running, and no app "
         "with this ID was found"},
    };
    HandleTargetedRequestHelper helper(nullptr);
    for (const auto& row : rows) {
        PluginInstanceDetails details;
        details.isPluginFound = row.found;
        details.isPluginRunning = row.running;
        Tavrin::Veq::ClientBroker::Result result;
        helper.BuildTargetErrorResult(message, details, result, "ExtensionBroker");
        EXPECT_FALSE(result.isSuccess);
        EXPECT_EQ(result.message.statusCode, row.code);
        EXPECT_EQ(result.message.statusText, row.text);
        EXPECT_EQ(result.message.statusSource, "ExtensionBroker");
        EXPECT_EQ(result.message.guid, "g");
    }
}

}  // namespace
}  // namespace VEQ
