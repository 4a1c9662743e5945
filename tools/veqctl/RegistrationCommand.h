#pragma once
// veqctl registration registered|unregistered: says, as the host's registration agent would,
// whether the device is registered with the back end; the service records it and announces it.

#include "tools/veqctl/CommonOptions.h"

#include <iosfwd>
#include <string>

namespace CLI {
class App;
}

namespace Veq::Tools {

class RegistrationCommand {
public:
    RegistrationCommand(CLI::App& app, const CommonOptions& common);
    bool Selected() const;
    int Run(std::ostream& out, std::ostream& err) const;

private:
    const CommonOptions& common_;
    CLI::App* subcommand_ = nullptr;
    std::string state_;
};

}  // namespace Veq::Tools
