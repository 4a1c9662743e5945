#pragma once
// One discovered plugin: where it came from, its manifest, in which contexts it can run, for
// which platform it starts and where its entry file lies. All of it is decided once, when the
// object is made, from the manifest and the machine as it is then.

#include "plugins/PluginManifest.h"
#include "plugins/PluginMode.h"
#include "plugins/PluginSourceType.h"

#include <string>

namespace VEQ {

class PluginDetails {
public:
    // Below the common data folder.
    static const std::wstring pluginRepositoryPath_;

    PluginDetails(PluginSourceType sourceType, const PluginManifest& manifest);
    virtual ~PluginDetails() = default;
    PluginDetails(const PluginDetails&) = default;
    PluginDetails& operator=(const PluginDetails&) = default;

    PluginSourceType getSourceType() const { return sourceType; }
    void setSourceType(PluginSourceType value) { sourceType = value; }
    // "Embedded", "Downloaded", or empty for any other value.
    std::wstring getSourceTypeAsString() const;
    // Either text in any letter case; anything else is Embedded.
    static PluginSourceType getSourceTypeAsEnum(const std::string& text);

    PluginMode getMode() const { return mode; }
    const std::wstring& getPlatform() const { return platform; }
    void setPlatform();
    const PluginManifest& getPluginManifest() const { return manifest; }
    void setPluginManifest(const PluginManifest& value) { manifest = value; }
    const std::wstring& getPluginFullPath() const { return pluginFullPath; }
    // The folder of the entry file (not the plugin's root when the entry lies in a subfolder).
    std::wstring getDirectory() const;

    // Whether the product has plugin hosts for platform ("x64" or "ARM64").
    bool isPluginHostsPathPresent(const std::wstring& platformName) const;
    // Whether the block(s) that mode runs name an ARM64 entry.
    bool IsARM64PluginPathPresent(const PluginMode& pluginMode) const;

private:
    void setMode();
    void setDirectory();

    PluginSourceType sourceType;
    PluginManifest manifest;
    PluginMode mode = PluginMode::None;
    std::wstring platform;
    std::wstring pluginFullPath;
};

}  // namespace VEQ
