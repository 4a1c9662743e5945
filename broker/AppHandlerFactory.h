#pragma once

#include "broker/IAppHandlerFactory.h"

namespace VEQ {

// An app's whole vocabulary: every command an app broker may offer, in lookup order. Each broker
// creates them all and keeps those that apply to its side.
class AppHandlerFactory : public IAppHandlerFactory {
public:
    std::vector<BaseCommandHandler*> GetHandlers(BrokerContext context, const ClientContext& clientContext,
                                                 Log& log) override;
};

}  // namespace VEQ
