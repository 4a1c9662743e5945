#include "tools/veqctl/RefreshStatusCommand.h"

#include "sdk/ControlClient.h"
#include "tools/veqctl/ExitCode.h"

#include <CLI/CLI.hpp>

#include <ostream>

namespace Veq::Tools {

RefreshStatusCommand::RefreshStatusCommand(CLI::App& app, const CommonOptions& common) : common_(common)
{
    subcommand_ = app.add_subcommand("refresh-status",
                                     "Report how a policy refresh made outside the service ended (0 or 11 to 14)");
    subcommand_->add_option("CODE", status_, "0 success, 11 certificate expired, 12 not registered, 13 fetch failed, "
                                             "14 too soon")
        ->required();
    subcommand_->footer(std::string("Only a refresh that the service asked for on its bus (topic 4, state 24) takes "
                                    "a report; see docs/policy.md.\n\n") +
                        ExitCodes::Help());
}

bool RefreshStatusCommand::Selected() const
{
    return subcommand_->parsed();
}

int RefreshStatusCommand::Run(std::ostream& /*out*/, std::ostream& err) const
{
    Sdk::ControlClient client(Sdk::DataRoot::Resolve(common_.root), common_.Timeout());
    Sdk::ControlClient::Result result;
    if (auto error = client.SetRefreshStatus(status_, result)) {
        err << "veqctl: " << error.Message() << "\n";
        return ExitCodes::For(error.Code());
    }
    if (!result.isSuccess) {
        err << "veqctl: the service did not take the report: " << result.message.statusText << "\n";
        return kRejected;
    }
    return kDone;
}

}  // namespace Veq::Tools
