#pragma once
// veqctl monitor: prints the events of the service's bus, one line of JSON each, as the control
// socket forwards them (sdk/ControlProtocol.h, "Bus-Event").

#include "sdk/BusEvent.h"
#include "tools/veqctl/CommonOptions.h"

#include <iosfwd>
#include <string>
#include <vector>

namespace CLI {
class App;
class Option;
}

namespace Veq::Tools {

class MonitorCommand {
public:
    MonitorCommand(CLI::App& app, const CommonOptions& common);
    bool Selected() const;
    int Run(std::ostream& out, std::ostream& err) const;

private:
    bool Wanted(const Sdk::BusEvent& event) const;
    // " (topics 5, 4; any state)", for the line that says the monitor is listening.
    std::string DescribeFilter() const;

    const CommonOptions& common_;
    CLI::App* subcommand_ = nullptr;
    CLI::Option* timeoutOption_ = nullptr;
    std::vector<int> topics_;  // empty: every topic
    std::vector<int> states_;  // empty: every state
    int count_ = 0;
    double timeoutSeconds_ = 0;
};

}  // namespace Veq::Tools
