#pragma once
// veqctl send: one command to the service, its result printed as one line of JSON; optionally
// the pushes that follow on the same connection (a deferred result comes only there).

#include "tools/veqctl/CommonOptions.h"

#include <iosfwd>
#include <string>

namespace CLI {
class App;
}

namespace Veq::Tools {

class SendCommand {
public:
    SendCommand(CLI::App& app, const CommonOptions& common);
    bool Selected() const;
    int Run(std::ostream& out, std::ostream& err) const;

private:
    const CommonOptions& common_;
    CLI::App* subcommand_ = nullptr;
    std::string command_;
    std::string payload_ = "{}";
    std::string targetId_;
    std::string targetName_;
    double listenSeconds_ = 0;
    std::string untilCommand_;
};

}  // namespace Veq::Tools
