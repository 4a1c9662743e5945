#pragma once
// The client side of the service's control socket (sdk/ControlProtocol.h).

#include "platform/transport/Result.h"
#include "sdk/ControlEvent.h"
#include "sdk/DataRoot.h"
#include "sdk/Error.h"

#include <chrono>
#include <string>

namespace Veq::Sdk {

class ControlClient {
public:
    using Result = Tavrin::Veq::ClientBroker::Result;

    ControlClient(DataRoot root, std::chrono::milliseconds timeout);

    // Sends "Publish-Event" and fills result with the service's answer. An error only when no
    // answer came; whether the service took the event is result.isSuccess.
    Error Publish(const ControlEvent& event, Result& result);
    // Sends "List-Plugins": the result's payload is the JSON object of ControlProtocol.h.
    Error ListPlugins(Result& result);
    // Sends "Collect-Diagnostics" for one plugin (pluginId not empty) or all running ones.
    Error CollectDiagnostics(const std::string& pluginId, const std::string& folder, Result& result);
    // Sends "Set-Registration": the device is (not) registered with the back end.
    Error SetRegistration(bool registered, Result& result);
    // Sends "Set-RefreshStatus": how a policy refresh made by another agent ended.
    Error SetRefreshStatus(int status, Result& result);

    const std::string& SocketPath() const { return path_; }
    // The request's payload for event.
    static std::string EncodeEvent(const ControlEvent& event);
    // Why the control socket at path (under root) cannot be used, in words for the user: the
    // service not running, or a user other than the service's. None when something listens.
    static Error CheckReachable(const DataRoot& root, const std::string& path);

private:
    Error Exchange(const char* command, const std::string& payload, Result& result);

    const DataRoot root_;
    const std::chrono::milliseconds timeout_;
    const std::string path_;
};

}  // namespace Veq::Sdk
