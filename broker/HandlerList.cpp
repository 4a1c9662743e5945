#include "broker/HandlerList.h"

#include <exception>

namespace VEQ {

std::vector<BaseCommandHandler*> HandlerList::Build(const BrokerContext& context, const Creator& create, Log& log,
                                                    const wchar_t* function)
{
    std::vector<BaseCommandHandler*> created;
    std::vector<BaseCommandHandler*> kept;
    try {
        create(created);
    } catch (const std::exception& error) {
        log.e(L"%s Exception: %s", function, error.what());
        for (auto* handler : created) {
            delete handler;
        }
        return kept;
    }
    for (auto* handler : created) {
        if (handler->IsApplicable(context)) {
            kept.push_back(handler);
        } else {
            delete handler;
        }
    }
    return kept;
}

}  // namespace VEQ
