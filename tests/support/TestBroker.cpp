#include "tests/support/TestBroker.h"

#include <stdexcept>

namespace VEQ::Test {

BrokerContext MakeBrokerContext(ElevationType side)
{
    BrokerContext context;
    context.setConnectionMethod(ConnectionMethod::LocalSocket);
    context.setElevationType(side);
    context.setExtensionType(Tavrin::Veq::ClientBroker::ExtensionType::App);
    return context;
}

ClientContext MakeClientContext(const std::string& extensionId)
{
    ClientContext context;
    context.extensionId = extensionId;
    context.extensionName = "Test " + extensionId;
    context.extensionVersion = "1.0";
    context.sdkVersion = "1.2.3";
    context.sdkLanguage = "C++";
    return context;
}

EchoHandler::EchoHandler(std::string command, std::shared_ptr<std::atomic<int>> calls)
    : names_{std::move(command)}, calls_(std::move(calls))
{
}

EchoHandler::Result EchoHandler::GetResponse(const ClientRequest& request, bool& /*pendingOperation*/)
{
    if (calls_) {
        ++*calls_;
    }
    const auto& message = request.getMessage();
    return Succeeded(message, "Receive-" + message.notification.command, message.notification.payload);
}

BlockingHandler::BlockingHandler(std::string command, std::shared_future<void> release,
                                 std::shared_ptr<std::promise<void>> finished)
    : EchoHandler(std::move(command)), release_(std::move(release)), finished_(std::move(finished))
{
}

BlockingHandler::Result BlockingHandler::GetResponse(const ClientRequest& request, bool& pendingOperation)
{
    release_.wait();
    Result result = EchoHandler::GetResponse(request, pendingOperation);
    finished_->set_value();
    return result;
}

ThrowingHandler::Result ThrowingHandler::GetResponse(const ClientRequest&, bool&)
{
    throw std::runtime_error("handler failed");
}

}  // namespace VEQ::Test
