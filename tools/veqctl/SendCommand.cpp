#include "tools/veqctl/SendCommand.h"

#include "platform/transport/WireCodec.h"
#include "sdk/AppClient.h"
#include "tools/veqctl/ExitCode.h"

#include <CLI/CLI.hpp>

#include <ostream>

namespace Veq::Tools {

SendCommand::SendCommand(CLI::App& app, const CommonOptions& common) : common_(common)
{
    subcommand_ = app.add_subcommand("send", "Send one command to the service and print its Result as one line of JSON");
    subcommand_->add_option("COMMAND", command_, "The command, exactly as the service names it, e.g. Get-VeqStatus")
        ->required();
    subcommand_->add_option("PAYLOAD", payload_, "The command's payload: the text of a JSON object")
        ->capture_default_str();
    subcommand_->add_option("--target", targetId_, "Route the command to the client with this extension id");
    subcommand_->add_option("--target-name", targetName_, "The target's display name, used in error texts");
    subcommand_->footer(ExitCodes::Help());
}

bool SendCommand::Selected() const
{
    return subcommand_->parsed();
}

int SendCommand::Run(std::ostream& out, std::ostream& err) const
{
    Sdk::AppClient client(common_.ClientOptions());
    Sdk::AppClient::Result result;
    if (auto error = client.Send(command_, payload_, result, targetId_, targetName_)) {
        err << "veqctl: " << error.Message() << "\n";
        return ExitCodes::For(error.Code());
    }
    out << Tavrin::Veq::ClientBroker::WireCodec::EncodeResult(result) << "\n";
    return kDone;
}

}  // namespace Veq::Tools
