#pragma once

#include "apps/AppExtensionManager.h"
#include "module/IExtensionModule.h"
#include "platform/agents/IVEQAgent.h"
#include "platform/log/Log.h"
#include "plugins/PluginManager.h"

#include <string>

namespace VEQ {

// The one object the host service deals with: it owns the ways by which local clients reach the
// service and starts and stops them in a fixed order. Lives until the process ends.
class ExtensionModule : public IVEQAgent, public IExtensionModule {
public:
    static ExtensionModule* GetInstance();

    void Init(void*& context) override;
    void UnInit() override;
    void FullInit() override;

    AppExtensionManager& GetAppExtensionManager() { return appExtensionManager; }
    // Null when the manager could not be made: the app side then runs alone.
    PluginManager* GetPluginManager() { return pluginManager; }

protected:
    ExtensionModule();
    ~ExtensionModule() override;

private:
    void StartAgents();
    bool AreExtensionsEnabled() const { return true; }
    bool ArePluginsEnabled() const { return true; }
    void CleanUpExtensionFiles();
    bool DeleteDirectoryRecursive(const std::wstring& path);

    AppExtensionManager appExtensionManager;
    PluginManager* pluginManager = nullptr;
    bool fullInitDone = false;
    Log log;
};

}  // namespace VEQ
