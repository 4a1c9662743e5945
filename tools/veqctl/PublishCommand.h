#pragma once
// veqctl publish: puts one event on the service's bus through its control socket.

#include "sdk/ControlEvent.h"
#include "tools/veqctl/CommonOptions.h"

#include <iosfwd>

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
    const CommonOptions& common_;
    CLI::App* subcommand_ = nullptr;
    CLI::Option* topicOption_ = nullptr;
    CLI::Option* stateOption_ = nullptr;
    Sdk::ControlEvent event_;
};

}  // namespace Veq::Tools
