#pragma once

#include "broker/BrokerContext.h"
#include "broker/ClientRequest.h"
#include "module/ElevationType.h"
#include "module/ExtensionType.h"
#include "platform/log/Log.h"
#include "platform/transport/Result.h"

#include <atomic>
#include <string>
#include <vector>

namespace VEQ {

// The contract of every command. A broker keeps the handlers whose context applies to it and asks
// the first one that names the command for its response, on a pool thread.
class BaseCommandHandler {
public:
    using Result = Tavrin::Veq::ClientBroker::Result;
    using Message = Tavrin::Veq::ClientBroker::Message;
    using ExtensionType = Tavrin::Veq::ClientBroker::ExtensionType;

    static constexpr int32_t kNotSupportedCode = -1;
    static constexpr const char* kNotSupportedText = "Command not Supported";

    BaseCommandHandler() = default;
    explicit BaseCommandHandler(Log& log) : log_(&log) {}
    BaseCommandHandler(const BaseCommandHandler&) = delete;
    BaseCommandHandler& operator=(const BaseCommandHandler&) = delete;
    virtual ~BaseCommandHandler() = default;

    virtual bool IsApplicable(const BrokerContext& context);
    // pendingOperation: set to true when the command's outcome arrives later as an event.
    virtual Result GetResponse(const ClientRequest& request, bool& pendingOperation) = 0;
    virtual const std::vector<std::string>& GetSupportedCommandNames() = 0;
    virtual ElevationType GetSupportedContext();
    virtual ExtensionType GetSupportedExtensionType();

    // Long-running handlers poll IsStopped; nothing else interrupts them.
    void StopHandler() { stopped_ = true; }
    bool IsStopped() const { return stopped_; }

protected:
    bool Supports(const std::string& command);
    // The handler's answer to a command it does not own.
    Result& NotSupported(Result& result, const Message& request, const wchar_t* function);
    // A successful reply: guid of the request, the reply's name and its JSON.
    static Result Succeeded(const Message& request, const std::string& replyCommand, const std::string& payload);

    Log* log_ = nullptr;

private:
    std::atomic<bool> stopped_{false};
};

}  // namespace VEQ
