#pragma once
// veqctl listen: prints the service's pushes, one line of JSON each.

#include "tools/veqctl/CommonOptions.h"

#include <iosfwd>

namespace CLI {
class App;
class Option;
}

namespace Veq::Tools {

class ListenCommand {
public:
    ListenCommand(CLI::App& app, const CommonOptions& common);
    bool Selected() const;
    int Run(std::ostream& out, std::ostream& err) const;

private:
    const CommonOptions& common_;
    CLI::App* subcommand_ = nullptr;
    CLI::Option* timeoutOption_ = nullptr;
    int count_ = 0;
    double timeoutSeconds_ = 0;
};

}  // namespace Veq::Tools
