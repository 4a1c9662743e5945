#pragma once
// Discovery: reads the manifests of embedded, add-on and repository plugins, keeps those whose
// code is signed by a trusted signer, and tidies the repository and the host copies on the way
// (docs/plugins.md says what is deleted and what never is).

#include "plugins/PluginSourceType.h"
#include "platform/log/Log.h"

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

namespace VEQ {

class PluginDetails;

class PluginDetailsGenerator {
public:
    static PluginDetailsGenerator* GetInstance();
    static void ReleaseInstance();

    PluginDetailsGenerator(const PluginDetailsGenerator&) = delete;
    PluginDetailsGenerator& operator=(const PluginDetailsGenerator&) = delete;
    virtual ~PluginDetailsGenerator() = default;

    // Embedded first, then add-ons, then the repository, as the policy's enabledPluginType allows.
    std::vector<PluginDetails*> GetInstalledPlugins();

    virtual bool getDecodedManifest(const std::wstring& encoded, std::wstring& decoded);
    virtual bool ValidatePlugin(PluginDetails* details);
    virtual int32_t GetManifestFileList(std::vector<std::wstring>& files, const std::wstring& folder);

    // An installation of this plugin is under way in this process.
    bool IsPluginLocked(const std::wstring& pluginId);

    // Manifests larger than this are refused unread.
    static constexpr size_t kMaxManifestBytes = 16 * 1024 * 1024;

protected:
    PluginDetailsGenerator();

    void GetEmbeddedPlugins(std::vector<PluginDetails*>& plugins);
    void GetDownloadedPlugins(std::vector<PluginDetails*>& plugins);
    void FillPluginDetailsFromManifest(const std::wstring& document, PluginSourceType source,
                                       std::vector<PluginDetails*>& plugins);
    bool LoadManifest(const std::wstring& path, std::wstring& content);
    void cleanUpPluginHostFolder(std::vector<PluginDetails*> plugins);

private:
    static std::wstring RepositoryPath();
    // Whether the plugin's paths stay inside its plugin folder: an id or entry that climbs out
    // with ".." or a separator would send every later file operation elsewhere.
    bool StaysInsideItsRoot(const PluginDetails& details);
    static bool IsDuplicate(const PluginDetails& details, const std::vector<PluginDetails*>& plugins);

    Log log_;

    static std::atomic<PluginDetailsGenerator*> instance_;
    static std::mutex instanceMutex_;
};

}  // namespace VEQ
