#include "mqtt/ExtensionMqttBroker.h"

#include "platform/agents/AgentFactory.h"
#include "platform/bus/VEQNotificationData.h"
#include "platform/fs/utility.h"
#include "platform/log/Log.h"
#include "platform/mqtt/INotificationAgent.h"
#include "platform/policy/IConfigAgent.h"
#include "platform/string/String.h"
#include "platform/sync/EventSet.h"

#include <algorithm>
#include <list>
#include <mutex>
#include <unistd.h>

namespace VEQ {
namespace {

using AgentInterface::Notification::MqttConnectionRequestParams;
using AgentInterface::Notification::MqttRequestType;
using State = AgentInterface::Notification::MqttConnectionState;

constexpr size_t kServiceStopEvent = 0;  // tested first
constexpr size_t kConnectionStateEvent = 1;
constexpr int32_t kRequestValue = 5;
constexpr int kLogLevel = 4;

struct Shared {
    std::mutex listMutex;  // also held across the disconnect request
    std::list<std::string> enabledIds;
    EventSet<2> events;
    Log log;
};

Shared& State_()
{
    static auto* shared = new Shared();  // used by broker threads that may outlive static destruction
    return *shared;
}

Log& log()
{
    return State_().log;
}

unsigned long ThreadId()
{
    return static_cast<unsigned long>(::gettid());
}

const wchar_t* Context(ElevationType elevation)
{
    return elevation == ElevationType::User ? L"User" : L"System";
}

MqttPolicy ReadPolicy(const std::shared_ptr<IConfigAgent>& agent)
{
    MqttPolicy policy;
    if (agent) {
        agent->GetMqttPolicy(policy);
    }
    return policy;
}

MqttConnectionRequestParams Params(MqttRequestType type, const std::string& connectionId)
{
    MqttConnectionRequestParams params;
    params.requestType = static_cast<int32_t>(type);
    params.clientId = String::UTF8ToUTF16(connectionId);
    params.threadId = static_cast<uint32_t>(ThreadId());
    params.requestValue = kRequestValue;
    params.connectFlag = type == MqttRequestType::Connect;
    if (type == MqttRequestType::Connect) {
        params.statusCallback = &ExtensionMqttBroker::MqttConnectionStatusCallback;
    }
    return params;
}

}  // namespace

void ExtensionMqttBroker::InitLog()
{
    static std::once_flag once;
    std::call_once(once, [] { utility::InitLog(log(), L"ExtensionMqttBroker.log", kLogLevel); });
}

// After this no caller should be waiting for the connection: the stop event ends every wait at once.
void ExtensionMqttBroker::UnInit()
{
    State_().events.Set(kServiceStopEvent);
}

std::string ExtensionMqttBroker::ConnectionId(const std::string& extensionId, ElevationType elevation)
{
    return extensionId + "_" + std::to_string(static_cast<int32_t>(elevation));
}

std::string ExtensionMqttBroker::ListKey(const std::string& extensionId, ElevationType elevation)
{
    return elevation == ElevationType::User ? extensionId + "_user" : extensionId;
}

bool ExtensionMqttBroker::IsMqttAllowedByConfigPolicy()
{
    const MqttPolicy policy = ReadPolicy(AgentFactory::GetInstance()->GetConfigPolicyAgent());
    return !policy.mqttFeatures.empty() && policy.mqttFeatures.find(L"none") == std::wstring::npos &&
           policy.mqttConnectType != L"0";
}

bool ExtensionMqttBroker::IsMqttConnectingOnDemand()
{
    auto agent = AgentFactory::GetInstance()->GetConfigPolicyAgent();
    if (!agent) {
        log().d(L"%s : Config agent is null", L"VEQ::ExtensionMqttBroker::IsMqttConnectingOnDemand");
    }
    return ReadPolicy(agent).mqttConnectType == L"OnDemand";
}

bool ExtensionMqttBroker::IsMqttConnectingNRT()
{
    auto agent = AgentFactory::GetInstance()->GetConfigPolicyAgent();
    if (!agent) {
        log().d(L"%s : Config agent is null", L"VEQ::ExtensionMqttBroker::IsMqttConnectingNRT");
    }
    return ReadPolicy(agent).mqttConnectType == L"NRT";
}

ExtensionMqttBrokerResult ExtensionMqttBroker::EnableMqttConnection(const std::string& extensionId,
                                                                    ElevationType elevation)
{
    const wchar_t* function = L"VEQ::ExtensionMqttBroker::EnableMqttConnection";
    log().d(L"%s : [TID:%lu]  Enable called for extension id: %s, context: %s", function, ThreadId(), extensionId,
            Context(elevation));
    if (!IsMqttAllowedByConfigPolicy()) {
        log().e(L"%s : [TID:%lu] Not allowed by VEQ config policy", function, ThreadId());
        return ExtensionMqttBrokerResult::NotAllowed;
    }
    ExtensionMqttBrokerResult result = ExtensionMqttBrokerResult::Success;
    if (IsMqttConnectingOnDemand()) {
        result = RequestMqttConnection(ConnectionId(extensionId, elevation), false);
        AddExtensionIdToList(extensionId, elevation);  // a failed connect still leaves a claim
    } else if (IsMqttConnectingNRT()) {
        result = RequestMqttConnection(ConnectionId(extensionId, elevation), false);
    } else {
        auto agent = AgentFactory::GetInstance()->GetNotificationAgent();
        result = agent && agent->GetConnectionState() == State::Connected ? ExtensionMqttBrokerResult::Success
                                                                         : ExtensionMqttBrokerResult::NotConnected;
    }
    log().d(L"%s : [TID:%lu] Exit", function, ThreadId());
    return result;
}

ExtensionMqttBrokerResult ExtensionMqttBroker::DisableMqttConnection(const std::string& extensionId,
                                                                     ElevationType elevation)
{
    const wchar_t* function = L"VEQ::ExtensionMqttBroker::DisableMqttConnection";
    log().d(L"%s : [TID:%lu] Disable called for extension id: %s, context: %s", function, ThreadId(), extensionId,
            Context(elevation));
    auto agent = AgentFactory::GetInstance()->GetNotificationAgent();
    if (!agent) {
        log().e(L"%s : [TID:%lu] Unable to access MQTT features", function, ThreadId());
        return ExtensionMqttBrokerResult::UnableToAccess;
    }
    if (!IsMqttAllowedByConfigPolicy()) {
        log().e(L"%s : [TID:%lu]  Not allowed by VEQ config policy", function, ThreadId());
        return ExtensionMqttBrokerResult::NotAllowed;
    }
    if (!IsMqttConnectingOnDemand()) {
        log().d(L"%s : [TID:%lu] Success", function, ThreadId());
        return ExtensionMqttBrokerResult::Success;  // NRT and always-on connections stay up
    }
    RemoveExtensionIdFromList(extensionId, elevation);
    {
        std::lock_guard<std::mutex> lock(State_().listMutex);
        if (State_().enabledIds.empty()) {
            auto params = Params(MqttRequestType::Disconnect, ConnectionId(extensionId, elevation));
            if (agent->Disconnect(params) == State::Disconnected) {
                log().d(L"%s : [TID:%lu] Mqtt Disconnected", function, ThreadId());
            }
        }
    }
    log().d(L"%s : [TID:%lu] Success", function, ThreadId());
    return ExtensionMqttBrokerResult::Success;
}

ExtensionMqttBrokerResult ExtensionMqttBroker::PublishMqttMessage(const std::string& extensionId,
                                                                  ElevationType elevation, const std::wstring& topic,
                                                                  const std::wstring& payload, uint32_t& status)
{
    const wchar_t* function = L"VEQ::ExtensionMqttBroker::PublishMqttMessage";
    log().d(L"%s : [TID:%lu] called for extension id: %s, context: %s topic: %s", function, ThreadId(), extensionId,
            Context(elevation), topic);
    if (!IsMqttAllowedByConfigPolicy()) {
        log().e(L"%s : [TID:%lu]  Not allowed by VEQ config policy", function, ThreadId());
        return ExtensionMqttBrokerResult::NotAllowed;
    }
    auto agent = AgentFactory::GetInstance()->GetNotificationAgent();
    if (!agent) {
        log().e(L"%s : [TID:%lu] Unable to access MQTT features", function, ThreadId());
        return ExtensionMqttBrokerResult::UnableToAccess;
    }
    // The publish is attempted whatever this says: the agent's status tells the truth.
    RequestMqttConnection(ConnectionId(extensionId, elevation), true);
    VEQNotificationData data(L"", payload, true);
    data.setPublishFlag(1);
    log().d(L"%s : [TID:%lu] Invoking Notify ZCP", function, ThreadId());
    status = static_cast<uint32_t>(agent->Publish(data, topic));
    log().d(L"%s : [TID:%lu] Success", function, ThreadId());
    return ExtensionMqttBrokerResult::Success;
}

ExtensionMqttBrokerResult ExtensionMqttBroker::RequestMqttConnection(const std::string& connectionId,
                                                                     bool ignoreTimeout)
{
    const wchar_t* function = L"VEQ::ExtensionMqttBroker::RequestMqttConnection";
    auto agent = AgentFactory::GetInstance()->GetNotificationAgent();
    if (!agent) {
        log().e(L"%s : [TID:%lu] Unable to access MQTT features", function, ThreadId());
        return ExtensionMqttBrokerResult::UnableToAccess;
    }
    if (agent->GetConnectionState() == State::Connected) {
        return ExtensionMqttBrokerResult::Success;
    }
    log().d(L"%s :[TID:%lu]  Trying to establish MQTT connection, id:%s", function, ThreadId(), connectionId);
    auto params = Params(MqttRequestType::Connect, connectionId);
    State_().events.Reset(kConnectionStateEvent);
    const State state = agent->RequestForMqttConnection(params);
    log().d(L"%s : connection status from RequestForMqttConnection : %d", function, state);
    switch (state) {
    case State::Connected:
        log().d(L"%s : [TID:%lu] Mqtt connected successfully", function, ThreadId());
        return ExtensionMqttBrokerResult::Success;
    case State::NotReady:
        log().d(L"%s : [TID:%lu] Notification Agent is not yet ready", function, ThreadId());
        return ExtensionMqttBrokerResult::UnableToAccess;
    case State::NotSupportedByPolicy:
        log().d(L"%s : [TID:%lu] Mqtt features not supported in config policy", function, ThreadId());
        return ExtensionMqttBrokerResult::NotAllowed;
    case State::Connecting:
        break;
    default:
        return ExtensionMqttBrokerResult::Success;
    }
    log().d(L"%s : [TID:%lu] Waiting for connection state event", function, ThreadId());
    // Only a change is signalled, not which: the caller learns the outcome from its publish.
    const int ended = State_().events.WaitAny(kConnectionWait);
    if (ended == static_cast<int>(kServiceStopEvent)) {
        log().d(L"%s :[TID:%lu]  Received ServiceStop event, ConnectionStatus : %d", function, ThreadId(),
                agent->GetConnectionState());
        return ExtensionMqttBrokerResult::Success;
    }
    if (ended == static_cast<int>(kConnectionStateEvent)) {
        log().d(L"%s :[TID:%lu]  Connected Successfully, ConnectionStatus : %d", function, ThreadId(),
                agent->GetConnectionState());
        return ExtensionMqttBrokerResult::Success;
    }
    log().d(L"%s :[TID:%lu]  MQTT callback timeout, ConnectionStatus : %d", function, ThreadId(),
            agent->GetConnectionState());
    return ignoreTimeout ? ExtensionMqttBrokerResult::Success : ExtensionMqttBrokerResult::NotConnected;
}

void ExtensionMqttBroker::MqttConnectionStatusCallback(MqttConnectionState state)
{
    const wchar_t* function = L"VEQ::ExtensionMqttBroker::MqttConnectionStatusCallback";
    log().d(L"%s : [TID:%lu]  connection state : %d", function, ThreadId(), state);
    if (state == State::ServiceStopping) {
        State_().events.Set(kServiceStopEvent);
        log().d(L"%s : [TID:%lu]  Received service stop event", function, ThreadId());
    } else {
        State_().events.Set(kConnectionStateEvent);
    }
}

void ExtensionMqttBroker::AddExtensionIdToList(const std::string& extensionId, ElevationType elevation)
{
    std::lock_guard<std::mutex> lock(State_().listMutex);
    auto& ids = State_().enabledIds;
    const std::string key = ListKey(extensionId, elevation);
    if (std::find(ids.begin(), ids.end(), key) == ids.end()) {
        ids.push_back(key);
        log().d(L"%s : Added extension id: %s, context: %s to enabled ids list",
                L"VEQ::ExtensionMqttBroker::AddExtensionIdToList", extensionId, Context(elevation));
    }
}

void ExtensionMqttBroker::RemoveExtensionIdFromList(const std::string& extensionId, ElevationType elevation)
{
    std::lock_guard<std::mutex> lock(State_().listMutex);
    auto& ids = State_().enabledIds;
    const std::string key = ListKey(extensionId, elevation);
    if (std::find(ids.begin(), ids.end(), key) != ids.end()) {
        ids.remove(key);
        log().d(L"%s : Removed extension id: %s, context: %s from enabled ids list",
                L"VEQ::ExtensionMqttBroker::RemoveExtensionIdFromList", extensionId, Context(elevation));
    }
}

size_t ExtensionMqttBroker::ClaimCount()
{
    std::lock_guard<std::mutex> lock(State_().listMutex);
    return State_().enabledIds.size();
}

void ExtensionMqttBroker::ResetForTests()
{
    {
        std::lock_guard<std::mutex> lock(State_().listMutex);
        State_().enabledIds.clear();
    }
    State_().events.Reset(kServiceStopEvent);
    State_().events.Reset(kConnectionStateEvent);
}

}  // namespace VEQ
