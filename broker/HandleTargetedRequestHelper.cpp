#include "broker/HandleTargetedRequestHelper.h"

namespace VEQ {

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
