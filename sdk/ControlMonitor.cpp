#include "sdk/ControlMonitor.h"

#include "platform/transport/ClientConnection.h"
#include "platform/transport/WireCodec.h"
#include "sdk/ControlClient.h"
#include "sdk/ControlProtocol.h"

#include <json/json.h>

#include <algorithm>
#include <sys/stat.h>
#include <thread>

namespace Veq::Sdk {
namespace {

using Tavrin::Veq::ClientBroker::ClientConnection;
using Tavrin::Veq::ClientBroker::Notification;
using Tavrin::Veq::ClientBroker::WireCodec;
namespace P = ControlProtocol;

// Pushes are waited for in slices, so that a service that went away is noticed between them.
constexpr auto kSlice = std::chrono::milliseconds(200);

// Whole numbers only: 5.0 is not what a service of this protocol sends.
bool IsWhole(const Json::Value& value)
{
    return value.type() == Json::intValue || value.type() == Json::uintValue;
}

bool Retryable(ErrorCode code)
{
    // What a restarting service shows for a moment; a refusal by permissions stays as it is.
    return code == ErrorCode::Unreachable;
}

}  // namespace

ControlMonitor::ControlMonitor(DataRoot root, std::chrono::milliseconds timeout)
    : root_(std::move(root)), timeout_(timeout), path_(root_.Path() + "/" + P::kSocketName)
{
}

ControlMonitor::~ControlMonitor()
{
    Close();
}

std::optional<ControlMonitor::FileIdentity> ControlMonitor::SocketIdentity(const std::string& path)
{
    struct stat status {};
    if (::stat(path.c_str(), &status) != 0 || !S_ISSOCK(status.st_mode)) {
        return std::nullopt;
    }
    return FileIdentity{status.st_dev, status.st_ino, status.st_ctim};
}

// Each start of the service binds a new socket file, and a stop replaces it by a plain file or
// removes it: either way not the file this monitor connected to.
bool ControlMonitor::ServiceChanged() const
{
    const auto now = SocketIdentity(path_);
    return !now || !(*now == connectedTo_);
}

Error ControlMonitor::Connect()
{
    if (connection_ && !lost_) {
        return {};
    }
    Close();
    if (Error error = ControlClient::CheckReachable(root_, path_)) {
        return error;
    }
    // Taken before connecting: a restart in between then shows as a change, never the reverse.
    const auto identity = SocketIdentity(path_);
    auto connection = std::make_unique<ClientConnection>();
    if (!identity || !connection->Connect(path_, timeout_)) {
        return {ErrorCode::Unreachable, "cannot watch the service's events on the control socket " + path_ + ": " +
                                            (identity ? connection->LastError() : "it is not a socket")};
    }
    connectedTo_ = *identity;
    connection_ = std::move(connection);
    lost_ = false;
    return {};
}

Error ControlMonitor::Reconnect(const ReconnectPolicy& policy)
{
    Close();
    const int attempts = std::max(1, policy.attempts);
    auto delay = policy.firstDelay;
    for (int attempt = 1;; ++attempt) {
        Error error = Connect();
        if (!error) {
            return error;
        }
        if (!Retryable(error.Code()) || attempt >= attempts) {
            if (attempt > 1) {
                return {error.Code(), error.Message() + " (gave up after " + std::to_string(attempt) + " attempts)"};
            }
            return error;
        }
        std::this_thread::sleep_for(delay);
        delay = std::min(delay * 2, policy.maxDelay);
    }
}

void ControlMonitor::Close()
{
    connection_.reset();
    left_.clear();
    lost_ = false;
}

Error ControlMonitor::Next(std::chrono::milliseconds timeout, std::optional<BusEvent>& event)
{
    event.reset();
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (true) {
        if (connection_ && !lost_ && ServiceChanged()) {
            // What had already come is still handed out, then the loss.
            while (auto push = connection_->NextPush(std::chrono::milliseconds(0))) {
                left_.push_back(std::move(*push));
            }
            connection_.reset();
            lost_ = true;
        }
        if (!left_.empty()) {
            const Notification push = std::move(left_.front());
            left_.pop_front();
            if (Error error = Take(push, event); error || event) {
                return error;
            }
            continue;
        }
        if (!connection_) {
            return {ErrorCode::ConnectionLost,
                    lost_ ? "the service behind the control socket " + path_ +
                                " stopped or restarted; events published since were missed. Reconnect to go on."
                          : "not connected to the control socket " + path_ + ": Connect first."};
        }
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        if (auto push = connection_->NextPush(std::clamp(left, std::chrono::milliseconds(0), kSlice))) {
            if (Error error = Take(*push, event); error || event) {
                return error;
            }
            continue;
        }
        if (left <= kSlice) {
            return {};
        }
    }
}

// Other pushes may come on the channel one day: they are none of a monitor's business.
Error ControlMonitor::Take(const Notification& push, std::optional<BusEvent>& event) const
{
    if (push.command != P::kBusEventCommand) {
        return {};
    }
    BusEvent decoded;
    std::string error;
    if (!Decode(push.payload, decoded, error)) {
        return {ErrorCode::BadReply, "a \"" + std::string(P::kBusEventCommand) + "\" push from " + path_ +
                                         " does not follow the protocol: " + error};
    }
    event = std::move(decoded);
    return {};
}

std::string ControlMonitor::Encode(const BusEvent& event)
{
    Json::Value body(Json::objectValue);
    body[P::kSequence] = Json::UInt64(event.sequence);
    body[P::kTopic] = event.event.topic;
    body[P::kState] = event.event.state;
    body[P::kPayload] = event.event.payload;
    body[P::kExtension] = event.event.extension;
    body[P::kMqttTopic] = event.event.mqttTopic;
    body[P::kMessageType] = event.event.messageType;
    body[P::kActionType] = event.event.actionType;
    body[P::kPublishFlag] = event.publishFlag;
    return WireCodec::Write(body);
}

bool ControlMonitor::Decode(const std::string& payload, BusEvent& event, std::string& error)
{
    const auto body = WireCodec::ParseObject(payload, error);
    if (!body) {
        error = "not a JSON object: " + error;
        return false;
    }
    const Json::Value& sequence = (*body)[P::kSequence];
    if (!IsWhole(sequence) || !sequence.isUInt64()) {
        error = std::string("\"") + P::kSequence + "\" must be a non-negative integer";
        return false;
    }
    event.sequence = sequence.asUInt64();
    struct Number {
        const char* name;
        int* target;
    };
    for (const Number& number : {Number{P::kTopic, &event.event.topic}, Number{P::kState, &event.event.state},
                                 Number{P::kPublishFlag, &event.publishFlag}}) {
        const Json::Value& value = (*body)[number.name];
        if (!IsWhole(value) || !value.isInt()) {
            error = std::string("\"") + number.name + "\" must be an integer";
            return false;
        }
        *number.target = value.asInt();
    }
    struct Text {
        const char* name;
        std::string* target;
    };
    for (const Text& text : {Text{P::kPayload, &event.event.payload}, Text{P::kMqttTopic, &event.event.mqttTopic},
                             Text{P::kMessageType, &event.event.messageType},
                             Text{P::kActionType, &event.event.actionType}}) {
        const Json::Value& value = (*body)[text.name];
        if (!value.isString()) {
            error = std::string("\"") + text.name + "\" must be a string";
            return false;
        }
        *text.target = value.asString();
    }
    const Json::Value& extension = (*body)[P::kExtension];
    if (!extension.isBool()) {
        error = std::string("\"") + P::kExtension + "\" must be true or false";
        return false;
    }
    event.event.extension = extension.asBool();
    return true;
}

}  // namespace Veq::Sdk
