#pragma once
// The host program of one plugin: connects to the plugin's broker, learns which plugin it hosts,
// loads the plugin's library and serves it until "StopPlugin" or until the service goes away.

#include "sdk/plugin/veq_plugin.h"

#include "platform/transport/ClientConnection.h"

#include <json/json.h>

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>

namespace VEQ {

class Log;

struct PluginHostOptions {
    std::string hostPath;
    std::string socketPath;
    uint32_t servicePid = 0;
    std::string pluginName;
};

class PluginHost {
public:
    // Exit codes of the host program.
    enum ExitCode : int {
        kStopped = 0,          // stopped by "StopPlugin" or because the service went away
        kUsage = 2,            // wrong command line
        kNoBroker = 3,         // the broker could not be reached
        kNoContext = 4,        // the broker's answers about the plugin were missing or unreadable
        kPluginUnloadable = 5, // the plugin's library is missing, not loadable, or lacks its entry
        kPluginRefused = 6,    // the plugin's entry refused to start
    };

    PluginHost(PluginHostOptions options, Log& log);
    ~PluginHost();
    PluginHost(const PluginHost&) = delete;
    PluginHost& operator=(const PluginHost&) = delete;

    int Run();

    // Parses "<host path> <socket path> <service pid> <plugin name>", the host path being argv[0].
    static bool ParseCommandLine(int argc, char** argv, PluginHostOptions& options, std::string& error);

private:
    struct Identity {
        std::string pluginId;
        std::string pluginName;
        std::string directory;
        std::string entryFile;
        std::string side;
    };

    bool Learn(Identity& identity);
    bool Ask(const std::string& command, const std::string& payload, Json::Value& reply);
    std::string EntryFileName(const Json::Value& details, const std::string& side) const;
    int LoadAndStart(const Identity& identity);
    void WatchService();
    void RequestStop(const char* why);
    void WaitForStop();

    static int Send(veq_host* host, const char* command, const char* payload, const char* targetId,
                    uint32_t timeoutMs, char** resultJson);
    static void FreeText(char* text);
    static void WriteLog(veq_host* host, int level, const char* text);

    PluginHostOptions options_;
    Log& log_;
    Tavrin::Veq::ClientBroker::ClientConnection connection_;
    veq_host_api api_{};
    veq_plugin_callbacks callbacks_{};
    Identity identity_;

    std::mutex mutex_;  // guards stopReason_
    std::condition_variable stopRequested_;
    std::string stopReason_;
};

}  // namespace VEQ
