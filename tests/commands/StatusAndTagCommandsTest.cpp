#include "commands/GetVeqStatusCommand.h"
#include "commands/GetVeqTagsCommand.h"
#include "commands/GetVeqTagsCommandResponse.h"
#include "commands/VerifyCustomSettingsEnabledCommand.h"
#include "platform/applicability/AppAndTagCollection.h"
#include "platform/device/DeveloperSettings.h"
#include "platform/fs/utility.h"
#include "platform/http/EpUrlProvider.h"
#include "platform/policy/ConfigPolicyAgent.h"
#include "platform/registry/CRegUtil.h"
#include "platform/string/String.h"
#include "platform/util/CoreUtility.h"
#include "tests/support/TempRoot.h"

#include <gtest/gtest.h>

#include <fstream>
#include <functional>
#include <memory>
#include <sstream>

namespace VEQ {
namespace {

using Tavrin::Veq::ClientBroker::ExtensionType;
using Tavrin::Veq::ClientBroker::Result;

ClientRequest Request(const std::string& command, const std::string& payload = "")
{
    Tavrin::Veq::ClientBroker::Message message;
    message.guid = "5E0C6B1A-33D2-4C0B-9A57-0F4D2B7C1E90";
    message.notification.command = command;
    message.notification.payload = payload;
    message.statusSource = "None";
    message.statusText = "Success";
    ClientRequest request;
    request.setMessage(message);
    return request;
}

Result Ask(BaseCommandHandler& handler, const ClientRequest& request)
{
    bool pending = false;
    Result result = handler.GetResponse(request, pending);
    EXPECT_FALSE(pending) << request.getMessage().notification.command << " completes at once";
    return result;
}

void ExpectReply(const Result& result, const char* command, const std::string& payload)
{
    EXPECT_TRUE(result.isSuccess) << command;
    EXPECT_EQ(result.message.statusCode, 0) << command;
    EXPECT_EQ(result.message.guid, "5E0C6B1A-33D2-4C0B-9A57-0F4D2B7C1E90") << command;
    EXPECT_EQ(result.message.notification.command, command);
    EXPECT_EQ(result.message.notification.payload, payload) << command;
}

// The platform's singletons on a fresh root, reset after every test.
class StatusAndTagCommandsTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(utility::InitLog(log_, L"Commands.log", Log::kDebug));
        Reset();
    }
    void TearDown() override
    {
        Reset();
        CoreUtility::GetInstance()->SetMachineIdFiles(CoreUtility::DefaultMachineIdFiles());
    }
    static void Reset()
    {
        EpUrlProvider::GetInstance()->SetRealm(L"");
        ConfigPolicyAgent::GetInstance()->SetPolicyDocument(Json::Value());
        AppAndTagCollection::GetInstance()->SetTags({});
        DeveloperSettings::GetInstance()->SetCustomSettingEnabled(false);
        DeveloperSettings::GetInstance()->SetSkipSignedContentCheck(false);
    }

    void UseMachineId(const std::string& content)
    {
        const std::wstring path = root_.Below(L"machine-id");
        std::ofstream(String::UTF16ToUTF8(path)) << content;
        CoreUtility::GetInstance()->SetMachineIdFiles({path});
    }

    std::string LogText() const
    {
        std::ifstream file(log_.FilePath());
        std::stringstream text;
        text << file.rdbuf();
        return text.str();
    }

    VEQ::Test::TempRoot root_;
    Log log_;
};

TEST_F(StatusAndTagCommandsTest, StatusCarriesIdentityVersionTenantAndBaseUrisInJsonCppOrder)
{
    UseMachineId("4c4c4544003a4e10804ab7c04f4d3432\n");
    EpUrlProvider::GetInstance()->SetRealm(L"contoso.example");
    Json::Value document;
    document["platform_policy"]["enterprise_auth_baseuri"] = "https://login.example/ent";
    document["platform_policy"]["consumer_auth_baseuri"] = "https://login.example/con";
    document["platform_policy"]["api_baseuri"] = "https://api.example/v1";
    ConfigPolicyAgent::GetInstance()->SetPolicyDocument(document);

    GetVeqStatusCommand command(log_);
    ExpectReply(Ask(command, Request("Get-VeqStatus")), "Receive-VeqStatus",
                R"({"apiBaseUri":"https://api.example/v1","consumerAuthBaseUri":"https://login.example/con",)"
                R"("deviceId":"4C4C4544-003A-4E10-804A-B7C04F4D3432","enterpriseAuthBaseUri":"https://login.example/ent",)"
                R"("tenantName":"contoso.example","version":")" VEQ_VERSION R"("})");
}

TEST_F(StatusAndTagCommandsTest, StatusSucceedsWithEmptyTextsForWhatIsNotKnown)
{
    CoreUtility::GetInstance()->SetMachineIdFiles({root_.Below(L"no-such-file")});
    GetVeqStatusCommand command(log_);
    ExpectReply(Ask(command, Request("Get-VeqStatus")), "Receive-VeqStatus",
                R"({"apiBaseUri":"","consumerAuthBaseUri":"","deviceId":"","enterpriseAuthBaseUri":"",)"
                R"("tenantName":"","version":")" VEQ_VERSION R"("})");
}

TEST_F(StatusAndTagCommandsTest, TagsFromTheRegistryAndMemoryBecomeOneObjectWhereTheLastOfAKeyWins)
{
    ASSERT_TRUE(CRegUtil::SetKeyValueIn64BitRegView(HKEY_LOCAL_MACHINE, AppAndTagCollection::kTagsKey,
                                                    L"Device.Warranty.ExpirationDate",
                                                    std::wstring(L"2027-05-01T00:00:00Z")));
    ASSERT_TRUE(CRegUtil::SetKeyValueIn64BitRegView(HKEY_LOCAL_MACHINE, AppAndTagCollection::kTagsKey, L"zone",
                                                    std::wstring(L"eu-west")));
    AppAndTagCollection::GetInstance()->SetTags({{L"ring", L"beta"}, {L"zone", L"überall"}});

    GetVeqTagsCommand command(log_, "com.example.app");
    ExpectReply(Ask(command, Request("Get-VeqTags")), "Receive-VeqTags",
                R"({"Device.Warranty.ExpirationDate":"2027-05-01T00:00:00Z","ring":"beta","zone":"\u00fcberall"})");
}

TEST_F(StatusAndTagCommandsTest, NoTagsAtAllIsTheJsonNull)
{
    GetVeqTagsCommand command(log_, "com.example.app");
    ExpectReply(Ask(command, Request("Get-VeqTags")), "Receive-VeqTags", "null");
}

TEST_F(StatusAndTagCommandsTest, CustomSettingsAnswerTheirOwnFlagOnly)
{
    struct Row {
        bool custom;
        bool skipSignatures;
        const char* payload;
    };
    const Row rows[] = {
        {false, false, R"({"isCustomSettingEnabled":false})"},
        {true, false, R"({"isCustomSettingEnabled":true})"},
        {false, true, R"({"isCustomSettingEnabled":false})"},
    };
    VerifyCustomSettingsEnabledCommand command(log_);
    for (const Row& row : rows) {
        SCOPED_TRACE(testing::Message() << "custom " << row.custom << ", skip signatures " << row.skipSignatures);
        DeveloperSettings::GetInstance()->SetCustomSettingEnabled(row.custom);
        DeveloperSettings::GetInstance()->SetSkipSignedContentCheck(row.skipSignatures);
        ExpectReply(Ask(command, Request("VerifyCustomSettingsEnabledCommand", "{\"x\":1}")),
                    "Receive-VerifyCustomSettingsEnabled", row.payload);
    }
    EXPECT_NE(LogText().find("VEQ::VerifyCustomSettingsEnabledCommand::GetResponse: Received Command "
                             "(VerifyCustomSettingsEnabledCommand). Data: ({\"x\":1})"),
              std::string::npos)
        << LogText();
}

TEST_F(StatusAndTagCommandsTest, ANameTheHandlerDoesNotOwnIsRefusedOrLeftAtTheDefault)
{
    struct Row {
        std::function<std::unique_ptr<BaseCommandHandler>(Log&)> make;
        const char* command;
        bool refused;  // false: the Result as constructed
        const char* logged;
    };
    const Row rows[] = {
        {[](Log& log) { return std::make_unique<GetVeqStatusCommand>(log); }, "get-veqstatus", true,
         "VEQ::GetVeqStatusCommand::GetResponse: Command(get-veqstatus) not supported for the request"},
        {[](Log& log) { return std::make_unique<GetVeqStatusCommand>(log); }, "Get-VeqTags", true,
         "VEQ::GetVeqStatusCommand::GetResponse: Command(Get-VeqTags) not supported for the request"},
        {[](Log& log) { return std::make_unique<GetVeqTagsCommand>(log, "app"); }, "Get-VeqTags ", true,
         "VEQ::GetVeqTagsCommand::GetResponse: Command(Get-VeqTags ) not supported for the request"},
        {[](Log& log) { return std::make_unique<VerifyCustomSettingsEnabledCommand>(log); },
         "Verify-CustomSettingsEnabled", false, nullptr},
        {[](Log& log) { return std::make_unique<VerifyCustomSettingsEnabledCommand>(log); }, "", false, nullptr},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(testing::Message() << "command '" << row.command << "'");
        auto handler = row.make(log_);
        const Result result = Ask(*handler, Request(row.command));
        EXPECT_FALSE(result.isSuccess);
        EXPECT_EQ(result.message.notification.payload, "");
        if (row.refused) {
            EXPECT_EQ(result.message.statusCode, -1);
            EXPECT_EQ(result.message.statusText, "Command not Supported");
            EXPECT_NE(LogText().find(row.logged), std::string::npos) << LogText();
        } else {
            EXPECT_EQ(result.message.statusCode, 0);
            EXPECT_EQ(result.message.statusText, "");
            EXPECT_EQ(result.message.guid, "");
            EXPECT_EQ(result.message.notification.command, "");
        }
    }
}

TEST_F(StatusAndTagCommandsTest, AllThreeServeAppsAndPluginsOnBothSides)
{
    std::unique_ptr<BaseCommandHandler> handlers[] = {std::make_unique<GetVeqStatusCommand>(log_),
                                                      std::make_unique<GetVeqTagsCommand>(log_, "app"),
                                                      std::make_unique<VerifyCustomSettingsEnabledCommand>(log_)};
    for (auto& handler : handlers) {
        const std::string name = handler->GetSupportedCommandNames().at(0);
        for (const ElevationType side : {ElevationType::Elevated, ElevationType::User}) {
            for (const ExtensionType type : {ExtensionType::App, ExtensionType::Plugin}) {
                BrokerContext context;
                context.setElevationType(side);
                context.setExtensionType(type);
                EXPECT_TRUE(handler->IsApplicable(context))
                    << name << " side " << static_cast<int>(side) << " type " << static_cast<int>(type);
            }
        }
        EXPECT_EQ(handler->GetSupportedCommandNames().size(), 1u) << name;
    }
}

std::string Describe(const std::vector<VEQTag>& tags)
{
    std::string text;
    for (const VEQTag& tag : tags) {
        text += String::UTF16ToUTF8(tag.getKey()) + "=" + String::UTF16ToUTF8(tag.getValue()) + ";";
    }
    return text;
}

TEST_F(StatusAndTagCommandsTest, DeserializeReadsTagsBackAndGivesUpQuietlyOnWhatIsNoTagObject)
{
    const std::pair<const char*, const char*> rows[] = {
        {"", ""},
        {"not json", ""},
        {R"({"a":)", ""},
        {"null", ""},
        {"{}", ""},
        {"42", ""},
        {R"({"zone":"eu","ring":"beta"})", "ring=beta;zone=eu;"},
        {R"({"n":5,"t":true,"z":null})", "n=5;t=true;z=;"},
        {R"({"a":"kept","b":["x"],"c":"never reached"})", "a=kept;"},
    };
    for (const auto& [text, expected] : rows) {
        EXPECT_EQ(Describe(GetVeqTagsCommandResponse::Deserialize(text).tags), expected) << "text '" << text << "'";
    }

    GetVeqTagsCommandResponse written;
    written.tags = {{L"zone", L"überall"}, {L"Device.Warranty.ExpirationDate", L"2027-05-01"}, {L"ring", L""}};
    EXPECT_EQ(Describe(GetVeqTagsCommandResponse::Deserialize(GetVeqTagsCommandResponse::Serialize(written)).tags),
              "Device.Warranty.ExpirationDate=2027-05-01;ring=;zone=überall;")
        << "the same tags, sorted by name";
}

}  // namespace
}  // namespace VEQ
