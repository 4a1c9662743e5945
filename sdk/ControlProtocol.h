#pragma once
// The service's control socket, <data root>/control: the endpoint of docs/protocol.md, open only
// to the service's own user, through which tools put events on the service's bus and watch it.
//
// Request: a Message with command "Publish-Event" and as payload the text of a JSON object
//   {"topic": int, "state": int, "payload": string, "extension": bool, "mqttTopic": string,
//    "messageType": string, "actionType": string}
// "topic" and "state" are required unless "extension" is true; "mqttTopic" is required when it is.
// The others are optional. Result: isSuccess true once every subscriber has seen the event;
// isSuccess false with statusCode 400 for bad input, -1 for an unknown command.
//
// Request: command "List-Plugins", payload "{}". Result: isSuccess true, and as payload
//   {"plugins": [{"id", "name", "source": "Embedded"|"Downloaded", "version", "mode":
//                 "user"|"system"|"both"|"none", "allowed": bool, "whyNot": string}],
//    "instances": [{"id", "source", "side": "user"|"elevated", "session": int|null, "pid": int,
//                   "running": bool}]}
// as the plugin manager sees them: the plugins of its last discovery, the instances it owns.
//
// Request: command "Collect-Diagnostics", payload {"folder": string (required, absolute),
// "plugin": string (optional: one plugin id; absent: every running plugin that declares
// "Get-Diagnostics")}. The service asks each
// plugin, on each side it runs on, for its diagnostics (at most 30 s, all at once) and answers
// isSuccess true with the payload
//   {"results": [{"pluginId", "side": "elevated"|"user", "delivered": bool, "timeout": bool,
//                 "success": bool, "deleteFilesOnUpload": bool, "folder"}]}
// where a plugin asked for by id that does not run gives one result with "side" "none" and every
// flag false but deleteFilesOnUpload. isSuccess false with statusCode 400 for bad input.
//
// Request: command "Set-Registration", payload {"registered": bool}: what the host's registration
// agent says of the device. The service records it (docs/registry.md) and announces it on its bus
// (topic 2, state 11 registered or 12 not). isSuccess false with 400 for bad input, 500 when it
// cannot be recorded.
//
// Request: command "Set-RefreshStatus", payload {"status": int}: an agent that refreshes the
// policy for the service (host config policy.refresh "external") reports how the refresh that
// topic 4 state 24 asked for ended: 0, or 11 to 14 (docs/policy.md). isSuccess false with 409
// when no refresh waits for an answer, 400 for bad input.
//
// Monitors: a client that connects the "_notify" channel (hello, then welcome) is sent every
// event of the service's bus, in the order they were published, as a push with command
// "Bus-Event" and as payload the text of a JSON object with every member present:
//   {"sequence": int, "topic": int, "state": int, "payload": string, "extension": bool,
//    "mqttTopic": string, "messageType": string, "actionType": string, "publishFlag": int}
// "sequence" counts the bus's events from 1 since the control socket started: a gap means events
// were lost on the way (a monitor that falls behind loses events; the bus never waits for one),
// a smaller number a service that restarted. Filtering is the monitor's business. Events published
// with "Publish-Event" are forwarded too, possibly after its result. Other push commands may come
// later: skip them.

namespace Veq::Sdk::ControlProtocol {

inline constexpr const char* kSocketName = "control";
inline constexpr const char* kPublishEventCommand = "Publish-Event";
inline constexpr const char* kListPluginsCommand = "List-Plugins";
inline constexpr const char* kCollectDiagnosticsCommand = "Collect-Diagnostics";
inline constexpr const char* kSetRegistrationCommand = "Set-Registration";
inline constexpr const char* kSetRefreshStatusCommand = "Set-RefreshStatus";
inline constexpr const char* kBusEventCommand = "Bus-Event";  // a push to monitors

inline constexpr const char* kTopic = "topic";
inline constexpr const char* kState = "state";
inline constexpr const char* kPayload = "payload";
inline constexpr const char* kExtension = "extension";
inline constexpr const char* kMqttTopic = "mqttTopic";
inline constexpr const char* kMessageType = "messageType";
inline constexpr const char* kActionType = "actionType";
inline constexpr const char* kSequence = "sequence";
inline constexpr const char* kPublishFlag = "publishFlag";

inline constexpr const char* kRegistered = "registered";
inline constexpr const char* kStatus = "status";

inline constexpr int kBadRequestStatus = 400;
inline constexpr int kConflictStatus = 409;
inline constexpr int kFailedStatus = 500;

}  // namespace Veq::Sdk::ControlProtocol
