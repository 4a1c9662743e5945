#include "tools/veqctl/RegistrationCommand.h"

#include "sdk/ControlClient.h"
#include "tools/veqctl/ExitCode.h"

#include <CLI/CLI.hpp>

#include <ostream>

namespace Veq::Tools {

RegistrationCommand::RegistrationCommand(CLI::App& app, const CommonOptions& common) : common_(common)
{
    subcommand_ = app.add_subcommand(
        "registration", "Say whether the device is registered with the back end, as the registration agent does");
    subcommand_->add_option("STATE", state_, "registered or unregistered")
        ->required()
        ->check(CLI::IsMember({"registered", "unregistered"}));
    subcommand_->footer(std::string("The service records the state and publishes topic 2, state 11 or 12 "
                                    "(docs/registry.md).\n\n") +
                        ExitCodes::Help());
}

bool RegistrationCommand::Selected() const
{
    return subcommand_->parsed();
}

int RegistrationCommand::Run(std::ostream& /*out*/, std::ostream& err) const
{
    Sdk::ControlClient client(Sdk::DataRoot::Resolve(common_.root), common_.Timeout());
    Sdk::ControlClient::Result result;
    if (auto error = client.SetRegistration(state_ == "registered", result)) {
        err << "veqctl: " << error.Message() << "\n";
        return ExitCodes::For(error.Code());
    }
    if (!result.isSuccess) {
        err << "veqctl: the service refused the registration state: " << result.message.statusText << "\n";
        return kRejected;
    }
    return kDone;
}

}  // namespace Veq::Tools
