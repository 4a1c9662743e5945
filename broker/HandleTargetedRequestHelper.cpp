#include "broker/HandleTargetedRequestHelper.h"

#include "module/ExtensionModule.h"
#include "plugins/PluginManager.h"
#include "platform/string/String.h"

#include <chrono>
#include <future>
#include <utility>

namespace VEQ {
namespace {

// Replies from plugins carry the code of ExtensionType Plugin as a character, not its text.
const std::string kPluginKind(1, static_cast<char>(2));

struct Routed {
    bool taken = false;
    HandleTargetedRequestHelper::Result result;
};

// Runs route on a copy of message and waits timeoutMs for it; nullopt when it did not end in
// time. The task is still waited for when its future goes, as a route cannot be called back.
template <typename Route>
std::optional<Routed> RouteWithin(uint32_t timeoutMs, const HandleTargetedRequestHelper::Message& message, Route route)
{
    std::future<Routed> task = std::async(std::launch::async, [route, copy = message]() mutable {
        Routed routed;
        routed.taken = route(copy, routed.result);
        return routed;
    });
    if (task.wait_for(std::chrono::milliseconds(timeoutMs)) != std::future_status::ready) {
        return std::nullopt;
    }
    return task.get();
}

void TimedOut(const HandleTargetedRequestHelper::Message& message, HandleTargetedRequestHelper::Result& result,
              const char* text)
{
    result.message = message;
    result.isSuccess = false;
    result.message.statusCode = HandleTargetedRequestHelper::kTargetNotFoundCode;
    result.message.statusText = text;
    result.message.statusSource = HandleTargetedRequestHelper::kBrokerSource;
}

}  // namespace

void HandleTargetedRequestHelper::FillSenderFields(Message& message, const BrokerContext& brokerContext,
                                                   const ClientContext& clientContext)
{
    message.senderType = BrokerContext::getExtensionTypeAsString(brokerContext.getExtensionType());
    message.senderElevation = BrokerContext::getElevationTypeAsString(brokerContext.getElevationType());
    message.senderId = clientContext.extensionId;
    message.senderName = clientContext.extensionName;
}

bool HandleTargetedRequestHelper::SendToPlugin(const PluginInstanceDetails& details, ElevationType elevation,
                                               Message& message, Result& result)
{
    PluginManager* plugins = ExtensionModule::GetInstance()->GetPluginManager();
    return plugins != nullptr && plugins->NotifyPluginAndWaitForResponse(details.pluginId, elevation, message, result);
}

bool HandleTargetedRequestHelper::HandleTargetedPluginRequest(Message& message, Result& result,
                                                              const BrokerContext& brokerContext,
                                                              const ClientContext& clientContext,
                                                              PluginInstanceDetails* found, uint32_t timeoutMs,
                                                              ElevationType elevation)
{
    PluginInstanceDetails details;
    if (PluginManager* plugins = ExtensionModule::GetInstance()->GetPluginManager()) {
        plugins->GetTargetPluginInstanceDetails(message, details, elevation);
    }
    if (found != nullptr) {
        *found = details;
    }
    if (!details.isPluginFound || !details.isPluginRunning || !details.isCommandFound) {
        return false;
    }
    FillSenderFields(message, brokerContext, clientContext);
    bool delivered = false;
    if (timeoutMs > 0) {
        auto routed = RouteWithin(timeoutMs, message, [this, details, elevation](Message& copy, Result& reply) {
            return SendToPlugin(details, elevation, copy, reply);
        });
        if (!routed) {
            TimedOut(message, result, "Request timed out while routing message to plugin target");
            return false;
        }
        delivered = routed->taken;
        result = std::move(routed->result);
    } else {
        delivered = SendToPlugin(details, elevation, message, result);
    }
    if (!delivered) {
        result.isSuccess = false;
    }
    // The reply is the plugin's, whatever became of the command.
    result.message.guid = message.guid;
    result.message.senderType = kPluginKind;
    result.message.senderKind = kPluginKind;
    result.message.senderElevation = BrokerContext::getElevationTypeAsString(details.elevationType);
    result.message.senderId = details.pluginId;
    result.message.senderName = details.pluginName;
    return true;
}

bool HandleTargetedRequestHelper::SendToApp(Message& message, Result& result)
{
    return ExtensionModule::GetInstance()->GetAppExtensionManager().RouteTargetedMessageToApp(
        message.notification.targetId, message, result, nullptr);
}

bool HandleTargetedRequestHelper::HandleTargetedAppRequest(Message& message, Result& result,
                                                           const BrokerContext& brokerContext,
                                                           const ClientContext& clientContext, uint32_t timeoutMs)
{
    const wchar_t* function = L"VEQ::HandleTargetedRequestHelper::HandleTargetedAppRequest";
    const std::string& targetId = message.notification.targetId;
    if (targetId.empty()) {
        return false;
    }
    FillSenderFields(message, brokerContext, clientContext);
    const bool self = String::CaseInsesitiveEqual(String::UTF8ToUTF16(clientContext.extensionId),
                                                  String::UTF8ToUTF16(targetId));
    const std::wstring note = self ? L"(self-target)" : L"";
    if (log_ != nullptr) {
        log_->d(L"%s: attempting app routing for targetId: %s", function, targetId);
    }
    bool taken = false;
    if (timeoutMs > 0) {
        auto routed = RouteWithin(timeoutMs, message, [](Message& copy, Result& reply) { return SendToApp(copy, reply); });
        if (!routed) {
            TimedOut(message, result, "Request timed out while routing message to app target");
            if (log_ != nullptr) {
                log_->e(L"%s: app route timeout for targetId: %s timeoutMs=%d", function, targetId, timeoutMs);
            }
            return false;
        }
        taken = routed->taken;
        result = std::move(routed->result);
    } else {
        taken = SendToApp(message, result);
    }
    if (taken) {
        result.message.guid = message.guid;
        if (log_ != nullptr) {
            log_->d(L"%s: app route success for targetId: %s %s", function, targetId, note);
        }
        return true;
    }
    if (log_ != nullptr) {
        log_->e(L"%s: app route failed for targetId: %s %s", function, targetId, note);
    }
    return false;
}

void HandleTargetedRequestHelper::BuildTargetErrorResult(const Message& message, const PluginInstanceDetails& details,
                                                         Result& result, const std::string& source) const
{
    const auto& id = message.notification.targetId;
    const auto& name = message.notification.targetName;
    result.message = message;
    result.isSuccess = false;
    result.message.statusSource = source;
    if (!details.isPluginFound) {
        result.message.statusCode = kTargetNotFoundCode;
        result.message.statusText = "The target with targetId:" + id + " targetName:" + name +
                                    " was not found in the list of installed plugins or running apps";
    } else if (details.isPluginRunning) {
        result.message.statusCode = kCommandNotSupportedByTargetCode;
        result.message.statusText = "The command requested:" + message.notification.command +
                                    " is not supported by plugin with targetId : " + id + " targetName:" + name +
                                    ", and no app with this ID was found to handle the command";
    } else {
        result.message.statusCode = kTargetNotRunningCode;
        result.message.statusText = "The target with targetId:" + id + " targetName:" + name +
                                    " was found as a plugin but is not running, and no app with this ID was found";
    }
}

}  // namespace VEQ
