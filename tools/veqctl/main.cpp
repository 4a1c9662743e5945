// veqctl: a command line to the service, built on the app SDK.

#include "tools/veqctl/CommonOptions.h"
#include "tools/veqctl/DeviceKeyCommand.h"
#include "tools/veqctl/DiagnosticsCommand.h"
#include "tools/veqctl/ExitCode.h"
#include "tools/veqctl/ListenCommand.h"
#include "tools/veqctl/MonitorCommand.h"
#include "tools/veqctl/PluginsCommand.h"
#include "tools/veqctl/PublishCommand.h"
#include "tools/veqctl/RefreshStatusCommand.h"
#include "tools/veqctl/RegistrationCommand.h"
#include "tools/veqctl/SendCommand.h"

#include <CLI/CLI.hpp>

#include <exception>
#include <iostream>

namespace {

// Runs the one subcommand that was given; kUsage when none was.
template <typename... Commands>
int RunSelected(const Commands&... commands)
{
    int code = Veq::Tools::kUsage;
    ((commands.Selected() ? (code = commands.Run(std::cout, std::cerr), true) : false) || ...);
    return code;
}

}  // namespace

int main(int argc, char** argv)
{
    using namespace Veq::Tools;
    CLI::App app("veqctl: talk to the service as an app does, or put events on its bus and watch them");
    // The common options may also follow the subcommand: veqctl send Get-VeqStatus --side elevated.
    app.fallthrough();
    app.require_subcommand(1);
    app.footer(ExitCodes::Help());
    CommonOptions common;
    common.Register(app);
    SendCommand send(app, common);
    ListenCommand listen(app, common);
    PublishCommand publish(app, common);
    PluginsCommand plugins(app, common);
    DiagnosticsCommand diagnostics(app, common);
    MonitorCommand monitor(app, common);
    RegistrationCommand registration(app, common);
    RefreshStatusCommand refreshStatus(app, common);
    DeviceKeyCommand deviceKey(app, common);

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? kDone : kUsage;
    }
    try {
        return RunSelected(send, listen, publish, plugins, diagnostics, monitor, registration, refreshStatus,
                           deviceKey);
    } catch (const std::exception& failure) {
        std::cerr << "veqctl: " << failure.what() << "\n";
        return kFailed;
    }
    return kUsage;
}
