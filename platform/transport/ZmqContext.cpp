#include "platform/transport/ZmqContext.h"

#include "platform/process/OpenFileLimit.h"

#include <algorithm>

namespace Tavrin::Veq::ClientBroker {
namespace {

zmq::context_t& Instance()
{
    static zmq::context_t* context = [] {
        auto* created = new zmq::context_t(1);
        created->set(zmq::ctxopt::blocky, false);
        // ZeroMQ stops at 1,023 sockets by default, long before the descriptors run out. Every
        // socket holds at least one descriptor, so with the limit at the open-file limit the
        // descriptors are what runs out first, and that is what the service checks before it
        // takes a client.
        const uint64_t files = VEQ::OpenFileLimit::Current();
        const int ceiling = created->get(zmq::ctxopt::socket_limit);
        created->set(zmq::ctxopt::max_sockets, static_cast<int>(std::min<uint64_t>(files, static_cast<uint64_t>(ceiling))));
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
