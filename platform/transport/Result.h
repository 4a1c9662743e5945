#pragma once

#include "platform/transport/Message.h"

namespace Tavrin::Veq::ClientBroker {

// The answer to a Message. A failed reply starts as a copy of the request.
struct Result {
    bool isSuccess = false;
    Message message;
};

}  // namespace Tavrin::Veq::ClientBroker
