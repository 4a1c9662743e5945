#pragma once

#include "broker/PluginInstanceDetails.h"
#include "platform/log/Log.h"
#include "platform/transport/Message.h"
#include "platform/transport/Result.h"

#include <string>

namespace VEQ {

// Routes a message addressed to another client (a plugin or an app) and builds the failure when
// no target can take it.
class HandleTargetedRequestHelper {
public:
    using Message = Tavrin::Veq::ClientBroker::Message;
    using Result = Tavrin::Veq::ClientBroker::Result;

    static constexpr int32_t kTargetNotFoundCode = 17002;
    static constexpr int32_t kTargetNotRunningCode = 17003;
    static constexpr int32_t kCommandNotSupportedByTargetCode = 17004;

    explicit HandleTargetedRequestHelper(Log* log) : log_(log) {}

    void BuildTargetErrorResult(const Message& message, const PluginInstanceDetails& details, Result& result,
                                const std::string& source) const;

private:
    Log* log_;
};

}  // namespace VEQ
