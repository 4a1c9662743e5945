#include "sdk/ControlClient.h"

#include "platform/string/String.h"
#include "platform/transport/ClientConnection.h"
#include "platform/transport/SocketFile.h"
#include "platform/transport/WireCodec.h"
#include "platform/util/CGuid.h"
#include "sdk/ControlProtocol.h"

#include <json/json.h>

#include <cerrno>
#include <cstring>

namespace Veq::Sdk {
namespace {

using Tavrin::Veq::ClientBroker::ClientConnection;
using Tavrin::Veq::ClientBroker::Message;
using Tavrin::Veq::ClientBroker::SocketFile;
using Tavrin::Veq::ClientBroker::WireCodec;

}  // namespace

ControlClient::ControlClient(DataRoot root, std::chrono::milliseconds timeout)
    : root_(std::move(root)), timeout_(timeout), path_(root_.Path() + "/" + ControlProtocol::kSocketName)
{
}

std::string ControlClient::EncodeEvent(const ControlEvent& event)
{
    namespace P = ControlProtocol;
    Json::Value body(Json::objectValue);
    body[P::kTopic] = event.topic;
    body[P::kState] = event.state;
    body[P::kPayload] = event.payload;
    body[P::kExtension] = event.extension;
    if (event.extension || !event.mqttTopic.empty()) {
        body[P::kMqttTopic] = event.mqttTopic;
    }
    if (!event.messageType.empty()) {
        body[P::kMessageType] = event.messageType;
    }
    if (!event.actionType.empty()) {
        body[P::kActionType] = event.actionType;
    }
    return WireCodec::Write(body);
}

Error ControlClient::Publish(const ControlEvent& event, Result& result)
{
    return Exchange(ControlProtocol::kPublishEventCommand, EncodeEvent(event), result);
}

Error ControlClient::ListPlugins(Result& result)
{
    return Exchange(ControlProtocol::kListPluginsCommand, "{}", result);
}

Error ControlClient::CollectDiagnostics(const std::string& pluginId, const std::string& folder, Result& result)
{
    Json::Value request(Json::objectValue);
    request["folder"] = folder;
    if (!pluginId.empty()) {
        request["plugin"] = pluginId;
    }
    Json::StreamWriterBuilder writer;
    writer["indentation"] = "";
    return Exchange(ControlProtocol::kCollectDiagnosticsCommand, Json::writeString(writer, request), result);
}

Error ControlClient::CheckReachable(const DataRoot& root, const std::string& path)
{
    switch (const int error = SocketFile::Probe(path)) {
    case 0:
        return {};
    case ENOENT:
    case ECONNREFUSED:
        return {ErrorCode::Unreachable, "nothing listens on the control socket " + path + " (" + std::strerror(error) +
                                            "): the service is not running with data root " + root.Describe() +
                                            ". Start it, or name its data root (veqctl --root, or VEQ_ROOT)."};
    case EACCES:
    case EPERM:
        return {ErrorCode::PermissionDenied,
                "permission denied on the control socket " + path +
                    ": it is open only to the service's own user. Run this as that user (for example with sudo)."};
    default:
        return {ErrorCode::Unreachable, "cannot reach the control socket " + path + ": " + std::strerror(error) + "."};
    }
}

Error ControlClient::SetRegistration(bool registered, Result& result)
{
    Json::Value request(Json::objectValue);
    request[ControlProtocol::kRegistered] = registered;
    return Exchange(ControlProtocol::kSetRegistrationCommand, WireCodec::Write(request), result);
}

Error ControlClient::SetRefreshStatus(int status, Result& result)
{
    Json::Value request(Json::objectValue);
    request[ControlProtocol::kStatus] = status;
    return Exchange(ControlProtocol::kSetRefreshStatusCommand, WireCodec::Write(request), result);
}

Error ControlClient::Exchange(const char* command, const std::string& payload, Result& result)
{
    // Checked once rather than waited for: a missing control socket means the service is not there.
    if (Error error = CheckReachable(root_, path_)) {
        return error;
    }
    ClientConnection connection;
    if (!connection.ConnectRequestsOnly(path_, timeout_)) {
        return {ErrorCode::Unreachable, "cannot connect to the control socket: " + connection.LastError()};
    }
    Message request;
    request.guid = VEQ::String::UTF16ToUTF8(VEQ::Utility::CGuid::NewGuid(false));
    request.notification.command = command;
    request.notification.payload = payload;
    auto reply = connection.Send(request, timeout_);
    if (!reply) {
        return {ErrorCode::NoReply, "no answer to \"" + std::string(command) +
                                        "\" from the control socket " + path_ + " within " +
                                        std::to_string(timeout_.count()) +
                                        " ms: the event's subscribers may still be busy with it. Allow a longer "
                                        "timeout, or check the service's log."};
    }
    result = std::move(*reply);
    return {};
}

}  // namespace Veq::Sdk
