#pragma once

#include "broker/IPluginHandlerFactory.h"

namespace VEQ {

// A plugin's whole vocabulary, in lookup order. Each broker creates them all and keeps those
// that apply to its side: a user-side plugin loses the data protection commands.
class PluginHandlerFactory : public IPluginHandlerFactory {
public:
    std::vector<BaseCommandHandler*> GetHandlers(BrokerContext context, const ClientContext& clientContext,
                                                 PluginDetails& pluginDetails, Log& log) override;
};

}  // namespace VEQ
