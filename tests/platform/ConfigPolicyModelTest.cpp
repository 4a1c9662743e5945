#include "platform/policy/ConfigPolicyAgent.h"
#include "platform/policy/PolicyFile.h"
#include "platform/string/String.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

namespace VEQ {
namespace {

class PrivateAgent : public ConfigPolicyAgent {
public:
    PrivateAgent() = default;
};

Json::Value Parse(const std::string& text)
{
    Json::Value value;
    std::string error;
    EXPECT_TRUE(PolicyFile::Parse(text, value, error)) << text << ": " << error;
    return value;
}

// The "Tavrin.veq" entry's record, as the app and plugin managers look it up.
std::optional<ExtensionAppSettings> VeqSettings(const Json::Value& document)
{
    const DeviceConfigPolicy policy = DeviceConfigPolicy::FromJson(document);
    for (const auto& entry : policy.app_settings()) {
        if (entry.application_id() == L"Tavrin.veq" && entry.settings().extension_apps() != nullptr) {
            return *entry.settings().extension_apps();
        }
    }
    return std::nullopt;
}

Json::Value WithSettings(const std::string& settings)
{
    return Parse(R"({"app_settings":[{"application_id":"Tavrin.veq","settings":)" + settings + "}]}");
}

std::string Joined(const std::vector<std::wstring>& texts)
{
    std::string joined;
    for (const auto& text : texts) {
        joined += (joined.empty() ? "" : ",") + String::UTF16ToUTF8(text);
    }
    return joined;
}

TEST(ConfigPolicyModelTest, ExtensionFieldsOfTheWrongTypeReadAsAbsent)
{
    struct Row {
        const char* settings;
        bool found;
        const wchar_t* enablement;
        const wchar_t* ipcMethods;
        const wchar_t* pluginType;
        const wchar_t* controlType;
        const char* clientIds;
    };
    const Row rows[] = {
        {R"({"extension_apps":{"enablement":"manual","ipcMethods_afunix":"user"},
             "extension_plugins":{"enabledPluginType":"all","controlType":"DenyByDefault",
                                  "clients":[{"clientId":"one"},{"clientId":"two"}]}})",
         true, L"manual", L"user", L"all", L"DenyByDefault", "one,two"},
        {R"({"extension_apps":{"enablement":"enabled","ipcMethods_afunix":"both"}})", true, L"enabled", L"both", L"",
         L"", ""},
        {R"({"extension_apps":{"enablement":"enabled"},"extension_plugins":"all"})", true, L"enabled", L"", L"", L"", ""},
        {R"({"extension_apps":{"enablement":1,"ipcMethods_afunix":true},
             "extension_plugins":{"enabledPluginType":["all"],"controlType":{},"clients":{"clientId":"one"}}})",
         true, L"", L"", L"", L"", ""},
        {R"({"extension_apps":{},"extension_plugins":{"clients":[1,"two",null,{"clientId":"three"},[]]}})", true, L"",
         L"", L"", L"", "three"},
        {R"({"extension_plugins":{"enabledPluginType":"all"}})", false, L"", L"", L"", L"", ""},
        {R"({"extension_apps":"enabled"})", false, L"", L"", L"", L"", ""},
        {R"("extension_apps")", false, L"", L"", L"", L"", ""},
    };
    for (const Row& row : rows) {
        const auto settings = VeqSettings(WithSettings(row.settings));
        ASSERT_EQ(settings.has_value(), row.found) << row.settings;
        if (!settings) {
            continue;
        }
        EXPECT_EQ(settings->enablement(), row.enablement) << row.settings;
        EXPECT_EQ(settings->ipcMethods_afunix(), row.ipcMethods) << row.settings;
        EXPECT_EQ(settings->enabledPluginType(), row.pluginType) << row.settings;
        EXPECT_EQ(settings->controlType(), row.controlType) << row.settings;
        std::vector<std::wstring> ids;
        for (const auto& client : settings->clients()) {
            ids.push_back(client.clientId());
        }
        EXPECT_EQ(Joined(ids), row.clientIds) << row.settings;
    }
}

TEST(ConfigPolicyModelTest, ClientFieldsOfTheWrongTypeReadAsAbsent)
{
    struct Row {
        const char* client;
        const wchar_t* id;
        const char* permissions;
        size_t rules;
        const wchar_t* os;
        const wchar_t* elevation;
    };
    const Row rows[] = {
        {R"({"clientId":"p","clientPermissions":["configure","read"],"clientRules":[{"os":"linux"},{"tag":"x"}],
             "clientOs":"linux","clientElevation":"both"})",
         L"p", "configure,read", 2, L"linux", L"both"},
        {R"({"clientId":"p","clientPermissions":"configure"})", L"p", "configure", 0, L"", L""},
        {R"({"clientPermissions":[1,"configure",{"a":"b"},null,true]})", L"", "configure", 0, L"", L""},
        {R"({"clientPermissions":7,"clientRules":{"os":"linux"}})", L"", "", 0, L"", L""},
        {R"({"clientRules":["os",{"os":"linux"},1,[{"tag":"x"}]]})", L"", "", 1, L"", L""},
        {R"({"clientId":12,"clientOs":["linux"],"clientElevation":3})", L"", "", 0, L"", L""},
    };
    for (const Row& row : rows) {
        const Client client = Client::FromJson(Parse(row.client));
        EXPECT_EQ(client.clientId(), row.id) << row.client;
        EXPECT_EQ(Joined(client.clientPermissions()), row.permissions) << row.client;
        EXPECT_EQ(client.clientRules().size(), row.rules) << row.client;
        EXPECT_EQ(client.clientOs(), row.os) << row.client;
        EXPECT_EQ(client.clientElevation(), row.elevation) << row.client;
    }
}

TEST(ConfigPolicyModelTest, PackageFieldsOfTheWrongTypeReadAsAbsent)
{
    struct Row {
        const char* document;
        bool hasUpdatePolicy;
        const wchar_t* scope;
        const char* packages;  // id/name/version/type/tags/filter count per package
    };
    const Row rows[] = {
        {R"({"update_policy":{"updateScope":"all","packages":[
              {"packageId":"a","packageName":"A","packageVersion":"1.2","packageType":"app",
               "tags":{"ring":"beta","Channel":"x"},"filter":[{"os":"linux"}]}]}})",
         true, L"all", "a/A/1.2/app/Channel=x,ring=beta/1"},
        {R"({"update_policy":{"packages":[1,"a",{"packageId":"b"},null]}})", true, L"", "b/////0"},
        {R"({"update_policy":{"packages":[{"packageId":1,"packageName":[],"packageVersion":1.2,"packageType":{},
              "tags":{"ring":1,"zone":"eu","list":["x"]},"filter":[1,"os",{"tag":"x"}]}]}})",
         true, L"", "////zone=eu/1"},
        {R"({"update_policy":{"updateScope":"none","packages":{"packageId":"a"}}})", true, L"none", ""},
        {R"({"update_policy":{"packages":[{"packageId":"a","tags":"ring","filter":{"os":"linux"}}]}})", true, L"",
         "a/////0"},
        {R"({"update_policy":"none"})", false, L"", ""},
        {R"({"packages":[{"packageId":"a"}]})", false, L"", ""},
        {R"([{"update_policy":{"packages":[{"packageId":"a"}]}}])", false, L"", ""},
    };
    for (const Row& row : rows) {
        PrivateAgent agent;
        agent.SetPolicyDocument(Parse(row.document));
        UpdatePolicy policy;
        EXPECT_EQ(agent.GetUpdatePolicy(policy), row.hasUpdatePolicy) << row.document;
        EXPECT_EQ(policy.GetUpdateScope(), row.scope) << row.document;
        std::string packages;
        for (const auto& package : policy.GetPackages()) {
            std::vector<std::wstring> tags;
            for (const auto& tag : package.tags()) {
                tags.push_back(tag.key + L"=" + tag.value);
            }
            packages += (packages.empty() ? "" : ";") + String::UTF16ToUTF8(package.packageId()) + "/" +
                        String::UTF16ToUTF8(package.packageName()) + "/" +
                        String::UTF16ToUTF8(package.packageVersion()) + "/" +
                        String::UTF16ToUTF8(package.packageType()) + "/" + Joined(tags) + "/" +
                        std::to_string(package.filter().size());
        }
        EXPECT_EQ(packages, row.packages) << row.document;
    }
}

TEST(ConfigPolicyModelTest, ThePackageListHoldsThePackagesThatCarryEveryTagAskedFor)
{
    PrivateAgent agent;
    agent.SetPolicyDocument(Parse(R"({"update_policy":{"packages":[
        {"packageId":"a","tags":{"ring":"beta","zone":"eu"}},
        {"packageId":"b","tags":{"ring":"stable"}},
        {"packageId":"c"}]}})"));
    struct Row {
        std::vector<KeyValuePair> tags;
        const char* ids;
    };
    const Row rows[] = {
        {{}, "a,b,c"},
        {{{L"ring", L"beta"}}, "a"},
        {{{L"RING", L"beta"}}, "a"},
        {{{L"ring", L"Beta"}}, ""},
        {{{L"ring", L"beta"}, {L"zone", L"eu"}}, "a"},
        {{{L"ring", L"beta"}, {L"zone", L"us"}}, ""},
        {{{L"ring", L"stable"}}, "b"},
        {{{L"other", L""}}, ""},
    };
    for (const Row& row : rows) {
        std::string asked;
        for (const auto& tag : row.tags) {
            asked += String::UTF16ToUTF8(tag.key + L"=" + tag.value) + " ";
        }
        const Json::Value details = agent.GetPackageDetailsInConfig(&row.tags);
        std::vector<std::wstring> ids;
        for (const auto& package : details["packages"]) {
            ids.push_back(String::UTF8ToUTF16(package["packageId"].asString()));
        }
        EXPECT_EQ(Joined(ids), row.ids) << "tags: " << asked;
    }
    EXPECT_EQ(agent.GetPackageDetailsInConfig(nullptr)["packages"].size(), 3u);
}

TEST(ConfigPolicyModelTest, ADocumentThatIsNoObjectReadsAsAnEmptyPolicy)
{
    const char* documents[] = {"null", "[1,2]", R"(["mqtt",{"mqtt":{"mqttFeatures":"all"}}])", "42", R"("text")"};
    for (const char* text : documents) {
        PrivateAgent agent;
        agent.SetPolicyDocument(Parse(text));
        MqttPolicy mqtt{L"old", L"old"};
        EXPECT_FALSE(agent.GetMqttPolicy(mqtt)) << text;
        EXPECT_EQ(mqtt.mqttFeatures, L"") << text;
        UpdatePolicy update;
        EXPECT_FALSE(agent.GetUpdatePolicy(update)) << text;
        PlatformPolicy platform(nullptr);
        EXPECT_FALSE(agent.LoadPlatformPolicy(platform)) << text;
        DeviceConfigPolicy device;
        agent.GetDeviceConfigPolicy(device);
        EXPECT_TRUE(device.app_settings().empty()) << text;
        EXPECT_EQ(agent.GetPackageDetailsInConfig(nullptr)["packages"].size(), 0u) << text;
    }
}

TEST(ConfigPolicyModelTest, TheDefaultPolicyLetsAppsAndEmbeddedPluginsRunOnBothSidesWithoutMqtt)
{
    PrivateAgent agent;
    agent.SetPolicyDocument(ConfigPolicyAgent::DefaultPolicy());
    ASSERT_TRUE(agent.GetPolicyDocument().isObject()) << ConfigPolicyAgent::DefaultPolicyText();
    const auto settings = VeqSettings(agent.GetPolicyDocument());
    ASSERT_TRUE(settings.has_value());
    EXPECT_EQ(settings->enablement(), L"enabled");
    EXPECT_EQ(settings->ipcMethods_afunix(), L"both");
    EXPECT_EQ(settings->enabledPluginType(), L"embedded");
    EXPECT_EQ(settings->controlType(), L"AllowByDefault");
    MqttPolicy mqtt;
    EXPECT_TRUE(agent.GetMqttPolicy(mqtt));
    EXPECT_NE(mqtt.mqttFeatures.find(L"none"), std::wstring::npos);
}

}  // namespace
}  // namespace VEQ
