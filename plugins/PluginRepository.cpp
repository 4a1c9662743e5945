#include "plugins/PluginRepository.h"

#include "plugins/PluginDetailsGenerator.h"

namespace VEQ {

std::atomic<PluginRepository*> PluginRepository::instance_{nullptr};
std::mutex PluginRepository::instanceMutex_;

PluginRepository* PluginRepository::GetInstance()
{
    if (instance_.load() == nullptr) {
        std::lock_guard<std::mutex> lock(instanceMutex_);
        if (instance_.load() == nullptr) {
            instance_ = new PluginRepository();
        }
    }
    return instance_.load();
}

void PluginRepository::ReleaseInstance()
{
    if (instance_.load() != nullptr) {
        std::lock_guard<std::mutex> lock(instanceMutex_);
        delete instance_.exchange(nullptr);
    }
}

PluginRepository::~PluginRepository()
{
    PluginDetailsGenerator::ReleaseInstance();
}

std::vector<PluginDetails*> PluginRepository::GetInstalledPlugins()
{
    return PluginDetailsGenerator::GetInstance()->GetInstalledPlugins();
}

}  // namespace VEQ
