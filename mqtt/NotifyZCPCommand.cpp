#include "mqtt/NotifyZCPCommand.h"

#include "platform/agents/AgentFactory.h"
#include "platform/bus/VEQNotificationData.h"
#include "platform/mqtt/INotificationAgent.h"
#include "platform/mqtt/NotificationAlertUtility.h"
#include "platform/string/String.h"

#include <json/json.h>

#include <exception>
#include <memory>
#include <sstream>

namespace VEQ {
namespace {

const char* ResultText(int32_t status)
{
    switch (status) {
    case INotificationAgent::kPublished:
        return "Success";
    case INotificationAgent::kNotConnected:
        return "MQTTNotConnected";
    case INotificationAgent::kQueued:
        return "MQTTMessageQueued";
    case INotificationAgent::kAgentException:
        return "ExceptionWasThrown";
    default:  // -1, disabled by configuration, among them
        return "GeneralError";
    }
}

}  // namespace

NotifyZCPCommand::NotifyZCPCommand(Log& log) : BaseCommandHandler(log), commandNames_{kCommandName} {}

BaseCommandHandler::Result NotifyZCPCommand::GetResponse(const ClientRequest& request, bool& /*pendingOperation*/)
{
    static constexpr const wchar_t* kFunction = L"VEQ::NotifyZCPCommand::GetResponse";
    const Message& message = request.getMessage();
    Result result;
    try {
        if (!Supports(message.notification.command)) {
            result.isSuccess = false;
            result.message.statusText = kNotSupportedText;
            if (log_ != nullptr) {
                log_->d(L"%s: ProcessMessageData error command is not supported", kFunction);
            }
        } else {
            result.message.statusCode = 0;
            result.message.guid = message.guid;
            result.message.notification.command = kReplyCommand;
            Json::Value root;
            Json::CharReaderBuilder builder;
            std::istringstream stream(message.notification.payload);
            std::string errors;
            if (Json::parseFromStream(builder, stream, &root, &errors)) {
                const std::wstring notify = String::UTF8ToUTF16(root["notify"].asString());
                const std::string paramText = root["param"].asCString();
                // A param that is not JSON travels as null: the alert itself still goes.
                Json::Value param;
                std::istringstream paramStream(paramText);
                Json::parseFromStream(builder, paramStream, &param, &errors);
                VEQNotificationData data;
                NotificationAlertUtility::ConstructZCPPayload(notify, param, data);
                auto agent = AgentFactory::GetInstance()->GetNotificationAgent();
                if (agent) {
                    Json::Value reply;
                    reply["result"] = ResultText(agent->Publish(data, kTopic));
                    Json::StreamWriterBuilder writer;
                    writer["indentation"] = "";
                    result.message.notification.payload = Json::writeString(writer, reply);
                    result.isSuccess = true;
                }
            }
        }
    } catch (const std::exception& error) {
        result.isSuccess = false;
        result.message.statusText = std::string("Exception catched:") + error.what();
        if (log_ != nullptr) {
            log_->e(L"%s: catch exception:%s", kFunction, error.what());
        }
    }
    if (!result.isSuccess) {
        result.message.statusCode = kNotSupportedCode;
        result.message.guid = message.guid;
    }
    return result;
}

const std::vector<std::string>& NotifyZCPCommand::GetSupportedCommandNames()
{
    return commandNames_;
}

ElevationType NotifyZCPCommand::GetSupportedContext()
{
    return ElevationType::Both;
}

BaseCommandHandler::ExtensionType NotifyZCPCommand::GetSupportedExtensionType()
{
    return ExtensionType::Plugin;
}

}  // namespace VEQ
