#include "tools/veqctl/PublishCommand.h"

#include "platform/transport/WireCodec.h"
#include "sdk/ControlClient.h"
#include "tools/veqctl/ExitCode.h"

#include <CLI/CLI.hpp>
#include <json/json.h>

#include <memory>
#include <ostream>

namespace Veq::Tools {

PublishCommand::PublishCommand(CLI::App& app, const CommonOptions& common) : common_(common)
{
    subcommand_ = app.add_subcommand(
        "publish", "Put an event on the service's bus through its control socket (as the service's own user)");
    topicOption_ = subcommand_->add_option("--topic", event_.topic, "The event's topic number, e.g. 30 for packages");
    stateOption_ = subcommand_->add_option("--state", event_.state, "The event's state number, e.g. 300 installed");
    payloadOption_ =
        subcommand_->add_option("--payload", event_.payload, "The event's payload text, often a JSON object");
    // One NAME=VALUE per --field: a stray word after it is an error, not another field. The name
    // ends at the first '=', so a value may hold '=' too.
    subcommand_
        ->add_option("--field", fields_,
                     "Set the payload's top-level member NAME to the string VALUE (repeatable); the payload is then "
                     "a JSON object: --payload's, or {} without it")
        ->type_name("NAME=VALUE")
        ->allow_extra_args(false);
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
    std::string payloadError;
    const std::optional<std::string> payload = Payload(payloadError);
    if (!payload) {
        err << "veqctl publish: " << payloadError << "\n";
        return kUsage;
    }
    Sdk::ControlEvent event = event_;
    event.payload = *payload;
    Sdk::ControlClient client(Sdk::DataRoot::Resolve(common_.root), common_.Timeout());
    Sdk::ControlClient::Result result;
    if (auto error = client.Publish(event, result)) {
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

std::optional<std::string> PublishCommand::Payload(std::string& error) const
{
    if (fields_.empty()) {
        return event_.payload;  // sent as typed, JSON or not
    }
    Json::Value object(Json::objectValue);
    if (payloadOption_->count() > 0) {
        // Stricter than the service's reader: text after the object would be lost when the object
        // is written out again, and the user would not see the event they typed.
        Json::CharReaderBuilder builder;
        builder["failIfExtra"] = true;
        const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
        const std::string& text = event_.payload;
        std::string parseErrors;
        bool parsed = false;
        try {
            parsed = reader->parse(text.data(), text.data() + text.size(), &object, &parseErrors);
        } catch (const Json::Exception&) {
            // nested past the reader's limit: no object we could use either
        }
        if (!parsed || !object.isObject()) {
            error = "--field sets members of a JSON object, and --payload is not one: " + text;
            return std::nullopt;
        }
    }
    for (const std::string& field : fields_) {
        const std::size_t equals = field.find('=');
        if (equals == std::string::npos || equals == 0) {
            error = "--field takes NAME=VALUE with a non-empty NAME, not \"" + field + "\"";
            return std::nullopt;
        }
        object[field.substr(0, equals)] = field.substr(equals + 1);
    }
    return Tavrin::Veq::ClientBroker::WireCodec::Write(object);
}

}  // namespace Veq::Tools
