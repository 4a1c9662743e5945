#pragma once
// veqctl device-key: the device's public key as PEM, for a back end that verifies the device's
// stamps or encrypts data to it (docs/data-protection.md). Read from the service's key folder,
// so it works whether or not the service runs, as the service's own user.

#include "tools/veqctl/CommonOptions.h"

#include <iosfwd>

namespace CLI {
class App;
}

namespace Veq::Tools {

class DeviceKeyCommand {
public:
    DeviceKeyCommand(CLI::App& app, const CommonOptions& common);
    bool Selected() const;
    int Run(std::ostream& out, std::ostream& err) const;

private:
    const CommonOptions& common_;
    CLI::App* subcommand_ = nullptr;
};

}  // namespace Veq::Tools
