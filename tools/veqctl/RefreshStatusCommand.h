#pragma once
// veqctl refresh-status CODE: an agent that refreshes the policy for the service reports how the
// refresh ended (host config policy.refresh "external", docs/policy.md).

#include "tools/veqctl/CommonOptions.h"

#include <iosfwd>

namespace CLI {
class App;
}

namespace Veq::Tools {

class RefreshStatusCommand {
public:
    RefreshStatusCommand(CLI::App& app, const CommonOptions& common);
    bool Selected() const;
    int Run(std::ostream& out, std::ostream& err) const;

private:
    const CommonOptions& common_;
    CLI::App* subcommand_ = nullptr;
    int status_ = 0;
};

}  // namespace Veq::Tools
