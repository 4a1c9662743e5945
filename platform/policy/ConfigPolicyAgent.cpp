#include "platform/policy/ConfigPolicyAgent.h"

#include "platform/bus/VEQNotificationData.h"
#include "platform/bus/VEQPublisherSubscriber.h"
#include "platform/log/Log.h"
#include "platform/policy/PolicyFile.h"
#include "platform/policy/PolicyRefreshStatus.h"
#include "platform/policy/PolicyRefresher.h"
#include "platform/policy/PolicyText.h"
#include "platform/string/String.h"

namespace VEQ {
namespace {

constexpr int kConfigTopic = 4;
constexpr int kConfigChangedState = 15;

}  // namespace

ConfigPolicyAgent* ConfigPolicyAgent::GetInstance()
{
    static ConfigPolicyAgent* instance = new ConfigPolicyAgent();  // handlers may still run while statics go
    return instance;
}

const char* ConfigPolicyAgent::DefaultPolicyText()
{
    return R"({
  "app_settings": [
    {
      "application_id": "Tavrin.veq",
      "settings": {
        "extension_apps": { "enablement": "enabled", "ipcMethods_afunix": "both" },
        "extension_plugins": { "enabledPluginType": "embedded", "controlType": "AllowByDefault", "clients": [] }
      }
    }
  ],
  "mqtt": { "mqttFeatures": "none", "mqttConnectType": "0" }
}
)";
}

Json::Value ConfigPolicyAgent::DefaultPolicy()
{
    Json::Value document;
    std::string error;
    PolicyFile::Parse(DefaultPolicyText(), document, error);
    return document;
}

bool ConfigPolicyAgent::LoadPlatformPolicy(PlatformPolicy& policy)
{
    return policy.Load(Member("platform_policy"));
}

bool ConfigPolicyAgent::GetDeviceConfigPolicy(DeviceConfigPolicy& policy)
{
    policy = DeviceConfigPolicy::FromJson(GetPolicyDocument());
    return true;
}

std::wstring ConfigPolicyAgent::GetConfigPolicy()
{
    const Json::Value document = GetPolicyDocument();
    if (document.isNull()) {
        return {};
    }
    Json::StreamWriterBuilder writer;
    writer["indentation"] = "";
    writer["emitUTF8"] = true;
    return String::UTF8ToUTF16(Json::writeString(writer, document));
}

ConfigPolicyAgent::~ConfigPolicyAgent()
{
    SetRefreshSource(nullptr);
}

int32_t ConfigPolicyAgent::GetRefreshStatus()
{
    std::shared_ptr<PolicyRefresher> refresher;
    {
        std::lock_guard<std::mutex> lock(refresherMutex_);
        refresher = refresher_;
    }
    return refresher ? refresher->Status() : PolicyRefreshStatus::kNone;
}

void ConfigPolicyAgent::SetRefreshSource(std::shared_ptr<IPolicyRefreshSource> source)
{
    std::lock_guard<std::mutex> serial(sourceMutex_);
    std::shared_ptr<PolicyRefresher> previous;
    {
        std::lock_guard<std::mutex> lock(refresherMutex_);
        previous = std::move(refresher_);
    }
    if (previous) {
        previous->Stop();  // outside refresherMutex_: its refresh may read the policy meanwhile
    }
    if (!source) {
        return;
    }
    auto refresher = std::make_shared<PolicyRefresher>(std::move(source));
    if (!refresher->Start()) {
        g_log.e(L"%s: the policy cannot be refreshed", L"VEQ::ConfigPolicyAgent::SetRefreshSource");
        return;
    }
    std::lock_guard<std::mutex> lock(refresherMutex_);
    refresher_ = std::move(refresher);
}

bool ConfigPolicyAgent::ReportRefreshStatus(int32_t status)
{
    std::shared_ptr<PolicyRefresher> refresher;
    {
        std::lock_guard<std::mutex> lock(refresherMutex_);
        refresher = refresher_;
    }
    return refresher && refresher->Report(status);
}

bool ConfigPolicyAgent::GetMqttPolicy(MqttPolicy& policy)
{
    const Json::Value mqtt = Member("mqtt");
    policy.mqttFeatures = PolicyText::Member(mqtt, "mqttFeatures");
    policy.mqttConnectType = PolicyText::Member(mqtt, "mqttConnectType");
    return mqtt.isObject();
}

bool ConfigPolicyAgent::GetUpdatePolicy(UpdatePolicy& policy)
{
    const Json::Value updatePolicy = Member("update_policy");
    policy = UpdatePolicy::FromJson(updatePolicy);
    return updatePolicy.isObject();
}

Json::Value ConfigPolicyAgent::GetPackageDetailsInConfig(const std::vector<KeyValuePair>* tags)
{
    UpdatePolicy policy;
    GetUpdatePolicy(policy);
    Json::Value details(Json::objectValue);
    details["packages"] = Json::Value(Json::arrayValue);
    for (const auto& package : policy.GetPackages()) {
        if (tags == nullptr || package.HasTags(*tags)) {
            details["packages"].append(package.json());
        }
    }
    return details;
}

bool ConfigPolicyAgent::LoadFromFile(const std::wstring& path)
{
    Json::Value document;
    if (!PolicyFile::Read(path, document)) {
        return false;
    }
    SetPolicyDocument(document);
    g_log.i(L"%s: policy loaded from %s", L"VEQ::ConfigPolicyAgent::LoadFromFile", path);
    return true;
}

void ConfigPolicyAgent::SetPolicyDocument(const Json::Value& document)
{
    std::lock_guard<std::mutex> lock(mutex_);
    document_ = document;
}

bool ConfigPolicyAgent::ReplacePolicyDocument(const Json::Value& document)
{
    std::lock_guard<std::mutex> lock(mutex_);
    if (document_ == document) {
        return false;
    }
    document_ = document;
    return true;
}

bool ConfigPolicyAgent::ApplyPolicyDocument(const Json::Value& document)
{
    if (!ReplacePolicyDocument(document)) {
        return false;
    }
    VEQNotificationData data(kConfigTopic, kConfigChangedState, L"");
    VEQPublisherSubscriber::GetInstance()->Notify(data, L"policy");
    return true;
}

Json::Value ConfigPolicyAgent::GetPolicyDocument() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return document_;
}

Json::Value ConfigPolicyAgent::Member(const char* name) const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return document_.isObject() ? document_.get(name, Json::Value()) : Json::Value();
}

}  // namespace VEQ
