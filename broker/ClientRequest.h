#pragma once

#include "broker/BrokerContext.h"
#include "broker/ClientContext.h"
#include "platform/transport/Message.h"

namespace VEQ {

// Everything a command handler may look at. Handlers get their own copy.
class ClientRequest {
public:
    using Message = Tavrin::Veq::ClientBroker::Message;

    ClientRequest() = default;
    ClientRequest(const ClientRequest&) = default;
    ClientRequest& operator=(const ClientRequest&) = default;
    virtual ~ClientRequest() = default;

    const BrokerContext& getBrokerContext() const { return brokerContext; }
    const ClientContext& getClientContext() const { return clientContext; }
    const Message& getMessage() const { return message; }
    void setBrokerContext(const BrokerContext& context) { brokerContext = context; }
    void setClientContext(const ClientContext& context) { clientContext = context; }
    void setMessage(const Message& value) { message = value; }

private:
    BrokerContext brokerContext;
    ClientContext clientContext;
    Message message;
};

}  // namespace VEQ
