// veqctl: a command line to the service, built on the app SDK.

#include "tools/veqctl/CommonOptions.h"
#include "tools/veqctl/DiagnosticsCommand.h"
#include "tools/veqctl/ExitCode.h"
#include "tools/veqctl/ListenCommand.h"
#include "tools/veqctl/MonitorCommand.h"
#include "tools/veqctl/PluginsCommand.h"
#include "tools/veqctl/PublishCommand.h"
#include "tools/veqctl/SendCommand.h"

#include <CLI/CLI.hpp>

#include <exception>
#include <iostream>

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

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? kDone : kUsage;
    }
    try {
        if (send.Selected()) {
            return send.Run(std::cout, std::cerr);
        }
        if (listen.Selected()) {
            return listen.Run(std::cout, std::cerr);
        }
        if (publish.Selected()) {
            return publish.Run(std::cout, std::cerr);
        }
        if (plugins.Selected()) {
            return plugins.Run(std::cout, std::cerr);
        }
        if (diagnostics.Selected()) {
            return diagnostics.Run(std::cout, std::cerr);
        }
        if (monitor.Selected()) {
            return monitor.Run(std::cout, std::cerr);
        }
    } catch (const std::exception& failure) {
        std::cerr << "veqctl: " << failure.what() << "\n";
        return kFailed;
    }
    return kUsage;
}
