#include "commands/GetDeviceConfigCommand.h"

#include "platform/agents/AgentFactory.h"
#include "platform/bus/VEQNotificationData.h"
#include "platform/bus/VEQPublisherSubscriber.h"
#include "platform/policy/IConfigAgent.h"
#include "platform/string/String.h"
#include "platform/util/CoreUtility.h"

#include <json/json.h>

#include <algorithm>
#include <chrono>
#include <exception>
#include <sstream>
#include <thread>

namespace VEQ {
namespace {

constexpr const wchar_t* kGetResponse = L"VEQ::GetDeviceConfigCommand::GetResponse";
constexpr const wchar_t* kFetch = L"VEQ::GetDeviceConfigCommand::ProcessConfigPolicyFetch";

constexpr int kConfigTopic = 4;
constexpr int kRefreshRequestState = 24;
constexpr int32_t kStillRunning = -1;
constexpr int32_t kSucceeded = 0;

// What the agent's refresh status means to the client. A status not listed ends the wait with no
// outcome at all.
struct RefreshOutcome {
    int32_t status;
    const char* code;
    const char* description;
};
constexpr RefreshOutcome kOutcomes[] = {
    {0, "0", "success"},
    {11, "11", "certExpired"},
    {12, "12", "unRegistered"},
    {13, "13", "configApiFailed"},
    {14, "14", "timeThreasholdNotMet"},
};
constexpr RefreshOutcome kUnregistered = kOutcomes[2];

// A malformed payload is no error: the request is served as a plain read.
bool ParsePayload(const std::string& text, Json::Value& value, std::string& errors)
{
    Json::CharReaderBuilder reader;
    std::istringstream stream(text);
    try {
        return Json::parseFromStream(reader, stream, &value, &errors);
    } catch (const Json::Exception& error) {
        errors = error.what();  // nested deeper than the reader takes
        return false;
    }
}

// Only a scalar can say "true"; the boolean true and the text in any letter case do, 1 does not.
bool AsksForRefresh(const Json::Value& payload)
{
    if (!payload.isObject() || !payload.isMember("refreshConfig")) {
        return false;
    }
    const Json::Value& value = payload["refreshConfig"];
    if (!value.isString() && !value.isBool() && !value.isNumeric()) {
        return false;
    }
    return String::ToLower(value.asString()) == "true";
}

}  // namespace

GetDeviceConfigCommand::GetDeviceConfigCommand(Log& log)
    : GetDeviceConfigCommand(log, kDefaultPollIntervalMs, kDefaultFetchTimeoutMs)
{
}

// An interval below 1 ms would never let the time limit pass.
GetDeviceConfigCommand::GetDeviceConfigCommand(Log& log, int32_t pollIntervalMs, int32_t fetchTimeoutMs)
    : BaseCommandHandler(log),
      m_pollIntervalMs(std::max<int32_t>(pollIntervalMs, 1)),
      m_fetchTimeoutMs(fetchTimeoutMs),
      commandNames_{kCommandName}
{
}

BaseCommandHandler::Result GetDeviceConfigCommand::GetResponse(const ClientRequest& request, bool& /*pendingOperation*/)
{
    Result result;
    try {
        const Message& message = request.getMessage();
        if (!Supports(message.notification.command)) {
            return NotSupported(result, message, kGetResponse);
        }
        if (message.notification.command != kCommandName) {
            return result;
        }
        Json::Value payload;
        std::string errors;
        bool refresh = false;
        if (!ParsePayload(message.notification.payload, payload, errors)) {
            log_->d(L"%s: Failed to parse JSON data for the cmd %s: %S", kGetResponse, message.notification.command,
                    errors);
        } else {
            refresh = AsksForRefresh(payload);
        }
        if (refresh) {
            log_->d(L"%s: %s cmd has refresh config enabled. requester ID : %s", kGetResponse,
                    message.notification.command, request.getClientContext().extensionId);
        }
        const GetDeviceConfigResponse response = ProcessConfigPolicyFetch(refresh);
        // A failed refresh is an outcome, told in the payload; the command itself succeeded.
        result = Succeeded(message, kReplyCommand, GetDeviceConfigResponse::Serialize(response));
    } catch (const std::exception& error) {
        log_->e(L"%s: catch exception:%s", kGetResponse, error.what());
    } catch (...) {
        log_->e(L"%s: Exception: %s", kGetResponse, "unknown exception");
    }
    return result;
}

GetDeviceConfigResponse GetDeviceConfigCommand::ProcessConfigPolicyFetch(bool refresh)
{
    GetDeviceConfigResponse response;
    const std::shared_ptr<IConfigAgent> agent = AgentFactory::GetInstance()->GetConfigPolicyAgent();
    if (!agent) {
        return response;
    }
    // Read first, so that the reply carries the stored policy whatever becomes of the refresh.
    std::wstring policy = agent->GetConfigPolicy();
    if (!refresh) {
        response.configPolicy = String::UTF16ToUTF8(policy);
        return response;
    }
    if (!CoreUtility::GetInstance()->IsDeviceRegistered()) {
        log_->i(L"%s: Device is not registered, skip config fetch", kFetch);
        response.responseCode = kUnregistered.code;
        response.responseDescription = kUnregistered.description;
        response.configPolicy = String::UTF16ToUTF8(policy);
        return response;
    }
    {
        VEQNotificationData request(kConfigTopic, kRefreshRequestState, L"");
        if (VEQPublisherSubscriber* bus = VEQPublisherSubscriber::GetInstance()) {
            bus->Notify(request, L"");
        }
    }

    int32_t elapsed = 0;
    int32_t poll = 0;
    while (m_fetchTimeoutMs > 0) {
        std::this_thread::sleep_for(std::chrono::milliseconds(m_pollIntervalMs));  // steady clock
        if (IsStopped()) {
            log_->i(L"%s: Service stop detected during config fetch", kFetch);
            break;
        }
        ++poll;
        const int32_t status = agent->GetRefreshStatus();
        if (status == kStillRunning) {
            elapsed += m_pollIntervalMs;
            log_->i(L"%s: elapsed : %d, poll : %d", kFetch, elapsed, poll);
            if (elapsed < m_fetchTimeoutMs) {
                continue;
            }
            break;
        }
        const auto* outcome = std::find_if(std::begin(kOutcomes), std::end(kOutcomes),
                                           [status](const RefreshOutcome& row) { return row.status == status; });
        if (outcome != std::end(kOutcomes)) {
            response.responseCode = outcome->code;
            response.responseDescription = outcome->description;
            if (status == kSucceeded) {
                log_->d(L"%s:configFecth succeeded, update the config in repsonse, time elapsed : %d, poll : %d",
                        kFetch, elapsed, poll);
                policy = agent->GetConfigPolicy();
            }
        }
        break;
    }
    if (elapsed >= m_fetchTimeoutMs) {
        response.responseCode = m_timeoutCode;
        response.responseDescription = m_timeoutDescription;
    }
    response.configPolicy = String::UTF16ToUTF8(policy);
    return response;
}

const std::vector<std::string>& GetDeviceConfigCommand::GetSupportedCommandNames()
{
    return commandNames_;
}

ElevationType GetDeviceConfigCommand::GetSupportedContext()
{
    return ElevationType::Both;
}

BaseCommandHandler::ExtensionType GetDeviceConfigCommand::GetSupportedExtensionType()
{
    return ExtensionType::Both;
}

}  // namespace VEQ
