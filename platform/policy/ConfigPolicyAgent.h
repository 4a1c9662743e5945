#pragma once
// The configuration policy in force: one JSON document, replaced as a whole when a new one
// arrives. Readers take copies, so a replacement never changes what a reader is working on.

#include "platform/policy/IConfigAgent.h"
#include "platform/policy/KeyValuePair.h"
#include "platform/policy/PlatformPolicy.h"
#include "platform/policy/UpdatePolicy.h"

#include <json/json.h>

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace VEQ {

class IPolicyRefreshSource;
class PolicyRefresher;

class ConfigPolicyAgent : public IConfigAgent {
public:
    static ConfigPolicyAgent* GetInstance();

    // The policy used when there is no policy file: apps and the embedded plugins on both sides,
    // no MQTT, no packages.
    static const char* DefaultPolicyText();
    static Json::Value DefaultPolicy();

    ConfigPolicyAgent(const ConfigPolicyAgent&) = delete;
    ConfigPolicyAgent& operator=(const ConfigPolicyAgent&) = delete;
    ~ConfigPolicyAgent() override;

    bool GetDeviceConfigPolicy(DeviceConfigPolicy& policy) override;
    std::wstring GetConfigPolicy() override;
    // Fills policy from the document's "platform_policy" object (see PlatformPolicy::Load).
    // False, and policy untouched, when the document has no such object.
    bool LoadPlatformPolicy(PlatformPolicy& policy) override;
    // Fills policy from the document's "mqtt" object; empty fields when there is none.
    bool GetMqttPolicy(MqttPolicy& policy) override;

    // PolicyRefreshStatus::kNone while the agent has no refresh source.
    int32_t GetRefreshStatus() override;

    // Refreshes from source on each request on the bus (topic 4, state 24), one refresh at a
    // time on a thread of the agent's (see PolicyRefresher). Replaces the source set before, after
    // its refresh has ended; null: no more refreshes.
    void SetRefreshSource(std::shared_ptr<IPolicyRefreshSource> source);
    // The outcome of a refresh made by another agent (see ExternalRefreshSource). False when no
    // such refresh is running.
    bool ReportRefreshStatus(int32_t status);

    // Fills policy from the document's "update_policy" object; an empty policy when there is none,
    // and then false.
    bool GetUpdatePolicy(UpdatePolicy& policy);
    // {"packages":[...]}: the policy's package entries as written, those only whose tags hold every
    // one of tags (see Package::HasTags). Null or empty tags: every package.
    Json::Value GetPackageDetailsInConfig(const std::vector<KeyValuePair>* tags);

    // Puts the JSON object in the file at path in force. False, with the reason logged and the
    // policy in force kept, for anything else (see PolicyFile::Read).
    bool LoadFromFile(const std::wstring& path);

    void SetPolicyDocument(const Json::Value& document);
    // Like SetPolicyDocument, but only when document differs from the one in force by value.
    // True when it was replaced.
    bool ReplacePolicyDocument(const Json::Value& document);
    // ReplacePolicyDocument, and when the document was replaced, the announcement of the change on
    // the bus (topic 4, state 15), made on the caller's thread.
    bool ApplyPolicyDocument(const Json::Value& document);
    // A copy of the document in force; null before the first one.
    Json::Value GetPolicyDocument() const;

protected:
    ConfigPolicyAgent() = default;

private:
    // A copy of the document's member name; null when absent or when there is no document.
    Json::Value Member(const char* name) const;

    mutable std::mutex mutex_;  // guards document_
    Json::Value document_;
    std::mutex refresherMutex_;  // guards refresher_; never held while a refresher stops
    std::shared_ptr<PolicyRefresher> refresher_;
    std::mutex sourceMutex_;     // serialises SetRefreshSource
};

}  // namespace VEQ
