#pragma once
// veqctl plugins: what the service's plugin manager knows, as JSON: every plugin it discovered
// (and whether it may run, and why not) and every instance it runs.

#include "tools/veqctl/CommonOptions.h"

#include <iosfwd>

namespace CLI {
class App;
}

namespace Veq::Tools {

class PluginsCommand {
public:
    PluginsCommand(CLI::App& app, const CommonOptions& common);
    bool Selected() const;
    int Run(std::ostream& out, std::ostream& err) const;

private:
    const CommonOptions& common_;
    CLI::App* subcommand_ = nullptr;
};

}  // namespace Veq::Tools
