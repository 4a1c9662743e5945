#pragma once

#include "platform/transport/ConnectionDetails.h"
#include "platform/transport/Message.h"
#include "platform/transport/Notification.h"
#include "platform/transport/Result.h"

#include <cstdint>

namespace Tavrin::Veq::ClientBroker {

// Server side of one local socket endpoint. Wait and SendAndWait may run on other threads while
// the rest is called; everything is safe to call from any thread.
class INotificationBase {
public:
    static constexpr uint32_t kInfinite = 0xFFFFFFFF;
    // statusCode of the record that Wait returns when the transport itself failed.
    static constexpr int32_t kWaitFailed = 100;

    virtual ~INotificationBase() = default;

    // Listens on details.endpoint. 0 on success, otherwise an errno value.
    virtual int Start(ConnectionDetails& details) = 0;
    // Blocks until a request arrives, the timeout (ms) passes or Stop is called. A timeout or a stop
    // returns a record with an empty command; a transport failure returns statusCode kWaitFailed.
    virtual Result Wait(uint32_t timeoutMs) = 0;
    // Unblocks Wait and SendAndWait, for good.
    virtual void Stop() = 0;
    // Answers the request that Wait returned last.
    virtual void SendResult(Result& result) = 0;
    // Pushes to the connected client; true when it was handed to at least one client.
    virtual bool SendNotification(Notification& notification) = 0;
    // Sends a request to the client and fills result with its reply.
    virtual bool SendAndWait(Message& message, Result& result) = 0;
};

}  // namespace Tavrin::Veq::ClientBroker
