#include "platform/transport/ZmqContext.h"

namespace Tavrin::Veq::ClientBroker {

zmq::context_t& ZmqContext::Get()
{
    static zmq::context_t* context = [] {
        auto* created = new zmq::context_t(1);
        created->set(zmq::ctxopt::blocky, false);
        return created;
    }();
    return *context;
}

}  // namespace Tavrin::Veq::ClientBroker
