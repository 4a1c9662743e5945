#pragma once

#include "plugins/IPluginRepository.h"

#include <atomic>
#include <mutex>

namespace VEQ {

// The repository the plugin manager asks; discovery itself is PluginDetailsGenerator's.
class PluginRepository : public IPluginRepository {
public:
    static PluginRepository* GetInstance();
    static void ReleaseInstance();

    PluginRepository(const PluginRepository&) = delete;
    PluginRepository& operator=(const PluginRepository&) = delete;
    ~PluginRepository() override;

    std::vector<PluginDetails*> GetInstalledPlugins() override;

private:
    PluginRepository() = default;

    static std::atomic<PluginRepository*> instance_;
    static std::mutex instanceMutex_;
};

}  // namespace VEQ
