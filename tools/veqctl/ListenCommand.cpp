#include "tools/veqctl/ListenCommand.h"

#include "platform/transport/WireCodec.h"
#include "sdk/AppClient.h"
#include "tools/veqctl/ExitCode.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <ostream>

namespace Veq::Tools {
namespace {

using Clock = std::chrono::steady_clock;
using Tavrin::Veq::ClientBroker::WireCodec;

// Pushes are waited for in slices, so that a lost connection is noticed between them.
constexpr auto kSlice = std::chrono::milliseconds(500);

}  // namespace

ListenCommand::ListenCommand(CLI::App& app, const CommonOptions& common) : common_(common)
{
    subcommand_ = app.add_subcommand("listen", "Print the service's pushes to this client, one line of JSON each");
    subcommand_->add_option("--count", count_, "Stop after this many pushes (0: no limit)")
        ->check(CLI::NonNegativeNumber)
        ->capture_default_str();
    timeoutOption_ = subcommand_->add_option("--timeout", timeoutSeconds_,
                                             "Stop listening after this many seconds (default: no limit)")
                         ->check(CLI::PositiveNumber);
    subcommand_->footer(std::string("When the service stops this client (\"StopAppExtension\"), listen prints the "
                                    "push and connects again.\n\n") +
                        ExitCodes::Help());
}

bool ListenCommand::Selected() const
{
    return subcommand_->parsed();
}

int ListenCommand::Run(std::ostream& out, std::ostream& err) const
{
    Sdk::AppClient client(common_.ClientOptions());
    if (auto error = client.Connect()) {
        err << "veqctl: " << error.Message() << "\n";
        return ExitCodes::For(error.Code());
    }
    const bool bounded = timeoutOption_->count() > 0;
    const auto deadline = Clock::now() + std::chrono::milliseconds(static_cast<int64_t>(timeoutSeconds_ * 1000));
    int printed = 0;
    while (count_ == 0 || printed < count_) {
        auto slice = std::chrono::milliseconds(kSlice);
        if (bounded) {
            const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
            if (left.count() <= 0) {
                break;
            }
            slice = std::min(slice, left);
        }
        if (auto push = client.NextPush(slice)) {
            out << WireCodec::Write(WireCodec::ToJson(*push)) << std::endl;
            ++printed;
        }
        if (!client.IsConnected() && (count_ == 0 || printed < count_)) {
            if (auto error = client.Reconnect()) {
                err << "veqctl: " << error.Message() << "\n";
                return ExitCodes::For(error.Code());
            }
        }
    }
    if (count_ > 0 && printed < count_) {
        err << "veqctl: " << printed << " of " << count_ << " pushes arrived within " << timeoutSeconds_
            << " s on the " << common_.side << " side\n";
        return kTimedOut;
    }
    return kDone;
}

}  // namespace Veq::Tools
