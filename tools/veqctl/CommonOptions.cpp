#include "tools/veqctl/CommonOptions.h"

#include <CLI/CLI.hpp>

namespace Veq::Tools {

void CommonOptions::Register(CLI::App& app)
{
    app.add_option("--root", root,
                   "The service's data root (default: $VEQ_ROOT, else your state folder if a service of yours "
                   "runs there, else /var/lib/veq)");
    app.add_option("--side", side, "The side to connect to: user or elevated")
        ->check(CLI::IsMember({"user", "elevated"}))
        ->capture_default_str();
    app.add_option("--id", id, "The extension id this tool introduces itself with")->capture_default_str();
    app.add_option("--name", name, "The extension name this tool introduces itself with")->capture_default_str();
    app.add_option("--timeout", timeoutSeconds, "Seconds to wait for each answer of the service")
        ->check(CLI::PositiveNumber)
        ->capture_default_str();
}

std::chrono::milliseconds CommonOptions::Timeout() const
{
    return std::chrono::milliseconds(static_cast<int64_t>(timeoutSeconds * 1000));
}

Sdk::AppClientOptions CommonOptions::ClientOptions() const
{
    Sdk::AppClientOptions options;
    options.dataRoot = root;
    options.side = side == "elevated" ? Sdk::Side::Elevated : Sdk::Side::User;
    options.extensionId = id;
    options.extensionName = name;
    options.extensionVersion = VEQCTL_VERSION;
    options.timeout = Timeout();
    return options;
}

}  // namespace Veq::Tools
