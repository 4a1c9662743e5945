// veqd: the device-management host service that loads the extension module.

#include "daemon/VeqDaemon.h"
#include "platform/process/OpenFileLimit.h"
#include "platform/process/SignalWaiter.h"
#include "platform/transport/ZmqContext.h"

#include <CLI/CLI.hpp>

#include <csignal>
#include <cstdio>

int main(int argc, char** argv)
{
    VEQ::DaemonOptions options;
    CLI::App app{"veqd: the device-management service that gives local apps and plugins their way in.\n"
                 "Runs in the foreground until SIGTERM or SIGINT."};
    app.add_option("--root", options.root,
                   "Directory for all state: registry, sockets, logs, policy "
                   "(default: /var/lib/veq for root, else ~/.local/state/veq)");
    app.add_option("--policy", options.policyPath,
                   "Configuration policy file, watched for changes (default: <root>/policy.json; "
                   "a built-in policy that enables apps on both sides is used while it does not exist)");
    app.add_option("--config", options.configPath,
                   "Host configuration file (default: <root>/veqd.json if present); see docs/veqd.md");
    CLI11_PARSE(app, argc, argv);

    // Before any thread exists, so that only the main thread receives these.
    VEQ::SignalWaiter::Block({SIGTERM, SIGINT, SIGHUP});
    // Each client connection holds descriptors: the service runs at its hard limit.
    VEQ::OpenFileLimit::RaiseToHard();

    VEQ::VeqDaemon daemon(options);
    std::string error;
    if (!daemon.Start(error)) {
        std::fprintf(stderr, "veqd: %s\n", error.c_str());
        return 1;
    }
    std::printf("veqd: serving on %s (policy: %s, control socket: %s)\n", daemon.Root().c_str(),
                daemon.PolicyPath().c_str(), daemon.ControlSocketPath().c_str());
    std::fflush(stdout);

    int signal = 0;
    do {
        signal = VEQ::SignalWaiter::Wait();
    } while (signal == SIGHUP);  // no reload needed: policy changes are picked up as they happen

    daemon.Stop();
    Tavrin::Veq::ClientBroker::ZmqContext::Terminate();
    const int threads = VEQ::SignalWaiter::ThreadCount();
    if (threads > 1) {
        std::string names;
        for (const auto& name : VEQ::SignalWaiter::ThreadNames()) {
            names += " " + name;
        }
        std::fprintf(stderr, "veqd: stopped, but %d threads still run:%s\n", threads - 1, names.c_str());
        return 3;
    }
    std::printf("veqd: stopped\n");
    return 0;
}
