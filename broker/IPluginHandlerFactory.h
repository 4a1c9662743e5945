#pragma once

#include "broker/BaseCommandHandler.h"
#include "broker/BrokerContext.h"
#include "broker/ClientContext.h"
#include "platform/log/Log.h"

#include <vector>

namespace VEQ {

class PluginDetails;

class IPluginHandlerFactory {
public:
    virtual ~IPluginHandlerFactory() = default;
    // The handlers that apply to context, in lookup order; the caller owns them.
    virtual std::vector<BaseCommandHandler*> GetHandlers(BrokerContext context, const ClientContext& clientContext,
                                                         PluginDetails& pluginDetails, Log& log) = 0;
};

}  // namespace VEQ
