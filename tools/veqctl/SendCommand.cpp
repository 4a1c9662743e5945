#include "tools/veqctl/SendCommand.h"

#include "platform/transport/WireCodec.h"
#include "sdk/AppClient.h"
#include "tools/veqctl/ExitCode.h"

#include <CLI/CLI.hpp>

#include <chrono>
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
    subcommand_->add_option("--listen", listenSeconds_,
                            "After the result, keep this connection open this many seconds and print each push it "
                            "gets, one line of JSON each (a pending operation's final result comes only here)")
        ->check(CLI::PositiveNumber);
    subcommand_->add_option("--until", untilCommand_, "With --listen: stop after the first push of this command");
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
    out << Tavrin::Veq::ClientBroker::WireCodec::EncodeResult(result) << std::endl;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(static_cast<int64_t>(listenSeconds_ * 1000));
    while (listenSeconds_ > 0) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) {
            break;
        }
        if (auto push = client.NextPush(left)) {
            out << Tavrin::Veq::ClientBroker::WireCodec::Write(Tavrin::Veq::ClientBroker::WireCodec::ToJson(*push))
                << std::endl;
            if (!untilCommand_.empty() && push->command == untilCommand_) {
                return kDone;
            }
        }
    }
    if (!untilCommand_.empty() && listenSeconds_ > 0) {
        err << "veqctl: no \"" << untilCommand_ << "\" came within " << listenSeconds_ << " s\n";
        return kTimedOut;
    }
    return kDone;
}

}  // namespace Veq::Tools
