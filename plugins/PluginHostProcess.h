#pragma once
// The host process of one plugin, started from a copy of the host program named after the
// plugin, in the service's context or in the logged-in user's session (docs/plugins.md).

#include "plugins/IPluginHostProcess.h"
#include "plugins/PluginDetails.h"
#include "platform/log/Log.h"

#include <string>

namespace VEQ {

class PluginHostProcess : public IPluginHostProcess {
public:
    static constexpr uint32_t kNoSession = 0xFFFFFFFF;

    // socketId is the broker's, which outlives this object.
    PluginHostProcess(const PluginDetails& pluginDetails, std::wstring* socketId, ElevationType elevationType);
    PluginHostProcess(const PluginHostProcess& other);
    PluginHostProcess& operator=(const PluginHostProcess&) = delete;
    // Deletes the host copy and its configuration; does not end the process.
    ~PluginHostProcess() override;

    int32_t GetProcessID() override { return processId_; }
    bool IsRunning() override;
    // Success shows in GetProcessID being non-zero.
    void Start() override;
    void Kill() override;
    uint32_t GetUserSessionId() override { return userSessionId_; }
    ElevationType getElevationType() const { return elevationType_; }

    const std::wstring& GetHostExePath() const { return hostExePath_; }

private:
    bool IsPluginExeValid(std::wstring path);
    void CopyPluginConfiguration(const std::wstring& pluginName);
    void CopyRuntimeFiles(const std::wstring& sourceFolder, const std::wstring& destinationFolder,
                          const std::wstring& pluginName);
    void Launch(const std::wstring& commandLine);

    int32_t processId_ = 0;
    PluginDetails pluginDetails_;
    std::wstring* socketId_;
    ElevationType elevationType_;
    std::wstring hostExePath_;
    std::wstring hostConfigPath_;
    uint32_t userSessionId_ = kNoSession;
    Log log;
};

}  // namespace VEQ
