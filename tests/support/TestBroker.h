#pragma once
// A broker with handlers chosen by the test, and handlers that show what the broker did.

#include "broker/BaseClientBroker.h"
#include "broker/BaseCommandHandler.h"
#include "platform/string/String.h"

#include <atomic>
#include <future>
#include <memory>
#include <string>
#include <vector>

namespace VEQ::Test {

class TestBroker : public BaseClientBroker {
public:
    TestBroker(const BrokerContext& broker, const ClientContext& client) : BaseClientBroker(broker, client) {}
    // Takes ownership; call before StartServer.
    void AddHandler(BaseCommandHandler* handler)
    {
        std::lock_guard<std::mutex> lock(handlersMutex);
        handlers.push_back(handler);
    }
    std::string SocketPath() { return String::UTF16ToUTF8(get_soketID()); }
    void OnVEQNotification(VEQNotificationData& data) { RelayMqttMessage(data); }
};

BrokerContext MakeBrokerContext(ElevationType side);
ClientContext MakeClientContext(const std::string& extensionId);

// Answers command with "Receive-" + command and the request's payload; counts its calls.
class EchoHandler : public BaseCommandHandler {
public:
    explicit EchoHandler(std::string command, std::shared_ptr<std::atomic<int>> calls = nullptr);
    Result GetResponse(const ClientRequest& request, bool& pendingOperation) override;
    const std::vector<std::string>& GetSupportedCommandNames() override { return names_; }
    ElevationType GetSupportedContext() override { return ElevationType::Both; }
    ExtensionType GetSupportedExtensionType() override { return ExtensionType::Both; }

private:
    std::vector<std::string> names_;
    std::shared_ptr<std::atomic<int>> calls_;
};

// Blocks until released, then answers; tells when it has answered.
class BlockingHandler : public EchoHandler {
public:
    BlockingHandler(std::string command, std::shared_future<void> release, std::shared_ptr<std::promise<void>> finished);
    Result GetResponse(const ClientRequest& request, bool& pendingOperation) override;

private:
    std::shared_future<void> release_;
    std::shared_ptr<std::promise<void>> finished_;
};

// Lets an exception escape, which ends the broker's worker.
class ThrowingHandler : public EchoHandler {
public:
    explicit ThrowingHandler(std::string command) : EchoHandler(std::move(command)) {}
    Result GetResponse(const ClientRequest& request, bool& pendingOperation) override;
};

}  // namespace VEQ::Test
