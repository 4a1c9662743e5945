#pragma once

#include "broker/BaseCommandHandler.h"
#include "broker/BrokerContext.h"

#include <functional>
#include <vector>

namespace VEQ {

// How a handler factory builds a broker's list: every handler of its table is created, and those
// that do not apply to the broker's context are dropped. A failure while creating drops them all.
class HandlerList {
public:
    using Creator = std::function<void(std::vector<BaseCommandHandler*>& created)>;

    static std::vector<BaseCommandHandler*> Build(const BrokerContext& context, const Creator& create, Log& log,
                                                  const wchar_t* function);
};

}  // namespace VEQ
