#include "tools/veqctl/MonitorCommand.h"

#include "sdk/ControlMonitor.h"
#include "tools/veqctl/ExitCode.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <ostream>

namespace Veq::Tools {
namespace {

using Clock = std::chrono::steady_clock;

// Events are waited for in slices, so that the deadline and a restarted service are noticed.
constexpr auto kSlice = std::chrono::milliseconds(500);
// A monitor is a watcher that outlives restarts: it waits for the service longer than an app does
// (about 20 s in all).
const Sdk::ReconnectPolicy kReconnect{10, std::chrono::milliseconds(200), std::chrono::milliseconds(3000)};

std::string Join(const std::vector<int>& numbers)
{
    std::string text;
    for (int number : numbers) {
        text += (text.empty() ? "" : ", ") + std::to_string(number);
    }
    return text;
}

}  // namespace

MonitorCommand::MonitorCommand(CLI::App& app, const CommonOptions& common) : common_(common)
{
    subcommand_ = app.add_subcommand(
        "monitor", "Print every event of the service's bus, one line of JSON each (as the service's own user)");
    subcommand_->add_option("--topic", topics_, "Only events of this topic (repeatable: any of them)")
        ->allow_extra_args(false);
    subcommand_->add_option("--state", states_, "Only events of this state (repeatable: any of them)")
        ->allow_extra_args(false);
    subcommand_->add_option("--count", count_, "Stop after this many events printed (0: no limit)")
        ->check(CLI::NonNegativeNumber)
        ->capture_default_str();
    timeoutOption_ = subcommand_->add_option("--timeout", timeoutSeconds_,
                                             "Stop monitoring after this many seconds (default: no limit)")
                         ->check(CLI::PositiveNumber);
    subcommand_->footer(
        std::string("Once subscribed, monitor says so on stderr (\"veqctl: monitoring ...\"): every event published "
                    "from then on is printed. Each line is the object of docs/events.md: sequence, topic, state, "
                    "payload, extension, mqttTopic, messageType, actionType, publishFlag. Lost events are told on "
                    "stderr. When the service restarts, monitor connects again and says so.\n\n") +
        ExitCodes::Help());
}

bool MonitorCommand::Selected() const
{
    return subcommand_->parsed();
}

bool MonitorCommand::Wanted(const Sdk::BusEvent& event) const
{
    const auto among = [](const std::vector<int>& wanted, int number) {
        return wanted.empty() || std::find(wanted.begin(), wanted.end(), number) != wanted.end();
    };
    return among(topics_, event.event.topic) && among(states_, event.event.state);
}

std::string MonitorCommand::DescribeFilter() const
{
    return " (" + (topics_.empty() ? std::string("any topic") : "topics " + Join(topics_)) + "; " +
           (states_.empty() ? std::string("any state") : "states " + Join(states_)) + ")";
}

int MonitorCommand::Run(std::ostream& out, std::ostream& err) const
{
    Sdk::ControlMonitor monitor(Sdk::DataRoot::Resolve(common_.root), common_.Timeout());
    if (auto error = monitor.Connect()) {
        err << "veqctl: " << error.Message() << "\n";
        return ExitCodes::For(error.Code());
    }
    // Flushed: a script or a test waits for this line before it publishes.
    err << "veqctl: monitoring the bus through " << monitor.SocketPath() << DescribeFilter() << std::endl;
    const bool bounded = timeoutOption_->count() > 0;
    const auto deadline = Clock::now() + std::chrono::milliseconds(static_cast<int64_t>(timeoutSeconds_ * 1000));
    int printed = 0;
    uint64_t lastSequence = 0;
    while (count_ == 0 || printed < count_) {
        auto slice = std::chrono::milliseconds(kSlice);
        if (bounded) {
            const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
            if (left.count() <= 0) {
                break;
            }
            slice = std::min(slice, left);
        }
        std::optional<Sdk::BusEvent> event;
        const Sdk::Error error = monitor.Next(slice, event);
        if (error.Code() == Sdk::ErrorCode::ConnectionLost) {
            err << "veqctl: the service behind " << monitor.SocketPath()
                << " stopped or restarted; connecting again (events published meanwhile are missed)" << std::endl;
            if (auto again = monitor.Reconnect(kReconnect)) {
                err << "veqctl: " << again.Message() << "\n";
                return ExitCodes::For(again.Code());
            }
            err << "veqctl: monitoring again through " << monitor.SocketPath() << DescribeFilter() << std::endl;
            lastSequence = 0;
            continue;
        }
        if (error) {
            err << "veqctl: " << error.Message() << "\n";
            return ExitCodes::For(error.Code());
        }
        if (!event) {
            continue;
        }
        // Counted over every event, wanted or not: the service numbers them all.
        if (lastSequence != 0 && event->sequence > lastSequence + 1) {
            err << "veqctl: " << event->sequence - lastSequence - 1
                << " events were lost: this monitor fell behind the service" << std::endl;
        }
        lastSequence = event->sequence;
        if (Wanted(*event)) {
            out << Sdk::ControlMonitor::Encode(*event) << std::endl;
            ++printed;
        }
    }
    if (count_ > 0 && printed < count_) {
        err << "veqctl: " << printed << " of " << count_ << " events arrived within " << timeoutSeconds_ << " s\n";
        return kTimedOut;
    }
    return kDone;
}

}  // namespace Veq::Tools
