#pragma once
// veqctl diagnostics: asks the service to collect diagnostics from its plugins into a folder, and
// prints one line of JSON per plugin and side.

#include "tools/veqctl/CommonOptions.h"

#include <iosfwd>
#include <string>

namespace CLI {
class App;
}

namespace Veq::Tools {

class DiagnosticsCommand {
public:
    DiagnosticsCommand(CLI::App& app, const CommonOptions& common);
    bool Selected() const;
    int Run(std::ostream& out, std::ostream& err) const;

private:
    const CommonOptions& common_;
    CLI::App* subcommand_ = nullptr;
    std::string plugin_;
    std::string folder_;
};

}  // namespace Veq::Tools
