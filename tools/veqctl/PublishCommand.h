#pragma once
// veqctl publish: puts one event on the service's bus through its control socket.

#include "sdk/ControlEvent.h"
#include "tools/veqctl/CommonOptions.h"

#include <iosfwd>
#include <optional>
#include <string>
#include <vector>

namespace CLI {
class App;
class Option;
}

namespace Veq::Tools {

class PublishCommand {
public:
    PublishCommand(CLI::App& app, const CommonOptions& common);
    bool Selected() const;
    int Run(std::ostream& out, std::ostream& err) const;

private:
    // The payload to send: --payload as given, or, with --field, the JSON object it describes.
    // nullopt, with the reason in error, when the command line is wrong.
    std::optional<std::string> Payload(std::string& error) const;

    const CommonOptions& common_;
    CLI::App* subcommand_ = nullptr;
    CLI::Option* topicOption_ = nullptr;
    CLI::Option* stateOption_ = nullptr;
    CLI::Option* payloadOption_ = nullptr;
    Sdk::ControlEvent event_;
    std::vector<std::string> fields_;  // NAME=VALUE, in the order given
};

}  // namespace Veq::Tools
