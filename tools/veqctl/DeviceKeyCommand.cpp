#include "tools/veqctl/DeviceKeyCommand.h"

#include "platform/crypto/DeviceKey.h"
#include "platform/string/String.h"
#include "sdk/DataRoot.h"
#include "tools/veqctl/ExitCode.h"

#include <CLI/CLI.hpp>

#include <cerrno>
#include <ostream>

namespace Veq::Tools {

DeviceKeyCommand::DeviceKeyCommand(CLI::App& app, const CommonOptions& common) : common_(common)
{
    subcommand_ = app.add_subcommand(
        "device-key", "Print the device's public key (PEM), with which a back end verifies its stamps");
    subcommand_->footer(std::string("Verifying a stamp is shown in docs/data-protection.md.\n\n") + ExitCodes::Help());
}

bool DeviceKeyCommand::Selected() const
{
    return subcommand_->parsed();
}

int DeviceKeyCommand::Run(std::ostream& out, std::ostream& err) const
{
    const Sdk::DataRoot root = Sdk::DataRoot::Resolve(common_.root);
    const std::string folder = root.Path() + "/keys";
    std::string error;
    int openError = 0;
    const auto pem = VEQ::DeviceKey::ReadPublicKeyPem(VEQ::String::UTF8ToUTF16(folder), error, &openError);
    if (pem) {
        out << *pem;
        return kDone;
    }
    if (openError == ENOENT) {
        err << "veqctl: no device key in " << folder << " yet: the service makes it when it first starts\n";
    } else if (openError == EACCES) {
        err << "veqctl: " << error << " (run as the service's user; the root is " << root.Describe() << ")\n";
    } else {
        err << "veqctl: " << error << "\n";
    }
    return kFailed;
}

}  // namespace Veq::Tools
