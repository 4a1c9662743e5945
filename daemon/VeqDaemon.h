#pragma once

#include "daemon/HostConfig.h"

#include <memory>
#include <string>

namespace VEQ {

class ControlServer;
class MosquittoNotificationAgent;
class PolicyFileWatcher;
class SessionWatcher;
struct SessionChange;

struct DaemonOptions {
    std::string root;        // empty: the default data root for this user
    std::string policyPath;  // empty: <root>/policy.json
    std::string configPath;  // empty: <root>/veqd.json, optional
};

// The host service around the module: it provides the platform's parts, loads the module the way
// a host does, and stops everything again.
class VeqDaemon {
public:
    explicit VeqDaemon(DaemonOptions options);
    ~VeqDaemon();

    // False with a message when the service cannot start; nothing is left running then.
    bool Start(std::string& error);
    void Stop();

    const std::string& Root() const { return root_; }
    const std::string& PolicyPath() const { return policyPath_; }
    std::string ControlSocketPath() const;

private:
    bool PrepareRoot(std::string& error);
    void ApplyHostConfig(const HostConfig& config);
    void StartPolicy(const HostConfig::Policy& config);
    void StopPolicy();
    void StartSessionFollowing();
    bool StartMqtt(std::string& error);

    DaemonOptions options_;
    std::string root_;
    std::string policyPath_;
    std::unique_ptr<PolicyFileWatcher> policy_;
    std::shared_ptr<MosquittoNotificationAgent> mqtt_;  // only when the configuration names a broker
    std::unique_ptr<ControlServer> control_;
    std::unique_ptr<SessionWatcher> sessions_;
    bool started_ = false;
};

}  // namespace VEQ
