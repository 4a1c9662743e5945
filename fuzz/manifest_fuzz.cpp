// Feeds bytes to the plugin manifest reader the way discovery does: as a manifest document whose
// "plugins" array is deserialised element by element into plugin details. Nothing may crash,
// leak or hang; malformed elements end their document with a logged exception.

#include "plugins/PluginDetails.h"
#include "plugins/PluginDetailsGenerator.h"
#include "platform/Platform.h"
#include "platform/string/String.h"

#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

// Discovery's reader with the signature gate open, so that every element reaches the model.
class ManifestReader : public VEQ::PluginDetailsGenerator {
public:
    bool ValidatePlugin(VEQ::PluginDetails* /*details*/) override { return true; }

    void Read(const std::string& bytes)
    {
        std::vector<VEQ::PluginDetails*> plugins;
        FillPluginDetailsFromManifest(VEQ::String::UTF8ToUTF16(bytes), VEQ::PluginSourceType::Downloaded, plugins);
        FillPluginDetailsFromManifest(VEQ::String::UTF8ToUTF16(bytes), VEQ::PluginSourceType::Embedded, plugins);
        for (VEQ::PluginDetails* plugin : plugins) {
            delete plugin;
        }
    }
};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/)
{
    // Logs and roots below a private folder, never the machine's.
    std::string root = "/tmp/veq-manifest-fuzz-XXXXXX";
    if (mkdtemp(root.data()) == nullptr) {
        std::abort();
    }
    VEQ::PlatformPaths paths;
    paths.dataRoot = VEQ::String::UTF8ToUTF16(root);
    paths.logRoot = L"/dev/null/none";  // no log file can open there: logging costs nothing
    paths.systemRoot = paths.dataRoot + L"/system";
    VEQ::Platform::Install(paths);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static ManifestReader* reader = new ManifestReader();
    reader->Read(std::string(reinterpret_cast<const char*>(data), size));
    return 0;
}
