#pragma once

#include "broker/BrokerContext.h"
#include "broker/ClientContext.h"
#include "broker/PluginInstanceDetails.h"
#include "platform/log/Log.h"
#include "platform/transport/Message.h"
#include "platform/transport/Result.h"

#include <cstdint>
#include <string>

namespace VEQ {

// Routes a message addressed to another client (a plugin or an app) and builds the failure when
// no target can take it. A small value, made for each call; the log may be null.
class HandleTargetedRequestHelper {
public:
    using Message = Tavrin::Veq::ClientBroker::Message;
    using Result = Tavrin::Veq::ClientBroker::Result;

    static constexpr int32_t kTargetNotFoundCode = 17002;
    static constexpr int32_t kTargetNotRunningCode = 17003;
    static constexpr int32_t kCommandNotSupportedByTargetCode = 17004;
    static constexpr const char* kBrokerSource = "ExtensionBroker";

    explicit HandleTargetedRequestHelper(Log* log) : log_(log) {}

    // True when a running plugin that declares the command got the message; result is then its
    // reply (a failure too), stamped as the plugin's. timeoutMs 0: no limit. elevation None: the
    // side is read from the target's name.
    bool HandleTargetedPluginRequest(Message& message, Result& result, const BrokerContext& brokerContext,
                                     const ClientContext& clientContext, PluginInstanceDetails* found,
                                     uint32_t timeoutMs, ElevationType elevation);
    // True when an app of the target's id took the message; result is then its reply.
    bool HandleTargetedAppRequest(Message& message, Result& result, const BrokerContext& brokerContext,
                                  const ClientContext& clientContext, uint32_t timeoutMs);
    void BuildTargetErrorResult(const Message& message, const PluginInstanceDetails& details, Result& result,
                                const std::string& source) const;

    // Who sends a routed message, as the target sees it.
    static void FillSenderFields(Message& message, const BrokerContext& brokerContext,
                                 const ClientContext& clientContext);

private:
    bool SendToPlugin(const PluginInstanceDetails& details, ElevationType elevation, Message& message, Result& result);
    static bool SendToApp(Message& message, Result& result);

    Log* log_;
};

}  // namespace VEQ
