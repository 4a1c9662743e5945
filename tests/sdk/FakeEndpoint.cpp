#include "tests/sdk/FakeEndpoint.h"

#include "platform/transport/WireCodec.h"
#include "platform/transport/ZmqServerEndpoint.h"

#include <json/json.h>

#include <stdexcept>
#include <unistd.h>

namespace VEQ::Test {

using Tavrin::Veq::ClientBroker::ConnectionDetails;
using Tavrin::Veq::ClientBroker::INotificationBase;
using Tavrin::Veq::ClientBroker::WireCodec;
using Tavrin::Veq::ClientBroker::ZmqServerEndpoint;

FakeEndpoint::FakeEndpoint(std::string path, Responder responder)
    : path_(std::move(path)), responder_(std::move(responder)), endpoint_(std::make_unique<ZmqServerEndpoint>())
{
    ConnectionDetails details;
    details.method = 1;
    details.endpoint = path_;
    if (endpoint_->Start(details) != 0) {
        throw std::runtime_error("cannot listen on " + path_);
    }
    thread_ = std::thread(&FakeEndpoint::Serve, this);
}

FakeEndpoint::~FakeEndpoint()
{
    Vanish();
}

void FakeEndpoint::Vanish()
{
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (stopping_) {
            return;
        }
        stopping_ = true;
    }
    endpoint_->Stop();
    thread_.join();
    endpoint_.reset();
    ::unlink(path_.c_str());
    ::unlink((path_ + "_notify").c_str());
}

void FakeEndpoint::Serve()
{
    while (true) {
        Result received = endpoint_->Wait(INotificationBase::kInfinite);
        {
            std::lock_guard<std::mutex> lock(mutex_);
            if (stopping_) {
                return;
            }
            requests_.push_back(received.message);
        }
        if (auto answer = responder_(received.message)) {
            endpoint_->SendResult(*answer);
        }
    }
}

std::vector<FakeEndpoint::Message> FakeEndpoint::Requests() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return requests_;
}

FakeEndpoint::Result FakeEndpoint::HandshakeReply(const Message& request, const std::string& callbackConnection)
{
    Json::Value reply(Json::objectValue);
    reply["callbackConnection"] = callbackConnection;
    reply["response"] = "accepted";
    reply["serverVersion"] = "9.9.9";
    return Success(request, WireCodec::Write(reply));
}

FakeEndpoint::Result FakeEndpoint::Success(const Message& request, const std::string& payload)
{
    Result result;
    result.isSuccess = true;
    result.message = request;
    result.message.notification.payload = payload;
    return result;
}

}  // namespace VEQ::Test
