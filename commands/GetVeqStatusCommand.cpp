#include "commands/GetVeqStatusCommand.h"

#include "commands/GetVeqStatusResponse.h"
#include "platform/device/VeqInfo.h"
#include "platform/http/EpUrlProvider.h"
#include "platform/policy/ConfigPolicyAgent.h"
#include "platform/policy/PlatformPolicy.h"
#include "platform/string/String.h"
#include "platform/util/CoreUtility.h"

#include <exception>

namespace VEQ {

GetVeqStatusCommand::GetVeqStatusCommand(Log& log) : BaseCommandHandler(log), commandNames_{kCommandName} {}

BaseCommandHandler::Result GetVeqStatusCommand::GetResponse(const ClientRequest& request, bool& /*pendingOperation*/)
{
    static constexpr const wchar_t* kFunction = L"VEQ::GetVeqStatusCommand::GetResponse";
    Result result;
    try {
        const Message& message = request.getMessage();
        if (!Supports(message.notification.command)) {
            return NotSupported(result, message, kFunction);
        }
        if (message.notification.command != kCommandName) {
            return result;
        }
        // Success is settled first: nothing below is checked, a missing value is sent empty.
        result = Succeeded(message, kReplyCommand, "");

        GetVeqStatusResponse response;
        DeviceIdentity identity;
        CoreUtility::GetInstance()->GetDeviceIdentity(identity);
        response.deviceId = String::UTF16ToUTF8(identity.deviceId);
        response.version = String::UTF16ToUTF8(VeqInfo::GetInstance()->GetVersion());
        std::wstring realm;
        EpUrlProvider::GetInstance()->GetRealm(realm);
        response.tenantName = String::UTF16ToUTF8(realm);
        PlatformPolicy policy(nullptr);
        ConfigPolicyAgent::GetInstance()->LoadPlatformPolicy(policy);
        response.enterpriseAuthBaseUri = String::UTF16ToUTF8(policy.enterprise_auth_baseuri);
        response.consumerAuthBaseUri = String::UTF16ToUTF8(policy.consumer_auth_baseuri);
        response.apiBaseUri = String::UTF16ToUTF8(policy.api_baseuri);

        result.message.notification.payload = GetVeqStatusResponse::Serialize(response);
    } catch (const std::exception& error) {
        if (log_ != nullptr) {
            log_->e(L"%s: Exception: %s", kFunction, error.what());
        }
    }
    return result;
}

const std::vector<std::string>& GetVeqStatusCommand::GetSupportedCommandNames()
{
    return commandNames_;
}

ElevationType GetVeqStatusCommand::GetSupportedContext()
{
    return ElevationType::Both;
}

BaseCommandHandler::ExtensionType GetVeqStatusCommand::GetSupportedExtensionType()
{
    return ExtensionType::Both;
}

}  // namespace VEQ
