#include "platform/transport/ZmqContext.h"

namespace Tavrin::Veq::ClientBroker {
namespace {

zmq::context_t& Instance()
{
    static zmq::context_t* context = [] {
        auto* created = new zmq::context_t(1);
        created->set(zmq::ctxopt::blocky, false);
        return created;
    }();
    return *context;
}

}  // namespace

zmq::context_t& ZmqContext::Get()
{
    return Instance();
}

void ZmqContext::Terminate()
{
    Instance().close();
}

}  // namespace Tavrin::Veq::ClientBroker
