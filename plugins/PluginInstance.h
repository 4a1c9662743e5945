#pragma once
// One plugin running on one side: its broker, which comes first, and its host process, which
// connects back to the broker.

#include "broker/BrokerContext.h"
#include "plugins/IPluginHostProcess.h"
#include "plugins/PluginDetails.h"
#include "platform/log/Log.h"
#include "platform/transport/Message.h"
#include "platform/transport/Notification.h"
#include "platform/transport/Result.h"

#include <list>
#include <string>

namespace VEQ {

class PluginClientBroker;
class VEQNotificationData;

class PluginInstance {
public:
    using Message = Tavrin::Veq::ClientBroker::Message;
    using Notification = Tavrin::Veq::ClientBroker::Notification;
    using Result = Tavrin::Veq::ClientBroker::Result;

    static constexpr const char* kStopPluginCommand = "StopPlugin";
    static constexpr uint32_t kStopWaitMs = 30000;

    PluginInstance(const PluginDetails& pluginDetails, const BrokerContext& brokerContext);
    // Does not stop anything: the owner suspends first.
    virtual ~PluginInstance();
    PluginInstance(const PluginInstance&) = delete;
    PluginInstance& operator=(const PluginInstance&) = delete;

    // The broker first, then, if the host program is trusted, the host process.
    void Start();
    void StartClientHandler();
    void StartHostProcess();
    // Stops the plugin: "StopPlugin", then a wait of up to 30 s (waitForExit) or Kill. A wait that
    // times out returns at once and leaves the broker running and the process alive.
    void Suspend(bool waitForExit);
    bool IsHostExeValid();

    void OnVEQNotification(VEQNotificationData& data);
    bool notifyPlugin(Notification& notification);
    bool notifyPluginAndWaitForResponse(Message& request, Result& response);

    std::wstring getPluginID() const;
    std::string getPluginName() const;
    const std::list<PluginCommand>& getCommands() const;
    ElevationType getElevationType() const;
    PluginSourceType getPluginSourceType() const;
    IPluginHostProcess* getPluginHostProcess() const { return hostProcess_; }
    PluginClientBroker* getClientBroker() const { return clientBroker_; }
    // Whether the host process runs; false before one was started.
    bool isPluginRunning();

private:
    PluginDetails pluginDetails_;
    PluginClientBroker* clientBroker_ = nullptr;
    IPluginHostProcess* hostProcess_ = nullptr;
    BrokerContext brokerContext_;
    Log log;
};

}  // namespace VEQ
