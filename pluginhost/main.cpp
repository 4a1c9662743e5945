// VEQPluginHost: the process a plugin runs in (docs/plugins.md).
//     <host copy, e.g. .../Hosts/x64/HelloPlugin.exe> SOCKET_PATH SERVICE_PID PLUGIN_NAME

#include "pluginhost/PluginHost.h"
#include "platform/Platform.h"
#include "platform/fs/ProcessDataRoot.h"
#include "platform/fs/utility.h"
#include "platform/log/Log.h"
#include "platform/process/CurrentProcess.h"
#include "platform/string/String.h"

#include <csignal>
#include <cstdio>

int main(int argc, char** argv)
{
    VEQ::PluginHostOptions options;
    std::string error;
    if (!VEQ::PluginHost::ParseCommandLine(argc, argv, options, error)) {
        std::fprintf(stderr, "VEQPluginHost: %s\n", error.c_str());
        return VEQ::PluginHost::kUsage;
    }
    // A broken connection must not end the host through SIGPIPE; it says so and exits instead.
    std::signal(SIGPIPE, SIG_IGN);
    VEQ::PlatformPaths paths;
    paths.dataRoot = VEQ::ProcessDataRoot::ForThisProcess();
    if (paths.dataRoot.empty()) {
        paths.logRoot = L"/nonexistent";  // nowhere to log: the log drops its lines
        paths.dataRoot = L"/nonexistent";
    }
    VEQ::Platform::Install(paths);
    VEQ::Log log;
    const std::wstring logName = L"VEQPluginHost-" + VEQ::String::UTF8ToUTF16(options.pluginName) + L".log";
    if (!VEQ::utility::InitLog(log, logName, VEQ::Log::kDebug)) {
        VEQ::utility::InitLog(log, L"VEQPluginHost.log", VEQ::Log::kDebug);
    }
    VEQ::PluginHost host(options, log);
    const int exitCode = host.Run();
    if (exitCode != VEQ::PluginHost::kStopped) {
        std::fprintf(stderr, "VEQPluginHost: %s: exit %d, see %s\n", options.pluginName.c_str(), exitCode,
                     log.FilePath().c_str());
    }
    // What the plugin started ends with its host. The plugin's threads may still run; they end
    // with the process, without static destructors pulling the ground from under them.
    VEQ::CurrentProcess::EndProcessGroup();
    std::fflush(nullptr);
    std::_Exit(exitCode);
}
