#include "broker/GetDiagnosticsCommandHandler.h"

#include "broker/BrokerContext.h"
#include "broker/ClientContext.h"
#include "broker/HandleTargetedRequestHelper.h"
#include "broker/ReplyJson.h"
#include "module/ExtensionModule.h"
#include "platform/fs/utility.h"
#include "platform/log/Log.h"
#include "platform/string/String.h"
#include "platform/util/CGuid.h"

#include <json/json.h>

#include <mutex>

namespace VEQ {
namespace {

constexpr const wchar_t* kClass = L"VEQ::GetDiagnosticsCommandHandler";
// The code a plugin's side of the connection gives when its own wait ran out.
constexpr int32_t kPluginTimeoutCode = 101;

Log& HandlerLog()
{
    static Log log;
    static std::once_flag opened;
    std::call_once(opened, [] { utility::InitLog(log, L"GetDiagnosticsCommandHandler.log", 4); });
    return log;
}

bool IsTimeout(int32_t code)
{
    return code == HandleTargetedRequestHelper::kTargetNotFoundCode || code == kPluginTimeoutCode;
}

}  // namespace

bool GetDiagnosticsCommandHandler::TryResolveGetDiagnosticsElevations(const std::wstring pluginId,
                                                                      std::wstring& canonicalId,
                                                                      std::vector<ElevationType>& elevations)
{
    Log& log = HandlerLog();
    PluginManager* plugins = ExtensionModule::GetInstance()->GetPluginManager();
    const bool resolved = plugins != nullptr && plugins->TryResolveGetDiagnosticsElevations(pluginId, canonicalId, elevations);
    log.d(L"%s: pluginId=%s resolved=%d canonicalId=%s elevations=%d", kClass, pluginId, resolved ? 1 : 0, canonicalId,
          elevations.size());
    return resolved;
}

GetDiagnosticsCommandHandler::DiagnosticsOperationResult GetDiagnosticsCommandHandler::SendDiagnosticCommandToTargets(
    const std::wstring pluginId, const std::wstring folder, ElevationType elevation)
{
    Log& log = HandlerLog();
    log.d(L"%s: start pluginId=%s elevation=%d folder=%s", kClass, pluginId, static_cast<int>(elevation), folder);
    DiagnosticsOperationResult result;
    result.targetId = pluginId;
    result.folder = folder;

    HandleTargetedRequestHelper::Message message;
    message.guid = String::UTF16ToUTF8(Utility::CGuid::NewGuid(true));
    message.notification.command = kCommand;
    message.notification.targetId = String::UTF16ToUTF8(pluginId);
    Json::Value payload(Json::objectValue);
    payload["folder"] = String::UTF16ToUTF8(folder);
    Json::StreamWriterBuilder writer;
    writer["indentation"] = "";
    writer["emitUTF8"] = true;
    message.notification.payload = Json::writeString(writer, payload);
    log.d(L"%s: sending command=%s targetId=%s guid=%s", kClass, message.notification.command,
          message.notification.targetId, message.guid);

    // The plugin sees the service itself as the sender.
    BrokerContext brokerContext;
    brokerContext.setElevationType(elevation);
    brokerContext.setExtensionType(Tavrin::Veq::ClientBroker::ExtensionType::App);
    ClientContext clientContext;
    clientContext.extensionId = "VEQ";
    clientContext.extensionName = "VEQDiagnostics";

    HandleTargetedRequestHelper helper(&log);
    HandleTargetedRequestHelper::Result reply;
    PluginInstanceDetails details;
    const bool routed = helper.HandleTargetedPluginRequest(message, reply, brokerContext, clientContext, &details,
                                                           kDefaultGetDiagnosticsTimeoutSeconds, elevation);
    const int32_t code = reply.message.statusCode;
    if (routed) {
        result.delivered = true;
        result.timeout = IsTimeout(code);
        result.success = false;
        if (!TryPopulateFromPluginResponseJson(reply.message.notification.payload, result)) {
            log.d(L"%s: plugin response payload could not be parsed; keeping default status=failure. targetId=%s", kClass,
                  pluginId);
        }
    } else if (IsTimeout(code)) {
        result.timeout = true;
        log.e(L"%s request timed out waiting for plugin response targetId=%s elevation=%d timeoutMs=%d", kClass, pluginId,
              static_cast<int>(elevation), kDefaultGetDiagnosticsTimeoutSeconds);
    } else {
        helper.BuildTargetErrorResult(message, details, reply, HandleTargetedRequestHelper::kBrokerSource);
        log.e(L"%s the command couldn't be sent error: %s , elevation : %d", kClass, reply.message.statusText,
              static_cast<int>(elevation));
    }
    log.d(L"%s: final diagnostics result targetId=%s delivered=%d timeout=%d success=%d deleteFilesOnUpload=%d", kClass,
          pluginId, result.delivered ? 1 : 0, result.timeout ? 1 : 0, result.success ? 1 : 0,
          result.deleteFilesOnUpload ? 1 : 0);
    return result;
}

bool GetDiagnosticsCommandHandler::TryPopulateFromPluginResponseJson(const std::string payload,
                                                                     DiagnosticsOperationResult& result)
{
    Log& log = HandlerLog();
    log.d(L"%s: plugin raw response payload: %s", kClass, payload);
    if (payload.empty()) {
        log.d(L"%s: plugin response payload is empty; keeping default status=failure. targetId=%s", kClass,
              result.targetId);
        return false;
    }
    Json::Value reply;
    try {
        if (!ReplyJson::Parse(payload, reply)) {
            return false;
        }
    } catch (const Json::Exception&) {
        return false;  // nested deeper than the reader takes
    }
    bool deleteFilesOnUpload = true;
    bool success = result.success;
    if (reply.isObject()) {
        const Json::Value& wish = reply["deleteFilesOnUpload"];
        if (wish.isBool()) {
            deleteFilesOnUpload = wish.asBool();
        } else if (wish.isString()) {
            deleteFilesOnUpload = String::CaseInsesitiveEqual(String::UTF8ToUTF16(wish.asString()), L"true");
        }
        const Json::Value& status = reply["status"];
        if (status.isString()) {
            success = String::CaseInsesitiveEqual(String::UTF8ToUTF16(status.asString()), L"success");
        }
    }
    result.deleteFilesOnUpload = deleteFilesOnUpload;
    result.success = success;
    return true;
}

}  // namespace VEQ
