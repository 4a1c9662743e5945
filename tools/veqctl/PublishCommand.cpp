#include "tools/veqctl/PublishCommand.h"

#include "platform/transport/WireCodec.h"
#include "sdk/ControlClient.h"
#include "tools/veqctl/ExitCode.h"

#include <CLI/CLI.hpp>

#include <ostream>

namespace Veq::Tools {

PublishCommand::PublishCommand(CLI::App& app, const CommonOptions& common) : common_(common)
{
    subcommand_ = app.add_subcommand(
        "publish", "Put an event on the service's bus through its control socket (as the service's own user)");
    topicOption_ = subcommand_->add_option("--topic", event_.topic, "The event's topic number, e.g. 30 for packages");
    stateOption_ = subcommand_->add_option("--state", event_.state, "The event's state number, e.g. 300 installed");
    subcommand_->add_option("--payload", event_.payload, "The event's payload text, often a JSON object");
    subcommand_->add_flag("--extension", event_.extension,
                          "A message as if it came in from the MQTT connection (needs --mqtt-topic)");
    subcommand_->add_option("--mqtt-topic", event_.mqttTopic, "The MQTT topic of an extension event");
    subcommand_->add_option("--message-type", event_.messageType, "The event's message type, e.g. InvokeCommand");
    subcommand_->add_option("--action-type", event_.actionType, "The event's action type, e.g. run");
    subcommand_->footer(std::string("The events and their payloads are listed in docs/events.md.\n\n") +
                        ExitCodes::Help());
}

bool PublishCommand::Selected() const
{
    return subcommand_->parsed();
}

int PublishCommand::Run(std::ostream& out, std::ostream& err) const
{
    if (!event_.extension && (topicOption_->count() == 0 || stateOption_->count() == 0)) {
        err << "veqctl publish: --topic and --state are required (unless --extension)\n";
        return kUsage;
    }
    if (event_.extension && event_.mqttTopic.empty()) {
        err << "veqctl publish: --extension needs --mqtt-topic, the topic the message came in on\n";
        return kUsage;
    }
    Sdk::ControlClient client(Sdk::DataRoot::Resolve(common_.root), common_.Timeout());
    Sdk::ControlClient::Result result;
    if (auto error = client.Publish(event_, result)) {
        err << "veqctl: " << error.Message() << "\n";
        return ExitCodes::For(error.Code());
    }
    out << Tavrin::Veq::ClientBroker::WireCodec::EncodeResult(result) << "\n";
    if (!result.isSuccess) {
        err << "veqctl: the service did not accept the event: " << result.message.statusText << "\n";
        return kRejected;
    }
    return kDone;
}

}  // namespace Veq::Tools
